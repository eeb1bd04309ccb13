// SPDX-License-Identifier: Apache-2.0
#include "ipd/control_handlers.h"

#include "ipd/control/if_info_encoding.h"

namespace ipd {

ControlHandlers::ControlHandlers(State &state, const Publisher &publisher, const kernel::Picture &picture,
                                 control::Transport &transport, std::function<bool()> share_load)
    : box_(state, publisher),
      address_requests_(kernel::AddressRequests::over_rtnetlink()),
      membership_sockets_(kernel::MembershipSockets::make()),
      counters_(kernel::InterfaceCounters::over_rtnetlink()),
      links_(picture),
      frames_(kernel::PacketOutput::over_packet_socket()),
      announcements_(links_, *frames_),
      addresses_(box_, *address_requests_, transport,
                 [this](uint32_t ifindex, uint32_t addr) { announcements_.announce(ifindex, addr); }),
      loans_(box_),
      memberships_(box_, *membership_sockets_),
      redirects_(box_, redirect_settings_),
      load_share_(std::move(share_load)),
      downloads_(box_, transport, control::encode_if_info),
      statistics_(box_, transport, *counters_) {}

void ControlHandlers::add_to(control::Service &service) {
  service.add(addresses_, {IP_MSG_CONFIG_ADDRESS});
  service.add(loans_, {IP_MSG_SET_UNNUMBERED, IP_MSG_UNSET_UNNUMBERED, IP_MSG_UNNUMBERED_PSS_CLEANUP});
  service.add(memberships_, {IP_MSG_JOIN_GROUP, IP_MSG_LEAVE_GROUP});
  service.add(redirects_, {IP_MSG_REDIRECT_DISABLE});
  service.add(load_share_, {IP_MSG_LOAD_SHARE_CFG});
  service.add(downloads_, {IP_MSG_DOWNLOAD_IF_INFO});
  service.add(statistics_, {IP_MSG_GET_IF_STATS});
}

}  // namespace ipd
