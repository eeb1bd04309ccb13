// SPDX-License-Identifier: Apache-2.0
// Operations on a packet's chain of buffers.
//
// Bytes move only as far as they must: room in front of the first byte is used before a buffer is put in front, and a
// pull-up moves bytes within the first buffer only when there is no room behind them. What a call cannot do frees the
// packet: its caller has nothing left to look after.
#include <algorithm>
#include <cstring>

#include "mbuf/buffers.h"

namespace {

// What m_copydata answers for a part that the packet does not have.
constexpr uint32_t too_short = 1;

uint32_t room_in_front(struct mbuf *m) {
  return static_cast<uint32_t>(m->data.get() - rsw::buffer_of(m)->room);
}

struct mbuf *freed(struct mbuf *m) {
  m_freem(m);
  return nullptr;
}

// Puts a buffer in front, with `bytes` bytes at the end of its room: the next header goes there too.
struct mbuf *put_in_front(struct mbuf *m, uint32_t bytes) {
  struct mbuf *front = rsw::take_buffer();
  if (front == nullptr) return freed(m);
  front->data = rsw::end_of_room(front) - bytes;
  front->m_len = bytes;
  front->type = m->type;
  front->hdr_byte = m->hdr_byte;
  front->hdr_word = m->hdr_word;
  front->owner = m->owner;
  front->next_packet = m->next_packet.get();
  m->next_packet = nullptr;
  front->next = m;
  return front;
}

}  // namespace

extern "C" {

struct mbuf *m_prepend(struct mbuf *m, int32_t bytes, int32_t /*one*/) {
  if (m == nullptr) return nullptr;
  if (bytes < 0 || static_cast<uint32_t>(bytes) > rsw::packet_buffer_room) return freed(m);
  const auto wanted = static_cast<uint32_t>(bytes);
  if (room_in_front(m) < wanted) return put_in_front(m, wanted);
  m->data = m->data.get() - wanted;
  m->m_len += wanted;
  return m;
}

struct mbuf *m_pullup(struct mbuf *m, int32_t bytes) {
  if (m == nullptr) return nullptr;
  if (bytes < 0 || static_cast<uint32_t>(bytes) > rsw::packet_buffer_room) return freed(m);
  const auto wanted = static_cast<uint32_t>(bytes);
  if (m->m_len >= wanted) return m;
  if (m_length(m) < wanted) return freed(m);
  if (m->data.get() + wanted > rsw::end_of_room(m)) {
    uint8_t *start = rsw::buffer_of(m)->room;
    std::memmove(start, m->data.get(), m->m_len);
    m->data = start;
  }
  while (m->m_len < wanted) {
    struct mbuf *next = m->next.get();
    const uint32_t moved = std::min(wanted - m->m_len, next->m_len);
    std::memcpy(m->data.get() + m->m_len, next->data.get(), moved);
    m->m_len += moved;
    next->data = next->data.get() + moved;
    next->m_len -= moved;
    if (next->m_len == 0) {
      m->next = next->next.get();
      rsw::give_buffer_back(next);
    }
  }
  return m;
}

uint32_t m_copydata(struct mbuf *m, int32_t offset, int32_t length, void *buffer) {
  if (offset < 0 || length < 0) return too_short;
  auto skip = static_cast<uint32_t>(offset);
  auto left = static_cast<uint32_t>(length);
  auto *to = static_cast<uint8_t *>(buffer);
  for (; m != nullptr && left > 0; m = m->next.get()) {
    if (skip >= m->m_len) {
      skip -= m->m_len;
      continue;
    }
    const uint32_t bytes = std::min(m->m_len - skip, left);
    std::memcpy(to, m->data.get() + skip, bytes);
    to += bytes;
    left -= bytes;
    skip = 0;
  }
  return left == 0 ? 0 : too_short;
}

uint32_t m_length(struct mbuf *m) {
  uint32_t total = 0;
  for (; m != nullptr; m = m->next.get()) total += m->m_len;
  return total;
}

void m_freem(struct mbuf *m) {
  while (m != nullptr) {
    struct mbuf *next = m->next.get();
    rsw::give_buffer_back(m);
    m = next;
  }
}

}  // extern "C"
