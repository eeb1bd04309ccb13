// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/filling.h"

#include <random>

namespace ipd::packet {
namespace {

constexpr uint8_t igmp = 2;

}  // namespace

Identifications::Identifications() : next_(static_cast<uint16_t>(std::random_device{}())) {}

uint16_t Identifications::next() {
  if (next_ == 0) next_ = 1;
  return next_++;
}

Outcome check_header(ipv4::Bytes packet) {
  if (packet.size() < ipv4::shortest_header || packet.size() > ipv4::longest_packet) return Outcome::bad_packet;
  const size_t header = ipv4::header_length(packet);
  if (ipv4::version(packet) != 4 || header < ipv4::shortest_header || header > packet.size()) {
    return Outcome::bad_packet;
  }
  const size_t told = ipv4::total_length(packet);
  if (told != 0 && told != packet.size()) return Outcome::bad_packet;
  const uint32_t source = ipv4::source(packet);
  if (ipv4::is_multicast(source) || ipv4::is_limited_broadcast(source)) return Outcome::bad_packet;
  return ipv4::destination(packet) == 0 ? Outcome::bad_packet : Outcome::done;
}

bool may_be_without_source(ipv4::Bytes packet) {
  const uint32_t destination = ipv4::destination(packet);
  return ipv4::is_limited_broadcast(destination) || (ipv4::is_multicast(destination) && ipv4::protocol(packet) == igmp);
}

Outcome fill_header(ipv4::WritableBytes packet, uint32_t source, Identifications &identifications) {
  if (ipv4::source(packet) == 0) {
    if (source == 0 && !may_be_without_source(packet)) return Outcome::no_source;
    ipv4::write32(packet, ipv4::source_at, source);
  }
  ipv4::write16(packet, ipv4::total_length_at, static_cast<uint16_t>(packet.size()));
  if (ipv4::ttl(packet) == 0) {
    ipv4::write8(packet, ipv4::ttl_at, ipv4::is_multicast(ipv4::destination(packet)) ? multicast_ttl : unicast_ttl);
  }
  if (ipv4::identification(packet) == 0 && !ipv4::may_not_be_fragmented(packet) && !ipv4::is_fragment(packet)) {
    ipv4::write16(packet, ipv4::identification_at, identifications.next());
  }
  ipv4::write_checksum(packet);
  return Outcome::done;
}

}  // namespace ipd::packet
