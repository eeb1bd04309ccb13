// SPDX-License-Identifier: Apache-2.0
// Buffers and groups of the dead go back to everybody.
//
// A process that is gone left what names it: groups as their holder, buffers in use as their owner. Nothing else in the
// pool has to be put right, wherever it was when it died; see groups.cc. Its groups are given up first to nobody, with
// the state of what is free in them set right. A buffer in use is made our own before it is freed, by one compare and
// swap: so it is freed once, not if somebody else got it meanwhile, and by our successor if we die in between.
//
// A process that handed a buffer on and one that was handed it both count as its owner by what the buffer says. Numbers
// of processes are used again: while one of the number lives and is attached, nothing of that number is taken back;
// what an earlier one left goes with the later one.
//
// Cost: a word per group that was ever used, and a line per buffer in use. Who never owned a buffer is not looked for.
#include "mbuf/reclaim.h"

#include <unistd.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "mbuf/attachment.h"
#include "mbuf/buffers.h"
#include "mbuf/pool.h"

namespace rsw {
namespace pool {
namespace {

std::mutex one_at_a_time;
uint32_t refused_seen = 0;            // takes refused at the last look at everything
uint32_t seen_dead[process_limit]{};  // by entry: the process that was found dead at the last look

uint32_t is_noted(int32_t pid) {
  return word(owner_word(pid)).load(std::memory_order_relaxed) >> (static_cast<uint32_t>(pid) % 32) & 1;
}

bool is_attached_and_alive(const SegmentMap &map, int32_t pid) {
  for (uint32_t entry = 0; entry < process_limit; ++entry) {
    // Acquire: partner of the release with which an entry is signed.
    const uint32_t signed_by = word(process_entry(entry).pid).load(std::memory_order_acquire);
    if (static_cast<int32_t>(signed_by) == pid && entry_is_alive(map, entry)) return true;
  }
  return false;
}

// Nobody holds the group any more: its holder is dead. Results: the buffers that were free in it.
uint32_t open_group(Group &group, uint32_t number, int32_t holder) {
  const uint32_t free = free_bits(group);
  for (uint32_t bits = free; bits != 0; bits &= bits - 1) {
    PacketBuffer *buffer = buffer_at(number, index_of(bits));
    // Its holder may have died when it had written owner and state and not yet cleared the bit. What others own is in
    // use, and the bit is damage.
    if (word(buffer->head.owner).load(std::memory_order_relaxed) != holder) continue;
    word(buffer->state).store(0, std::memory_order_relaxed);
  }
  // Release: the states come first; the partner is the acquire of whoever claims the group.
  word(group.holder).store(0, std::memory_order_release);
  return static_cast<uint32_t>(std::popcount(free));
}

// A buffer in use, if it is still that owner's.
bool take_back(PacketBuffer *buffer, int32_t owner) {
  // Relaxed: the word stands for itself.
  if (!word(buffer->head.owner).compare_exchange_strong(owner, own_pid(), std::memory_order_relaxed)) return false;
  // Its owner may have died when it had not yet written the state, or had cleared it.
  word(buffer->state).store(1, std::memory_order_relaxed);
  give_buffer_back(&buffer->head);
  return true;
}

uint32_t take_back_all_of(int32_t pid) {
  uint32_t buffers = 0;
  const uint32_t groups = groups_in_use();
  for (uint32_t number = first_group; number < groups; ++number) {
    Group &group = group_at(number);
    const uint32_t holder = word(group.holder).load(std::memory_order_relaxed);  // the holder is dead
    if (holder != 0 && process_of(holder) == pid) buffers += open_group(group, number, pid);
    for (uint32_t used = ~free_bits(group); used != 0; used &= used - 1) {
      PacketBuffer *buffer = buffer_at(number, index_of(used));
      if (word(buffer->head.owner).load(std::memory_order_relaxed) == pid && take_back(buffer, pid)) ++buffers;
    }
  }
  return buffers;
}

// The entries of a process that is dead are free for the next one.
void clear_entry(const SegmentMap &map, uint32_t entry, int32_t pid) {
  const int lock = lock_dead_entry(map, entry);
  if (lock < 0) return;
  auto signed_by = word(process_entry(entry).pid);
  if (static_cast<int32_t>(signed_by.load(std::memory_order_relaxed)) == pid) {
    signed_by.store(0, std::memory_order_relaxed);
  }
  close(lock);
}

uint32_t take_back_from_the_dead(const SegmentMap &map, bool at_first_sight) {
  uint32_t buffers = 0;
  for (uint32_t entry = 0; entry < process_limit; ++entry) {
    // Acquire: partner of the release with which an entry is signed.
    const auto pid = static_cast<int32_t>(word(process_entry(entry).pid).load(std::memory_order_acquire));
    const uint32_t seen = std::exchange(seen_dead[entry], 0);
    if (pid == 0 || entry_is_alive(map, entry)) continue;
    if (!at_first_sight && seen != static_cast<uint32_t>(pid)) {
      seen_dead[entry] = static_cast<uint32_t>(pid);
      continue;
    }
    if (pid > 0 && pid != own_pid() && !is_attached_and_alive(map, pid)) buffers += take_back_all_of(pid);
    clear_entry(map, entry, pid);
  }
  return buffers;
}

uint32_t counted(uint32_t buffers) {
  if (buffers != 0) word(control().reclaimed).fetch_add(buffers, std::memory_order_relaxed);  // a count for people
  return buffers;
}

// Looks at every buffer and every group.
uint32_t take_back_orphans(const SegmentMap &map) {
  uint32_t buffers = 0;
  std::map<int32_t, bool> exists;
  const uint32_t groups = groups_in_use();
  for (uint32_t number = first_group; number < groups; ++number) {
    Group &group = group_at(number);
    // Acquire: whoever holds it signed its entry before; the partner is the release in claim().
    const uint32_t holder = word(group.holder).load(std::memory_order_acquire);
    if (holder != 0 && process_of(holder) != own_pid() && !is_attached_and_alive(map, process_of(holder))) {
      buffers += open_group(group, number, process_of(holder));
    }
    for (uint32_t used = ~free_bits(group); used != 0; used &= used - 1) {
      PacketBuffer *buffer = buffer_at(number, index_of(used));
      const int32_t owner = word(buffer->head.owner).load(std::memory_order_relaxed);
      if (owner == own_pid()) continue;
      const auto [known, is_new] = exists.try_emplace(owner, false);
      if (is_new) known->second = process_exists(owner) || is_attached_and_alive(map, owner);
      if (!known->second && take_back(buffer, owner)) ++buffers;
    }
  }
  return counted(buffers);
}

}  // namespace

uint32_t take_back_everything() {
  std::string reason;
  const std::lock_guard guard(one_at_a_time);
  const std::shared_ptr<SegmentMap> map = map_pool(&reason);
  if (map == nullptr) return 0;
  const uint32_t buffers = counted(take_back_from_the_dead(*map, true));
  return buffers + take_back_orphans(*map);
}

}  // namespace pool

uint32_t reclaim_buffers_of(int32_t pid) {
  using namespace pool;
  if (!is_attached() || pid <= 0 || pid == own_pid() || is_noted(pid) == 0) return 0;
  const std::lock_guard guard(one_at_a_time);
  std::string reason;
  const std::shared_ptr<SegmentMap> map = map_pool(&reason);
  if (map == nullptr || is_attached_and_alive(*map, pid)) return 0;
  const uint32_t buffers = take_back_all_of(pid);
  for (uint32_t entry = 0; entry < process_limit; ++entry) {
    const uint32_t signed_by = word(process_entry(entry).pid).load(std::memory_order_relaxed);
    if (static_cast<int32_t>(signed_by) == pid) clear_entry(*map, entry, pid);
  }
  return counted(buffers);
}

uint32_t reclaim_buffers_of_the_dead() {
  using namespace pool;
  if (!is_attached()) return 0;
  const std::lock_guard guard(one_at_a_time);
  std::string reason;
  const std::shared_ptr<SegmentMap> map = map_pool(&reason);
  if (map == nullptr) return 0;
  const uint32_t buffers = counted(take_back_from_the_dead(*map, false));
  const uint32_t refused = word(control().refused).load(std::memory_order_relaxed);
  if (refused == refused_seen) return buffers;
  refused_seen = refused;
  return buffers + take_back_orphans(*map);
}

}  // namespace rsw
