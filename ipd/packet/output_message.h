// SPDX-License-Identifier: Apache-2.0
// Packets that clients want to be sent.
#ifndef IPD_PACKET_OUTPUT_MESSAGE_H
#define IPD_PACKET_OUTPUT_MESSAGE_H

#include "ipd/packet/handler.h"
#include "ipd/packet/output.h"

namespace ipd::packet {

// IP_MSG_OUTPUT.
class OutputMessage final : public Handler {
 public:
  // It outlives this.
  explicit OutputMessage(Output &output) : output_(output) {}

  Outcome handle(Request &request) override;

 private:
  Output &output_;
};

}  // namespace ipd::packet

#endif
