// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/links.h"

#include <net/if_arp.h>

#include <algorithm>

namespace ipd::packet {

std::optional<MacAddress> KernelLinks::ethernet_address(uint32_t ifindex) const {
  const auto found = picture_.links().find(ifindex);
  if (found == picture_.links().end()) return std::nullopt;
  const kernel::LinkMessage &link = found->second.told;
  MacAddress address{};
  if (link.hardware_type != ARPHRD_ETHER || link.hardware_address_len != address.size()) return std::nullopt;
  std::copy_n(link.hardware_address.begin(), address.size(), address.begin());
  return address;
}

}  // namespace ipd::packet
