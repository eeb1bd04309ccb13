// SPDX-License-Identifier: Apache-2.0
// The segment of the reader lock: one epoch word per lock, and a slot per reading thread.
//
// An epoch word is never 0 and says more than a number, so that a reader learns all it needs with one load:
//   bit 0      1: a slot that holds an epoch is inside
//   bit 1      1: the writer uses membarrier(2), registered readers need no fence
//   bit 2      which lock it belongs to
//   bits 3-31  counts up by one with each advance, and wraps
#ifndef RSW_TSP_SLOTS_H
#define RSW_TSP_SLOTS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "sm/segment.h"

namespace rsw {

inline constexpr uint32_t lock_count = 2;  // Domain::database and Domain::urib; a lock's index is its handle - 1

inline constexpr uint32_t epoch_inside = 1;
inline constexpr uint32_t epoch_light = 2;
inline constexpr uint32_t epoch_lock_shift = 2;
inline constexpr uint32_t epoch_step = 8;

struct EpochLine {  // alone in its cache line: every reader of the lock reads it, the writer's advance writes it
  uint32_t epoch;
  uint32_t reserved[15];
};
static_assert(sizeof(EpochLine) == 64);

struct SlotControl {
  EpochLine lock[lock_count];
  uint32_t slots_in_use;  // slots [0, slots_in_use) have had an owner; grows, never shrinks
  uint32_t reserved[15];
};
static_assert(sizeof(SlotControl) == 192);
static_assert(offsetof(SlotControl, slots_in_use) == 128);
static_assert(std::is_trivially_copyable_v<SlotControl>);

// One thread's slot. 128 bytes: processors fetch cache lines in pairs, and a neighbour's line should not come along.
struct Slot {
  uint32_t epoch[lock_count];  // 0: outside
  uint32_t owner_pid;          // 0: free. For people: whether the owner lives is told by the lock on the file
  uint32_t owner_tid;
  uint32_t command[4];  // the owner's name, zero-padded
  uint32_t reserved[24];
};
static_assert(sizeof(Slot) == 128);
static_assert(offsetof(Slot, owner_pid) == 8);
static_assert(offsetof(Slot, command) == 16);
static_assert(std::is_trivially_copyable_v<Slot>);

inline constexpr uint32_t slot_base = 0x60000000u;
inline constexpr uint32_t slot_window = 8u << 20;
inline constexpr uint32_t slot_control_offset = segment_page;
inline constexpr uint32_t slots_offset = 2 * segment_page;
inline constexpr uint32_t slot_limit = (slot_window - slots_offset - segment_page) / sizeof(Slot);
// The writer gives storage to these; a client that comes later gives it to its own.
inline constexpr uint32_t slots_with_storage = 1024;

// Constant addresses: the segment is at the same place in every process.
inline SlotControl &slot_control() {
  return *reinterpret_cast<SlotControl *>(static_cast<uintptr_t>(slot_base + slot_control_offset));
}
inline Slot &slot_at(uint32_t index) {
  return reinterpret_cast<Slot *>(static_cast<uintptr_t>(slot_base + slots_offset))[index];
}
inline uint32_t index_of(const Slot *slot) {
  return (static_cast<uint32_t>(reinterpret_cast<uintptr_t>(slot)) - slot_base - slots_offset) /
         static_cast<uint32_t>(sizeof(Slot));
}

inline std::atomic_ref<uint32_t> word(uint32_t &plain) {
  return std::atomic_ref<uint32_t>(plain);
}

// Serial order of two epochs of one lock that are less than half the range apart.
inline bool is_before(uint32_t a, uint32_t b) {
  return static_cast<int32_t>((a & ~(epoch_step - 1)) - (b & ~(epoch_step - 1))) < 0;
}

// Orders this thread's earlier stores before its later loads, for every other thread to see.
inline void full_fence() {
#if defined(__SANITIZE_THREAD__)
  // The race detector does not model fences; a read-modify-write is one on every processor it runs on.
  static uint32_t anything = 0;
  word(anything).fetch_add(0, std::memory_order_seq_cst);
#else
  std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}

}  // namespace rsw

#endif
