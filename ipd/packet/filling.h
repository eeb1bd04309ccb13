// SPDX-License-Identifier: Apache-2.0
// What clients may leave to us in the header of a packet: fields that are zero.
#ifndef IPD_PACKET_FILLING_H
#define IPD_PACKET_FILLING_H

#include <cstdint>

#include "ipd/packet/ipv4.h"
#include "ipd/packet/outcome.h"

namespace ipd::packet {

inline constexpr uint8_t unicast_ttl = 64, multicast_ttl = 1;

// Numbers for packets that may be fragmented; never 0. They start anywhere.
class Identifications {
 public:
  Identifications();
  explicit Identifications(uint16_t first) : next_(first) {}
  uint16_t next();

 private:
  uint16_t next_;
};

// done; or bad_packet: it is shorter than its header, is not as long as it says, or has addresses that no packet may
// have on its way: a source that is a group or a broadcast, a destination that is 0 (RFC 1122, section 3.2.1.3).
[[nodiscard]] Outcome check_header(ipv4::Bytes packet);

// Whether 0.0.0.0 may stay the source for want of an address: to everybody on the link, as a host that asks for its
// address does, and in membership reports (RFC 3376, section 4.2.13).
[[nodiscard]] bool may_be_without_source(ipv4::Bytes packet);

// Writes what is zero: total length, TTL (64, to groups 1), source, and the identification, but that of a packet which
// must not be fragmented or is a fragment. The checksum is always computed, whatever stood there. `source` may be 0
// where the packet has one, or may be without. Returns done or no_source.
Outcome fill_header(ipv4::WritableBytes packet, uint32_t source, Identifications &identifications);

}  // namespace ipd::packet

#endif
