// SPDX-License-Identifier: Apache-2.0
// MTS, the message transaction service: messages between processes, addressed by service access point (SAP).
//
// A process binds a queue on a SAP, sends from it and receives on it. A SAP is a number: below 2048 a fixed one with a
// meaning of its own, from 2048 to 65535 a dynamic one that MTS picked. Each message has an opcode, which says what it
// is, and at most 120,832 bytes. A send that asks for a response is told apart by a token, so that the asker can wait
// for exactly that response. Messages of one queue to another arrive in the order in which they were sent.
//
// Where a call fails, errno is EBADF when there is no such queue (any more), ECHILD when a parent process bound it: a
// queue is not inherited over fork(2), the child binds its own. ENOMEM and EMFILE are what they always are.
//
//   struct mts_bind_opts bind = {1, 0, 1024, 267, 0, 15};
//   uint32_t queue = mts_bind(1, -1, &bind, "my queue");
//   mts_recv_q_unblock(queue);
#ifndef RSW_MTS_H
#define RSW_MTS_H

#include <string.h>

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// ------------------------------------------------------------------------------------------------------------ records

// How a queue is bound.
struct mts_bind_opts {
  uint32_t w0;      // 1
  uint32_t flags;   // low 16 bits; bit 0: a fixed SAP other than the packet SAP
  uint32_t w2;      // 1024
  uint32_t module;  // the caller's component, 267 for IP; 0 for its URIB queue
  uint32_t w4;      // 0
  uint32_t w5;      // 15
};
RSW_SIZE(struct mts_bind_opts, 24);
RSW_OFFSET(struct mts_bind_opts, flags, 4);
RSW_OFFSET(struct mts_bind_opts, module, 12);

// A piece of a packet that travels with a message.
struct mts_iovec {
  void *base;    // first byte
  uint32_t len;  // bytes
};
RSW_SIZE_32(struct mts_iovec, 8);
RSW_OFFSET_32(struct mts_iovec, len, 4);

// How a message is sent: w[0] = 1; w[1] = how many pieces of a packet go with it; w[2] and w[3] = the address of their
// vector, low word first, see the two functions below; all others 0.
struct mts_send_opts {
  uint32_t w[17];
};
RSW_SIZE(struct mts_send_opts, 68);

// How a message is received: w[0] = 1; w[2] = how long to wait, in seconds, 0 without end; w[3] = the request-response
// token of the response that is wanted, 0 for any message; all others 0.
struct mts_recv_opts {
  uint32_t w[10];
};
RSW_SIZE(struct mts_recv_opts, 40);

// A message that this process holds: one that arrived, or one that was sent and waits for its response.
typedef void *mts_msg_ref_t;

// The low word first is how a machine of this byte order stores an address anyway.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the send options carry an address as two words, low one first");

// Names the pieces of a packet that go with a message.
//   opts          the options, otherwise filled in; w[2] and w[3] are written
//   vector        the pieces; null takes them away. It must stay as it is until the send has returned
// Threads: any, one per record. Blocks: no. Owns: nothing.
static inline void mts_send_opts_set_vector(struct mts_send_opts *opts, struct mts_iovec *vector) {
#ifdef __cplusplus
  const uintptr_t address = reinterpret_cast<uintptr_t>(vector);
#else
  const uintptr_t address = (uintptr_t)vector;
#endif
  opts->w[3] = 0;
  memcpy(&opts->w[2], &address, sizeof address);
}

// The pieces that mts_send_opts_set_vector named; null when there are none.
static inline struct mts_iovec *mts_send_opts_vector(const struct mts_send_opts *opts) {
  uintptr_t address;
  memcpy(&address, &opts->w[2], sizeof address);
#ifdef __cplusplus
  return reinterpret_cast<struct mts_iovec *>(address);  // NOLINT(performance-no-int-to-ptr): it was one
#else
  return (struct mts_iovec *)address;
#endif
}

// ------------------------------------------------------------------------------------------------------------- queues

// Binds a queue.
//   kind          1
//   sap           the fixed SAP, or -1: MTS picks the lowest dynamic one that is free
//   opts          see there; not null
//   name          for people who look at queues
// Threads: any. Blocks: no. Owns: the queue is the process's until mts_unbind or its end.
// Results: the queue's handle. 0xffffffff: not bound. errno EADDRINUSE: a live process has the SAP; EACCES: fixed SAPs
// are for the system's user and root; ENOENT: the system does not run; EINVAL.
uint32_t mts_bind(uint32_t kind, int32_t sap, struct mts_bind_opts *opts, const char *name);

// Gives a queue back. What waits in it is lost, and so is every message reference of it that was not dropped.
//   queue         a handle; one that is not bound is refused
// Threads: any; a thread that waits in mts_recv on it gets EBADF. Blocks: no. Owns: takes the queue.
// Results: 0. Negative: there is no such queue.
int32_t mts_unbind(uint32_t queue, uint32_t zero);

// Opens a fresh queue for arrivals; until then senders are refused.
//   queue         a handle
// Threads: any. Blocks: no. Owns: nothing. Results: 0. Negative: there is no such queue.
int32_t mts_recv_q_unblock(uint32_t queue);

// The SAP that a queue is bound on.
//   queue         a handle; -1 may be asked for
// Threads: any. Blocks: no. Owns: nothing. Results: the SAP. 0: there is no such queue.
uint32_t mts_sap_get(uint32_t queue);

// A descriptor for a caller's event loop: readable whenever mts_recv would find something. It may be readable without
// that (a sender has connected), so a loop receives with mts_recv_now until that has nothing more. libip does not call
// these two; they are librsw's.
//   queue         a handle
// Threads: any. Blocks: no. Owns: the descriptor stays the queue's: poll it, nothing else; it ends with the queue.
// Results: the descriptor. -1: there is no such queue.
int mts_queue_fd(uint32_t queue);

// A queue's options for an opcode, and setting them: a word of bits; bit 4 lets messages of the opcode pass before
// others.
//   queue         a handle
//   opcode        of the messages that the options are for
//   value         the new word; the upper 16 bits are reserved
// Threads: any. Blocks: no. Owns: nothing.
// Results of get: the word, 0 unless set. Of set: 0; negative: there is no such queue, or 64 opcodes have options
// (ENOSPC).
uint32_t mts_options_get(uint32_t queue, uint32_t opcode);
int32_t mts_options_set(uint32_t queue, uint32_t opcode, uint32_t value);

// ----------------------------------------------------------------------------------------------------------- messages

// Sends a message. With `sent`, it is a request: its receiver must answer or reject it.
//   queue         the sender's
//   node          0xFE000000: this node
//   sap           the receiver's
//   opcode        what the message is
//   payload       the message, size bytes; not null
//   size          at most 120832, together with the pieces, of which there are at most 62
//   sent          null; for a request: out, the request's reference, for mts_rr_token_get and mts_drop
//   opts          a struct mts_send_opts, or null in a request
// Threads: any. Blocks: while the receiver has no room, at most 2 seconds; a signal does not end that wait.
// Owns: payload, vector and options stay the caller's and may be reused at once. A packet that the message names by its
// address goes to the receiver with it, if the send succeeds.
// Results: 0. Negative: not sent, nothing changed hands. errno ECONNREFUSED: nobody serves the SAP; EAGAIN: no room
// there for 2 seconds; EMSGSIZE: too large, pieces included; EHOSTUNREACH: another node; ENOBUFS: 1,024 requests wait
// for their responses, or 65,535 references are held; EACCES; EINVAL.
int32_t mts_send(uint32_t queue, uint32_t node, uint32_t sap, uint32_t opcode, void *payload, uint32_t size,
                 mts_msg_ref_t *sent, uint32_t zero, void *opts);

// Receives a message.
//   queue         where
//   msg           out: the message's reference; not null, written on success only
//   opts          how long, and which response; not null
// Threads: one at a time per queue. Blocks: until a message, the end of the wait, a signal, or the death of the peer
// whose response is wanted, or, when any message is, of one to whom something was sent from this queue. Callers bracket
// it with tsp_before_yield and tsp_after_yield. Owns: the reference is the caller's, to be given back by mts_drop. One
// that is never dropped keeps its memory until the queue is unbound. Results: 0. Negative: nothing arrived. errno
// EINTR: receive again. ETIMEDOUT: the wait is over; a response that was wanted is not any more, and is lost when it
// comes. ECONNRESET: the peer died; it is told once, when what it sent before has been received. EINVAL: nobody waits
// for this token's response. ENOBUFS: 65,535 references are held; ENOMEM: nothing is lost by either.
int32_t mts_recv(uint32_t queue, mts_msg_ref_t *msg, struct mts_recv_opts *opts);

// Receives any message that is there.
//   queue, msg    as mts_recv's
// Threads: one at a time per queue. Blocks: no. Owns: as mts_recv.
// Results: 0. Negative: errno EAGAIN: there is nothing; others as mts_recv's.
int32_t mts_recv_now(uint32_t queue, mts_msg_ref_t *msg);

// Gives a message back, received or sent.
//   queue         the one that it was received on or sent from
//   msg           the reference; its payload is not to be touched afterwards
// Threads: any. Blocks: no. Owns: takes the reference. Results: 0. Negative: no such message (EINVAL).
int32_t mts_drop(uint32_t queue, mts_msg_ref_t msg);

// What a received message carries, how many bytes that is, and what it is.
//   msg           a received message
// Threads: any. Blocks: no. Owns: nothing; the payload lasts until mts_drop and may be written to. It came from another
// process: look at the size before reading a word of it.
// Results: the payload, null for none; its bytes, 0 for none (0 beside a payload says that the platform tells no sizes,
// and that every message is as long as its record); the opcode.
void *mts_payload_get(mts_msg_ref_t msg);
uint32_t mts_payload_size(mts_msg_ref_t msg);
uint32_t mts_opc_get(mts_msg_ref_t msg);

// Whether a received message says that the request cannot be answered, rather than answering it.
//   msg           the response
// Threads: any. Blocks: no. Owns: nothing. Results: 1: a reject, drop it. 0: an answer.
uint32_t mts_is_reject(mts_msg_ref_t msg);

// The token by which a request's response is told from other messages: what w[3] of the receive options takes.
//   msg           a request that was sent
// Threads: any. Blocks: no. Owns: nothing. Results: the token, never 0.
uint32_t mts_rr_token_get(mts_msg_ref_t msg);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
