// SPDX-License-Identifier: Apache-2.0
// The checksum's peers, in a source of their own: they are compiled as their makers say, with -O3.
#ifndef BENCH_CKSUM_BENCH_PEERS_H
#define BENCH_CKSUM_BENCH_PEERS_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace cksum_peers {

// Makes the compiler know nothing about the value.
template <class Value>
inline void hide(Value &value) {
  __asm__ volatile("" : "+r"(value) : : "memory");
}

struct Segment {
  const uint8_t *data;
  size_t length;
};

// Goes over `turns` buffers of `size` bytes that lie `stride` bytes apart; something of each is in the result.
using Loop = uint64_t (*)(const uint8_t *first, size_t stride, size_t size, size_t turns);
uint64_t rte_loop(const uint8_t *first, size_t stride, size_t size, size_t turns);
uint64_t carry_loop(const uint8_t *first, size_t stride, size_t size, size_t turns);
uint64_t read_loop(const uint8_t *first, size_t stride, size_t size, size_t turns);

// rte_raw_cksum of each segment, put together as words.
uint16_t rte_segments(std::span<const Segment> segments);

// Nettle's own calls, one after the other; 16 bytes of the digest.
void nettle_digest(bool md5, const uint8_t *data, size_t length, const char *key, size_t key_length, uint8_t *digest);

}  // namespace cksum_peers

#endif
