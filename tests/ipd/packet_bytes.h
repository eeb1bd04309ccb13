// SPDX-License-Identifier: Apache-2.0
// IPv4 packets made by hand.
#ifndef TESTS_IPD_PACKET_BYTES_H
#define TESTS_IPD_PACKET_BYTES_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ipd/packet/ipv4.h"

namespace test_support {

using Packet = std::vector<std::byte>;

struct PacketFields {
  uint32_t source = 0x0a000001;
  uint32_t destination = 0x0a000002;
  uint8_t protocol = 253;  // for experiments (RFC 3692)
  uint8_t ttl = 9;
  uint8_t tos = 0;
  uint16_t identification = 0x1234;
  uint16_t fragment = 0;              // flags and offset
  bool says_length = true;            // else 0
  std::vector<uint8_t> options = {};  // a multiple of 4 bytes
  size_t data = 32;                   // bytes behind the header: 0, 1, 2 ...
};

// With a good checksum.
inline Packet make_packet(const PacketFields &fields = {}) {
  namespace ipv4 = ipd::packet::ipv4;
  const size_t header = ipv4::shortest_header + fields.options.size();
  Packet packet(header + fields.data);
  ipv4::set_version_and_header_length(packet, header);
  ipv4::write8(packet, ipv4::tos_at, fields.tos);
  if (fields.says_length) ipv4::write16(packet, ipv4::total_length_at, static_cast<uint16_t>(packet.size()));
  ipv4::write16(packet, ipv4::identification_at, fields.identification);
  ipv4::write16(packet, ipv4::fragment_at, fields.fragment);
  ipv4::write8(packet, ipv4::ttl_at, fields.ttl);
  ipv4::write8(packet, ipv4::protocol_at, fields.protocol);
  ipv4::write32(packet, ipv4::source_at, fields.source);
  ipv4::write32(packet, ipv4::destination_at, fields.destination);
  for (size_t i = 0; i < fields.options.size(); ++i) ipv4::write8(packet, ipv4::options_at + i, fields.options[i]);
  for (size_t i = 0; i < fields.data; ++i) ipv4::write8(packet, header + i, static_cast<uint8_t>(i));
  ipv4::write_checksum(packet);
  return packet;
}

}  // namespace test_support

#endif
