// SPDX-License-Identifier: Apache-2.0
// What clients may ask of a box that mirrors a kernel: the handlers that need it.
#ifndef IPD_CONTROL_HANDLERS_H
#define IPD_CONTROL_HANDLERS_H

#include <functional>
#include <memory>

#include "ipd/control/addresses.h"
#include "ipd/control/downloads.h"
#include "ipd/control/live_box.h"
#include "ipd/control/load_share.h"
#include "ipd/control/loans.h"
#include "ipd/control/memberships.h"
#include "ipd/control/redirects.h"
#include "ipd/control/service.h"
#include "ipd/control/statistics.h"
#include "ipd/control/transport.h"
#include "ipd/kernel/address_requests.h"
#include "ipd/kernel/interface_counters.h"
#include "ipd/kernel/membership_sockets.h"
#include "ipd/kernel/packet_output.h"
#include "ipd/kernel/picture.h"
#include "ipd/kernel/redirects.h"
#include "ipd/packet/announcement.h"
#include "ipd/packet/links.h"

namespace ipd {

class ControlHandlers {
 public:
  // All of them outlive it. `share_load` reads the load-share setting and publishes it; false: it could not.
  ControlHandlers(State &state, const Publisher &publisher, const kernel::Picture &picture,
                  control::Transport &transport, std::function<bool()> share_load);
  ControlHandlers(const ControlHandlers &) = delete;
  ControlHandlers &operator=(const ControlHandlers &) = delete;

  // It has to outlive the service from then on.
  void add_to(control::Service &service);
  [[nodiscard]] const control::Memberships &memberships() const { return memberships_; }

 private:
  control::LiveBox box_;
  std::unique_ptr<kernel::AddressRequests> address_requests_;
  std::unique_ptr<kernel::MembershipSockets> membership_sockets_;
  kernel::RedirectSettings redirect_settings_;
  std::unique_ptr<kernel::InterfaceCounters> counters_;
  packet::KernelLinks links_;
  std::unique_ptr<kernel::PacketOutput> frames_;
  packet::Announcements announcements_;
  control::Addresses addresses_;
  control::Loans loans_;
  control::Memberships memberships_;
  control::Redirects redirects_;
  control::LoadShare load_share_;
  control::Downloads downloads_;
  control::Statistics statistics_;
};

}  // namespace ipd

#endif
