// SPDX-License-Identifier: Apache-2.0
// One subject of the packet service: does what the messages that it was made for ask for.
#ifndef IPD_PACKET_HANDLER_H
#define IPD_PACKET_HANDLER_H

#include "ipd/packet/outcome.h"
#include "ipd/packet/request.h"

namespace ipd::packet {

class Handler {
 public:
  virtual ~Handler() = default;

  // Nobody is told what became of it: it is counted.
  virtual Outcome handle(Request &request) = 0;
};

}  // namespace ipd::packet

#endif
