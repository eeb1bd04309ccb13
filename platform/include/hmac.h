// SPDX-License-Identifier: Apache-2.0
// Keyed digests, HMAC as in RFC 2104, for the IP authentication header. Each call does the same work for the same
// lengths, and allocates nothing.
#ifndef RSW_HMAC_H
#define RSW_HMAC_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// HMAC-MD5 over a buffer.
//   buf, len      the bytes; len in bytes, 0 is allowed
//   key, key_len  the key; libip passes 16 bytes, which need not be text
//   digest        room for 16 bytes, all of them written; may not overlap buf
// Threads: any. Blocks: no. Owns: nothing.
void hmac_md5(const void *buf, uint32_t len, const void *key, uint32_t key_len, uint8_t *digest);

// HMAC-SHA over a buffer; which SHA is the platform's choice, the same for everybody who exchanges packets with
// it. librsw: SHA-1, whose 20 bytes are followed by zeros if more are wanted.
//   buf, len      the bytes; len in bytes, 0 is allowed
//   key, key_len  the key; libip passes a text without its terminator
//   out_len       how many bytes of the digest are wanted, from its start; libip passes 16
//   digest        room for out_len bytes; may not overlap buf
// Threads: any. Blocks: no. Owns: nothing.
void hmac_sha(const void *buf, uint32_t len, const void *key, uint32_t key_len, uint32_t out_len, uint8_t *digest);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
