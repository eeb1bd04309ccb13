// SPDX-License-Identifier: Apache-2.0
// Where packet buffers come from and go back to.
//
// The buffers of a process lie in the packets' window, where the 32-bit words of an mbuf reach in every width. They are
// that process's alone: another one does not see them yet, so a packet goes to it as data segments.
#ifndef RSW_MBUF_BUFFERS_H
#define RSW_MBUF_BUFFERS_H

#include <cstdint>
#include <span>

#include "mbuf.h"
#include "sm/run_dir.h"

namespace rsw {

// The record, what the platform may put behind it, and room for a packet's bytes.
struct PacketBuffer {
  struct mbuf head;
  uint32_t reserved[10];
  uint8_t room[1984];
};
static_assert(sizeof(PacketBuffer) == 2048, "buffers tile their window, and a buffer's place tells its room");
static_assert(offsetof(PacketBuffer, room) == 64);

inline constexpr uint32_t packet_buffer_room = sizeof(PacketBuffer::room);
// Of these, before the first byte of a new packet: for headers that are put in front later.
inline constexpr uint32_t packet_buffer_front = 128;

inline PacketBuffer *buffer_of(struct mbuf *m) {
  return reinterpret_cast<PacketBuffer *>(m);
}

inline uint8_t *end_of_room(struct mbuf *m) {
  return buffer_of(m)->room + packet_buffer_room;
}

// A buffer without bytes, owned by the calling process, its record zero but for `data`, which points
// packet_buffer_front bytes into its room. Threads: any. Null: the window is used up, or could not be had (logged
// once).
[[nodiscard]] RSW_EXPORT struct mbuf *take_buffer();

// Gives one buffer back. Threads: any.
RSW_EXPORT void give_buffer_back(struct mbuf *m);

// Buffers taken and not given back. Threads: any.
[[nodiscard]] RSW_EXPORT uint32_t buffers_in_use();

// A packet of these bytes, in as many buffers as they need. Null: no buffer; nothing is taken then.
[[nodiscard]] RSW_EXPORT struct mbuf *make_packet(std::span<const uint8_t> bytes);

}  // namespace rsw

#endif
