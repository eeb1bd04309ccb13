// SPDX-License-Identifier: Apache-2.0
// Packets and headers as bytes, and the checksum as a textbook has it: the twin of the library's.
#ifndef TESTS_UNIT_PACKET_HEADERS_H
#define TESTS_UNIT_PACKET_HEADERS_H

#include <cstring>
#include <span>
#include <utility>
#include <vector>

#include "fake_platform/packets.h"
#include "unit/library_test.h"

namespace unit {

using Bytes = std::vector<uint8_t>;

// The Internet checksum of RFC 1071, word by word in network order, folded after each addition.
inline uint16_t textbook_checksum(std::span<const uint8_t> bytes) {
  uint32_t sum = 0;
  for (size_t i = 0; i < bytes.size(); i += 2) {
    sum += static_cast<uint32_t>(bytes[i]) << 8;
    if (i + 1 < bytes.size()) sum += bytes[i + 1];
    if (sum > 0xffff) sum -= 0xffff;
  }
  return static_cast<uint16_t>(~sum);
}

// A number as the two bytes of a field on the wire, read back as the machine reads them.
inline uint16_t on_the_wire(uint16_t number) {
  const uint8_t bytes[2] = {static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
  uint16_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

inline void put_half(Bytes &bytes, size_t offset, uint16_t number) {
  bytes.at(offset) = static_cast<uint8_t>(number >> 8);
  bytes.at(offset + 1) = static_cast<uint8_t>(number);
}

// A good header from 192.0.2.1 to 198.51.100.2, of UDP, with a total length of 48 and these options behind it.
inline Bytes good_header(const Bytes &options = {}) {
  Bytes header = {0x45, 0x10, 0, 48, 0x12, 0x34, 0x20, 0x01, 64, 17, 0, 0, 192, 0, 2, 1, 198, 51, 100, 2};
  header.insert(header.end(), options.begin(), options.end());
  header[0] = static_cast<uint8_t>(0x40 | header.size() / 4);
  put_half(header, 10, textbook_checksum(header));
  return header;
}

// The same with a byte changed and a checksum that fits it.
inline Bytes header_with(size_t offset, uint8_t value, const Bytes &options = {}) {
  Bytes header = good_header(options);
  header.at(offset) = value;
  put_half(header, 10, 0);
  const size_t length = std::min<size_t>((header[0] & 0xfu) * 4u, header.size());
  put_half(header, 10, textbook_checksum({header.data(), length}));
  return header;
}

inline Bytes joined(Bytes first, const Bytes &second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// Cut into parts of these sizes; what is left is the last part.
inline std::vector<Bytes> cut(const Bytes &bytes, const std::vector<size_t> &sizes) {
  std::vector<Bytes> parts;
  auto at = bytes.begin();
  for (const size_t size : sizes) {
    parts.emplace_back(at, at + static_cast<std::ptrdiff_t>(size));
    at += static_cast<std::ptrdiff_t>(size);
  }
  parts.emplace_back(at, bytes.end());
  return parts;
}

class PacketTest : public LibraryTest {
 protected:
  // A packet named "packet" in the log of calls.
  static struct mbuf *packet_of(const std::vector<Bytes> &parts) {
    struct mbuf *packet = fake_platform::packet_chain(parts);
    platform().log.name(packet, "packet");
    return packet;
  }
  static Bytes bytes_of(const struct mbuf *packet) { return fake_platform::packet_bytes(packet); }
  static bool is_free(const struct mbuf *packet) { return packet->owner == -1; }
};

}  // namespace unit

#endif
