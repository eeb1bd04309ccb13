// SPDX-License-Identifier: Apache-2.0
// The ICMP error about a packet, from its first byte to its last.
#ifndef IPD_PACKET_ICMP_BUILD_H
#define IPD_PACKET_ICMP_BUILD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace ipd::packet {

struct IcmpError {
  uint8_t type = 0;
  uint8_t code = 0;
  // Bytes 4 to 7 of the ICMP header as one number, the first of them its most significant: an MTU in the low 16 bits, a
  // pointer in the top 8, a gateway in all 32.
  uint32_t rest_of_header = 0;
};

inline constexpr size_t largest_icmp_error = 576;  // RFC 1812, section 4.3.2.3

// It goes to the source of `offending`, which is one that no objection was found to, and quotes as much of it as fits:
// its own bytes and no padding behind them, header included, as they came. `source` in host order; 0: Output fills it
// in, as it does the identification and the checksum of the new header. Returns the new packet's length.
size_t build_icmp_error(const IcmpError &error, std::span<const std::byte> offending, uint32_t source,
                        std::span<std::byte, largest_icmp_error> into);

}  // namespace ipd::packet

#endif
