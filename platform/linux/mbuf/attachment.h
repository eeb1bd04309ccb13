// SPDX-License-Identifier: Apache-2.0
// This process and its threads as users of the shared pool. Private to this folder.
#ifndef RSW_MBUF_ATTACHMENT_H
#define RSW_MBUF_ATTACHMENT_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "mbuf/pool_records.h"
#include "sm/segment_map.h"

namespace rsw::pool {

inline constexpr uint32_t groups_per_thread = 4;

// The groups that a thread holds. Zero-initialised and without destructor, so that it costs a load from a fixed offset;
// what a thread's end needs is done by a pthread key.
struct ThreadCache {
  Group *current;         // of the held ones, that which it takes from; null: none
  PacketBuffer *buffers;  // of `current`
  uint32_t holder;        // what it writes into groups; 0: it has no number yet
  uint32_t held_count;
  uint32_t held[groups_per_thread];  // group numbers
  uint32_t turn;                     // which of them goes first
  uint32_t search_from;
};
extern thread_local constinit ThreadCache this_cache;

// 0: not asked yet.
extern constinit std::atomic<int32_t> process_id;
int32_t ask_own_pid();

// The process's id without a system call; right in a forked child.
inline int32_t own_pid() {
  const int32_t pid = process_id.load(std::memory_order_relaxed);  // a word for itself
  return pid != 0 ? pid : ask_own_pid();
}

// Whether the process is attached. If not, it looks for the pool, but not more than ten times a second. Threads: any.
bool attach();
[[nodiscard]] bool is_attached();

// The mapped pool, attached or not; null: *reason. The process may not be attached by this.
std::shared_ptr<SegmentMap> map_pool(std::string *reason);
// For the maker, once the tables are whole: attaches through this mapping.
bool attach_to(std::shared_ptr<SegmentMap> map, std::string *reason);

// Leaves the pool; the calling thread is the only one that took buffers.
void detach();

// A number for the calling thread, which its end gives back with its groups. False: all are taken, and the thread keeps
// no group.
bool number_thread(ThreadCache &cache);

// Whether the entry's owner is there: what the lock says, or, as the owner may have lost its descriptors, the kernel.
bool entry_is_alive(const SegmentMap &map, uint32_t entry);
// The same for a number without entry.
bool process_exists(int32_t pid);
// Locks the entry of a process that is dead, so that nobody takes it meanwhile; -1: it is not to be had. Closing the
// descriptor unlocks it.
int lock_dead_entry(const SegmentMap &map, uint32_t entry);

// Notes that a process owns buffers, so that they are looked for when it is gone.
inline void note_owner(int32_t pid) {
  uint32_t &bits = owner_word(pid);
  const uint32_t bit = 1u << (static_cast<uint32_t>(pid) % 32);
  // Relaxed: whoever asks does so after the process is gone, and heard of that from the kernel.
  if ((word(bits).load(std::memory_order_relaxed) & bit) == 0) word(bits).fetch_or(bit, std::memory_order_relaxed);
}

// Counts a word that made no sense, and says so once.
void count_damage(const char *what);

// In groups.cc. Gives up the groups of a thread.
void release_groups(ThreadCache &cache);

}  // namespace rsw::pool

#endif
