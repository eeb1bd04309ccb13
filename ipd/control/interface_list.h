// SPDX-License-Identifier: Apache-2.0
// The interfaces that a message lists.
#ifndef IPD_CONTROL_INTERFACE_LIST_H
#define IPD_CONTROL_INTERFACE_LIST_H

#include <cstdint>
#include <cstring>
#include <optional>
#include <set>

#include "ip_msg.h"
#include "ipd/control/request.h"

namespace ipd::control {

// Each of them once. Nothing: the count is not what the message's size says.
[[nodiscard]] inline std::optional<std::set<uint32_t>> listed_interfaces(const Request &request) {
  const std::span<const std::byte> bytes = request.bytes;
  if (bytes.size() < IP_MSG_SIZE) return std::nullopt;
  const uint64_t count = request.as<ip_msg_interface_list>().count;
  if (bytes.size() != IP_MSG_SIZE + sizeof(uint32_t) * count) return std::nullopt;
  std::set<uint32_t> iods;
  for (uint64_t i = 0; i < count; ++i) {
    uint32_t iod = 0;
    std::memcpy(&iod, bytes.data() + offsetof(ip_msg_interface_list, iods) + sizeof iod * i, sizeof iod);
    iods.insert(iod);
  }
  return iods;
}

}  // namespace ipd::control

#endif
