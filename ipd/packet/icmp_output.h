// SPDX-License-Identifier: Apache-2.0
// Complete ICMP packets of clients.
#ifndef IPD_PACKET_ICMP_OUTPUT_H
#define IPD_PACKET_ICMP_OUTPUT_H

#include "ipd/packet/handler.h"
#include "ipd/packet/output.h"

namespace ipd::packet {

// IP_MSG_ICMP_OUTPUT. What the client says stands in the packet; a checksum of zero is filled in, but in a fragment,
// which has not all that is summed up. No limit counts them.
class IcmpOutput final : public Handler {
 public:
  // `output` outlives it.
  explicit IcmpOutput(Output &output) : output_(output) {}

  Outcome handle(Request &request) override;

 private:
  Output &output_;
};

}  // namespace ipd::packet

#endif
