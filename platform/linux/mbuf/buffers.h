// SPDX-License-Identifier: Apache-2.0
// Where packet buffers come from and go back to.
//
// They come from the pool that all processes share (pool.h), so that a packet can travel by the address of its first
// buffer. A process that finds no pool, or may not write it, has private buffers instead: they lie beside the pool,
// where the 32-bit words of an mbuf reach as well, and a packet goes from there as data segments.
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
  uint32_t state;  // 1 in use, 0 free: against damage, and against giving back twice
  uint32_t reserved[9];
  uint8_t room[1984];
};
static_assert(sizeof(PacketBuffer) == 2048, "buffers tile their window, and a buffer's place tells its room");
static_assert(offsetof(PacketBuffer, state) == 24);
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
// packet_buffer_front bytes into its room. The first one attaches the process to the pool. Threads: any. Blocks: no.
// Null: all are used up (counted), or there is no place for private ones (logged once).
[[nodiscard]] RSW_EXPORT struct mbuf *take_buffer();

// Gives one buffer back, whichever process took it. Threads: any. One that no buffer begins at, or that is free, is
// counted as damage and left alone.
RSW_EXPORT void give_buffer_back(struct mbuf *m);

// Buffers that this process owns, taken by it and not given back or handed to it. It looks at the whole pool: for
// tests. Threads: any.
[[nodiscard]] RSW_EXPORT uint32_t buffers_in_use();

// A packet of these bytes, in as many buffers as they need. Null: no buffer; nothing is taken then.
[[nodiscard]] RSW_EXPORT struct mbuf *make_packet(std::span<const uint8_t> bytes);

}  // namespace rsw

#endif
