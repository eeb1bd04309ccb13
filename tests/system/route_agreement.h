// SPDX-License-Identifier: Apache-2.0
// A client's answers about ways to destinations, beside the kernel's.
#ifndef TESTS_SYSTEM_ROUTE_AGREEMENT_H
#define TESTS_SYSTEM_ROUTE_AGREEMENT_H

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/kernel_routes.h"

namespace test_support {

// How many destinations of each sort the kernel had.
struct DestinationsSeen {
  int unicast = 0, multipath = 0, local = 0, broadcast = 0, none = 0;
};

class RouteAgreement {
 public:
  // Asks about the context; the kernel is asked as for packets with this mark, which a rule leads to the context's
  // table (0: the main one). In the namespace and with the interfaces that there are now.
  explicit RouteAgreement(std::string context = "default", uint32_t mark = 0);

  // Source addresses are not compared: where an interface has several, the kernel takes the one that goes with the
  // next hop, or that the route names; a client takes the one that goes with the destination.
  void leave_sources_out() { compare_sources_ = false; }

  // Outgoing interface, source address, local, attached: what differs from the kernel's answer; empty when nothing
  // does. Of several next hops, any will do.
  [[nodiscard]] std::string difference(uint32_t dest, DestinationsSeen *seen);

  struct Result {
    int differences = 0;
    std::string first;
    DestinationsSeen seen;
  };
  // The kernel's routes rest; ipd gets some time to come to the same.
  [[nodiscard]] Result wait_for(const std::vector<uint32_t> &destinations,
                                std::chrono::milliseconds deadline = std::chrono::milliseconds(60000));

 private:
  [[nodiscard]] uint32_t iod(uint32_t ifindex);
  [[nodiscard]] std::string difference_of_kind(uint32_t dest, const KernelAnswer &match, uint32_t iod);
  std::string context_;
  uint32_t context_id_;
  uint32_t mark_;
  bool compare_sources_ = true;
  KernelRoutes kernel_;
  std::map<uint32_t, uint32_t> iods_;  // by ifindex
};

}  // namespace test_support

#endif
