// SPDX-License-Identifier: Apache-2.0
// Shows the packet service to people: what came of the packets of each kind of message. Asked on the control SAP.
#ifndef IPD_PACKET_SHOW_H
#define IPD_PACKET_SHOW_H

#include "ipd/control/handler.h"
#include "ipd/control/transport.h"
#include "ipd/packet/service.h"

namespace ipd::packet {

class Show final : public control::Handler {
 public:
  // Both outlive it.
  Show(control::Transport &transport, const Service &service) : transport_(transport), service_(service) {}

  // IP_MSG_SHOW_PACKETS.
  control::Refusal handle(const control::Request &request) override;

 private:
  control::Transport &transport_;
  const Service &service_;
};

}  // namespace ipd::packet

#endif
