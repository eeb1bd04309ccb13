// SPDX-License-Identifier: Apache-2.0
#include "cksum_bench_peers.h"

#include <nettle/hmac.h>
#include <rte_ip.h>

#include <cstring>

namespace cksum_peers {
namespace {

// The sum in words of the machine, each addition taking in the carry of the one before.
inline uint16_t checksum_with_carry(const uint8_t *from, size_t length) {
  uintptr_t sum = 0;
  for (; length >= 8 * sizeof sum; from += 8 * sizeof sum, length -= 8 * sizeof sum) {
#if defined(__x86_64__)
    __asm__(
        "addq (%1), %0\n\tadcq 8(%1), %0\n\tadcq 16(%1), %0\n\tadcq 24(%1), %0\n\tadcq 32(%1), %0\n\t"
        "adcq 40(%1), %0\n\tadcq 48(%1), %0\n\tadcq 56(%1), %0\n\tadcq $0, %0"
        : "+r"(sum)
        : "r"(from), "m"(*reinterpret_cast<const uint8_t(*)[64]>(from)));
#else
    __asm__(
        "addl (%1), %0\n\tadcl 4(%1), %0\n\tadcl 8(%1), %0\n\tadcl 12(%1), %0\n\tadcl 16(%1), %0\n\t"
        "adcl 20(%1), %0\n\tadcl 24(%1), %0\n\tadcl 28(%1), %0\n\tadcl $0, %0"
        : "+r"(sum)
        : "r"(from), "m"(*reinterpret_cast<const uint8_t(*)[32]>(from)));
#endif
  }
  uint64_t total = sum;
  for (; length >= 4; from += 4, length -= 4) {
    uint32_t word;
    std::memcpy(&word, from, sizeof word);
    total = (total & 0xffffffff) + (total >> 32) + word;
  }
  if ((length & 2) != 0) {
    uint16_t word;
    std::memcpy(&word, from, sizeof word);
    total = (total & 0xffffffff) + (total >> 32) + word;
    from += 2;
  }
  if ((length & 1) != 0) total = (total & 0xffffffff) + (total >> 32) + *from;
  while (total > 0xffff) total = (total & 0xffff) + (total >> 16);
  return static_cast<uint16_t>(~total);
}

// Takes each byte into a register, and little more: vectors of 32 and of 64 bytes.
__attribute__((target("avx2"))) uint64_t read_by_32(const uint8_t *first, size_t stride, size_t size, size_t turns) {
  typedef uint64_t Vector __attribute__((vector_size(32)));
  uint64_t any = 0;
  for (size_t turn = 0; turn < turns; turn++) {
    const uint8_t *from = first + turn * stride;
    size_t length = size;
    Vector all[4] = {};
    for (; length >= sizeof all; from += sizeof all, length -= sizeof all) {
      for (size_t i = 0; i < 4; i++) {
        Vector next;
        std::memcpy(&next, from + i * sizeof next, sizeof next);
        all[i] |= next;
      }
    }
    const Vector lanes = all[0] | all[1] | all[2] | all[3];
    for (size_t i = 0; i < sizeof lanes / 8; i++) any |= lanes[i];
    for (; length > 0; from++, length--) any |= *from;
  }
  return any;
}

__attribute__((target("avx512f"))) uint64_t read_by_64(const uint8_t *first, size_t stride, size_t size, size_t turns) {
  typedef uint64_t Vector __attribute__((vector_size(64)));
  uint64_t any = 0;
  for (size_t turn = 0; turn < turns; turn++) {
    const uint8_t *from = first + turn * stride;
    size_t length = size;
    Vector all[4] = {};
    for (; length >= sizeof all; from += sizeof all, length -= sizeof all) {
      for (size_t i = 0; i < 4; i++) {
        Vector next;
        std::memcpy(&next, from + i * sizeof next, sizeof next);
        all[i] |= next;
      }
    }
    const Vector lanes = all[0] | all[1] | all[2] | all[3];
    for (size_t i = 0; i < sizeof lanes / 8; i++) any |= lanes[i];
    for (; length > 0; from++, length--) any |= *from;
  }
  return any;
}

}  // namespace

uint64_t rte_loop(const uint8_t *first, size_t stride, size_t size, size_t turns) {
  uint64_t all = 0;
  for (size_t turn = 0; turn < turns; turn++) {
    hide(size);
    uint64_t each = static_cast<uint16_t>(~rte_raw_cksum(first + turn * stride, size));
    hide(each);
    all += each;
  }
  return all;
}

uint64_t carry_loop(const uint8_t *first, size_t stride, size_t size, size_t turns) {
  uint64_t all = 0;
  for (size_t turn = 0; turn < turns; turn++) {
    hide(size);
    uint32_t each = checksum_with_carry(first + turn * stride, size);
    hide(each);
    all += each;
  }
  return all;
}

uint64_t read_loop(const uint8_t *first, size_t stride, size_t size, size_t turns) {
  static const Loop widest = __builtin_cpu_supports("avx512vbmi2") != 0 ? read_by_64 : read_by_32;
  return widest(first, stride, size, turns);
}

uint16_t rte_segments(std::span<const Segment> segments) {
  uint32_t sum = 0;
  size_t place = 0;
  for (const Segment &each : segments) {
    uint16_t part = rte_raw_cksum(each.data, each.length);
    if (place % 2 != 0) part = __builtin_bswap16(part);
    sum += part;
    place += each.length;
  }
  return static_cast<uint16_t>(~__rte_raw_cksum_reduce(sum));
}

void nettle_digest(bool md5, const uint8_t *data, size_t length, const char *key, size_t key_length, uint8_t *digest) {
  const auto *key_bytes = reinterpret_cast<const uint8_t *>(key);
  if (md5) {
    hmac_md5_ctx context;
    hmac_md5_set_key(&context, key_length, key_bytes);
    hmac_md5_update(&context, length, data);
    hmac_md5_digest(&context, 16, digest);
  } else {
    hmac_sha1_ctx context;
    hmac_sha1_set_key(&context, key_length, key_bytes);
    hmac_sha1_update(&context, length, data);
    hmac_sha1_digest(&context, 16, digest);
  }
}

}  // namespace cksum_peers
