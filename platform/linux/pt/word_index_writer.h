// SPDX-License-Identifier: Apache-2.0
// The writer's side of a word index (word_index.h says what readers see).
#ifndef RSW_PT_WORD_INDEX_WRITER_H
#define RSW_PT_WORD_INDEX_WRITER_H

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "pt/word_index.h"
#include "sm/arena.h"

namespace rsw {

// The record types of arrays with 2^least to 2^most entries, each size a type of its own: first, first + 1, ...
std::vector<RecordTypeInfo> word_index_types(RecordType first, uint32_t most_log2, uint32_t memory_type);

class WordIndexWriter {
 public:
  // Takes (key, tag, payload) of each entry that the index shall have; a payload's low two bits are 0, and it is not 0.
  using Sink = std::function<void(uint32_t key, uint32_t tag, uint32_t payload)>;
  // Names every entry to the sink: what a new array is filled from, since an array may lack entries (see insert).
  using Enumerate = std::function<void(const Sink &)>;

  // `published` is the shared word that readers take the index from; it is 0 until the first insert.
  WordIndexWriter(Arena &arena, RecordType first, uint32_t most_log2, uint32_t *published, Enumerate enumerate);

  // The key is among those that enumerate() names already. Never fails: an entry that finds no place (its group is
  // full, or the arena has no room for a longer array) is left out, and readers get word_index_not_known for it.
  void insert(uint32_t key, uint32_t tag, uint32_t payload);
  // One fresh array with all that enumerate() names: for an owner that begins with many keys.
  void fill();
  // enumerate() no longer names the key.
  void erase(uint32_t key, uint32_t tag);
  // The array goes back to the arena; readers no longer reach it.
  void retire();

 private:
  [[nodiscard]] WordIndexEntry *slot_of(uint32_t key, uint32_t tag) const;
  void place(uint32_t key, uint32_t tag, uint32_t payload);
  bool rebuild();

  Arena &arena_;
  RecordType first_;
  uint32_t most_log2_;
  uint32_t *published_;
  Enumerate enumerate_;
  WordIndexEntry *entries_ = nullptr;
  uint32_t log2_ = 0;
  uint32_t live_ = 0;  // keys that enumerate() names, in the array or not
  uint32_t used_ = 0;  // entries of the array that are not empty, tombstones included
};

}  // namespace rsw

#endif
