// SPDX-License-Identifier: Apache-2.0
// Packets that ICMP is about, made and looked at byte by byte, and an output that keeps what it is given.
#ifndef TESTS_IPD_ICMP_PACKETS_H
#define TESTS_IPD_ICMP_PACKETS_H

#include <cstdint>
#include <cstring>
#include <map>
#include <span>
#include <vector>

#include "ip_packet.h"
#include "ipd/packet/icmp.h"
#include "ipd/packet/ipv4.h"
#include "ipd/packet/output.h"
#include "ipd/packet/request.h"

namespace icmp_packets {

using namespace ipd::packet;

using Bytes = std::vector<std::byte>;

constexpr uint32_t address(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return a << 24 | b << 16 | c << 8 | d;
}

constexpr uint32_t own = address(10, 0, 0, 1), neighbor = address(10, 0, 0, 2), second_neighbor = address(10, 0, 0, 3),
                   far = address(192, 0, 2, 7);
constexpr uint8_t udp = 17;

struct Header {
  uint32_t source = neighbor, destination = far;
  uint8_t protocol = udp;
  uint8_t tos = 0;
  uint16_t fragment = 0;  // flags and offset as they stand in the header
  std::vector<uint8_t> options = {};
};

// A packet with this many bytes behind its header, 1, 2, 3 ..., its length and its header's checksum good.
inline Bytes packet_of(const Header &header, size_t data = 32) {
  const size_t length = ipv4::shortest_header + header.options.size();
  Bytes packet(length + data);
  ipv4::set_version_and_header_length(packet, length);
  ipv4::write8(packet, ipv4::tos_at, header.tos);
  ipv4::write16(packet, ipv4::total_length_at, static_cast<uint16_t>(packet.size()));
  ipv4::write16(packet, ipv4::identification_at, 0xabcd);
  ipv4::write16(packet, ipv4::fragment_at, header.fragment);
  ipv4::write8(packet, ipv4::ttl_at, 3);
  ipv4::write8(packet, ipv4::protocol_at, header.protocol);
  ipv4::write32(packet, ipv4::source_at, header.source);
  ipv4::write32(packet, ipv4::destination_at, header.destination);
  for (size_t i = 0; i < header.options.size(); ++i) packet[ipv4::options_at + i] = std::byte{header.options[i]};
  for (size_t i = 0; i < data; ++i) packet[length + i] = static_cast<std::byte>(i + 1);
  ipv4::write_checksum(packet);
  return packet;
}

// With this type in the first byte behind the header.
inline Bytes icmp_packet(int type) {
  Bytes packet = packet_of({.protocol = icmp::protocol});
  packet[ipv4::shortest_header] = static_cast<std::byte>(type);
  return packet;
}

// The ICMP message of a packet, and what it quotes.
inline Bytes message_of(const Bytes &packet) {
  return {packet.begin() + static_cast<std::ptrdiff_t>(ipv4::header_length(packet)), packet.end()};
}
inline Bytes quoted_in(const Bytes &packet) {
  const Bytes message = message_of(packet);
  return {message.begin() + icmp::header_length, message.end()};
}

// What is wrong with an ICMP packet; null: nothing. Its header's checksum may be left to the output.
inline const char *fault_of(std::span<const std::byte> packet) {
  if (packet.size() < ipv4::shortest_header || ipv4::version(packet) != 4) return "no IPv4 packet";
  const size_t header = ipv4::header_length(packet);
  if (header < ipv4::shortest_header || header + icmp::header_length > packet.size()) return "a length of its header";
  if (ipv4::total_length(packet) != packet.size()) return "its total length";
  if (ipv4::protocol(packet) != icmp::protocol) return "its protocol";
  if (ipv4::ttl(packet) == 0) return "its time to live";
  if (ipv4::is_fragment(packet)) return "it is a fragment";
  if (ipv4::checksum(packet) != 0 && !ipv4::checksum_is_good(packet)) return "its header's checksum";
  if (ipv4::add_words(packet.subspan(header)) != 0xffff) return "its checksum";
  return nullptr;
}

class RecordingOutput final : public Output {
 public:
  struct Sent {
    Way way;
    Bytes packet;
  };
  Outcome send(const Way &way, std::span<std::byte> packet) override {
    sent.push_back({way, {packet.begin(), packet.end()}});
    return outcome;
  }
  uint32_t source_towards(const Way &way, uint32_t destination) override {
    asked.emplace_back(way, destination);
    return source;
  }
  uint32_t mtu_towards(const Way &way, uint32_t destination) override {
    asked_for_mtu.emplace_back(way, destination);
    return mtu;
  }

  Outcome outcome = Outcome::done;  // of each packet
  uint32_t source = own;            // towards everybody
  uint32_t mtu = 0;                 // the same
  std::vector<Sent> sent;
  std::vector<std::pair<Way, uint32_t>> asked, asked_for_mtu;  // way and destination
};

template <class Record>
Record begin_message(uint16_t minor) {
  Record message{};
  message.header.major_type = IP_MAJOR_CLIENT;
  message.header.minor_type = minor;
  return message;
}

// Hands the record and the packet to the handler, as the service does.
template <class Taker, class Record>
Outcome hand_over(Taker &handler, uint16_t minor, const Record &record, std::span<std::byte> packet = {}) {
  Request request;
  request.sender = {.pid = 4242, .uid = 0, .sap = 2049};
  request.minor = minor;
  request.message = std::as_bytes(std::span(&record, 1));
  request.packet = packet;
  return handler.handle(request);
}

}  // namespace icmp_packets

#endif
