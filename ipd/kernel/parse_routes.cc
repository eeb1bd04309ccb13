// SPDX-License-Identifier: Apache-2.0
// Routes and nexthop objects.
//
// A route's next hops come in one of three forms: one, in attributes of the message itself; several, in RTA_MULTIPATH;
// or by the number of a nexthop object. With a number the kernel spells the next hops out as well, for programs that do
// not know of objects; they are left aside, because an object changes without its routes being told again.
//
// Entries of the route cache (RTM_F_CLONED), which a dump mixes in, are not routes.
#include "ipd/kernel/parse_routes.h"

#include <linux/netlink.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "ipd/kernel/attributes.h"

namespace ipd::kernel {
namespace {

constexpr uint32_t largest_ifindex = 0x7fffffff;

uint32_t read_ifindex(Attributes &attributes, Bytes payload) {
  const uint32_t ifindex = attributes.u32(payload);
  if (!attributes.refusal() && (ifindex == 0 || ifindex > largest_ifindex)) attributes.fail(Refusal::bad_value);
  return ifindex;
}

void read_ipv6(Attributes &attributes, Bytes payload, RouteHop &hop) {
  if (payload.size() != hop.gateway_ipv6.size()) {
    attributes.fail(Refusal::wrong_attribute_size);
    return;
  }
  std::memcpy(hop.gateway_ipv6.data(), payload.data(), payload.size());
  hop.via_ipv6 = true;
}

// RTA_VIA: a family, then an address of that family.
void read_via(Attributes &attributes, Bytes payload, RouteHop &hop) {
  if (payload.size() < sizeof(uint16_t)) {
    attributes.fail(Refusal::wrong_attribute_size);
    return;
  }
  const auto family = copy_out<uint16_t>(payload);
  const Bytes address = payload.subspan(sizeof(uint16_t));
  if (family == AF_INET6) {
    read_ipv6(attributes, address, hop);
  } else if (family == AF_INET) {
    hop.gateway = attributes.address(address);
  } else {
    attributes.fail(Refusal::bad_value);
  }
}

void read_hop_attribute(uint16_t type, Attributes &attributes, Bytes payload, RouteHop &hop) {
  if (type == RTA_GATEWAY) hop.gateway = attributes.address(payload);
  if (type == RTA_VIA) read_via(attributes, payload, hop);
}

void read_multipath(Bytes bytes, Attributes &outer, RouteMessage &message) {
  while (!bytes.empty()) {
    if (bytes.size() < sizeof(rtnexthop)) {
      outer.fail(Refusal::lying_attribute);
      return;
    }
    const auto fixed = copy_out<rtnexthop>(bytes);
    if (fixed.rtnh_len < sizeof(rtnexthop) || fixed.rtnh_len > bytes.size()) {
      outer.fail(Refusal::lying_attribute);
      return;
    }
    if (fixed.rtnh_ifindex < 0) {
      outer.fail(Refusal::bad_value);
      return;
    }
    RouteHop hop;
    hop.ifindex = static_cast<uint32_t>(fixed.rtnh_ifindex);
    hop.weight = uint32_t{fixed.rtnh_hops} + 1;
    Attributes attributes(bytes.subspan(sizeof(rtnexthop), fixed.rtnh_len - sizeof(rtnexthop)));
    uint16_t type = 0;
    Bytes payload;
    while (attributes.next(type, payload)) read_hop_attribute(type, attributes, payload, hop);
    if (attributes.refusal()) {
      outer.fail(*attributes.refusal());
      return;
    }
    message.hops.push_back(hop);
    message.dead.push_back((fixed.rtnh_flags & RTNH_F_DEAD) != 0);
    bytes = bytes.subspan(std::min(padded(fixed.rtnh_len), bytes.size()));
  }
}

RoutePlace place_of(uint16_t flags) {
  if ((flags & NLM_F_REPLACE) != 0) return RoutePlace::instead;
  if ((flags & NLM_F_CREATE) == 0) return RoutePlace::unsaid;
  if ((flags & NLM_F_APPEND) != 0) return RoutePlace::last;
  return (flags & NLM_F_EXCL) != 0 ? RoutePlace::alone : RoutePlace::first;
}

bool drops(uint8_t type) {
  return type == RTN_BLACKHOLE || type == RTN_UNREACHABLE || type == RTN_PROHIBIT || type == RTN_THROW;
}

void read_members(Bytes payload, Attributes &attributes, NexthopMessage &message) {
  if (payload.empty() || payload.size() % sizeof(nexthop_grp) != 0) {
    attributes.fail(Refusal::wrong_attribute_size);
    return;
  }
  for (; !payload.empty(); payload = payload.subspan(sizeof(nexthop_grp))) {
    const auto member = copy_out<nexthop_grp>(payload);
    if (member.id == 0) {
      attributes.fail(Refusal::bad_value);
      return;
    }
    // The byte behind the weight is its upper half on kernels that know weights above 256, and 0 on others.
    const auto upper = copy_out<uint8_t>(payload.subspan(offsetof(nexthop_grp, weight) + 1));
    message.members.push_back({.id = member.id, .weight = (uint32_t{upper} << 8) + member.weight + 1});
  }
}

}  // namespace

std::optional<Refusal> read_route(Bytes body, bool removed, uint16_t flags, const Origin &origin, Sink &sink) {
  if (body.size() < sizeof(rtmsg)) return Refusal::short_body;
  const auto fixed = copy_out<rtmsg>(body);
  if (fixed.rtm_family != AF_INET || (fixed.rtm_flags & RTM_F_CLONED) != 0) return std::nullopt;
  if (fixed.rtm_dst_len > 32) return Refusal::bad_value;

  RouteMessage message;
  message.removed = removed;
  message.place = place_of(flags);
  message.table = fixed.rtm_table;
  message.len = fixed.rtm_dst_len;
  message.tos = fixed.rtm_tos;
  message.type = fixed.rtm_type;
  message.scope = fixed.rtm_scope;
  message.protocol = fixed.rtm_protocol;
  std::optional<uint32_t> destination;
  RouteHop only;
  bool has_only = false;
  Attributes attributes(body.subspan(sizeof(rtmsg)));
  uint16_t type = 0;
  Bytes payload;
  while (attributes.next(type, payload)) {
    switch (type) {
      case RTA_DST:
        destination = attributes.address(payload);
        break;
      case RTA_TABLE:
        message.table = attributes.u32(payload);
        break;
      case RTA_PRIORITY:
        message.metric = attributes.u32(payload);
        break;
      case RTA_PREFSRC:
        message.pref_src = attributes.address(payload);
        break;
      case RTA_NH_ID:
        message.nexthop_id = attributes.u32(payload);
        break;
      case RTA_OIF:
        only.ifindex = read_ifindex(attributes, payload);
        has_only = true;
        break;
      case RTA_GATEWAY:
      case RTA_VIA:
        read_hop_attribute(type, attributes, payload, only);
        has_only = true;
        break;
      case RTA_MULTIPATH:
        read_multipath(payload, attributes, message);
        break;
      default:
        break;
    }
  }
  if (attributes.refusal()) return attributes.refusal();
  if (!destination && message.len != 0) return Refusal::missing_attribute;
  message.addr = destination.value_or(0);
  const uint32_t host_bits = message.len == 32 ? 0 : 0xffffffffu >> message.len;
  if (message.table == 0 || (message.addr & host_bits) != 0) return Refusal::bad_value;
  if (message.nexthop_id != 0 || drops(message.type)) {
    message.hops.clear();
    message.dead.clear();
  } else if (message.hops.empty()) {
    if (!has_only) return Refusal::missing_attribute;
    message.hops.push_back(only);
    message.dead.push_back((fixed.rtm_flags & RTNH_F_DEAD) != 0);
  }
  sink.route(origin, message);
  return std::nullopt;
}

std::optional<Refusal> read_nexthop(Bytes body, bool removed, const Origin &origin, Sink &sink) {
  if (body.size() < sizeof(nhmsg)) return Refusal::short_body;
  const auto fixed = copy_out<nhmsg>(body);

  NexthopMessage message;
  message.removed = removed;
  bool of_bridge = false;
  std::optional<uint32_t> id;
  Attributes attributes(body.subspan(sizeof(nhmsg)));
  uint16_t type = 0;
  Bytes payload;
  while (attributes.next(type, payload)) {
    switch (type) {
      case NHA_ID:
        id = attributes.u32(payload);
        break;
      case NHA_GROUP:
        read_members(payload, attributes, message);
        break;
      case NHA_BLACKHOLE:
        message.blackhole = true;
        break;
      case NHA_OIF:
        message.hop.ifindex = read_ifindex(attributes, payload);
        break;
      case NHA_GATEWAY:
        if (fixed.nh_family == AF_INET6) {
          read_ipv6(attributes, payload, message.hop);
        } else {
          message.hop.gateway = attributes.address(payload);
        }
        break;
      case NHA_FDB:
        of_bridge = true;
        break;
      default:
        break;
    }
  }
  if (attributes.refusal()) return attributes.refusal();
  if (!id) return Refusal::missing_attribute;
  if (*id == 0) return Refusal::bad_value;
  if (of_bridge) return std::nullopt;
  message.id = *id;
  const bool says_where = message.blackhole || message.hop.ifindex != 0 || !message.members.empty();
  if (!removed && !says_where) return Refusal::missing_attribute;
  sink.nexthop(origin, message);
  return std::nullopt;
}

}  // namespace ipd::kernel
