// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet_handlers.h"

#include "ip_show.h"

namespace ipd {

PacketHandlers::PacketHandlers(State &state, const Publisher &publisher, EventLoop & /*loop*/, ControlSap &control,
                               ControlHandlers & /*requests*/, PacketSap &packets)
    : box_(state, publisher), show_(control.transport(), packets.service()), capture_(control.transport()) {
  control.service().add(show_, {IP_MSG_SHOW_PACKETS});
  control.service().add(capture_, {IP_MSG_CAPTURE});
  packets.service().add(capture_);
}

void PacketHandlers::configure(const Configuration & /*configuration*/) {}

void PacketHandlers::tick() {}

}  // namespace ipd
