// SPDX-License-Identifier: Apache-2.0
// About which packets no ICMP error may be sent (RFC 1122, section 3.2.2; RFC 1812, section 4.3.2.7): answers to
// answers would never end, answers to many would be many, and an answer has to have one host to go to.
//
// Whether the frame was a broadcast or a multicast is not told with a packet: who asks for an error about a unicast
// packet answers for its frame.
#ifndef IPD_PACKET_ICMP_RULES_H
#define IPD_PACKET_ICMP_RULES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "ipd/publish/publisher.h"

namespace ipd::packet {

enum class Objection : uint8_t {
  none,                  // an error may be sent
  no_packet,             // it is no IPv4 packet
  bad_checksum,          // of its header
  later_fragment,        // any but the first
  icmp_error,            // it is one itself, or may be one
  to_many,               // its destination is a multicast or a broadcast address
  from_no_host,          // its source is no single host
  source_routed,         // about such a packet there is no redirect
  gateway_out_of_reach,  // the redirect names no neighbour of the one who is to use it
};

// Addresses with the iods that have them, as the box lists them.
using AttachedAddresses = std::span<const std::pair<uint32_t, AddressState>>;

// What stands against any error about the packet that begins with these bytes; they may be any, and as few as one
// likes. `attached`: all addresses of the packet's context; their subnets' broadcasts count as such.
[[nodiscard]] Objection objection_to_error(std::span<const std::byte> packet, AttachedAddresses attached);

// What stands against a redirect (RFC 1812, section 5.2.7.2) beyond that, about a packet that passed the former.
// `gateway` in host order; `arrival`: the addresses of the interface that the packet came in by, none when it is not
// known or has none.
[[nodiscard]] Objection objection_to_redirect(std::span<const std::byte> packet, uint32_t gateway,
                                              std::span<const AddressState> arrival);

}  // namespace ipd::packet

#endif
