// SPDX-License-Identifier: Apache-2.0
// Message references: what a caller holds of a message.
//
// A reference is a number, not an address: a slot and how often the slot was used. So one that was dropped, or that was
// never given out, is refused rather than followed.
#ifndef RSW_MTS_REFERENCES_H
#define RSW_MTS_REFERENCES_H

#include <cstdint>
#include <memory>

#include "mts.h"
#include "mts/connection.h"

namespace rsw::mts {

// A message that arrived, or a request that was sent.
struct Arrived {
  enum class What : uint8_t { message, request, response, reject, gone, sent_request };
  What what = What::message;
  bool answered = false;
  uint32_t opcode = 0;
  uint32_t token = 0;
  uint32_t sap = 0;  // the sender's
  uint32_t size = 0;
  std::unique_ptr<uint8_t[]> payload;
  std::shared_ptr<Connection> connection;
  uint32_t queue = 0;  // handle
};

// Takes the message. Null: it stays where it was; *error: ENOBUFS when 65,535 are held, ENOMEM.
mts_msg_ref_t keep(std::unique_ptr<Arrived> *message, int *error);
// Frees it. False: no such message, or another queue's.
bool drop(uint32_t queue, mts_msg_ref_t reference);
// Frees all of a queue.
void drop_all(uint32_t queue);
// Calls `look` with the message, under the table's mutex; false: no such message.
bool look_at(mts_msg_ref_t reference, void (*look)(Arrived &message, void *context), void *context);

void lock_references_for_fork();
void unlock_references_after_fork();

}  // namespace rsw::mts

#endif
