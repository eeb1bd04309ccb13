// SPDX-License-Identifier: Apache-2.0
// What the kernel has counted on one interface, asked when somebody wants to know.
#ifndef IPD_KERNEL_INTERFACE_COUNTERS_H
#define IPD_KERNEL_INTERFACE_COUNTERS_H

#include <linux/if_link.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

namespace ipd::kernel {

class InterfaceCounters {
 public:
  // Its socket is opened when it is first needed, and tried again when that failed.
  static std::unique_ptr<InterfaceCounters> over_rtnetlink();
  virtual ~InterfaceCounters() = default;

  // Counted since the interface was made. Counters that this kernel does not have are 0.
  // Results: 0. Otherwise an error number, and *counters is as it was. ENODEV: there is no such interface.
  virtual int read(uint32_t ifindex, rtnl_link_stats64 *counters) = 0;
};

// What a datagram says in answer to the request `sequence` about an interface. Results: 0, or an error number: the
// kernel's, or EBADMSG for an answer that makes no sense. Nothing: the answer is not in this datagram.
[[nodiscard]] std::optional<int> parse_interface_counters(std::span<const std::byte> datagram, uint32_t sequence,
                                                          uint32_t ifindex, rtnl_link_stats64 *counters);

}  // namespace ipd::kernel

#endif
