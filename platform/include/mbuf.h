// SPDX-License-Identifier: Apache-2.0
// Packet buffers: a packet is a chain of buffers from a pool that processes share, so that it can travel to another
// process by the 32-bit address of its first buffer. A process that may not use the pool gets buffers of its own; its
// packets travel as bytes.
//
// Who owns a packet frees it: with m_freem, or by handing it on to a call that says it takes it. Calls that may move a
// packet's front return the new first buffer; the old pointer is not to be used again. A buffer left behind by a
// process that died is taken back by the pool, which is why each one knows its owner.
#ifndef RSW_MBUF_H
#define RSW_MBUF_H

#include "contract.h"
#include "mts.h"
#include "sm.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// One buffer. What stands behind `owner` is the platform's.
struct mbuf {
  IP_SHM_PTR(struct mbuf) next;         // the packet's next buffer
  IP_SHM_PTR(struct mbuf) next_packet;  // for lists of packets
  IP_SHM_PTR(uint8_t) data;             // first valid byte
  uint32_t m_len;                       // valid bytes in this buffer; 0 is possible
  uint8_t type;                         // the platform's
  uint8_t hdr_byte;                     // of a packet's first buffer: copied into packet messages
  uint16_t hdr_word;                    // likewise
  int32_t owner;                        // process id of whom the pool takes the buffer back from
};
RSW_SIZE(struct mbuf, 24);
RSW_OFFSET(struct mbuf, next_packet, 4);
RSW_OFFSET(struct mbuf, data, 8);
RSW_OFFSET(struct mbuf, m_len, 12);
RSW_OFFSET(struct mbuf, type, 16);
RSW_OFFSET(struct mbuf, hdr_byte, 17);
RSW_OFFSET(struct mbuf, hdr_word, 18);
RSW_OFFSET(struct mbuf, owner, 20);

// Begins a packet: one buffer, the caller's, without bytes and with room in front for headers.
// Threads: any. Blocks: no. Owns: the caller frees it, or hands it on.
// Results: the packet. Null: no buffer.
struct mbuf *m_gethdr(void);

// Adds bytes at the end of a packet.
//   m             the packet; not null
//   bytes         copied
//   length        of them; 0 is possible
// Threads: one per packet. Blocks: no. Owns: nothing; new buffers belong to whom the last one does.
// Results: 1. 0: no buffer; the packet is as it was.
uint32_t m_append(struct mbuf *m, const void *bytes, uint32_t length);

// A packet that a message names, whose sender handed it to this process (m_set_owner).
//   reference     the address of its first buffer, as the message has it
// Threads: any. Blocks: no. Owns: the packet was the caller's before; it frees it.
// Results: the packet. Null: no such packet of this process, or it may not use the pool.
struct mbuf *m_packet_at(uint32_t reference);

// A packet's buffers, one after the other: m_next() after the last is null, and each has m_len bytes at m_bytes().
// Threads: any while nobody changes the packet. Blocks: no. Owns: nothing.
static inline struct mbuf *m_next(const struct mbuf *m) {
  return IP_SHM_GET(struct mbuf, m->next);
}
static inline uint8_t *m_bytes(const struct mbuf *m) {
  return IP_SHM_GET(uint8_t, m->data);
}

// Makes room in front of a packet.
//   m             the packet; not null
//   bytes         how many; the new bytes' contents are undefined
// Threads: one per packet. Blocks: no. Owns: takes the packet, returns it.
// Results: the packet, whose first `bytes` bytes are the new ones, in one buffer. Null: no buffer; the packet is gone.
struct mbuf *m_prepend(struct mbuf *m, int32_t bytes, int32_t one);

// Brings a packet's first bytes into one buffer.
//   m             the packet; not null
//   bytes         how many
// Threads: one per packet. Blocks: no. Owns: takes the packet, returns it.
// Results: the packet, m_len of its first buffer at least `bytes`. Null: it is shorter, or no buffer; the packet was
// freed.
struct mbuf *m_pullup(struct mbuf *m, int32_t bytes);

// Copies bytes out of a packet.
//   m             the packet
//   offset        of the first byte, from the packet's beginning
//   length        bytes
//   buffer        room for length bytes
// Threads: any while nobody changes the packet. Blocks: no. Owns: nothing.
// Results: low 16 bits 0: copied. Otherwise the packet is shorter, and the buffer's contents are undefined.
uint32_t m_copydata(struct mbuf *m, int32_t offset, int32_t length, void *buffer);

// The bytes of a whole packet.
//   m             the packet
// Threads: any while nobody changes the packet. Blocks: no. Owns: nothing. Results: the sum of m_len over its buffers.
uint32_t m_length(struct mbuf *m);

// Frees a packet, all buffers of it.
//   m             the packet; null: nothing happens
// Threads: one per packet. Blocks: no. Owns: takes the packet.
void m_freem(struct mbuf *m);

// Makes a vector of a packet's bytes, for a message that carries them (mts_send_opts_set_vector).
//   m                 the packet; stays as it is, and must until the message was sent
//   limit             pieces at most; 8
//   count             out: pieces, for w[1] of the send options
//   overflow          out: the block into which what exceeds the limit was copied, null when nothing does
//   total_len         out: bytes of the packet
//   copied_len        out: bytes in the overflow block
//   vector_allocated  out: nonzero: the vector is to be released
// Threads: any while nobody changes the packet. Blocks: no.
// Owns: the caller releases the vector if *vector_allocated says so, and *overflow if it is not null, after the send;
// mtrack_free and free(3) both do.
// Results: the vector. Null: no memory; nothing is to be released.
struct mts_iovec *m_convert_mbuf_to_iovec_limited(struct mbuf *m, uint32_t limit, uint32_t *count, void **overflow,
                                                  uint32_t *total_len, uint32_t *copied_len,
                                                  uint32_t *vector_allocated);

// Says which process a packet's buffers are taken back from, when that process dies.
//   m             the packet
//   owner         a process id
// Threads: one per packet. Blocks: no. Owns: the new owner is to free the packet. Setting it again is harmless.
void m_set_owner(struct mbuf *m, int32_t owner);

// Shows a packet's buffers and bytes as debug lines, for developers.
//   title         what the dump is of
//   m             the packet
// Threads: any while nobody changes the packet. Blocks: as buginf, see log.h. Owns: nothing.
void mbuf_dump(const char *title, struct mbuf *m, uint32_t zero1, uint32_t zero2);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
