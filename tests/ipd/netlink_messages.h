// SPDX-License-Identifier: Apache-2.0
// Rtnetlink messages made by hand, as the kernel makes them.
#ifndef TESTS_IPD_NETLINK_MESSAGES_H
#define TESTS_IPD_NETLINK_MESSAGES_H

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netconf.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace netlink_messages {

using Bytes = std::vector<std::byte>;

template <class T>
void append(Bytes &bytes, const T &value) {
  const size_t at = bytes.size();
  bytes.resize(at + sizeof value);
  std::memcpy(bytes.data() + at, &value, sizeof value);
}

inline void pad(Bytes &bytes) {
  bytes.resize((bytes.size() + 3) & ~size_t{3});
}

inline void attribute(Bytes &bytes, uint16_t type, const Bytes &payload) {
  append(bytes, rtattr{.rta_len = static_cast<uint16_t>(sizeof(rtattr) + payload.size()), .rta_type = type});
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  pad(bytes);
}

inline void attribute(Bytes &bytes, uint16_t type, uint32_t value) {
  Bytes payload;
  append(payload, value);
  attribute(bytes, type, payload);
}

inline void attribute(Bytes &bytes, uint16_t type, std::string_view text) {
  Bytes payload;
  for (char c : text) payload.push_back(static_cast<std::byte>(c));
  payload.push_back(std::byte{0});
  attribute(bytes, type, payload);
}

struct Header {
  uint16_t flags = 0;
  uint32_t sequence = 0;
  uint32_t port = 0;
};

inline Bytes message(uint16_t type, const Bytes &body, Header header = {}) {
  Bytes bytes;
  append(bytes, nlmsghdr{.nlmsg_len = static_cast<uint32_t>(sizeof(nlmsghdr) + body.size()),
                         .nlmsg_type = type,
                         .nlmsg_flags = header.flags,
                         .nlmsg_seq = header.sequence,
                         .nlmsg_pid = header.port});
  bytes.insert(bytes.end(), body.begin(), body.end());
  pad(bytes);
  return bytes;
}

struct LinkFields {
  int ifindex = 2;
  std::string name = "eth0";
  uint32_t flags = 0x1043;  // up, broadcast, running, multicast
  uint32_t mtu = 1500;
  uint32_t master = 0;
  std::string kind = {};
  uint32_t vrf_table = 0;
  std::string hardware_address = "\x02\x01\x02\x03\x04\x05";
  uint8_t family = AF_UNSPEC;
};

inline Bytes link_body(const LinkFields &fields) {
  Bytes body;
  ifinfomsg fixed{};
  fixed.ifi_family = fields.family;
  fixed.ifi_type = 1;
  fixed.ifi_index = fields.ifindex;
  fixed.ifi_flags = fields.flags;
  append(body, fixed);
  attribute(body, IFLA_IFNAME, fields.name);
  attribute(body, IFLA_MTU, fields.mtu);
  if (fields.master != 0) attribute(body, IFLA_MASTER, fields.master);
  if (!fields.kind.empty()) {
    Bytes information;
    attribute(information, IFLA_INFO_KIND, fields.kind);
    if (fields.vrf_table != 0) {
      Bytes data;
      attribute(data, IFLA_VRF_TABLE, fields.vrf_table);
      attribute(information, IFLA_INFO_DATA, data);
    }
    attribute(body, IFLA_LINKINFO, information);
  }
  Bytes hardware_address;
  for (char c : fields.hardware_address) hardware_address.push_back(static_cast<std::byte>(c));
  attribute(body, IFLA_ADDRESS, hardware_address);
  return body;
}

inline Bytes link(const LinkFields &fields, Header header = {}) {
  return message(RTM_NEWLINK, link_body(fields), header);
}
inline Bytes link_gone(int ifindex, Header header = {}) {
  return message(RTM_DELLINK, link_body({.ifindex = ifindex}), header);
}

struct AddressFields {
  uint32_t ifindex = 2;
  uint32_t local = 0x0a000001;
  uint32_t peer = 0;  // 0: as local
  uint8_t prefix_len = 24;
  uint32_t flags = IFA_F_PERMANENT;
  uint8_t scope = 0;
  uint8_t family = AF_INET;
};

inline Bytes address_body(const AddressFields &fields) {
  Bytes body;
  ifaddrmsg fixed{};
  fixed.ifa_family = fields.family;
  fixed.ifa_prefixlen = fields.prefix_len;
  fixed.ifa_flags = static_cast<uint8_t>(fields.flags);
  fixed.ifa_scope = fields.scope;
  fixed.ifa_index = fields.ifindex;
  append(body, fixed);
  attribute(body, IFA_ADDRESS, htonl(fields.peer != 0 ? fields.peer : fields.local));
  attribute(body, IFA_LOCAL, htonl(fields.local));
  attribute(body, IFA_FLAGS, fields.flags);
  return body;
}

inline Bytes address(const AddressFields &fields, Header header = {}) {
  return message(RTM_NEWADDR, address_body(fields), header);
}
inline Bytes address_gone(const AddressFields &fields, Header header = {}) {
  return message(RTM_DELADDR, address_body(fields), header);
}

inline Bytes netconf_body(int32_t ifindex, int forwarding, int directed_broadcast) {  // negative: not told
  Bytes body;
  append(body, netconfmsg{.ncm_family = AF_INET});
  pad(body);
  attribute(body, NETCONFA_IFINDEX, static_cast<uint32_t>(ifindex));
  if (forwarding >= 0) attribute(body, NETCONFA_FORWARDING, static_cast<uint32_t>(forwarding));
  if (directed_broadcast >= 0) attribute(body, NETCONFA_BC_FORWARDING, static_cast<uint32_t>(directed_broadcast));
  return body;
}
inline Bytes netconf(int32_t ifindex, int forwarding, int directed_broadcast, Header header = {}) {
  return message(RTM_NEWNETCONF, netconf_body(ifindex, forwarding, directed_broadcast), header);
}

inline Bytes done(Header header, int error = 0) {
  Bytes body;
  append(body, error);
  return message(NLMSG_DONE, body, header);
}

inline Bytes error(Header header, int number) {
  Bytes body;
  nlmsgerr fixed{};
  fixed.error = -number;
  fixed.msg.nlmsg_seq = header.sequence;
  append(body, fixed);
  return message(NLMSG_ERROR, body, header);
}

inline Bytes operator+(Bytes a, const Bytes &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

}  // namespace netlink_messages

#endif
