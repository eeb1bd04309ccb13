// SPDX-License-Identifier: Apache-2.0
// Each word of a buffer is read once into a local, compared, and only then used.
#include "mbuf/references.h"

#include <cstring>

#include "mbuf/attachment.h"

namespace rsw {
namespace {

using namespace pool;

// A buffer's record as it was read.
struct Link {
  uint32_t next = 0;
  uint32_t data = 0;
  uint32_t length = 0;
  PacketWords words;
};

// In use, and that process's.
bool is_owned(const Place &place, const PacketBuffer &buffer, int32_t pid) {
  auto &seen = const_cast<PacketBuffer &>(buffer);  // only read
  return (free_bits(group_at(place.group)) & place.bit) == 0 && word(seen.state).load(std::memory_order_relaxed) == 1 &&
         word(seen.head.owner).load(std::memory_order_relaxed) == pid;
}

enum class Found : uint8_t { owned, no_buffer, not_owned };

Found find(uint32_t reference, int32_t pid, PacketBuffer **buffer) {
  Place place{};
  if (!find_place(reference, groups_in_use(), &place)) return Found::no_buffer;
  *buffer = buffer_at(place.group, index_of(place.bit));
  return is_owned(place, **buffer, pid) ? Found::owned : Found::not_owned;
}

Link read_link(PacketBuffer &buffer) {
  struct mbuf &head = buffer.head;
  // Relaxed, all: the sender wrote them before it sent the message, and what it writes now may be seen or not.
  return {.next = word(head.next.word).load(std::memory_order_relaxed),
          .data = word(head.data.word).load(std::memory_order_relaxed),
          .length = word(head.m_len).load(std::memory_order_relaxed),
          .words = {.hdr_byte = std::atomic_ref(head.hdr_byte).load(std::memory_order_relaxed),
                    .hdr_word = std::atomic_ref(head.hdr_word).load(std::memory_order_relaxed)}};
}

// Do the bytes lie in the buffer's own room?
bool is_sound(const PacketBuffer *buffer, const Link &link) {
  const auto room = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(buffer->room));
  const uint32_t offset = link.data - room;
  return offset <= packet_buffer_room && link.length <= packet_buffer_room - offset;
}

uint32_t each_owned(uint32_t reference, int32_t from_pid, void (*then)(struct mbuf *)) {
  if (!is_attached()) return 0;
  uint32_t buffers = 0;
  for (; reference != 0 && buffers < longest_packet_buffers; ++buffers) {
    PacketBuffer *buffer = nullptr;
    if (find(reference, from_pid, &buffer) != Found::owned) break;
    reference = read_link(*buffer).next;
    int32_t owner = from_pid;
    // Relaxed: the word stands for itself. Who loses is not the one to free it.
    if (!word(buffer->head.owner).compare_exchange_strong(owner, own_pid(), std::memory_order_relaxed)) break;
    then(&buffer->head);
  }
  return buffers;
}

}  // namespace

PacketReading read_packet(uint32_t reference, int32_t claimed_owner, std::span<std::byte> into, size_t *length,
                          PacketWords *words) {
  *length = 0;
  if (words != nullptr) *words = {};
  if (!is_attached()) return PacketReading::not_in_pool;
  size_t copied = 0;
  PacketWords first;
  uint32_t buffers = 0;
  do {
    PacketBuffer *buffer = nullptr;
    const Found found = find(reference, claimed_owner, &buffer);
    if (found != Found::owned && buffers != 0) return PacketReading::damaged;
    if (found == Found::no_buffer) return PacketReading::not_in_pool;
    if (found == Found::not_owned) return PacketReading::not_owned;
    const Link link = read_link(*buffer);
    if (++buffers > longest_packet_buffers || !is_sound(buffer, link)) return PacketReading::damaged;
    if (link.length > longest_packet_bytes - copied || link.length > into.size() - copied) {
      return PacketReading::too_long;
    }
    if (buffers == 1) first = link.words;
    if (link.length != 0) {
      std::memcpy(into.data() + copied, reinterpret_cast<const void *>(static_cast<uintptr_t>(link.data)), link.length);
    }
    copied += link.length;
    reference = link.next;
  } while (reference != 0);
  *length = copied;
  if (words != nullptr) *words = first;
  return PacketReading::ok;
}

uint32_t take_packet_over(uint32_t reference, int32_t from_pid) {
  return each_owned(reference, from_pid, [](struct mbuf *) {});
}

uint32_t free_packet_of(uint32_t reference, int32_t from_pid) {
  return each_owned(reference, from_pid, [](struct mbuf *m) { give_buffer_back(m); });
}

}  // namespace rsw
