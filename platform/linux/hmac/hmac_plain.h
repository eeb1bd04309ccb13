// SPDX-License-Identifier: Apache-2.0
// HMAC (RFC 2104) over MD5 (RFC 1321) and SHA-1 (RFC 3174), for widths that have no nettle, and as its twin in tests.
#ifndef RSW_HMAC_PLAIN_H
#define RSW_HMAC_PLAIN_H

#include <cstddef>
#include <cstdint>

namespace rsw::plain {

// digest: 16 bytes, and out_len bytes, at most 20.
void hmac_md5(const void *buf, size_t len, const void *key, size_t key_len, uint8_t *digest);
void hmac_sha1(const void *buf, size_t len, const void *key, size_t key_len, size_t out_len, uint8_t *digest);

}  // namespace rsw::plain

#endif
