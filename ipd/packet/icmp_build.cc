// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/icmp_build.h"

#include <algorithm>

#include "ipd/packet/icmp.h"
#include "ipd/packet/ipv4.h"

namespace ipd::packet {
namespace {

constexpr size_t quote_at = ipv4::shortest_header + icmp::header_length;

constexpr uint8_t time_to_live = 64;
// The precedence of what keeps a network working, and of the packet's own type of service all but the two bits that
// are for congestion now (RFC 1812, section 4.3.2.5; RFC 3168).
constexpr uint8_t internetwork_control = 0xc0, kept_of_tos = 0x1c;

}  // namespace

size_t build_icmp_error(const IcmpError &error, std::span<const std::byte> offending, uint32_t source,
                        std::span<std::byte, largest_icmp_error> into) {
  const size_t total = ipv4::total_length(offending);
  size_t quoted = std::min(offending.size(), largest_icmp_error - quote_at);
  if (total != 0) quoted = std::min(quoted, total);
  const size_t length = quote_at + quoted;

  const std::span<std::byte> packet = into.first(length);
  std::ranges::fill(packet.first(quote_at), std::byte{0});
  ipv4::set_version_and_header_length(packet, ipv4::shortest_header);
  ipv4::write8(packet, ipv4::tos_at, static_cast<uint8_t>(internetwork_control | (ipv4::tos(offending) & kept_of_tos)));
  ipv4::write16(packet, ipv4::total_length_at, static_cast<uint16_t>(length));
  ipv4::write8(packet, ipv4::ttl_at, time_to_live);
  ipv4::write8(packet, ipv4::protocol_at, icmp::protocol);
  ipv4::write32(packet, ipv4::source_at, source);
  ipv4::write32(packet, ipv4::destination_at, ipv4::source(offending));

  const std::span<std::byte> message = packet.subspan(ipv4::shortest_header);
  ipv4::write8(message, icmp::type_at, error.type);
  ipv4::write8(message, icmp::code_at, error.code);
  ipv4::write32(message, icmp::rest_at, error.rest_of_header);
  std::ranges::copy(offending.first(quoted), packet.subspan(quote_at).begin());
  ipv4::write16(message, icmp::checksum_at, ipv4::checksum_of(message));
  return length;
}

}  // namespace ipd::packet
