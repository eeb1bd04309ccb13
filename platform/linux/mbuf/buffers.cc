// SPDX-License-Identifier: Apache-2.0
// A buffer is taken and given back.
//
// The common case is the one that is written here: the calling thread holds a group of the shared pool with a free
// buffer in it. All else is in groups.cc, and what a process without pool does, in private_buffers.cc.
#include "mbuf/buffers.h"

#include <algorithm>
#include <cstring>

#include "mbuf/groups.h"
#include "mbuf/private_buffers.h"

namespace rsw {
namespace {

using namespace pool;

struct mbuf *emptied(PacketBuffer *buffer) {
  struct mbuf &head = buffer->head;
  head.next = nullptr;
  head.next_packet = nullptr;
  head.data = buffer->room + packet_buffer_front;
  head.m_len = 0;
  head.type = 0;
  head.hdr_byte = 0;
  head.hdr_word = 0;
  return &head;
}

struct mbuf *take_private() {
  struct mbuf *m = take_private_buffer();
  if (m == nullptr) return nullptr;
  // Relaxed: no other process sees it.
  word(m->owner).store(own_pid(), std::memory_order_relaxed);
  word(buffer_of(m)->state).store(1, std::memory_order_relaxed);
  return emptied(buffer_of(m));
}

// The thread has no group with a free buffer.
__attribute__((noinline)) struct mbuf *take_slowly() {
  ThreadCache &cache = this_cache;
  if (!attach()) return take_private();
  PacketBuffer *buffer = nullptr;
  if (cache.holder == 0 && !number_thread(cache)) {
    buffer = take_without_cache();
  } else {
    // Damage may make a group look better than it is; there are at most so many.
    for (uint32_t tries = 0; buffer == nullptr && tries < group_limit && refill(cache); ++tries) {
      buffer = take_from(*cache.current, cache.buffers);
    }
  }
  if (buffer != nullptr) return emptied(buffer);
  word(control().refused).fetch_add(1, std::memory_order_relaxed);  // a count for people
  return nullptr;
}

bool holds(const ThreadCache &cache, uint32_t group) {
  for (uint32_t i = 0; i < cache.held_count; ++i) {
    if (cache.held[i] == group) return true;
  }
  return false;
}

}  // namespace

struct mbuf *take_buffer() {
  ThreadCache &cache = this_cache;
  if (cache.current != nullptr) {
    if (PacketBuffer *buffer = take_from(*cache.current, cache.buffers); buffer != nullptr) return emptied(buffer);
  }
  return take_slowly();
}

void give_buffer_back(struct mbuf *m) {
  Place place{};
  const bool is_shared = find_place(reinterpret_cast<uintptr_t>(m), group_limit, &place);
  if (!is_shared && !is_private(m)) return count_damage("what was given back is no buffer");
  PacketBuffer *buffer = buffer_of(m);
  // Relaxed, here and for the owner: the bit that follows says that they are written.
  if (word(buffer->state).load(std::memory_order_relaxed) != 1) {
    return count_damage("a buffer was given back that is free already");
  }
  // Whoever is killed on the way from here was the owner.
  if (word(m->owner).load(std::memory_order_relaxed) != own_pid()) {
    word(m->owner).store(own_pid(), std::memory_order_relaxed);
  }
  word(buffer->state).store(0, std::memory_order_relaxed);
  if (!is_shared) return give_private_buffer_back(m);
  Group &group = group_at(place.group);
  if (holds(this_cache, place.group)) {
    const uint32_t free = word(group.free).load(std::memory_order_relaxed);  // this thread's own word
    // Release: state and owner come first; the partner is free_bits() of whoever takes back.
    word(group.free).store(free | place.bit, std::memory_order_release);
  } else {
    // Release: this process is through with the buffer; the partner is the acquire in harvest().
    word(group.returned).fetch_or(place.bit, std::memory_order_release);
  }
}

uint32_t buffers_in_use() {
  uint32_t in_use = private_buffers_in_use();
  if (!is_attached()) return in_use;
  const uint32_t groups = groups_in_use();
  for (uint32_t group = first_group; group < groups; ++group) {
    for (uint32_t used = ~free_bits(group_at(group)); used != 0; used &= used - 1) {
      struct mbuf &head = buffer_at(group, index_of(used))->head;
      if (word(head.owner).load(std::memory_order_relaxed) == own_pid()) ++in_use;
    }
  }
  return in_use;
}

struct mbuf *make_packet(std::span<const uint8_t> bytes) {
  struct mbuf *first = take_buffer();
  struct mbuf *last = first;
  while (last != nullptr) {
    const size_t fits = std::min<size_t>(bytes.size(), static_cast<size_t>(end_of_room(last) - last->data.get()));
    if (fits > 0) std::memcpy(last->data.get(), bytes.data(), fits);
    last->m_len = static_cast<uint32_t>(fits);
    bytes = bytes.subspan(fits);
    if (bytes.empty()) return first;
    struct mbuf *next = take_buffer();
    last->next = next;
    last = next;
  }
  if (first != nullptr) m_freem(first);
  return nullptr;
}

}  // namespace rsw
