// SPDX-License-Identifier: Apache-2.0
// What the kernel says of links and addresses, as ipd has it once it is parsed.
#ifndef TESTS_IPD_KERNEL_MESSAGES_H
#define TESTS_IPD_KERNEL_MESSAGES_H

#include <net/if.h>

#include <cstdint>
#include <string>

#include "ipd/kernel/parse.h"

namespace kernel_messages {

using ipd::kernel::AddressMessage;
using ipd::kernel::LinkMessage;

inline LinkMessage link(uint32_t ifindex, const std::string &name) {
  LinkMessage message;
  message.ifindex = ifindex;
  message.name = name;
  message.flags = IFF_UP | IFF_RUNNING | IFF_MULTICAST;
  message.mtu = 1500;
  message.hardware_address_len = 6;
  message.hardware_address[5] = static_cast<uint8_t>(ifindex);
  return message;
}

inline LinkMessage link_gone(uint32_t ifindex) {
  LinkMessage message;
  message.ifindex = ifindex;
  message.removed = true;
  return message;
}

inline AddressMessage address(uint32_t ifindex, uint32_t local, bool secondary = false) {
  return {.ifindex = ifindex, .local = local, .peer = local, .prefix_len = 24, .scope = 0, .secondary = secondary};
}

}  // namespace kernel_messages

#endif
