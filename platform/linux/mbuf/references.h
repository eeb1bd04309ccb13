// SPDX-License-Identifier: Apache-2.0
// Packets of the shared pool that another process names: looked at without trusting a word of them.
//
// A reference is the 32-bit address of a packet's first buffer. Whoever sends one may send any number, may go on
// writing into the buffers, and may die meanwhile. So each word is read once and compared: it names a place where a
// buffer begins, that buffer is in use and the sender's, its bytes lie in its own room, and the chain ends. Nothing
// here follows a word that was not compared, waits, or faults, whatever stands in the pool.
//
// For who takes references from others (ipd). Not attached to the pool: every reference is foreign.
#ifndef RSW_MBUF_REFERENCES_H
#define RSW_MBUF_REFERENCES_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "mbuf.h"
#include "sm/run_dir.h"

namespace rsw {

enum class PacketReading : uint8_t {
  ok,
  not_in_pool,  // no buffer of the shared pool begins there
  not_owned,    // free, or another process's
  damaged,   // the chain leaves the pool or the sender's buffers, has no end, or a buffer's bytes are not in its room
  too_long,  // for a packet, or for `into`
};

inline constexpr size_t longest_packet_bytes = 65535;
// A longer chain counts as damaged.
inline constexpr uint32_t longest_packet_buffers = 2048;

// What a packet's first buffer carries besides bytes.
struct PacketWords {
  uint8_t hdr_byte = 0;
  uint16_t hdr_word = 0;
};

// Copies a packet's bytes.
//   reference      the address of its first buffer
//   claimed_owner  the process that named it: all buffers must be that one's
//   into           room for the bytes; only longest_packet_bytes of it are used
//   length         out: bytes copied; 0 unless ok
//   words          out, unless null: of the first buffer; zero unless ok
// Threads: any. Blocks: no. Owns: nothing. What the sender changes meanwhile may show in the bytes, and nowhere else.
[[nodiscard]] RSW_EXPORT PacketReading read_packet(uint32_t reference, int32_t claimed_owner, std::span<std::byte> into,
                                                   size_t *length, PacketWords *words = nullptr);

// Makes the calling process the owner of a packet: of each buffer of the chain, from the first on, that is in use and
// from_pid's. At the first that is not, it ends; what is left stays with its owner until that dies.
// Threads: any. Blocks: no. Results: how many buffers. 0: the first was not from_pid's; nothing changed.
RSW_EXPORT uint32_t take_packet_over(uint32_t reference, int32_t from_pid);

// The same, and frees those buffers, each once. After a message was done or refused: call it either way, whatever
// read_packet said.
RSW_EXPORT uint32_t free_packet_of(uint32_t reference, int32_t from_pid);

}  // namespace rsw

#endif
