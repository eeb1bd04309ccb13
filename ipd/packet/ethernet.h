// SPDX-License-Identifier: Apache-2.0
// Ethernet's side of IPv4: the header of a frame, and the addresses that stand for many (RFC 894, RFC 1112 6.4).
#ifndef IPD_PACKET_ETHERNET_H
#define IPD_PACKET_ETHERNET_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ipd/packet/ipv4.h"
#include "ipd/packet/output.h"

namespace ipd::packet::ethernet {

inline constexpr MacAddress nobody = {};
inline constexpr MacAddress everybody = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
inline constexpr size_t address_length = 6;
inline constexpr size_t header_length = 14, tag_length = 4;
inline constexpr uint16_t type_ipv4 = 0x0800, type_vlan = 0x8100;

// For many, or nobody's: nothing that a frame may come from.
constexpr bool is_no_source(const MacAddress &address) {
  return (address[0] & 1) != 0 || address == nobody;
}

constexpr MacAddress of_group(uint32_t group) {
  return {0x01,
          0x00,
          0x5e,
          static_cast<uint8_t>(group >> 16 & 0x7f),
          static_cast<uint8_t>(group >> 8),
          static_cast<uint8_t>(group)};
}

struct Header {
  MacAddress destination{};
  MacAddress source{};
  uint16_t tag = 0;  // of 802.1Q: priority, one bit, VLAN; 0: none
};

inline void write_destination(ipv4::WritableBytes frame, const MacAddress &address) {
  std::transform(address.begin(), address.end(), frame.begin(), [](uint8_t byte) { return std::byte{byte}; });
}

// The frame of an IPv4 packet.
inline void build(const Header &header, ipv4::Bytes packet, std::vector<std::byte> &frame) {
  const size_t length = header_length + (header.tag == 0 ? 0 : tag_length);
  frame.resize(length);
  write_destination(frame, header.destination);
  write_destination(ipv4::WritableBytes(frame).subspan(address_length), header.source);
  if (header.tag != 0) {
    ipv4::write16(frame, 12, type_vlan);
    ipv4::write16(frame, 14, header.tag);
  }
  ipv4::write16(frame, length - 2, type_ipv4);
  frame.insert(frame.end(), packet.begin(), packet.end());
}

}  // namespace ipd::packet::ethernet

#endif
