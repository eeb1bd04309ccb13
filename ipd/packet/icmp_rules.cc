// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/icmp_rules.h"

#include <algorithm>

#include "ipd/packet/icmp.h"
#include "ipd/packet/ipv4.h"

namespace ipd::packet {
namespace {

using Bytes = std::span<const std::byte>;

constexpr uint8_t end_of_options = 0, no_operation = 1, loose_source_route = 0x83, strict_source_route = 0x89;

uint32_t mask_of(uint8_t length) {
  return length == 0 ? 0 : ~uint32_t{0} << (32 - length);
}

// A whole header, and a total length that it fits into or none.
bool is_ipv4(Bytes packet) {
  if (packet.size() < ipv4::shortest_header || ipv4::version(packet) != 4) return false;
  const size_t header = ipv4::header_length(packet);
  const size_t total = ipv4::total_length(packet);
  return header >= ipv4::shortest_header && header <= packet.size() && (total == 0 || total >= header);
}

// Nor has an old broadcast, of zeros, an owner (RFC 1122, section 3.3.6). Subnets of two addresses and of one have no
// broadcast (RFC 3021).
bool is_subnets_broadcast(uint32_t address, AttachedAddresses attached) {
  return std::ranges::any_of(attached, [address](const auto &each) {
    const AddressState &own = each.second;
    if (own.mask_len == 0 || own.mask_len > 30) return false;
    const uint32_t mask = mask_of(own.mask_len);
    return (address & mask) == (own.addr & mask) && ((address & ~mask) == 0 || (address | mask) == ~uint32_t{0});
  });
}

bool is_for_many(uint32_t address, AttachedAddresses attached) {
  return ipv4::is_multicast(address) || ipv4::is_limited_broadcast(address) || address == 0 ||
         is_subnets_broadcast(address, attached);
}

// A number of a host: not of this network (RFC 1122, section 3.2.1.3), not looped back, not of the classes D and E.
bool may_be_one_host(uint32_t address) {
  return address >> 24 != 0 && !ipv4::is_loopback(address) && address >> 28 < 0xe;
}

// Without the byte that tells them apart, it counts as an error.
bool is_icmp_error(Bytes packet) {
  if (ipv4::protocol(packet) != icmp::protocol) return false;
  const Bytes message = packet.subspan(ipv4::header_length(packet));
  return message.empty() || !icmp::is_query(ipv4::read8(message, icmp::type_at));
}

// Options that make no sense end the search.
bool is_source_routed(Bytes packet) {
  Bytes options = packet.first(ipv4::header_length(packet)).subspan(ipv4::shortest_header);
  while (!options.empty()) {
    const uint8_t kind = ipv4::read8(options, 0);
    if (kind == end_of_options) return false;
    if (kind == loose_source_route || kind == strict_source_route) return true;
    const size_t length = kind == no_operation ? 1 : options.size() < 2 ? 0 : ipv4::read8(options, 1);
    if (length == 0 || length > options.size() || (kind != no_operation && length < 2)) return false;
    options = options.subspan(length);
  }
  return false;
}

}  // namespace

Objection objection_to_error(Bytes packet, AttachedAddresses attached) {
  if (!is_ipv4(packet)) return Objection::no_packet;
  // A checksum of zero was not filled in yet: who has the hardware do it hands packets on like that.
  if (ipv4::checksum(packet) != 0 && !ipv4::checksum_is_good(packet)) return Objection::bad_checksum;
  if (ipv4::fragment_offset(packet) != 0) return Objection::later_fragment;
  if (is_icmp_error(packet)) return Objection::icmp_error;
  if (is_for_many(ipv4::destination(packet), attached)) return Objection::to_many;
  const uint32_t source = ipv4::source(packet);
  if (!may_be_one_host(source) || is_subnets_broadcast(source, attached)) return Objection::from_no_host;
  return Objection::none;
}

Objection objection_to_redirect(Bytes packet, uint32_t gateway, std::span<const AddressState> arrival) {
  if (is_source_routed(packet)) return Objection::source_routed;
  if (!may_be_one_host(gateway)) return Objection::gateway_out_of_reach;
  const uint32_t source = ipv4::source(packet);
  const bool reachable = arrival.empty() || std::ranges::any_of(arrival, [=](const AddressState &own) {
                           const uint32_t mask = mask_of(own.mask_len);
                           return ((own.addr ^ source) & mask) == 0 && ((own.addr ^ gateway) & mask) == 0;
                         });
  return reachable ? Objection::none : Objection::gateway_out_of_reach;
}

}  // namespace ipd::packet
