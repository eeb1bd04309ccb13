// SPDX-License-Identifier: Apache-2.0
// Messages of three kinds: memberships (RTM_NEWMULTICAST, RTM_DELMULTICAST), statistics of a link (RTM_NEWSTATS), and a
// multicast routing table with its interfaces (RTM_NEWLINK of the family RTNL_FAMILY_IPMR). As in parse.cc, no length
// is used before it was compared with the bytes that are there, and values are copied out.
#include "ipd/kernel/multicast_parse.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/mroute.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace ipd::kernel {
namespace {

using Bytes = std::span<const std::byte>;

// Older headers know these for IPv6 only, and not by name; the numbers are the kernel's for good.
constexpr uint16_t new_multicast = 56;
constexpr uint16_t del_multicast = 57;
constexpr uint16_t get_multicast = 58;

template <class T>
T copy_out(Bytes bytes) {
  T value;
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

// Calls found(type, payload) for each attribute. False: one of them does not fit; those in front of it were told.
template <class Found>
bool each_attribute(Bytes rest, Found found) {
  while (!rest.empty()) {
    if (rest.size() < sizeof(rtattr)) return false;
    const auto header = copy_out<rtattr>(rest);
    if (header.rta_len < sizeof(rtattr) || header.rta_len > rest.size()) return false;
    if (!found(static_cast<uint16_t>(header.rta_type & NLA_TYPE_MASK),
               rest.subspan(sizeof(rtattr), header.rta_len - sizeof(rtattr)))) {
      return false;
    }
    rest = rest.subspan(std::min<size_t>(RTA_ALIGN(header.rta_len), rest.size()));
  }
  return true;
}

template <class Number>
bool read_number(Bytes payload, Number &number) {
  if (payload.size() != sizeof number) return false;
  number = copy_out<Number>(payload);
  return true;
}

bool is_group(uint32_t address) {
  return address >> 28 == 0xe;
}

bool read_group(uint32_t sequence, bool left, Bytes body, MulticastSink &sink) {
  if (body.size() < sizeof(ifaddrmsg)) return false;
  const auto fixed = copy_out<ifaddrmsg>(body);
  if (fixed.ifa_family != AF_INET) return true;
  uint32_t group = 0;
  const bool whole = each_attribute(body.subspan(sizeof(ifaddrmsg)), [&group](uint16_t type, Bytes payload) {
    return type != IFA_MULTICAST || read_number(payload, group);
  });
  group = ntohl(group);
  if (!whole || fixed.ifa_index == 0 || !is_group(group)) return false;
  sink.group(sequence, {.ifindex = fixed.ifa_index, .group = group, .left = left});
  return true;
}

bool read_statistics(uint32_t sequence, Bytes body, MulticastSink &sink) {
  if (body.size() < sizeof(if_stats_msg)) return false;
  const auto fixed = copy_out<if_stats_msg>(body);
  bool there = false;
  uint64_t packets = 0;
  const bool whole = each_attribute(body.subspan(sizeof(if_stats_msg)), [&](uint16_t type, Bytes payload) {
    if (type != IFLA_STATS_LINK_64) return true;
    constexpr size_t offset = offsetof(rtnl_link_stats64, multicast);
    if (payload.size() < offset + sizeof packets) return false;
    there = true;
    return read_number(payload.subspan(offset, sizeof packets), packets);
  });
  if (!whole || fixed.ifindex == 0) return false;
  if (there) sink.received(sequence, fixed.ifindex, packets);
  return true;
}

bool read_vif(uint32_t sequence, Bytes attributes, MulticastSink &sink) {
  uint32_t ifindex = 0;
  ForwardingCounts counts;
  const bool whole = each_attribute(attributes, [&](uint16_t type, Bytes payload) {
    switch (type) {
      case IPMRA_VIFA_IFINDEX:
        return read_number(payload, ifindex);
      case IPMRA_VIFA_BYTES_IN:
        return read_number(payload, counts.bytes_in);
      case IPMRA_VIFA_BYTES_OUT:
        return read_number(payload, counts.bytes_out);
      case IPMRA_VIFA_PACKETS_IN:
        return read_number(payload, counts.packets_in);
      case IPMRA_VIFA_PACKETS_OUT:
        return read_number(payload, counts.packets_out);
      default:
        return true;
    }
  });
  if (whole && ifindex != 0) sink.forwarded(sequence, ifindex, counts);
  return whole;
}

bool read_routing_table(uint32_t sequence, Bytes body, MulticastSink &sink) {
  if (body.size() < sizeof(ifinfomsg)) return false;
  if (copy_out<ifinfomsg>(body).ifi_family != RTNL_FAMILY_IPMR) return true;
  return each_attribute(body.subspan(sizeof(ifinfomsg)), [&](uint16_t outer, Bytes table) {
    if (outer != IFLA_AF_SPEC) return true;
    return each_attribute(table, [&](uint16_t type, Bytes vifs) {
      if (type != IPMRA_TABLE_VIFS) return true;
      return each_attribute(
          vifs, [&](uint16_t each, Bytes vif) { return each != IPMRA_VIF || read_vif(sequence, vif, sink); });
    });
  });
}

// Only what the kernel says about a whole dump or request: its errors are negative numbers.
bool read_end(uint32_t sequence, bool request, Bytes body, MulticastSink &sink) {
  int error = 0;
  if (body.size() >= sizeof error) error = copy_out<int>(body);
  if (request && body.size() < sizeof error) return false;
  if (request && error == 0) return true;  // an acknowledgement
  sink.end_of_dump(sequence, error < 0 && error > -4096 ? -error : (error == 0 ? 0 : 4095));
  return true;
}

bool read_message(const nlmsghdr &header, Bytes body, MulticastSink &sink) {
  switch (header.nlmsg_type) {
    case new_multicast:
    case del_multicast:
    case get_multicast:  // so the kernel names the entries of a dump
      return read_group(header.nlmsg_seq, header.nlmsg_type == del_multicast, body, sink);
    case RTM_NEWSTATS:
      return read_statistics(header.nlmsg_seq, body, sink);
    case RTM_NEWLINK:
      return read_routing_table(header.nlmsg_seq, body, sink);
    case NLMSG_ERROR:
    case NLMSG_DONE:
      return read_end(header.nlmsg_seq, header.nlmsg_type == NLMSG_ERROR, body, sink);
    default:
      return true;
  }
}

// The number at the front of the text, which is moved on behind it.
template <class Number>
bool take_number(std::string_view &text, Number &number, int base) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (result.ec != std::errc{}) return false;
  text.remove_prefix(static_cast<size_t>(result.ptr - text.data()));
  return true;
}

}  // namespace

void parse_multicast(Bytes datagram, MulticastSink &sink) {
  while (!datagram.empty()) {
    if (datagram.size() < sizeof(nlmsghdr)) return sink.malformed();
    const auto header = copy_out<nlmsghdr>(datagram);
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > datagram.size()) return sink.malformed();
    if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) sink.interrupted(header.nlmsg_seq);
    if (!read_message(header, datagram.subspan(sizeof(nlmsghdr), header.nlmsg_len - sizeof(nlmsghdr)), sink)) {
      sink.malformed();
    }
    datagram = datagram.subspan(std::min<size_t>(NLMSG_ALIGN(header.nlmsg_len), datagram.size()));
  }
}

// A line of an interface begins with its ifindex; those of its groups are indented and begin with the group, in
// hexadecimal, as the word lies in memory.
void parse_igmp(std::string_view text, const std::function<void(const GroupMessage &)> &found) {
  uint32_t ifindex = 0;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    const size_t indent = std::min(line.find_first_not_of(" \t"), line.size());
    line.remove_prefix(indent);
    if (indent == 0) {
      ifindex = 0;
      uint32_t number = 0;
      if (take_number(line, number, 10) && line.starts_with('\t')) ifindex = number;
      continue;
    }
    uint32_t word = 0;
    const size_t before = line.size();
    if (!take_number(line, word, 16) || before - line.size() != 8 || !line.starts_with(' ')) continue;
    if (ifindex != 0 && is_group(ntohl(word))) found({.ifindex = ifindex, .group = ntohl(word), .left = false});
  }
}

}  // namespace ipd::kernel
