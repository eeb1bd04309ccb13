// SPDX-License-Identifier: Apache-2.0
// The pool without a lock.
//
// A buffer is free when its bit is set in one of the two words of its group, and nothing else says so: there are no
// lists, so nothing can be half linked, and any value of those words is one that others can go on with.
//
//   a thread claims a group:  holder 0 -> itself, one compare and swap
//   it takes a buffer:        writes owner and state, then clears the bit in `free`: plain stores, as the holder alone
//                             writes that word
//   it gives one back:        sets the bit in `free`, if it holds the group, or else in `returned`, by an atomic or
//   `free` is empty:          it sets in `free` what is set in `returned`, and only then clears it there
//   it gives the group up:    holder -> 0
//
// A thread holds up to four groups, so that what it takes and gives back in turns touches nothing that another one
// writes. Each step is one store. A process that is killed between two of them leaves groups that name it as their
// holder and buffers that name it as their owner, and whoever takes back what the dead left (reclaim.cc) needs no more
// than that; until then the others go on with all the rest.
//
// What must never happen: two threads that believe they hold one group. Hence a holder is taken out only by itself, or
// after it died, which the kernel says and nobody guesses. If damage makes it happen all the same, a buffer's state
// shows that it is in use already, and it is left alone.
//
// Groups get storage one by one, the lowest first, each before anybody is led to it: a full file system is no buffer
// rather than a signal at some later store.
#include "mbuf/groups.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>

#include "log/log_writer.h"
#include "no_memory.h"

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

namespace rsw::pool {
namespace {

constinit std::atomic<bool> storage_logged{false};

// What others gave back becomes what the holder takes from. True: there is something.
bool harvest(Group &group) {
  // Acquire: what the previous users did to the buffers is over; the partner is the release in give_buffer_back().
  const uint32_t returned = word(group.returned).load(std::memory_order_acquire);
  const uint32_t free = word(group.free).load(std::memory_order_relaxed) | returned;
  if (returned != 0) {
    word(group.free).store(free, std::memory_order_relaxed);
    // Release: the bits stand in `free` before they go here; the partner is free_bits() of whoever takes back.
    word(group.returned).fetch_and(~returned, std::memory_order_release);
  }
  return free != 0;
}

void release(Group &group) {
  // Release: the next holder finds `free` as it is now; the partner is the acquire in claim().
  word(group.holder).store(0, std::memory_order_release);
}

// True: the caller holds it, and something is free in it.
bool claim(uint32_t number, uint32_t holder) {
  Group &group = group_at(number);
  // Relaxed: hints that spare a claim in vain.
  if (word(group.holder).load(std::memory_order_relaxed) != 0) return false;
  if ((word(group.free).load(std::memory_order_relaxed) | word(group.returned).load(std::memory_order_relaxed)) == 0) {
    return false;
  }
  uint32_t nobody = 0;
  // Acquire: partner of release(). Release: the process's entry stands there before anybody finds it as a holder; the
  // partner is the acquire load in reclaim.cc.
  if (!word(group.holder)
           .compare_exchange_strong(nobody, holder, std::memory_order_acq_rel, std::memory_order_relaxed)) {
    return false;
  }
  if (harvest(group)) return true;
  release(group);
  return false;
}

// Populating a mapping answers where there is no room, and needs no descriptor; an older kernel allocates by the file.
bool give_storage(uint32_t number) {
  void *const start = buffer_at(number, 0);
  if (madvise(start, group_bytes, MADV_POPULATE_WRITE) == 0) return true;
  // EFAULT: touching it would have been a SIGBUS, because the file system is full.
  int error = errno == EFAULT ? ENOSPC : errno;
  if (error == EINVAL) {
    const std::shared_ptr<SegmentMap> map = unless_without_memory(std::shared_ptr<SegmentMap>(), [] {
      std::string reason;
      return map_pool(&reason);
    });
    struct stat file {};
    error = EBADF;
    // A process that closed all descriptors may have something else under the number.
    if (map != nullptr && fstat(map->descriptor(), &file) == 0 && S_ISREG(file.st_mode) &&
        static_cast<uint64_t>(file.st_size) == window_bytes) {
      error = posix_fallocate(map->descriptor(), static_cast<off_t>(number * group_bytes), group_bytes);
    }
    if (error == 0) return true;
  }
  if (!storage_logged.exchange(true, std::memory_order_relaxed)) {
    log_line(LOG_ERR, "packet buffers: no storage for more of them: %s", strerror(error));
  }
  return false;
}

// One group more for everybody. Zero: there is none, or no storage.
uint32_t add_group() {
  auto in_use = word(control().groups_in_use);
  // Relaxed: the compare and swap decides.
  uint32_t seen = in_use.load(std::memory_order_relaxed);
  const uint32_t number = seen < first_group ? first_group : seen;
  if (number >= group_limit || !give_storage(number)) return 0;
  // Release: its storage comes first; the partner is the acquire load in groups_in_use(). Who loses finds the group of
  // the winner.
  in_use.compare_exchange_strong(seen, number + 1, std::memory_order_release, std::memory_order_relaxed);
  return number;
}

// Zero: nothing is free anywhere.
uint32_t claim_any(uint32_t search_from, uint32_t holder) {
  const uint32_t groups = groups_in_use() - first_group;
  for (uint32_t i = 0; i < groups; ++i) {
    const uint32_t number = first_group + (search_from + i) % groups;
    if (claim(number, holder)) return number;
  }
  for (uint32_t tries = 0; tries < group_limit; ++tries) {
    const uint32_t number = add_group();
    if (number == 0) return 0;
    if (claim(number, holder)) return number;
  }
  return 0;
}

void use(ThreadCache &cache, uint32_t number) {
  cache.current = &group_at(number);
  cache.buffers = buffer_at(number, 0);
}

}  // namespace

bool refill(ThreadCache &cache) {
  for (uint32_t i = 0; i < cache.held_count; ++i) {
    if (!harvest(group_at(cache.held[i]))) continue;
    use(cache, cache.held[i]);
    return true;
  }
  const uint32_t number = claim_any(cache.search_from, cache.holder);
  if (number == 0) return false;
  cache.search_from = number - first_group + 1;
  if (cache.held_count < groups_per_thread) {
    cache.held[cache.held_count++] = number;
  } else {
    uint32_t &oldest = cache.held[cache.turn++ % groups_per_thread];
    release(group_at(oldest));
    oldest = number;
  }
  use(cache, number);
  return true;
}

PacketBuffer *take_without_cache() {
  const uint32_t number = claim_any(0, holder_of(own_pid(), 0));
  if (number == 0) return nullptr;
  PacketBuffer *buffer = take_from(group_at(number), buffer_at(number, 0));
  release(group_at(number));
  return buffer;
}

void release_groups(ThreadCache &cache) {
  for (uint32_t i = 0; i < cache.held_count; ++i) release(group_at(cache.held[i]));
  cache.held_count = 0;
  cache.current = nullptr;
}

}  // namespace rsw::pool
