// SPDX-License-Identifier: Apache-2.0
// Packets built, and packets received by reference.
#include <algorithm>
#include <cstring>

#include "mbuf/attachment.h"
#include "mbuf/buffers.h"

namespace {

uint32_t room_behind(struct mbuf *m) {
  return static_cast<uint32_t>(rsw::end_of_room(m) - (m->data.get() + m->m_len));
}

}  // namespace

extern "C" {

struct mbuf *m_gethdr(void) {
  return rsw::take_buffer();
}

uint32_t m_append(struct mbuf *m, const void *bytes, uint32_t length) {
  struct mbuf *last = m;
  while (last->next.get() != nullptr) last = last->next.get();
  const uint32_t fits = std::min(length, room_behind(last));
  struct mbuf *rest = nullptr;
  if (fits < length) {
    rest = rsw::make_packet({static_cast<const uint8_t *>(bytes) + fits, length - fits});
    if (rest == nullptr) return 0;
    m_set_owner(rest, last->owner);
  }
  if (fits != 0) std::memcpy(last->data.get() + last->m_len, bytes, fits);
  last->m_len += fits;
  last->next = rest;
  return 1;
}

struct mbuf *m_packet_at(uint32_t reference) {
  using namespace rsw::pool;
  Place place{};
  if (!attach() || !find_place(reference, groups_in_use(), &place)) return nullptr;
  if ((free_bits(group_at(place.group)) & place.bit) != 0) return nullptr;
  struct mbuf *packet = &buffer_at(place.group, index_of(place.bit))->head;
  return word(packet->owner).load(std::memory_order_relaxed) == own_pid() ? packet : nullptr;
}

}  // extern "C"
