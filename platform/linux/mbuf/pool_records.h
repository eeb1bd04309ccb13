// SPDX-License-Identifier: Apache-2.0
// The segment "/rsw/shm/mbuf": tables, and behind them groups of 32 buffers. Private to this folder.
//
// Whoever changes a record here counts the layout string of this segment up in sm/segments.cc.
#ifndef RSW_MBUF_POOL_RECORDS_H
#define RSW_MBUF_POOL_RECORDS_H

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "mbuf/buffers.h"
#include "sm/segment.h"

namespace rsw::pool {

inline constexpr uint32_t window_base = 0x74000000u;
inline constexpr uint32_t window_bytes = 128u << 20;

// 32 buffers and who may take from them. A buffer is free when its bit is set in `free` or in `returned`, and otherwise
// its owner's.
struct Group {
  uint32_t holder;  // the thread that takes from it, see holder_of(); 0: nobody
  uint32_t free;    // changed by the holder alone
  uint32_t reserved[14];
  uint32_t returned;  // set by everybody else; the holder moves bits over
  uint32_t reserved_too[15];
};
static_assert(sizeof(Group) == 128);
static_assert(offsetof(Group, free) == 4);
static_assert(offsetof(Group, returned) == 64, "who gives back does not disturb who takes");
static_assert(std::is_trivially_copyable_v<Group>);

inline constexpr uint32_t group_buffers = 32;
inline constexpr uint32_t group_bytes = group_buffers * sizeof(PacketBuffer);
static_assert(group_bytes == 65536);

// What a thread writes into a group's `holder`: its process, and its number among the threads of that process; 0 is for
// threads that keep no group. Process ids have 22 bits.
inline constexpr uint32_t thread_bits = 10;
inline constexpr uint32_t threads_with_cache = (1u << thread_bits) - 1;
constexpr uint32_t holder_of(int32_t pid, uint32_t thread) {
  return static_cast<uint32_t>(pid) << thread_bits | thread;
}
constexpr int32_t process_of(uint32_t holder) {
  return static_cast<int32_t>(holder >> thread_bits);
}

inline constexpr uint32_t pool_magic = 0x4d425546u;

struct Control {
  uint32_t magic;          // the last word that the maker writes
  uint32_t groups_in_use;  // groups below it have storage, from first_group on; grows, never shrinks
  uint32_t refused;        // buffers that were wanted when there was none
  uint32_t reclaimed;      // buffers taken back from the dead
  uint32_t damaged;        // words that made no sense
  uint32_t reserved[11];
};
static_assert(sizeof(Control) == 64);
static_assert(offsetof(Control, damaged) == 16);
static_assert(std::is_trivially_copyable_v<Control>);

// A process that is attached. Its entry belongs to who holds an open-file-description write lock on the entry's first
// byte of the file.
struct ProcessEntry {
  uint32_t pid;         // 0: free; the last word to be written
  uint32_t start_time;  // low word of the kernel's; tells a process from a later one of the same number
  uint32_t command[4];
  uint32_t reserved[10];
};
static_assert(sizeof(ProcessEntry) == 64);
static_assert(offsetof(ProcessEntry, command) == 8);
static_assert(std::is_trivially_copyable_v<ProcessEntry>);

inline constexpr uint32_t process_limit = 1024;
// One bit for each process id modulo 32,768: who ever owned a buffer, or was attached.
inline constexpr uint32_t owner_words = 1024;

inline constexpr uint32_t control_offset = segment_page;
inline constexpr uint32_t owners_offset = 2 * segment_page;
inline constexpr uint32_t processes_offset = 4 * segment_page;
inline constexpr uint32_t groups_offset = 2 * group_bytes;
inline constexpr uint32_t first_group = 8;
// The last page of a window is never used, so its last group is not.
inline constexpr uint32_t group_limit = window_bytes / group_bytes - 1;
static_assert(owners_offset + owner_words * 4 <= processes_offset);
static_assert(processes_offset + process_limit * sizeof(ProcessEntry) <= groups_offset);
static_assert(groups_offset + (group_limit + 1) * sizeof(Group) <= first_group * group_bytes);

inline constexpr uint32_t buffer_limit = (group_limit - first_group) * group_buffers;

template <class T>
inline T *at(uint32_t offset) {
  return reinterpret_cast<T *>(static_cast<uintptr_t>(window_base + offset));
}
inline Control &control() {
  return *at<Control>(control_offset);
}
inline uint32_t &owner_word(int32_t pid) {
  return at<uint32_t>(owners_offset)[(static_cast<uint32_t>(pid) >> 5) % owner_words];
}
inline ProcessEntry &process_entry(uint32_t index) {
  return at<ProcessEntry>(processes_offset)[index];
}
inline Group &group_at(uint32_t group) {
  return at<Group>(groups_offset)[group];
}
inline PacketBuffer *buffer_at(uint32_t group, uint32_t index) {
  return at<PacketBuffer>(group * group_bytes) + index;
}
inline uint32_t index_of(uint32_t bit) {
  return static_cast<uint32_t>(std::countr_zero(bit));
}

inline std::atomic_ref<uint32_t> word(uint32_t &plain) {
  return std::atomic_ref<uint32_t>(plain);
}
inline std::atomic_ref<int32_t> word(int32_t &plain) {
  return std::atomic_ref<int32_t>(plain);
}

// Where a buffer stands.
struct Place {
  uint32_t group;
  uint32_t bit;
};
// False: no buffer of the pool begins at this address, or none of the groups below `groups`.
inline bool find_place(uintptr_t address, uint32_t groups, Place *place) {
  if (address - window_base >= window_bytes) return false;
  const auto offset = static_cast<uint32_t>(address - window_base);
  place->group = offset / group_bytes;
  place->bit = 1u << (offset % group_bytes / sizeof(PacketBuffer));
  return offset % sizeof(PacketBuffer) == 0 && place->group >= first_group && place->group < groups;
}

// Groups below it may be looked at, whatever stands in the word.
inline uint32_t groups_in_use() {
  // Acquire: the storage was there before the number; the partner is the release in add_group().
  const uint32_t groups = word(control().groups_in_use).load(std::memory_order_acquire);
  return groups < first_group ? first_group : groups < group_limit ? groups : group_limit;
}

// The buffers of a group that are free, for whoever looks from outside.
inline uint32_t free_bits(Group &group) {
  // Acquire: who sees a bit cleared sees the owner that was written before; the partner is the release in take_from().
  const uint32_t free = word(group.free).load(std::memory_order_acquire);
  return free | word(group.returned).load(std::memory_order_acquire);
}

}  // namespace rsw::pool

#endif
