// SPDX-License-Identifier: Apache-2.0
// Reading rtnetlink messages.
//
// A datagram is a sequence of messages, each a header (length, type, flags, sequence, port), a fixed part that depends
// on the type, and attributes (length, type, payload), every part padded to four bytes. All lengths are the sender's
// word, so nothing is used before it was compared with the bytes that are there, and everything is copied out before it
// is looked at: a datagram has no alignment that C++ could rely on, and it may be cut anywhere.
//
// The kernel is the only sender that the caller lets through, so a malformed message is not an attack but a kernel
// newer or stranger than the ones known here. It is refused and counted by reason, never guessed at: half a message
// would enter the picture as a wrong answer to somebody's query.
//
// Not every message about a link is about a link of ours. A bridge tells of its ports under the family AF_BRIDGE, and
// there "delete" means that the port left the bridge; only AF_UNSPEC speaks about the device itself.
#include "ipd/kernel/parse.h"

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netconf.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "ipd/kernel/attributes.h"
#include "ipd/kernel/parse_routes.h"

namespace ipd::kernel {
namespace {

void read_kind_data(Bytes bytes, Attributes &outer, LinkMessage &message) {
  Attributes attributes(bytes);
  uint16_t type = 0;
  Bytes payload;
  while (attributes.next(type, payload)) {
    if (type == IFLA_VRF_TABLE) message.vrf_table = attributes.u32(payload);
  }
  if (attributes.refusal()) outer.fail(*attributes.refusal());
}

void read_link_info(Bytes bytes, Attributes &outer, LinkMessage &message) {
  Attributes attributes(bytes);
  uint16_t type = 0;
  Bytes payload;
  Bytes data;
  while (attributes.next(type, payload)) {
    if (type == IFLA_INFO_KIND) {
      const auto kind = text(payload, 63);
      if (!kind) attributes.fail(Refusal::bad_value);
      message.kind = kind.value_or("");
    } else if (type == IFLA_INFO_DATA) {
      data = payload;
    }
  }
  // The meaning of the data depends on the kind, whichever comes first.
  if (!attributes.refusal() && message.kind == "vrf") read_kind_data(data, attributes, message);
  if (attributes.refusal()) outer.fail(*attributes.refusal());
}

std::optional<Refusal> read_link(Bytes body, bool removed, const Origin &origin, Sink &sink) {
  if (body.size() < sizeof(ifinfomsg)) return Refusal::short_body;
  const auto fixed = copy_out<ifinfomsg>(body);
  if (fixed.ifi_family != AF_UNSPEC) return std::nullopt;
  if (fixed.ifi_index <= 0) return Refusal::bad_value;

  LinkMessage message;
  message.ifindex = static_cast<uint32_t>(fixed.ifi_index);
  message.removed = removed;
  message.flags = fixed.ifi_flags;
  message.hardware_type = fixed.ifi_type;
  Attributes attributes(body.subspan(sizeof(ifinfomsg)));
  uint16_t type = 0;
  Bytes payload;
  while (attributes.next(type, payload)) {
    switch (type) {
      case IFLA_IFNAME: {
        const auto name = text(payload, 15);
        if (!name) attributes.fail(Refusal::bad_value);
        message.name = name.value_or("");
        break;
      }
      case IFLA_MTU:
        message.mtu = attributes.u32(payload);
        break;
      case IFLA_MASTER:
        message.master = attributes.u32(payload);
        break;
      case IFLA_LINKINFO:
        read_link_info(payload, attributes, message);
        break;
      case IFLA_ADDRESS:
        if (payload.size() > message.hardware_address.size()) {
          attributes.fail(Refusal::wrong_attribute_size);
          break;
        }
        std::memcpy(message.hardware_address.data(), payload.data(), payload.size());
        message.hardware_address_len = static_cast<uint8_t>(payload.size());
        break;
      default:
        break;
    }
  }
  if (attributes.refusal()) return attributes.refusal();
  if (!removed && message.name.empty()) return Refusal::missing_attribute;
  sink.link(origin, message);
  return std::nullopt;
}

std::optional<Refusal> read_address(Bytes body, bool removed, const Origin &origin, Sink &sink) {
  if (body.size() < sizeof(ifaddrmsg)) return Refusal::short_body;
  const auto fixed = copy_out<ifaddrmsg>(body);
  if (fixed.ifa_family != AF_INET) return std::nullopt;
  if (fixed.ifa_index == 0 || fixed.ifa_prefixlen > 32) return Refusal::bad_value;

  AddressMessage message;
  message.ifindex = fixed.ifa_index;
  message.removed = removed;
  message.prefix_len = fixed.ifa_prefixlen;
  message.scope = fixed.ifa_scope;
  uint32_t flags = fixed.ifa_flags;
  std::optional<uint32_t> local;
  std::optional<uint32_t> address;
  Attributes attributes(body.subspan(sizeof(ifaddrmsg)));
  uint16_t type = 0;
  Bytes payload;
  while (attributes.next(type, payload)) {
    switch (type) {
      case IFA_LOCAL:
        local = attributes.address(payload);
        break;
      case IFA_ADDRESS:
        address = attributes.address(payload);
        break;
      case IFA_FLAGS:
        flags = attributes.u32(payload);
        break;
      default:
        break;
    }
  }
  if (attributes.refusal()) return attributes.refusal();
  if (!local) local = address;
  if (!local) return Refusal::missing_attribute;
  message.local = *local;
  message.peer = address.value_or(*local);
  message.secondary = (flags & IFA_F_SECONDARY) != 0;
  sink.address(origin, message);
  return std::nullopt;
}

std::optional<Refusal> read_netconf(Bytes body, bool removed, const Origin &origin, Sink &sink) {
  if (body.size() < padded(sizeof(netconfmsg))) return Refusal::short_body;
  const auto fixed = copy_out<netconfmsg>(body);
  if (fixed.ncm_family != AF_INET) return std::nullopt;

  NetconfMessage message;
  message.removed = removed;
  std::optional<uint32_t> ifindex;
  Attributes attributes(body.subspan(padded(sizeof(netconfmsg))));
  uint16_t type = 0;
  Bytes payload;
  while (attributes.next(type, payload)) {
    switch (type) {
      case NETCONFA_IFINDEX:
        ifindex = attributes.u32(payload);
        break;
      case NETCONFA_FORWARDING:
        message.forwarding = attributes.u32(payload) != 0;
        break;
      case NETCONFA_BC_FORWARDING:
        message.directed_broadcast = attributes.u32(payload) != 0;
        break;
      default:
        break;
    }
  }
  if (attributes.refusal()) return attributes.refusal();
  if (!ifindex) return Refusal::missing_attribute;
  message.ifindex = static_cast<int32_t>(*ifindex);
  if (message.ifindex == 0 || message.ifindex < netconf_default) return Refusal::bad_value;
  sink.netconf(origin, message);
  return std::nullopt;
}

// The kernel hands errors over as negative numbers.
int positive(int error) {
  return error < 0 && error > -4096 ? -error : (error == 0 ? 0 : 4095);
}

std::optional<Refusal> read_error(Bytes body, const Origin &origin, Sink &sink) {
  if (body.size() < sizeof(nlmsgerr)) return Refusal::short_body;
  const auto fixed = copy_out<nlmsgerr>(body);
  Origin request = origin;
  request.sequence = fixed.msg.nlmsg_seq;
  sink.request_failed(request, positive(fixed.error));
  return std::nullopt;
}

std::optional<Refusal> read_done(Bytes body, const Origin &origin, Sink &sink) {
  int error = 0;
  if (body.size() >= sizeof error) error = copy_out<int>(body);
  sink.end_of_dump(origin, positive(error));
  return std::nullopt;
}

std::optional<Refusal> read_message(const nlmsghdr &header, Bytes body, const Origin &origin, Sink &sink) {
  const uint16_t type = header.nlmsg_type;
  switch (type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return read_link(body, type == RTM_DELLINK, origin, sink);
    case RTM_NEWADDR:
    case RTM_DELADDR:
      return read_address(body, type == RTM_DELADDR, origin, sink);
    case RTM_NEWNETCONF:
    case RTM_DELNETCONF:
      return read_netconf(body, type == RTM_DELNETCONF, origin, sink);
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      return read_route(body, type == RTM_DELROUTE, header.nlmsg_flags, origin, sink);
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP:
      return read_nexthop(body, type == RTM_DELNEXTHOP, origin, sink);
    case NLMSG_ERROR:
      return read_error(body, origin, sink);
    case NLMSG_DONE:
      return read_done(body, origin, sink);
    case NLMSG_OVERRUN:
      sink.events_lost();
      return std::nullopt;
    default:
      return std::nullopt;
  }
}

}  // namespace

const char *refusal_text(Refusal refusal) {
  switch (refusal) {
    case Refusal::short_header:
      return "header cut short";
    case Refusal::lying_length:
      return "length does not fit the datagram";
    case Refusal::short_body:
      return "fixed part cut short";
    case Refusal::lying_attribute:
      return "attribute length does not fit the message";
    case Refusal::wrong_attribute_size:
      return "attribute of an unexpected size";
    case Refusal::missing_attribute:
      return "attribute missing";
    case Refusal::bad_value:
      return "value out of range";
  }
  return "unknown";
}

void parse(Bytes datagram, Sink &sink) {
  while (!datagram.empty()) {
    if (datagram.size() < sizeof(nlmsghdr)) return sink.refused(Refusal::short_header, 0);
    const auto header = copy_out<nlmsghdr>(datagram);
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > datagram.size()) {
      return sink.refused(Refusal::lying_length, header.nlmsg_type);
    }
    const Origin origin{.port = header.nlmsg_pid,
                        .sequence = header.nlmsg_seq,
                        .interrupted = (header.nlmsg_flags & NLM_F_DUMP_INTR) != 0};
    const Bytes body = datagram.subspan(sizeof(nlmsghdr), header.nlmsg_len - sizeof(nlmsghdr));
    if (const auto refusal = read_message(header, body, origin, sink)) {
      sink.refused(*refusal, header.nlmsg_type);
    }
    datagram = datagram.subspan(std::min<size_t>(padded(header.nlmsg_len), datagram.size()));
  }
}

}  // namespace ipd::kernel
