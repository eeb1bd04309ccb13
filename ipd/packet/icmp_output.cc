// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/icmp_output.h"

#include "ip_packet.h"
#include "ipd/packet/icmp.h"
#include "ipd/packet/ipv4.h"

namespace ipd::packet {
namespace {

void fill_in_checksum(std::span<std::byte> message) {
  if (ipv4::read16(message, icmp::checksum_at) != 0) return;
  ipv4::write16(message, icmp::checksum_at, ipv4::checksum_of(message));
}

}  // namespace

Outcome IcmpOutput::handle(Request &request) {
  const auto asked = request.as<ip_msg_icmp_output>();
  const std::span<std::byte> packet = request.packet;
  if (ipv4::protocol(packet) != icmp::protocol) return Outcome::bad_packet;
  if (!ipv4::is_fragment(packet)) {
    const std::span<std::byte> message = packet.subspan(ipv4::header_length(packet));
    if (message.size() < icmp::header_length) return Outcome::bad_packet;
    fill_in_checksum(message);
  }
  return output_.send(
      {.iod = asked.iod, .next_hop = 0, .context_id = asked.context_id, .flags = asked.flags, .src_l2 = std::nullopt},
      packet);
}

}  // namespace ipd::packet
