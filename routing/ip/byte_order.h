// SPDX-License-Identifier: Apache-2.0
// Between host order and network order.
#ifndef IP_BYTE_ORDER_H
#define IP_BYTE_ORDER_H

#include <bit>
#include <cstdint>

namespace libip {

// Host order to network order or back.
constexpr uint32_t swapped(uint32_t addr) {
  if constexpr (std::endian::native == std::endian::little) return __builtin_bswap32(addr);
  return addr;
}

// The same for a field of 16 bits.
constexpr uint16_t swapped16(uint16_t field) {
  if constexpr (std::endian::native == std::endian::little) return __builtin_bswap16(field);
  return field;
}

}  // namespace libip

#endif
