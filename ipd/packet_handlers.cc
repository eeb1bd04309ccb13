// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet_handlers.h"

#include "ip_packet.h"
#include "ip_show.h"

namespace ipd {

PacketHandlers::PacketHandlers(State &state, const Publisher &publisher, const kernel::Picture &picture,
                               EventLoop &loop, ControlSap &control, ControlHandlers &requests, PacketSap &packets)
    : box_(state, publisher),
      senders_(box_, picture, loop),
      icmp_output_(senders_.output()),
      icmp_errors_(box_, senders_.output(), {}),
      show_(control.transport(), packets.service()),
      capture_(control.transport()),
      reception_(box_, requests.memberships(), senders_.output(), loop, control, packets) {
  senders_.add_to(packets.service());
  packets.service().add(icmp_output_, {IP_MSG_ICMP_OUTPUT});
  packets.service().add(icmp_errors_, {IP_MSG_ICMP_ERROR, IP_MSG_DRIVER_ICMP});
  control.service().add(show_, {IP_MSG_SHOW_PACKETS});
  control.service().add(capture_, {IP_MSG_CAPTURE});
  packets.service().add(capture_);
}

void PacketHandlers::configure(const Configuration &configuration) {
  icmp_errors_.configure(configuration.icmp_errors);
  reception_.configure(configuration);
}

void PacketHandlers::interfaces_changed(const std::set<uint32_t> & /*ifindexes*/) {
  reception_.interfaces_changed();
}

void PacketHandlers::tick() {
  senders_.tick();
  reception_.tick();
}

}  // namespace ipd
