// SPDX-License-Identifier: Apache-2.0
// Packets that leave this system: what everything else in the packet service sends through. Replaced by a recording one
// in tests.
#ifndef IPD_PACKET_OUTPUT_H
#define IPD_PACKET_OUTPUT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "ipd/packet/outcome.h"

namespace ipd::packet {

using MacAddress = std::array<uint8_t, 6>;

// How a packet is to leave.
struct Way {
  uint32_t iod = 0;        // the interface; 0: the route says
  uint32_t next_hop = 0;   // host order; 0: the route says
  int32_t context_id = 0;  // whose routes; 0 and below: the interface's, else those of the default context
  uint32_t flags = 0;      // IP_OUTPUT_...
  std::optional<MacAddress> src_l2 = {};
  bool operator==(const Way &) const = default;
};

class Output {
 public:
  virtual ~Output() = default;

  // Sends one IPv4 packet with its header, as struct Request has it. What is zero is filled in (total length, TTL,
  // source, header checksum), in place; it is fragmented when it must be and may be.
  virtual Outcome send(const Way &way, std::span<std::byte> packet) = 0;

  // The address that a packet to `destination` (host order) would get as its source on that way; 0: there is none, or
  // no route.
  [[nodiscard]] virtual uint32_t source_towards(const Way &way, uint32_t destination) = 0;

  // How long a packet to `destination` may be on that way without being fragmented; 0: not known.
  [[nodiscard]] virtual uint32_t mtu_towards(const Way & /*way*/, uint32_t /*destination*/) { return 0; }
};

}  // namespace ipd::packet

#endif
