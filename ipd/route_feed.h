// SPDX-License-Identifier: Apache-2.0
// The route tables' part of the IP process: its socket, its picture, its writer. The process serves everything else
// without it.
#ifndef IPD_ROUTE_FEED_H
#define IPD_ROUTE_FEED_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "ipd/config.h"
#include "ipd/kernel/rtnetlink.h"
#include "ipd/state/routes.h"
#include "ipd/state/state.h"
#include "urib/urib_writer.h"

namespace ipd {

class RouteFeed {
 public:
  // Makes or takes over the segment of the route tables. Null: *reason says why.
  static std::unique_ptr<RouteFeed> open(rsw::Epochs &epochs, std::string *reason);

  // Follows the kernel's routes. `receive_buffer` as in Rtnetlink. False: *reason.
  bool follow_kernel(uint32_t receive_buffer, std::string *reason);
  [[nodiscard]] int descriptor() const { return kernel_->descriptor(); }
  // Takes in what is there. False: the socket is of no use any more, *reason.
  bool read(std::string *reason);

  void configure(const Configuration &configuration);
  // Writes what there is to write, once a first dump is complete.
  void publish(const State &state);
  [[nodiscard]] bool complete() const { return kernel_ != nullptr && kernel_->mirror().complete(); }
  void tick(std::chrono::steady_clock::time_point now);

  // Puts these simulated routes into the main table. False: *reason.
  bool simulate(uint32_t routes, uint32_t iod, std::string *reason);
  [[nodiscard]] uint64_t routes() const { return writer_->use().routes; }

 private:
  explicit RouteFeed(std::unique_ptr<rsw::UribWriter> writer) : writer_(std::move(writer)), routes_(*writer_) {}
  void report_losses();

  std::unique_ptr<rsw::UribWriter> writer_;
  kernel::RoutePicture picture_;
  Routes routes_;
  std::unique_ptr<kernel::Rtnetlink> kernel_;
  uint64_t surroundings_version_ = 0;
  bool published_ = false;
  bool news_ = false;  // of the configuration
  uint64_t overruns_reported_ = 0;
  uint64_t refusals_reported_ = 0;
  std::chrono::steady_clock::time_point next_retry_{};
};

}  // namespace ipd

#endif
