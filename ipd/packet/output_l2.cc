// SPDX-License-Identifier: Apache-2.0
// No route is asked: the client names the interface, and everything that is not for many is a neighbour's there.
#include "ipd/packet/output_l2.h"

#include <algorithm>
#include <cstring>

#include "ipd/packet/ip_output.h"

namespace ipd::packet {
namespace {

constexpr uint32_t vlan_bits = 0xfff, no_vlan = 0xfff;
constexpr uint8_t shortest_without_broadcast = 31;

MacAddress mac(const uint8_t (&bytes)[6]) {
  MacAddress address{};
  std::ranges::copy(bytes, address.begin());
  return address;
}

bool is_broadcast_of(const control::InterfaceFacts &facts, uint32_t addr) {
  return std::ranges::any_of(facts.addresses, [&](const AddressState &address) {
    if (address.mask_len >= shortest_without_broadcast) return false;
    return addr == (address.addr | 0xffffffffu >> address.mask_len);
  });
}

// What a packet of the interface's own has: an address of the subnet where it goes, else the primary one.
uint32_t source_on(const control::InterfaceFacts &facts, uint32_t neighbor) {
  if (const AddressState *address = address_towards(facts, neighbor); address != nullptr) return address->addr;
  return facts.addresses.empty() ? 0 : facts.addresses.front().addr;
}

}  // namespace

// What belongs to another message says nothing in this one.
Outcome OutputL2::check(uint16_t minor, const ip_msg_output_l2 &message, ipv4::Bytes packet) {
  if (message.vlan > UINT16_MAX || (message.vlan & vlan_bits) == no_vlan) return Outcome::bad_field;
  if (minor == IP_MSG_OUTPUT_L2_MVR && !ipv4::is_multicast(ipv4::destination(packet))) return Outcome::bad_packet;
  if (minor != IP_MSG_OUTPUT_L2_DCE) return Outcome::done;
  const MacAddress source = mac(message.src_l2_addr);
  return source != ethernet::nobody && ethernet::is_no_source(source) ? Outcome::bad_field : Outcome::done;
}

Outcome OutputL2::choose_destination(const ip_msg_output_l2 &message, const control::InterfaceFacts &facts,
                                     uint32_t destination, FrameWay &way) {
  way.neighbor = message.next_hop != 0 ? message.next_hop : destination;
  if (const MacAddress given = mac(message.dst_l2_addr); given != ethernet::nobody) {
    way.destination = given;
    return Outcome::done;
  }
  way.destination = mapped_destination(way.neighbor, is_broadcast_of(facts, way.neighbor));
  return way.neighbor == 0 || ipv4::is_loopback(way.neighbor) ? Outcome::bad_field : Outcome::done;
}

Outcome OutputL2::handle(Request &request) {
  const auto message = request.as<ip_msg_output_l2>();
  if (request.packet.size() < ipv4::shortest_header) return Outcome::bad_packet;
  if (const Outcome outcome = check(request.minor, message, request.packet); outcome != Outcome::done) return outcome;
  const auto facts = box_.interface(message.iod);
  if (!facts) return Outcome::no_interface;
  const auto own_address = links_.ethernet_address(facts->state.ifindex);
  if (!facts->state.up || !own_address) return Outcome::interface_down;

  FrameWay way{.ifindex = facts->state.ifindex,
               .mtu = facts->state.mtu,
               .source = *own_address,
               .tag = static_cast<uint16_t>(message.vlan),
               .unchanged = false};
  const uint32_t destination = ipv4::destination(request.packet);
  if (const Outcome outcome = choose_destination(message, *facts, destination, way); outcome != Outcome::done) {
    return outcome;
  }
  if (request.minor == IP_MSG_OUTPUT_L2_DCE) {
    if (const MacAddress source = mac(message.src_l2_addr); source != ethernet::nobody) way.source = source;
  } else {
    way.unchanged = (message.flags & IP_L2_UNCHANGED) != 0;
  }
  if (way.unchanged) return framed_.send(way, request.packet);
  if (const Outcome outcome = check_header(request.packet); outcome != Outcome::done) return outcome;
  const Outcome filled = fill_header(request.packet, source_on(*facts, way.neighbor), identifications_);
  return filled != Outcome::done ? filled : framed_.send(way, request.packet);
}

}  // namespace ipd::packet
