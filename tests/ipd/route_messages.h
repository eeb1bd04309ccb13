// SPDX-License-Identifier: Apache-2.0
// Messages about routes and nexthop objects made by hand, as the kernel makes them.
#ifndef TESTS_IPD_ROUTE_MESSAGES_H
#define TESTS_IPD_ROUTE_MESSAGES_H

#include <linux/nexthop.h>

#include <optional>

#include "ipd/netlink_messages.h"

namespace netlink_messages {

inline constexpr uint16_t event_alone = NLM_F_CREATE | NLM_F_EXCL;
inline constexpr uint16_t event_first = NLM_F_CREATE;
inline constexpr uint16_t event_last = NLM_F_CREATE | NLM_F_APPEND;
inline constexpr uint16_t event_instead = NLM_F_CREATE | NLM_F_REPLACE;

struct HopFields {
  int ifindex = 2;
  uint32_t gateway = 0;
  std::string gateway_ipv6 = {};  // 16 bytes
  uint16_t weight = 1;            // 1 .. 256
  uint8_t flags = 0;
};

struct RouteFields {
  uint32_t addr = 0x0a000000;
  uint8_t len = 8;
  uint32_t table = 254;
  uint32_t ifindex = 2;  // 0: left out
  uint32_t gateway = 0;
  std::string gateway_ipv6 = {};
  uint32_t metric = 0;
  uint32_t pref_src = 0;
  uint32_t nexthop_id = 0;
  uint8_t tos = 0;
  uint8_t type = RTN_UNICAST;
  uint8_t scope = RT_SCOPE_UNIVERSE;
  uint8_t protocol = RTPROT_BOOT;
  uint32_t flags = 0;
  std::vector<HopFields> multipath = {};
};

inline Bytes text_bytes(const std::string &text) {
  Bytes bytes;
  for (char c : text) bytes.push_back(static_cast<std::byte>(c));
  return bytes;
}

inline void via_attribute(Bytes &body, const std::string &gateway_ipv6) {
  Bytes via;
  append(via, static_cast<uint16_t>(AF_INET6));
  const Bytes address = text_bytes(gateway_ipv6);
  via.insert(via.end(), address.begin(), address.end());
  attribute(body, RTA_VIA, via);
}

inline Bytes hop_bytes(const HopFields &hop) {
  Bytes attributes;
  if (hop.gateway != 0) attribute(attributes, RTA_GATEWAY, htonl(hop.gateway));
  if (!hop.gateway_ipv6.empty()) via_attribute(attributes, hop.gateway_ipv6);
  Bytes bytes;
  append(bytes, rtnexthop{.rtnh_len = static_cast<uint16_t>(sizeof(rtnexthop) + attributes.size()),
                          .rtnh_flags = hop.flags,
                          .rtnh_hops = static_cast<uint8_t>(hop.weight - 1),
                          .rtnh_ifindex = hop.ifindex});
  bytes.insert(bytes.end(), attributes.begin(), attributes.end());
  return bytes;
}

inline Bytes route_body(const RouteFields &fields) {
  Bytes body;
  rtmsg fixed{};
  fixed.rtm_family = AF_INET;
  fixed.rtm_dst_len = fields.len;
  fixed.rtm_tos = fields.tos;
  fixed.rtm_table = static_cast<uint8_t>(fields.table < 256 ? fields.table : 252);
  fixed.rtm_protocol = fields.protocol;
  fixed.rtm_scope = fields.scope;
  fixed.rtm_type = fields.type;
  fixed.rtm_flags = fields.flags;
  append(body, fixed);
  attribute(body, RTA_TABLE, fields.table);
  if (fields.len != 0) attribute(body, RTA_DST, htonl(fields.addr));
  if (fields.metric != 0) attribute(body, RTA_PRIORITY, fields.metric);
  if (fields.pref_src != 0) attribute(body, RTA_PREFSRC, htonl(fields.pref_src));
  if (fields.nexthop_id != 0) attribute(body, RTA_NH_ID, fields.nexthop_id);
  if (!fields.multipath.empty()) {
    Bytes hops;
    for (const HopFields &hop : fields.multipath) {
      const Bytes one = hop_bytes(hop);
      hops.insert(hops.end(), one.begin(), one.end());
    }
    attribute(body, RTA_MULTIPATH, hops);
    return body;
  }
  if (fields.gateway != 0) attribute(body, RTA_GATEWAY, htonl(fields.gateway));
  if (!fields.gateway_ipv6.empty()) via_attribute(body, fields.gateway_ipv6);
  if (fields.ifindex != 0) attribute(body, RTA_OIF, fields.ifindex);
  return body;
}

inline Bytes route(const RouteFields &fields, Header header = {.flags = event_alone}) {
  return message(RTM_NEWROUTE, route_body(fields), header);
}
inline Bytes route_gone(const RouteFields &fields, Header header = {}) {
  return message(RTM_DELROUTE, route_body(fields), header);
}

struct NexthopFields {
  uint32_t id = 1;
  uint32_t ifindex = 2;  // 0: left out
  uint32_t gateway = 0;
  std::string gateway_ipv6 = {};
  bool blackhole = false;
  bool fdb = false;
  std::vector<std::pair<uint32_t, uint32_t>> group = {};  // id, weight
};

inline Bytes nexthop_body(const NexthopFields &fields) {
  Bytes body;
  nhmsg fixed{};
  fixed.nh_family = static_cast<uint8_t>(!fields.group.empty()          ? AF_UNSPEC
                                         : !fields.gateway_ipv6.empty() ? AF_INET6
                                                                        : AF_INET);
  append(body, fixed);
  attribute(body, NHA_ID, fields.id);
  if (!fields.group.empty()) {
    Bytes members;
    for (const auto &[id, weight] : fields.group) {
      append(members, id);
      append(members, static_cast<uint8_t>((weight - 1) & 255));
      append(members, static_cast<uint8_t>((weight - 1) >> 8));
      append(members, uint16_t{0});
    }
    attribute(body, NHA_GROUP, members);
    return body;
  }
  if (fields.fdb) attribute(body, NHA_FDB, Bytes{});
  if (fields.blackhole) {
    attribute(body, NHA_BLACKHOLE, Bytes{});
    return body;
  }
  if (fields.ifindex != 0) attribute(body, NHA_OIF, fields.ifindex);
  if (fields.gateway != 0) attribute(body, NHA_GATEWAY, htonl(fields.gateway));
  if (!fields.gateway_ipv6.empty()) attribute(body, NHA_GATEWAY, text_bytes(fields.gateway_ipv6));
  return body;
}

inline Bytes nexthop(const NexthopFields &fields, Header header = {}) {
  return message(RTM_NEWNEXTHOP, nexthop_body(fields), header);
}
inline Bytes nexthop_gone(const NexthopFields &fields, Header header = {}) {
  return message(RTM_DELNEXTHOP, nexthop_body(fields), header);
}

}  // namespace netlink_messages

#endif
