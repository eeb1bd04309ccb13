// SPDX-License-Identifier: Apache-2.0
// Groups of buffers change hands between threads. Private to this folder.
#ifndef RSW_MBUF_GROUPS_H
#define RSW_MBUF_GROUPS_H

#include "mbuf/attachment.h"

namespace rsw::pool {

// Makes `current` a group with a free buffer. False: there is none in the pool.
bool refill(ThreadCache &cache);

// For a thread without number: one free buffer, which is then in use. Null: there is none in the pool.
PacketBuffer *take_without_cache();

// One buffer of a group that the caller holds: takes it out of `free` and makes it the process's own. Null: nothing is
// free, or what looked free is in use and was counted as damage.
inline PacketBuffer *take_from(Group &group, PacketBuffer *buffers) {
  // Relaxed: this thread's own word.
  uint32_t free = word(group.free).load(std::memory_order_relaxed);
  while (free != 0) {
    PacketBuffer *buffer = buffers + index_of(free);
    free &= free - 1;
    const bool in_use = word(buffer->state).load(std::memory_order_relaxed) != 0;
    if (!in_use) [[likely]] {
      // Relaxed, both: the store that follows says that they are written.
      word(buffer->head.owner).store(own_pid(), std::memory_order_relaxed);
      word(buffer->state).store(1, std::memory_order_relaxed);
    }
    // Release: the owner stands there before the buffer is in use; the partner is free_bits() of whoever takes back.
    word(group.free).store(free, std::memory_order_release);
    if (!in_use) [[likely]]
      return buffer;
    count_damage("a buffer that is in use is said to be free; it is left alone");
  }
  return nullptr;
}

}  // namespace rsw::pool

#endif
