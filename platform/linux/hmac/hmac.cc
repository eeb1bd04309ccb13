// SPDX-License-Identifier: Apache-2.0
// The keyed digests of the contract: HMAC-MD5 and HMAC-SHA-1.
//
// Each call does all of its work on its stack: the key is set, the bytes are hashed, and what was derived from the key
// is wiped. Nothing is kept between calls, so there is nothing to lock, and no call is faster because of the one
// before.
#include "hmac.h"

#include <string.h>

#include <algorithm>

#if RSW_NETTLE
#include <nettle/hmac.h>
#else
#include "hmac/hmac_plain.h"
#endif

namespace {

constexpr uint32_t sha1_size = 20;

// What is asked for beyond a digest's end is zero.
uint32_t clear_beyond_sha1(uint32_t out_len, uint8_t *digest) {
  const uint32_t there = std::min(out_len, sha1_size);
  if (out_len > there) memset(digest + there, 0, out_len - there);
  return there;
}

#if RSW_NETTLE
template <class Context>
struct Wiped {
  Wiped() = default;
  ~Wiped() { explicit_bzero(&context, sizeof context); }
  Wiped(const Wiped &) = delete;
  Wiped &operator=(const Wiped &) = delete;
  Context context;
};
#endif

}  // namespace

extern "C" {

void hmac_md5(const void *buf, uint32_t len, const void *key, uint32_t key_len, uint8_t *digest) {
#if RSW_NETTLE
  Wiped<hmac_md5_ctx> md5;
  hmac_md5_set_key(&md5.context, key_len, static_cast<const uint8_t *>(key));
  hmac_md5_update(&md5.context, len, static_cast<const uint8_t *>(buf));
  hmac_md5_digest(&md5.context, MD5_DIGEST_SIZE, digest);
#else
  rsw::plain::hmac_md5(buf, len, key, key_len, digest);
#endif
}

void hmac_sha(const void *buf, uint32_t len, const void *key, uint32_t key_len, uint32_t out_len, uint8_t *digest) {
  const uint32_t there = clear_beyond_sha1(out_len, digest);
#if RSW_NETTLE
  Wiped<hmac_sha1_ctx> sha1;
  hmac_sha1_set_key(&sha1.context, key_len, static_cast<const uint8_t *>(key));
  hmac_sha1_update(&sha1.context, len, static_cast<const uint8_t *>(buf));
  hmac_sha1_digest(&sha1.context, there, digest);
#else
  rsw::plain::hmac_sha1(buf, len, key, key_len, there, digest);
#endif
}

}  // extern "C"
