// SPDX-License-Identifier: Apache-2.0
// Answers requests for an interface's statistics with what the kernel has counted.
#ifndef IPD_CONTROL_STATISTICS_H
#define IPD_CONTROL_STATISTICS_H

#include "ipd/control/box.h"
#include "ipd/control/handler.h"
#include "ipd/control/transport.h"
#include "ipd/kernel/interface_counters.h"

namespace ipd::control {

class Statistics final : public Handler {
 public:
  Statistics(const Box &box, Transport &transport, kernel::InterfaceCounters &counters)
      : box_(box), transport_(transport), counters_(counters) {}

  Refusal handle(const Request &request) override;

 private:
  const Box &box_;
  Transport &transport_;
  kernel::InterfaceCounters &counters_;
};

}  // namespace ipd::control

#endif
