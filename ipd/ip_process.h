// SPDX-License-Identifier: Apache-2.0
// The IP process itself: from "locked the run directory" to "stopped".
#ifndef IPD_IP_PROCESS_H
#define IPD_IP_PROCESS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "ipd/config.h"
#include "ipd/control_handlers.h"
#include "ipd/control_sap.h"
#include "ipd/event_loop.h"
#include "ipd/kernel/multicast.h"
#include "ipd/kernel/rtnetlink.h"
#include "ipd/options.h"
#include "ipd/packet_handlers.h"
#include "ipd/packet_sap.h"
#include "ipd/process/run_lock.h"
#include "ipd/process/segment_lengths.h"
#include "ipd/publish/publisher.h"
#include "ipd/route_feed.h"
#include "ipd/simulate/simulation.h"
#include "ipd/state/multicast.h"
#include "ipd/state/state.h"
#include "tsp/epochs.h"

namespace ipd {

class IpProcess {
 public:
  // `live` runs once, when the first publication is complete.
  IpProcess(const Options &options, Configuration configuration, std::function<void()> live);
  ~IpProcess();
  IpProcess(const IpProcess &) = delete;
  IpProcess &operator=(const IpProcess &) = delete;

  // An ExitStatus; what went wrong is logged.
  int run();

 private:
  using Clock = std::chrono::steady_clock;

  int prepare();
  int open_kernel();
  int open_simulation();
  void follow_routes();
  void drop_routes(const std::string &reason);
  void read_kernel();
  void read_routes();
  int open_multicast();
  void read_multicast();
  void share_load();
  void publish_changes();
  void publish_routes();
  void go_live_when_whole();
  void simulate_changes();
  void go_live();
  void serve_clients();
  void serve_packets();
  void say_unserved(const std::string &what);
  void say_unpublished();
  void reload();
  void tick();
  void report_losses();
  int fail(const std::string &reason);

  Options options_;
  Configuration configuration_;
  std::function<void()> live_;
  std::unique_ptr<EventLoop> loop_;
  std::unique_ptr<RunLock> lock_;
  std::optional<ContextIds> ids_;
  std::unique_ptr<rsw::Epochs> epochs_;
  std::optional<SegmentLengths> lengths_;
  std::unique_ptr<Publisher> publisher_;
  std::unique_ptr<RouteFeed> routes_;  // null: they cannot be served
  kernel::Picture picture_;
  std::unique_ptr<kernel::Rtnetlink> kernel_;
  std::unique_ptr<kernel::Multicast> multicast_;
  std::optional<State> state_;
  std::optional<MulticastState> multicast_state_;
  std::unique_ptr<ControlHandlers> handlers_;        // null: no kernel
  std::unique_ptr<PacketHandlers> packet_handlers_;  // null: no kernel, or one of the SAPs cannot be had
  std::unique_ptr<ControlSap> control_;              // null: not live yet, or the SAP cannot be had
  std::unique_ptr<PacketSap> packets_;               // likewise
  bool has_pool_ = false;                            // packets can be handed to clients by reference
  uint64_t counts_told_ = 0;                         // of multicast_->counts_read()
  std::optional<SimulationPlan> plan_;
  std::unique_ptr<Simulation> simulation_;
  bool is_live_ = false;
  bool is_published_ = false;  // all but routes, once at least
  Clock::time_point published_at_{};
  bool attached_ = false;  // we are a user of our own library
  int status_ = exit_clean;
  Clock::time_point started_{};
  Clock::time_point next_retry_{};
  Clock::time_point next_serving_{};
  std::string unpublished_;  // why the first commit failed last
  std::string unserved_;     // what was last said to be missing for clients; empty: nothing is
  Clock::time_point load_began_{};
  uint64_t changes_made_ = 0;
  uint64_t overruns_reported_ = 0;
  uint64_t refusals_reported_ = 0;
};

}  // namespace ipd

#endif
