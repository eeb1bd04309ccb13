// SPDX-License-Identifier: Apache-2.0
// The ones' complement sum of 16-bit words (RFC 1071), before it is folded to 16 bits.
//
// A sum is a plain number: any number of sums may be added, in any order, and folded at the end. It is 0 only when
// every byte is, so a folded sum is 0 or 0xffff exactly where that of a loop over words would be. Words are as they lie
// in memory; the sum of bytes that begin at an odd place is that of the bytes at an even place with its halves
// exchanged.
#ifndef IP_CHECKSUM_H
#define IP_CHECKSUM_H

#include <bit>
#include <cstddef>
#include <cstdint>

namespace libip {

// Of `length` bytes at any alignment, an odd last one counting as if a zero followed. At most 2^30 times length, so that
// the sums of all parts of a packet fit.
[[nodiscard]] uint64_t sum_of_bytes(const uint8_t *from, size_t length);

// The sum in 16 bits: each half added to the other, with the carry that comes out.
[[nodiscard]] constexpr uint16_t folded(uint64_t sum) {
  const auto in_32 = static_cast<uint32_t>((sum + std::rotl(sum, 32)) >> 32);
  return static_cast<uint16_t>((in_32 + std::rotl(in_32, 16)) >> 16);
}

// The sum of bytes that another byte stands in front of.
[[nodiscard]] constexpr uint16_t shifted_by_a_byte(uint64_t sum) {
  return std::rotl(folded(sum), 8);
}

[[nodiscard]] constexpr uint16_t checksum_of(uint64_t sum) {
  return static_cast<uint16_t>(~folded(sum));
}

}  // namespace libip

#endif
