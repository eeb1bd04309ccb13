// SPDX-License-Identifier: Apache-2.0
// How the kernel shares load between equal-cost paths: net.ipv4.fib_multipath_hash_policy and, for the custom policy,
// fib_multipath_hash_fields.
#ifndef IPD_KERNEL_LOAD_SHARE_H
#define IPD_KERNEL_LOAD_SHARE_H

#include <cstdint>
#include <string>

namespace ipd::kernel {

struct LoadShare {
  uint8_t mode = 0;    // the kernel's policy: 0 addresses, 1 addresses and ports, 2 inner addresses, 3 custom
  uint32_t value = 0;  // of the custom policy: the set of fields
  bool operator==(const LoadShare &) const = default;
};

inline constexpr uint8_t custom_load_share = 3;

// Of this process's network namespace. A kernel without the setting, or a number that does not fit, counts as 0.
[[nodiscard]] LoadShare read_load_share(const std::string &directory = "/proc/sys/net/ipv4");

}  // namespace ipd::kernel

#endif
