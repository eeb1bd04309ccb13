// SPDX-License-Identifier: Apache-2.0
// How a word index grows and shrinks under its readers.
//
// The array is written in place as long as that keeps the promise of word_index.h: an entry belongs to its first key
// for ever. An erased key leaves a tombstone that only the same key may fill again. So the array wears out; when half
// of its entries are used, tombstones counted, a fresh one is filled aside from the owner's enumeration and swung in by
// one store, and the old one is retired. The new length is the least power of two that leaves three quarters free, so a
// rebuild pays for at least a quarter of that length in insertions: amortised constant cost.
//
// What must never happen: that an entry is missing although its probes meet an empty entry. place() takes the first
// empty entry in probe order, and no entry ever becomes empty again within an array, so a missing entry's group is full
// for as long as the array lives, and the reader is told to ask elsewhere.
#include "pt/word_index_writer.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace rsw {

std::vector<RecordTypeInfo> word_index_types(RecordType first, uint32_t most_log2, uint32_t memory_type) {
  static constexpr std::string_view names[] = {
      "index 8",     "index 16",    "index 32",    "index 64",  "index 128",  "index 256",  "index 512",
      "index 1Ki",   "index 2Ki",   "index 4Ki",   "index 8Ki", "index 16Ki", "index 32Ki", "index 64Ki",
      "index 128Ki", "index 256Ki", "index 512Ki", "index 1Mi", "index 2Mi",  "index 4Mi",  "index 8Mi"};
  static_assert(std::size(names) == word_index_most_log2 - word_index_least_log2 + 1);
  std::vector<RecordTypeInfo> types;
  for (uint32_t log2 = word_index_least_log2; log2 <= most_log2; ++log2) {
    const uint32_t step = log2 - word_index_least_log2;
    types.push_back({.type = static_cast<RecordType>(first + step),
                     .size = static_cast<uint32_t>(sizeof(WordIndexEntry)) << log2,
                     .align = 64,
                     .memory_type = memory_type,
                     .name = names[step]});
  }
  return types;
}

WordIndexWriter::WordIndexWriter(Arena &arena, RecordType first, uint32_t most_log2, uint32_t *published,
                                 Enumerate enumerate)
    : arena_(arena), first_(first), most_log2_(most_log2), published_(published), enumerate_(std::move(enumerate)) {}

void WordIndexWriter::insert(uint32_t key, uint32_t tag, uint32_t payload) {
  ++live_;
  // The rebuilt array holds the new key as well, because the owner enumerates it.
  if ((entries_ == nullptr || used_ >= 1u << (log2_ - 1)) && rebuild()) return;
  if (entries_ != nullptr) place(key, tag, payload);
}

void WordIndexWriter::fill() {
  live_ = 0;
  enumerate_([this](uint32_t, uint32_t, uint32_t) { ++live_; });
  if (live_ != 0) rebuild();
}

void WordIndexWriter::erase(uint32_t key, uint32_t tag) {
  --live_;
  // Release for symmetry only: a reader does nothing with a tombstone but stop.
  if (WordIndexEntry *entry = slot_of(key, tag)) publish_word(entry->value, word_index_tombstone | tag);
  if (log2_ > word_index_least_log2 && live_ < (1u << log2_) / 16) rebuild();
}

void WordIndexWriter::retire() {
  if (entries_ == nullptr) return;
  publish_word(*published_, 0);
  arena_.retire(static_cast<RecordType>(first_ + log2_ - word_index_least_log2), entries_);
  entries_ = nullptr;
  used_ = live_ = log2_ = 0;
}

WordIndexEntry *WordIndexWriter::slot_of(uint32_t key, uint32_t tag) const {
  if (entries_ == nullptr) return nullptr;
  const uint32_t first = word_index_hash(key, tag) >> (32 - log2_);
  const uint32_t probes = std::min(1u << log2_, word_index_group);
  for (uint32_t i = 0; i < probes; ++i) {
    WordIndexEntry &entry = entries_[first ^ i];
    if (entry.value == 0) return nullptr;
    if (entry.key == key && (entry.value & word_index_tag) == tag) return &entry;
  }
  return nullptr;
}

void WordIndexWriter::place(uint32_t key, uint32_t tag, uint32_t payload) {
  if (WordIndexEntry *entry = slot_of(key, tag)) {
    publish_word(entry->value, payload | tag);  // the tombstone that this key left
    return;
  }
  const uint32_t first = word_index_hash(key, tag) >> (32 - log2_);
  const uint32_t probes = std::min(1u << log2_, word_index_group);
  for (uint32_t i = 0; i < probes; ++i) {
    WordIndexEntry &entry = entries_[first ^ i];
    if (entry.value != 0) continue;
    fill_word(entry.key, key);
    // Release: the key stands before the value does; partner: observe_word in word_index_find.
    publish_word(entry.value, payload | tag);
    ++used_;
    return;
  }
}

bool WordIndexWriter::rebuild() {
  const uint32_t wanted = static_cast<uint32_t>(std::bit_width(std::max(live_, 2u) * 4 - 1));
  const uint32_t log2 = std::clamp(wanted, word_index_least_log2, most_log2_);
  if (entries_ != nullptr && log2 == log2_ && used_ <= live_) return false;  // as long as it gets, and no tombstones
  void *fresh = arena_.allocate(static_cast<RecordType>(first_ + log2 - word_index_least_log2));
  if (fresh == nullptr) return false;
  WordIndexEntry *old = std::exchange(entries_, static_cast<WordIndexEntry *>(fresh));
  const uint32_t old_log2 = std::exchange(log2_, log2);
  used_ = 0;
  enumerate_([this](uint32_t key, uint32_t tag, uint32_t payload) { place(key, tag, payload); });
  // Release: the whole array stands before its address does; partner: the readers' observe_word of the published word.
  publish_word(*published_, address_of(fresh) | log2);
  if (old != nullptr) arena_.retire(static_cast<RecordType>(first_ + old_log2 - word_index_least_log2), old);
  return true;
}

}  // namespace rsw
