// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/output_message.h"

#include <algorithm>

#include "ip_packet.h"

namespace ipd::packet {

Outcome OutputMessage::handle(Request &request) {
  const auto message = request.as<ip_msg_output>();
  Way way{.iod = message.iod,
          .next_hop = message.next_hop,
          .context_id = message.context_id,
          .flags = message.flags,
          .src_l2 = {}};
  if (message.src_l2_valid != 0) {
    way.src_l2.emplace();
    std::ranges::copy(message.src_l2_addr, way.src_l2->begin());
  }
  return output_.send(way, request.packet);
}

}  // namespace ipd::packet
