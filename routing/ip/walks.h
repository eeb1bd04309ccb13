// SPDX-License-Identifier: Apache-2.0
// Walks over the lists of the shared database, as ranges: contexts of the root, addresses and groups of an interface.
//
// The database belongs to another process. When that process, or the memory, is out of its mind, a client must still
// come back from every question, without a fault. Two rules see to it:
//
// - A pointer word is followed only if it is plausible: a multiple of 4 and inside the segment's window; anything else
//   counts as null. Whatever lies in the window can be read, and the last page of a window is never used, so a record
//   that starts before it can be read whole. The test is one subtraction, one rotation and one comparison.
// - A walk ends after max_steps records, so that a list bent into a ring ends, too.
//
// The window comes from the segment descriptor at attach, if the platform says there that all records lie in it. Others
// number their segments as they like, and keep records where they like: then every word is followed.
#ifndef IP_WALKS_H
#define IP_WALKS_H

#include <bit>

#include "ip_db.h"

namespace libip {

// More than any list of a sound database holds, and than the nodes of its largest tree, a million; a walk of this
// length over a ring takes some milliseconds.
inline constexpr uint32_t max_steps = 1u << 20;

// The end of a window that no record starts in: larger than any record.
inline constexpr uint32_t unused_tail = 4096;

// The addresses that may be followed. Written at attach and detach, while no query runs.
struct Window {
  uint32_t low;    // the first address
  uint32_t words;  // number of words of 4 bytes from there on

  // Every word, aligned or not: ~0u is above all rotated differences but one, that of 0xffffffff.
  static constexpr Window unbounded() { return {0, ~0u}; }

  // The window of a bounded segment [bottom, top) with its root record; unbounded when the three do not fit together.
  static constexpr Window of_segment(uint32_t bottom, uint32_t top, uint32_t root) {
    if (bottom % 4 != 0 || top <= bottom || top - bottom <= unused_tail) return unbounded();
    const Window window{bottom, (top - bottom - unused_tail) / 4};
    return window.holds(root) ? window : unbounded();
  }

  // The low two bits of an unaligned word become the highest of the rotated difference: more than any window has words.
  [[nodiscard]] constexpr bool holds(uint32_t word) const { return std::rotr(word - low, 2) < words; }
};

static_assert(!Window::of_segment(0x1000, 0x9000, 0x1000).holds(0x1002), "unaligned");
static_assert(!Window::of_segment(0x1000, 0x9000, 0x1000).holds(0x0ffc), "below");
static_assert(Window::of_segment(0x1000, 0x9000, 0x1000).holds(0x7ffc), "the last record");
static_assert(!Window::of_segment(0x1000, 0x9000, 0x1000).holds(0x8000), "in the unused tail");
static_assert(Window::of_segment(0x1000, 0x9000, 0x9000).holds(0x8001), "a root outside: not a window at all");

extern Window window;

// The record that a pointer word leads to; null for null and for a word that is not plausible.
template <class Record>
inline Record *follow(const ip_shm_ptr<Record> &pointer) {
  Record *record = pointer.get();
  const auto word = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(record));
  return word != 0 && window.holds(word) ? record : nullptr;
}

// A word of a record that the writer may reuse, for a record of the same type, while it is read. Relaxed: the word
// alone counts; what it belongs to was published by the store that follow() acquired.
inline uint32_t read_word(const uint32_t &word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
inline uint8_t read_byte(const uint8_t &byte) {
  return __atomic_load_n(&byte, __ATOMIC_RELAXED);
}

// The records of a list that are linked by their `next`.
template <class Record>
class Chain {
 public:
  Chain() : first_(nullptr) {}
  explicit Chain(const ip_shm_ptr<Record> &head) : first_(follow(head)) {}

  class Iterator {
   public:
    explicit Iterator(Record *at) : at_(at) {}
    Record &operator*() const { return *at_; }
    Iterator &operator++() {
      at_ = --left_ == 0 ? nullptr : follow(at_->next);
      return *this;
    }
    bool operator!=(std::nullptr_t) const { return at_ != nullptr; }

   private:
    Record *at_;
    uint32_t left_ = max_steps;
  };

  [[nodiscard]] Iterator begin() const { return Iterator(first_); }
  [[nodiscard]] std::nullptr_t end() const { return nullptr; }
  [[nodiscard]] Record *first() const { return first_; }

 private:
  Record *first_;
};

inline Chain<ip_addrtype> addresses_of(const ip_iftype &interface) {
  return Chain(interface.addr_list);
}
inline Chain<ip_maddrtype> groups_of(const ip_iftype &interface) {
  return Chain(interface.group_list);
}
inline Chain<ip_api_context_type> contexts_of(const ip_root &root) {
  return Chain(root.contexts);
}

}  // namespace libip

#endif
