// SPDX-License-Identifier: Apache-2.0
// Headers as they lie in a packet, and how one is read and written there: by copy, because a packet's bytes have any
// alignment.
#ifndef IP_HEADER_H
#define IP_HEADER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "mbuf.h"

namespace libip {

// IPv4 without options (RFC 791); network order.
struct Ipv4Header {
  uint8_t version_and_length;  // 4 bits each; the length in words of 32 bits
  uint8_t tos;
  uint16_t total_length;
  uint16_t identification;
  uint16_t flags_and_offset;
  uint8_t ttl;
  uint8_t protocol;
  uint16_t checksum;
  uint32_t source;
  uint32_t destination;
};
static_assert(sizeof(Ipv4Header) == 20, "bytes on the wire");
static_assert(offsetof(Ipv4Header, total_length) == 2);
static_assert(offsetof(Ipv4Header, flags_and_offset) == 6);
static_assert(offsetof(Ipv4Header, ttl) == 8);
static_assert(offsetof(Ipv4Header, checksum) == 10);
static_assert(offsetof(Ipv4Header, source) == 12);
static_assert(offsetof(Ipv4Header, destination) == 16);

// UDP (RFC 768); network order.
struct UdpHeader {
  uint16_t source_port;
  uint16_t destination_port;
  uint16_t length;  // of header and payload
  uint16_t checksum;
};
static_assert(sizeof(UdpHeader) == 8, "bytes on the wire");
static_assert(offsetof(UdpHeader, destination_port) == 2);

inline constexpr uint32_t ipv4_header_size = sizeof(Ipv4Header);
inline constexpr uint8_t ipv4_version = 4;

template <class Header>
[[nodiscard]] inline Header read_header(const void *from) {
  Header header;
  std::memcpy(&header, from, sizeof header);
  return header;
}

template <class Header>
inline void write_header(void *to, const Header &header) {
  std::memcpy(to, &header, sizeof header);
}

constexpr uint8_t version_of(uint8_t version_and_length) {
  return version_and_length >> 4;
}

// In bytes: 0 .. 60.
constexpr uint32_t header_length_of(uint8_t version_and_length) {
  return (version_and_length & 0xfu) * 4u;
}

// The packet with its first `bytes` bytes in one buffer; null when it was too short, and freed.
[[nodiscard]] inline struct mbuf *with_contiguous(struct mbuf *packet, uint32_t bytes) {
  return packet->m_len >= bytes ? packet : m_pullup(packet, static_cast<int32_t>(bytes));
}

}  // namespace libip

#endif
