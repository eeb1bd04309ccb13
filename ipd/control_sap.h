// SPDX-License-Identifier: Apache-2.0
// The control SAP of this ipd: its queue, the service on it, and the handlers.
#ifndef IPD_CONTROL_SAP_H
#define IPD_CONTROL_SAP_H

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "ipd/config.h"
#include "ipd/control/clients.h"
#include "ipd/control/link_local.h"
#include "ipd/control/mts_transport.h"
#include "ipd/control/pidfd_watch.h"
#include "ipd/control/processes.h"
#include "ipd/control/rights.h"
#include "ipd/control/service.h"
#include "ipd/control/show.h"
#include "ipd/event_loop.h"
#include "ipd/packet/pool_keeper.h"

namespace ipd {

class ControlSap {
 public:
  // From now on clients are served, out of the loop. Null: *reason.
  static std::unique_ptr<ControlSap> open(EventLoop &loop, const Configuration &configuration, std::string *reason);
  ControlSap(const ControlSap &) = delete;
  ControlSap &operator=(const ControlSap &) = delete;

  void configure(const Configuration &configuration);
  // For handlers that stand on more than messages; who adds one keeps it as long as this lives.
  [[nodiscard]] control::Service &service() { return service_; }
  [[nodiscard]] control::Transport &transport() { return *transport_; }
  [[nodiscard]] control::Clients &clients() { return clients_; }
  [[nodiscard]] const control::Rights &rights() const { return rights_; }
  void interfaces_changed(const std::set<uint32_t> &ifindexes) { service_.interfaces_changed(ifindexes); }
  void tick();

 private:
  ControlSap(std::unique_ptr<control::MtsTransport> transport, std::unique_ptr<control::PidfdWatch> watch);
  void add_handlers();
  bool take_messages();
  void read();
  void settle();

  std::unique_ptr<control::MtsTransport> transport_;
  std::unique_ptr<control::PidfdWatch> watch_;
  control::Processes processes_;
  control::Rights rights_;
  control::Service service_;
  control::Clients clients_;
  control::LinkLocal link_local_;
  control::Show show_;
  packet::PoolKeeper pool_keeper_;
  bool broken_ = false;
  control::Handler::Clock::time_point settled_{};  // the ends of processes, last
};

}  // namespace ipd

#endif
