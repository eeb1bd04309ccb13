// SPDX-License-Identifier: Apache-2.0
// The IP authentication header: built in place, and checked in place.
//
// Both compute the digest with the check value's bytes being zero in the caller's buffer, so that nothing is copied but
// the 16 bytes. The two algorithms take their keys differently: MD5's is a block of 16 bytes, SHA's a text. Peers were
// configured with such keys; taking both alike would change what they compute.
#include <cstring>

#include "byte_order.h"
#include "hmac.h"
#include "ip_api.h"
#include "ip_header.h"

namespace libip {
namespace {

constexpr size_t check_value_size = 16;
constexpr uint32_t md5_key_size = 16;
// Room for any digest that a platform knows, should it not cut what is cut here anyway.
constexpr size_t digest_room = 64;

// RFC 4302, with a check value of 16 bytes; network order.
struct AuthenticationHeader {
  uint8_t next_header;
  uint8_t payload_length;  // the header's words of 32 bits, less 2
  uint16_t reserved;       // zero on send, ignored on receipt
  uint32_t security_parameters_index;
  uint32_t sequence_number;
  uint8_t check_value[check_value_size];
};
static_assert(sizeof(AuthenticationHeader) == 28, "bytes on the wire");
static_assert(offsetof(AuthenticationHeader, reserved) == 2);
static_assert(offsetof(AuthenticationHeader, security_parameters_index) == 4);
static_assert(offsetof(AuthenticationHeader, sequence_number) == 8);
static_assert(offsetof(AuthenticationHeader, check_value) == 12);

uint8_t *check_value_in(void *hdr) {
  return static_cast<uint8_t *>(hdr) + offsetof(AuthenticationHeader, check_value);
}

// Over the header, whose check value is zero, and the data behind it.
void digest_of(const void *hdr, uint32_t data_len, const void *key, uint32_t use_md5, uint8_t *digest) {
  const auto length = static_cast<uint32_t>(data_len + sizeof(AuthenticationHeader));
  if (use_md5 != 0) {
    hmac_md5(hdr, length, key, md5_key_size, digest);
  } else {
    const auto key_size = static_cast<uint32_t>(std::strlen(static_cast<const char *>(key)));
    hmac_sha(hdr, length, key, key_size, check_value_size, digest);
  }
}

}  // namespace
}  // namespace libip

extern "C" {

void ip_build_ah_header(void *hdr, uint8_t next_hdr, uint32_t spi, uint32_t seq, uint32_t data_len, const void *key,
                        uint32_t use_md5) {
  using namespace libip;
  write_header(hdr, AuthenticationHeader{
                        .next_header = next_hdr,
                        .payload_length = sizeof(AuthenticationHeader) / 4 - 2,
                        .reserved = 0,
                        .security_parameters_index = swapped(spi),
                        .sequence_number = swapped(seq),
                        .check_value = {},
                    });
  uint8_t digest[digest_room];
  digest_of(hdr, data_len, key, use_md5, digest);
  std::memcpy(check_value_in(hdr), digest, check_value_size);
}

uint32_t ip_verify_ah_header(void *hdr, uint32_t data_len, const void *key, uint32_t use_md5) {
  using namespace libip;
  uint8_t stored[check_value_size];
  std::memcpy(stored, check_value_in(hdr), sizeof stored);
  std::memset(check_value_in(hdr), 0, sizeof stored);
  uint8_t digest[digest_room];
  digest_of(hdr, data_len, key, use_md5, digest);
  return std::memcmp(stored, digest, sizeof stored) == 0 ? 1 : 0;
}

}  // extern "C"
