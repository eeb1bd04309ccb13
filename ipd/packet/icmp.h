// SPDX-License-Identifier: Apache-2.0
// ICMP (RFC 792): its header in a packet's bytes, and which errors there are. Beside ipv4.h, whose rules hold here,
// too.
#ifndef IPD_PACKET_ICMP_H
#define IPD_PACKET_ICMP_H

#include <cstddef>
#include <cstdint>

namespace ipd::packet::icmp {

inline constexpr uint8_t protocol = 1;
inline constexpr size_t header_length = 8;

// Where the fields stand, from the start of the ICMP header.
inline constexpr size_t type_at = 0, code_at = 1, checksum_at = 2, rest_at = 4;

inline constexpr uint8_t echo_reply = 0, unreachable = 3, source_quench = 4, redirect = 5, echo_request = 8,
                         router_advertisement = 9, router_solicitation = 10, time_exceeded = 11, parameter_problem = 12,
                         timestamp_request = 13, address_mask_reply = 18, extended_echo_request = 42,
                         extended_echo_reply = 43;

inline constexpr uint8_t fragmentation_needed = 4;  // code of unreachable

// Whether a router may send an error of this type and code about a packet at all. Both as they come in a message.
[[nodiscard]] bool is_error_to_send(uint32_t type, uint32_t code);

// Whether it asks or answers: whatever else there may be counts as an error, because about an error no error may be
// sent, and a type that is not known may be one.
[[nodiscard]] bool is_query(uint8_t type);

}  // namespace ipd::packet::icmp

#endif
