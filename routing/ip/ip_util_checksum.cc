// SPDX-License-Identifier: Apache-2.0
// The Internet checksum over a buffer, and UDP's with its pseudo-header.
//
// The sum does not depend on the order of bytes in a word (RFC 1071, 2 (B)): summed as the words lie in memory, the
// result is as it has to lie in memory. So what the pseudo-header adds is put into network order first.
#include "byte_order.h"
#include "checksum.h"
#include "ip_api.h"
#include "ip_header.h"

namespace {

constexpr uint32_t udp_protocol = 17;
constexpr size_t ipv4_address_size = 4;
constexpr size_t ipv6_address_size = 16;

const uint8_t *bytes_of(const void *buffer) {
  return static_cast<const uint8_t *>(buffer);
}

// Apart from the call, so that a header's checksum does not pay for its registers.
[[gnu::noinline]] uint16_t checksum_of_any_length(const uint8_t *bytes, size_t length) {
  return libip::checksum_of(libip::sum_of_bytes(bytes, length));
}

}  // namespace

extern "C" {

// In one cache line with all that a header's checksum takes.
[[gnu::aligned(64)]] uint16_t ip_checksum(const void *buffer, uint32_t length) {
  using namespace libip;
  const uint8_t *bytes = bytes_of(buffer);
  if (length == ipv4_header_size) return static_cast<uint16_t>(~folded_32(sum_of_header(bytes)));
  return checksum_of_any_length(bytes, length);
}

uint16_t udp_checksum(const void *payload, uint32_t length, const void *src, const void *dst, uint32_t is_ipv4) {
  using namespace libip;
  const size_t address_size = is_ipv4 != 0 ? ipv4_address_size : ipv6_address_size;
  uint64_t sum = sum_of_bytes(bytes_of(payload), length);
  sum += sum_of_bytes(bytes_of(src), address_size);
  sum += sum_of_bytes(bytes_of(dst), address_size);
  // Each a word of 32 bits in the pseudo-header.
  sum += swapped(length);
  sum += swapped(udp_protocol);
  return checksum_of(sum);
}

}  // extern "C"
