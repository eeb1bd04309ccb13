// SPDX-License-Identifier: Apache-2.0
// MTS beyond the contract: what a process needs that serves a SAP, and what shows the queues of a system.
//
// A server answers many, and must not wait for any of them: mts_recv_now takes what is there, mts_set_patience(queue,
// 0) makes mts_send fail at once where it would wait for room, and mts_reply never waits. A process that serves many
// clients needs two descriptors for each: its RLIMIT_NOFILE is its own to raise. When it has none left, new clients
// wait until another one goes.
#ifndef RSW_MTS_MTS_SERVER_H
#define RSW_MTS_MTS_SERVER_H

#include <cstdint>
#include <string>
#include <vector>

#include "mts.h"
#include "sm/run_dir.h"

namespace rsw {

// Who sent a message: process and user by the kernel's word, as of when it connected. The SAP is one that this user
// has, as far as the files of SAPs tell. 0: the sender's queue is gone, and its SAP may be somebody else's; only of a
// message that mts_is_gone says is the SAP told all the same.
struct MtsSender {
  int32_t pid;
  uint32_t uid, gid;
  uint32_t sap;
};

// Threads: any. Blocks: no. False: no such message, or one that was not received.
RSW_EXPORT bool mts_sender(mts_msg_ref_t msg, MtsSender *sender);

// Whether the sender had a group when it connected, as its own or as a supplementary one.
// Threads: any. Blocks: no. False: no, or no such message.
RSW_EXPORT bool mts_sender_in_group(mts_msg_ref_t msg, uint32_t gid);

// Whether a received message wants an answer.
// Threads: any. Blocks: no. False: no, or no such message.
RSW_EXPORT bool mts_is_request(mts_msg_ref_t msg);

// Answers a request, once, or says that it cannot be answered. The request is still to be dropped.
//   queue         where it was received
//   size          at most 120832; payload may be null for 0
// Threads: any. Blocks: no. Owns: nothing.
// Results: 0. Negative: not answered. errno EINVAL: no such request; EALREADY: it was answered; ECONNRESET: who asked
// is gone; EAGAIN: who asked makes no room; EMSGSIZE; EBADF, ECHILD: the queue, as in mts.h.
RSW_EXPORT int32_t mts_reply(uint32_t queue, mts_msg_ref_t request, uint32_t opcode, const void *payload,
                             uint32_t size);
RSW_EXPORT int32_t mts_reject(uint32_t queue, mts_msg_ref_t request);

// Ends the connection that a message came by: whoever waits there for an answer that cannot be given learns so, as if
// we were gone, and may ask again. Threads: any. Blocks: no. Results: 0. Negative: no such queue, or no message that
// was received there (EINVAL).
RSW_EXPORT int32_t mts_hang_up(uint32_t queue, mts_msg_ref_t msg);

// Asks to be told when somebody who sent to the queue unbinds or dies: then, behind the last message of that sender, a
// message without payload comes, of which mts_is_gone says true and mts_sender who it was. One comes per connection: a
// sender that was refused for a malformed message and connected again is told of twice.
// Threads: any. Blocks: no. Results: 0. Negative: there is no such queue.
RSW_EXPORT int32_t mts_watch_peers(uint32_t queue, bool on);
RSW_EXPORT bool mts_is_gone(mts_msg_ref_t msg);

// As mts_send without a reference, but for one process: a SAP is given again when its queue is gone, and what is meant
// for who asked from it is not the next owner's to read.
//   to            a sender as mts_sender tells it, by its SAP and process. Processes that this one cannot see, because
//                 they are of another PID namespace, are all process 0
//   opts          as mts_send's
// Threads: any. Blocks: as mts_send. Owns: nothing. Results: as mts_send; errno ECONNREFUSED, too, when another process
// has the SAP.
RSW_EXPORT int32_t mts_send_back(uint32_t queue, const MtsSender &to, uint32_t opcode, const void *payload,
                                 uint32_t size, const mts_send_opts *opts);

// How long mts_send on this queue waits for room, instead of 2,000 milliseconds. 0: not at all.
// Threads: any. Blocks: no. Results: 0. Negative: there is no such queue.
RSW_EXPORT int32_t mts_set_patience(uint32_t queue, int32_t milliseconds);

// What a queue tells of itself. Numbers of messages count from the bind and wrap.
struct MtsQueueUse {
  uint32_t sap;
  int32_t pid;
  uint32_t module;
  std::string name;
  uint32_t waiting, waiting_bytes;  // taken from senders, not received yet
  uint32_t high_water;              // most that waited
  uint32_t received, sent;
  uint32_t refused;  // malformed messages; each ended its connection
  uint32_t send_failures;
  uint32_t connections;  // open, either way
};

// The queues of all live processes of the run directory, by SAP.
// Threads: any. Blocks: no.
RSW_EXPORT std::vector<MtsQueueUse> mts_queues();

}  // namespace rsw

#endif
