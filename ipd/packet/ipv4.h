// SPDX-License-Identifier: Apache-2.0
// The IPv4 header (RFC 791) in a packet's bytes, which lie at no particular alignment. Values are in host order,
// lengths in bytes. What is read or written must be there: 20 bytes for the header, header_length() for its options.
#ifndef IPD_PACKET_IPV4_H
#define IPD_PACKET_IPV4_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace ipd::packet::ipv4 {

using Bytes = std::span<const std::byte>;
using WritableBytes = std::span<std::byte>;

inline constexpr size_t shortest_header = 20;
inline constexpr size_t longest_header = 60;
inline constexpr size_t longest_packet = 65535;

// Where the fields stand.
inline constexpr size_t tos_at = 1, total_length_at = 2, identification_at = 4, fragment_at = 6, ttl_at = 8,
                        protocol_at = 9, checksum_at = 10, source_at = 12, destination_at = 16, options_at = 20;

// Bits of the word at fragment_at; its other 13 are the offset in units of 8 bytes.
inline constexpr uint16_t dont_fragment = 0x4000, more_fragments = 0x2000, offset_bits = 0x1fff;

constexpr uint8_t read8(Bytes bytes, size_t at) {
  return std::to_integer<uint8_t>(bytes[at]);
}
constexpr uint16_t read16(Bytes bytes, size_t at) {
  return static_cast<uint16_t>(read8(bytes, at) << 8 | read8(bytes, at + 1));
}
constexpr uint32_t read32(Bytes bytes, size_t at) {
  return static_cast<uint32_t>(read16(bytes, at)) << 16 | read16(bytes, at + 2);
}
constexpr void write8(WritableBytes bytes, size_t at, uint8_t value) {
  bytes[at] = std::byte{value};
}
constexpr void write16(WritableBytes bytes, size_t at, uint16_t value) {
  write8(bytes, at, static_cast<uint8_t>(value >> 8));
  write8(bytes, at + 1, static_cast<uint8_t>(value));
}
constexpr void write32(WritableBytes bytes, size_t at, uint32_t value) {
  write16(bytes, at, static_cast<uint16_t>(value >> 16));
  write16(bytes, at + 2, static_cast<uint16_t>(value));
}

constexpr uint8_t version(Bytes packet) {
  return static_cast<uint8_t>(read8(packet, 0) >> 4);
}
constexpr size_t header_length(Bytes packet) {
  return (read8(packet, 0) & 0x0fu) * size_t{4};
}
constexpr void set_version_and_header_length(WritableBytes packet, size_t length) {
  write8(packet, 0, static_cast<uint8_t>(0x40u | length / 4));
}
constexpr uint8_t tos(Bytes packet) {
  return read8(packet, tos_at);
}
constexpr uint16_t total_length(Bytes packet) {
  return read16(packet, total_length_at);
}
constexpr uint16_t identification(Bytes packet) {
  return read16(packet, identification_at);
}
constexpr bool may_not_be_fragmented(Bytes packet) {
  return (read16(packet, fragment_at) & dont_fragment) != 0;
}
constexpr bool has_more_fragments(Bytes packet) {
  return (read16(packet, fragment_at) & more_fragments) != 0;
}
constexpr size_t fragment_offset(Bytes packet) {
  return (read16(packet, fragment_at) & offset_bits) * size_t{8};
}
// A part of a packet, be it the first.
constexpr bool is_fragment(Bytes packet) {
  return (read16(packet, fragment_at) & (more_fragments | offset_bits)) != 0;
}
constexpr uint8_t ttl(Bytes packet) {
  return read8(packet, ttl_at);
}
constexpr uint8_t protocol(Bytes packet) {
  return read8(packet, protocol_at);
}
constexpr uint16_t checksum(Bytes packet) {
  return read16(packet, checksum_at);
}
constexpr uint32_t source(Bytes packet) {
  return read32(packet, source_at);
}
constexpr uint32_t destination(Bytes packet) {
  return read32(packet, destination_at);
}

// The one's complement sum (RFC 1071) of the bytes, a last odd one as the upper half of a word, on top of `sum`. Sums
// of pieces may be put together when each piece but the last has an even length.
constexpr uint16_t add_words(Bytes bytes, uint16_t sum = 0) {
  uint64_t total = sum;
  size_t at = 0;
  for (; at + 1 < bytes.size(); at += 2) total += read16(bytes, at);
  if (at < bytes.size()) total += static_cast<uint64_t>(read8(bytes, at)) << 8;
  while (total > 0xffff) total = (total & 0xffff) + (total >> 16);
  return static_cast<uint16_t>(total);
}

// What stands in a checksum field when the field itself counts as zero in `bytes`: ICMP, IGMP and others have it, too.
constexpr uint16_t checksum_of(Bytes bytes) {
  return static_cast<uint16_t>(~add_words(bytes));
}

// Whether the header's checksum is good.
constexpr bool checksum_is_good(Bytes packet) {
  return add_words(packet.first(header_length(packet))) == 0xffff;
}

// Computes it and writes it.
constexpr void write_checksum(WritableBytes packet) {
  write16(packet, checksum_at, 0);
  write16(packet, checksum_at, checksum_of(packet.first(header_length(packet))));
}

// Classes of addresses (RFC 1112, RFC 1122 3.2.1.3).
constexpr bool is_multicast(uint32_t addr) {
  return addr >> 28 == 0xe;
}
constexpr bool is_limited_broadcast(uint32_t addr) {
  return addr == 0xffffffff;
}
constexpr bool is_loopback(uint32_t addr) {
  return addr >> 24 == 127;
}

}  // namespace ipd::packet::ipv4

#endif
