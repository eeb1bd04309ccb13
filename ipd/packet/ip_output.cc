// SPDX-License-Identifier: Apache-2.0
// A packet leaves in one of two ways:
//
//   routed  through a raw socket: the kernel routes it, finds the neighbour, and takes in what is for the system
//   framed  through a packet socket, when the client wants what a raw socket cannot do: another next hop than the route
//           has, or another source of the frame than the interface's
//
// Links without Ethernet's addresses have one neighbour at most and no sources of frames, so packets that leave by them
// are always routed.
//
// In both ways the kernel is asked for the route first: it says the source that the packet gets, and how large it may
// be. Raw sockets do not fragment, so we do.
//
// A raw socket numbers what has no number, each fragment for itself: fragments of somebody else's packet whose number
// is 0 would never be put together, and are framed where that is possible.
#include "ipd/packet/ip_output.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>

#include "ip_packet.h"
#include "ipd/packet/fragments.h"

namespace ipd::packet {
namespace {

using control::InterfaceFacts;
using kernel::RouteAnswer;

constexpr uint32_t default_context = 1;

bool is_one_host(uint32_t addr) {
  return addr != 0 && !ipv4::is_multicast(addr) && !ipv4::is_limited_broadcast(addr);
}

Outcome outcome_of(int error) {
  switch (error) {
    case 0:
      return Outcome::done;
    case ENETUNREACH:
    case EHOSTUNREACH:
    case EACCES:
    case EINVAL:
      return Outcome::no_route;
    case ENODEV:
    case ENXIO:
      return Outcome::no_interface;
    case ENETDOWN:
      return Outcome::interface_down;
    case ENOMEM:
    case ENOBUFS:
      return Outcome::no_memory;
    default:
      return Outcome::kernel;
  }
}

bool in_subnet(const AddressState &address, uint32_t addr) {
  const uint32_t mask = address.mask_len == 0 ? 0 : 0xffffffffu << (32 - address.mask_len);
  return ((address.addr ^ addr) & mask) == 0;
}

}  // namespace

const AddressState *address_towards(const InterfaceFacts &facts, uint32_t addr) {
  const auto found =
      std::ranges::find_if(facts.addresses, [&](const AddressState &address) { return in_subnet(address, addr); });
  return found == facts.addresses.end() ? nullptr : &*found;
}

IpOutput::Facts IpOutput::on_subnet(uint32_t destination, const Facts &named, uint32_t context_id) const {
  if (named) return address_towards(*named, destination) != nullptr ? named : std::nullopt;
  Facts best;
  uint8_t longest = 0;
  for (const auto &[iod, address] : box_.addresses_of_context(context_id)) {
    if (!in_subnet(address, destination) || (best && address.mask_len <= longest)) continue;
    best = box_.interface(iod);
    longest = address.mask_len;
  }
  return best;
}

// What the client says, without the kernel's word.
Outcome IpOutput::begin(const Way &way, uint32_t destination, uint32_t source, Path &path, uint32_t *context_id) const {
  Facts named;
  if (way.iod != 0) {
    named = box_.interface(way.iod);
    if (!named) return Outcome::no_interface;
    if (!named->state.up) return Outcome::interface_down;
    if (ipv4::is_multicast(destination) && !named->state.multicast) return Outcome::interface_down;
  }
  *context_id =
      way.context_id > 0 ? static_cast<uint32_t>(way.context_id) : (named ? named->state.context_id : default_context);
  const auto context = box_.context(*context_id);
  if (!context) return Outcome::no_context;
  if (named && named->state.context_id != *context_id) return Outcome::bad_field;
  const bool names_another = way.next_hop != 0 && way.next_hop != destination;
  if (names_another && !is_one_host(way.next_hop)) return Outcome::bad_field;
  path.neighbor = names_another ? way.next_hop : destination;
  path.on_link = way.next_hop != 0;
  path.question = {
      .destination = path.neighbor, .source = source, .ifindex = named ? named->state.ifindex : context->vrf_ifindex};
  if ((way.flags & IP_OUTPUT_DONT_ROUTE) == 0 || !is_one_host(destination)) return Outcome::done;
  if (names_another) return Outcome::bad_field;
  const Facts link = on_subnet(destination, named, *context_id);
  if (!link) return Outcome::no_route;
  if (!link->state.up) return Outcome::interface_down;
  path.on_link = true;
  path.question.ifindex = link->state.ifindex;
  return Outcome::done;
}

// Rules may choose a table by the source, but the kernel takes only its own addresses for one, and says of others what
// it says without a route: EINVAL or ENETUNREACH, as its version has it.
Outcome IpOutput::ask(Path &path) const {
  int error = routes_.ask(path.question, &path.route);
  if ((error == EINVAL || error == ENETUNREACH) && path.question.source != 0) {
    path.question.source = 0;
    error = routes_.ask(path.question, &path.route);
  }
  return outcome_of(error);
}

Outcome IpOutput::find_interface(uint32_t destination, uint32_t context_id, Path &path) const {
  path.interface = box_.interface_by_ifindex(path.route.ifindex);
  if (!path.interface) return Outcome::no_interface;
  const bool is_ours = path.route.type == RTN_LOCAL;
  path.mtu = is_ours ? ipv4::longest_packet : path.interface->state.mtu;
  if (path.route.mtu != 0) path.mtu = std::min<size_t>(path.mtu, path.route.mtu);
  // The kernel knows no context but those with a table of their own.
  if (context_id == default_context || path.question.ifindex != 0) return Outcome::done;
  if (is_ours) {
    const auto own = box_.addresses_of_context(context_id);
    return std::ranges::any_of(own, [&](const auto &each) { return each.second.addr == destination; })
               ? Outcome::done
               : Outcome::no_route;
  }
  return path.interface->state.context_id == context_id ? Outcome::done : Outcome::no_route;
}

Outcome IpOutput::find_path(const Way &way, uint32_t destination, uint32_t source, Path &path) const {
  uint32_t context_id = 0;
  if (const Outcome outcome = begin(way, destination, source, path, &context_id); outcome != Outcome::done) {
    return outcome;
  }
  if (const Outcome outcome = ask(path); outcome != Outcome::done) return outcome;
  if (const Outcome outcome = find_interface(path.neighbor, context_id, path); outcome != Outcome::done) {
    return outcome;
  }
  const RouteAnswer &route = path.route;
  const bool has_gateway = route.gateway != 0 || route.via_ipv6;
  if (path.neighbor != destination) {
    if (route.type != RTN_UNICAST) return Outcome::bad_field;   // ourselves, or everybody
    if (has_gateway && way.iod == 0) return Outcome::no_route;  // no neighbour of ours
  } else if (route.type == RTN_UNICAST && has_gateway && !path.on_link) {
    path.neighbor = route.gateway;
  }
  return Outcome::done;
}

uint32_t IpOutput::source_of(const Path &path) const {
  if (path.on_link && path.route.type == RTN_UNICAST) {
    // The route may be one through a gateway, with another source than this link has.
    if (const AddressState *address = address_towards(*path.interface, path.neighbor); address != nullptr) {
      return address->addr;
    }
  }
  return path.route.source;
}

uint32_t IpOutput::source_towards(const Way &way, uint32_t destination) {
  Path path;
  return find_path(way, destination, 0, path) == Outcome::done ? source_of(path) : 0;
}

uint32_t IpOutput::mtu_towards(const Way &way, uint32_t destination) {
  Path path;
  return find_path(way, destination, 0, path) == Outcome::done ? static_cast<uint32_t>(path.mtu) : 0;
}

Outcome IpOutput::send_raw(const Way &way, const Path &path, ipv4::Bytes packet) {
  // With another next hop on a link without neighbours, the link is what counts.
  const bool names_another = way.next_hop != 0 && way.next_hop != ipv4::destination(packet);
  const kernel::RawWay raw{.ifindex = names_another ? path.route.ifindex : path.question.ifindex,
                           .source = path.question.source,
                           .dont_route = path.on_link && path.route.type == RTN_UNICAST,
                           .loopback = (way.flags & IP_OUTPUT_LOOPBACK) != 0};
  if (packet.size() <= path.mtu) return raw_.send(raw, packet);
  Fragments fragments(packet, path.mtu);
  if (fragments.outcome() != Outcome::done) return fragments.outcome();
  for (auto fragment = fragments.next(); !fragment.empty(); fragment = fragments.next()) {
    if (const Outcome outcome = raw_.send(raw, fragment); outcome != Outcome::done) return outcome;
  }
  return Outcome::done;
}

Outcome IpOutput::send(const Way &way, std::span<std::byte> packet) {
  if (const Outcome outcome = check_header(packet); outcome != Outcome::done) return outcome;
  if (way.src_l2 && ethernet::is_no_source(*way.src_l2)) return Outcome::bad_field;
  const uint32_t destination = ipv4::destination(packet);
  Path path;
  if (const Outcome outcome = find_path(way, destination, ipv4::source(packet), path); outcome != Outcome::done) {
    return outcome;
  }
  if (const Outcome outcome = fill_header(packet, source_of(path), identifications_); outcome != Outcome::done) {
    return outcome;
  }
  const bool is_unnumbered_fragment = ipv4::is_fragment(packet) && ipv4::identification(packet) == 0;
  const bool names_another = way.next_hop != 0 && way.next_hop != destination;
  const bool wants_frame = way.src_l2.has_value() || names_another || is_unnumbered_fragment;
  const auto own_address = links_.ethernet_address(path.route.ifindex);
  if (path.route.type == RTN_LOCAL || !wants_frame || !own_address) return send_raw(way, path, packet);
  // Outside of a system its loopback addresses mean nothing.
  if (ipv4::is_loopback(destination) || ipv4::is_loopback(ipv4::source(packet))) return Outcome::bad_packet;

  const bool is_broadcast = path.route.type == RTN_BROADCAST;
  const FrameWay frame{.ifindex = path.route.ifindex,
                       .mtu = path.mtu,
                       .source = way.src_l2.value_or(*own_address),
                       .destination = mapped_destination(path.neighbor, is_broadcast),
                       .neighbor = path.neighbor};
  // A gateway that has no IPv4 address is nobody's neighbour here.
  if (!frame.destination && frame.neighbor == 0) return Outcome::no_neighbor;
  return framed_.send(frame, packet);
}

}  // namespace ipd::packet
