// SPDX-License-Identifier: Apache-2.0
// The reader's side of an open-addressing index from one word to another in shared memory: the exact-match index of a
// Patricia tree, and the interface table's ifindex index.
//
// One word publishes the whole index: the array's address (64-byte aligned) with log2 of its length in the low six
// bits, so that a probe needs nothing but that word and the array. An entry is 8 bytes. Probe i looks at slot (hash ^
// i): the first eight probes stay inside one cache line, and no probe leaves the aligned group of 32 entries it started
// in.
//
// Life of an entry within one array: empty -> its key, then its value -> tombstone -> its value again ... An entry is
// never given to another key, so a reader that saw a value may rely on the key beside it. Therefore
//   a key that is absent from its whole group of full entries is "not known here": the reader asks elsewhere;
//   a key whose probes meet an empty entry is absent for certain.
#ifndef RSW_PT_WORD_INDEX_H
#define RSW_PT_WORD_INDEX_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "sm/segment.h"

namespace rsw {

// What readers may follow: aligned words inside the windows. The last page is left out, so that a record which begins
// at such an address can be read whole.
inline constexpr uint32_t readable_span = window_high - segment_page - window_low;
[[nodiscard]] inline bool is_readable(uint32_t address) {
  return address - window_low < readable_span;
}

template <class T>
[[nodiscard]] inline T *at_address(uint32_t address) {
  return reinterpret_cast<T *>(static_cast<uintptr_t>(address));
}
[[nodiscard]] inline uint32_t address_of(const void *record) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(record));
}

// Relaxed: for words whose contents an earlier acquire load already made visible (the root or index word that led
// here). They are atomic all the same, since the memory may be another record again by the time a stopped reader goes
// on.
[[nodiscard]] inline uint32_t load_word(const uint32_t &word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
// Acquire: the partner of publish_word. What the writer stored before it published is visible to who sees the word.
[[nodiscard]] inline uint32_t observe_word(const uint32_t &word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
// Relaxed: into a record that readers reach only through a later publish_word.
inline void fill_word(uint32_t &word, uint32_t value) {
  __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}
// Release: the partner of observe_word.
inline void publish_word(uint32_t &word, uint32_t value) {
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

struct WordIndexEntry {
  uint32_t key;
  uint32_t value;  // 0 empty; bit 0: the key's tag; bit 1: tombstone; the upper 30 bits: what the key stands for
};
static_assert(sizeof(WordIndexEntry) == 8);
static_assert(offsetof(WordIndexEntry, value) == 4);
static_assert(std::is_trivially_copyable_v<WordIndexEntry>);

inline constexpr uint32_t word_index_tag = 1;
inline constexpr uint32_t word_index_tombstone = 2;
inline constexpr uint32_t word_index_not_known = word_index_tombstone;  // never an answer otherwise
inline constexpr uint32_t word_index_group = 32;
inline constexpr uint32_t word_index_least_log2 = 3;
inline constexpr uint32_t word_index_most_log2 = 23;
inline constexpr uint32_t word_index_log2_mask = 63;

// The low bits of the key reach the top bits of the product, where the slot is taken from; the tag moves the keys of
// one kind away from equal keys of the other. Addresses come in regular steps, and one product keeps steps regular, so
// that whole series of addresses could meet whole series of subnets: the second product breaks that.
[[nodiscard]] inline uint32_t word_index_hash(uint32_t key, uint32_t tag) {
  const uint32_t product = (key ^ (tag * 0x5bd1e995u)) * 0x9e3779b1u;
  return (product ^ (product >> 15)) * 0x85ebca6bu;
}

// What `key` with `tag` (0 or 1) stands for: its value with bit 0 still the tag; 0: absent; word_index_not_known: this
// index cannot say. `index` is the publishing word. Any word at all may be given: nothing outside the windows is read.
[[nodiscard]] inline uint32_t word_index_find(uint32_t index, uint32_t key, uint32_t tag) {
  const uint32_t log2 = index & word_index_log2_mask;
  if (log2 - word_index_least_log2 > word_index_most_log2 - word_index_least_log2) return word_index_not_known;
  const uint32_t base = index & ~word_index_log2_mask;
  const uint32_t bytes = static_cast<uint32_t>(sizeof(WordIndexEntry)) << log2;
  if (base - window_low > readable_span - bytes) return word_index_not_known;
  const WordIndexEntry *entries = at_address<const WordIndexEntry>(base);
  const uint32_t first = word_index_hash(key, tag) >> (32 - log2);

  // Nearly all keys that are there stand in one of the first two slots. Which of the two is a matter of chance, so that
  // a branch on it would be foretold wrongly too often: the choice is arithmetic, and one branch says whether it was
  // right.
  {
    const WordIndexEntry *entry = entries + first;
    const WordIndexEntry *other = entries + (first ^ 1);
    // Acquire: as below.
    const uint32_t value = observe_word(entry->value);
    const uint32_t other_value = observe_word(other->value);
    const uint32_t differs = (load_word(entry->key) ^ key) | ((value ^ tag) & word_index_tag);
    const uint32_t other_differs = (load_word(other->key) ^ key) | ((other_value ^ tag) & word_index_tag);
    const uint32_t choose = differs == 0 ? ~0u : 0u;
    const uint32_t chosen = other_value ^ ((value ^ other_value) & choose);
    const uint32_t wrong = (other_differs & ~choose) | (chosen & word_index_tombstone);
    if (wrong == 0 && chosen > (word_index_tag | word_index_tombstone)) [[likely]]
      return chosen;
  }

  const uint32_t probes = log2 < 5 ? 1u << log2 : word_index_group;
  for (uint32_t i = 0; i < probes; ++i) {
    const WordIndexEntry *entry = entries + (first ^ i);
    // Acquire: the key was stored before the value; partner: the publish_word in WordIndexWriter.
    const uint32_t value = observe_word(entry->value);
    if (value == 0) return 0;
    if (load_word(entry->key) == key && (value & word_index_tag) == tag) {
      return (value & word_index_tombstone) != 0 ? 0 : value;
    }
  }
  return word_index_not_known;
}

}  // namespace rsw

#endif
