// SPDX-License-Identifier: Apache-2.0
#include <linux/rtnetlink.h>

#include "ipd/kernel/attributes.h"
#include "ipd/kernel/route_query.h"

namespace ipd::kernel {
namespace {

uint32_t read_mtu(Attributes &outer, Bytes metrics) {
  Attributes attributes(metrics);
  uint32_t mtu = 0;
  uint16_t type = 0;
  for (Bytes payload; attributes.next(type, payload);) {
    if (type == RTAX_MTU) mtu = attributes.u32(payload);
  }
  if (const auto refusal = attributes.refusal(); refusal) outer.fail(*refusal);
  return mtu;
}

}  // namespace

std::optional<RouteAnswer> parse_route_answer(Bytes message) {
  if (message.size() < sizeof(nlmsghdr) + sizeof(rtmsg)) return std::nullopt;
  const auto header = copy_out<nlmsghdr>(message);
  if (header.nlmsg_type != RTM_NEWROUTE || header.nlmsg_len < sizeof(nlmsghdr) + sizeof(rtmsg) ||
      header.nlmsg_len > message.size()) {
    return std::nullopt;
  }
  const auto fixed = copy_out<rtmsg>(message.subspan(sizeof(nlmsghdr)));
  if (fixed.rtm_family != AF_INET) return std::nullopt;
  RouteAnswer answer{.type = fixed.rtm_type};
  const size_t before = sizeof(nlmsghdr) + sizeof(rtmsg);
  Attributes attributes(message.subspan(before, header.nlmsg_len - before));
  uint16_t type = 0;
  for (Bytes payload; attributes.next(type, payload);) {
    switch (type) {
      case RTA_OIF:
        answer.ifindex = attributes.u32(payload);
        break;
      case RTA_GATEWAY:
        answer.gateway = attributes.address(payload);
        break;
      case RTA_VIA:
        answer.via_ipv6 = true;
        break;
      case RTA_PREFSRC:
        answer.source = attributes.address(payload);
        break;
      case RTA_METRICS:
        answer.mtu = read_mtu(attributes, payload);
        break;
      default:
        break;
    }
  }
  if (attributes.refusal() || answer.ifindex == 0) return std::nullopt;
  return answer;
}

}  // namespace ipd::kernel
