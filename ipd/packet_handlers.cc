// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet_handlers.h"

namespace ipd {

PacketHandlers::PacketHandlers(State &state, const Publisher &publisher, EventLoop & /*loop*/, ControlSap & /*control*/,
                               ControlHandlers & /*requests*/, PacketSap & /*packets*/)
    : box_(state, publisher) {}

void PacketHandlers::configure(const Configuration & /*configuration*/) {}

void PacketHandlers::tick() {}

}  // namespace ipd
