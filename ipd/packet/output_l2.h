// SPDX-License-Identifier: Apache-2.0
// Packets in frames that clients describe: IP_MSG_OUTPUT_L2, IP_MSG_OUTPUT_L2_MVR and IP_MSG_OUTPUT_L2_DCE.
#ifndef IPD_PACKET_OUTPUT_L2_H
#define IPD_PACKET_OUTPUT_L2_H

#include <cstdint>
#include <span>

#include "ip_packet.h"
#include "ipd/control/box.h"
#include "ipd/packet/filling.h"
#include "ipd/packet/framed_output.h"
#include "ipd/packet/handler.h"
#include "ipd/packet/links.h"

namespace ipd::packet {

class OutputL2 final : public Handler {
 public:
  // All outlive it.
  OutputL2(const control::Box &box, const Links &links, FramedOutput &framed, Identifications &identifications)
      : box_(box), links_(links), framed_(framed), identifications_(identifications) {}

  Outcome handle(Request &request) override;

 private:
  static Outcome check(uint16_t minor, const ip_msg_output_l2 &message, ipv4::Bytes packet);
  static Outcome choose_destination(const ip_msg_output_l2 &message, const control::InterfaceFacts &facts,
                                    uint32_t destination, FrameWay &way);

  const control::Box &box_;
  const Links &links_;
  FramedOutput &framed_;
  Identifications &identifications_;
};

}  // namespace ipd::packet

#endif
