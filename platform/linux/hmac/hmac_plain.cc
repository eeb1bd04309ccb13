// SPDX-License-Identifier: Apache-2.0
// MD5 and SHA-1 share their frame: blocks of 64 bytes, a state of 32-bit words, and at the end a one bit, zeros, and
// the number of bits. They differ in how a block is mixed into the state, and in the byte order of all words.
#include "hmac/hmac_plain.h"

#include <string.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace rsw::plain {
namespace {

constexpr size_t block_size = 64;
using Block = std::array<uint8_t, block_size>;

struct Md5 {
  static constexpr size_t digest_size = 16;
  static constexpr std::endian order = std::endian::little;
  std::array<uint32_t, 4> state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  void mix(const Block &block);
};

struct Sha1 {
  static constexpr size_t digest_size = 20;
  static constexpr std::endian order = std::endian::big;
  std::array<uint32_t, 5> state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};
  void mix(const Block &block);
};

template <std::endian order>
uint32_t load(const uint8_t *from) {
  if constexpr (order == std::endian::little)
    return from[0] | uint32_t{from[1]} << 8 | uint32_t{from[2]} << 16 | uint32_t{from[3]} << 24;
  return uint32_t{from[0]} << 24 | uint32_t{from[1]} << 16 | uint32_t{from[2]} << 8 | from[3];
}

template <std::endian order>
void store(uint8_t *to, uint32_t word) {
  for (int i = 0; i < 4; i++) to[i] = static_cast<uint8_t>(word >> (order == std::endian::little ? 8 * i : 24 - 8 * i));
}

// The integer part of 2^32 times |sin(1)|, |sin(2)| ...
constexpr std::array<uint32_t, 64> sines = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

constexpr int md5_turns[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

void Md5::mix(const Block &block) {
  auto [a, b, c, d] = state;
  for (size_t i = 0; i < 64; i++) {
    uint32_t f;
    size_t word;
    switch (i / 16) {
      case 0:
        f = (b & c) | (~b & d);
        word = i;
        break;
      case 1:
        f = (d & b) | (~d & c);
        word = (5 * i + 1) % 16;
        break;
      case 2:
        f = b ^ c ^ d;
        word = (3 * i + 5) % 16;
        break;
      default:
        f = c ^ (b | ~d);
        word = 7 * i % 16;
    }
    const uint32_t sum = a + f + sines[i] + load<order>(&block[4 * word]);
    a = d;
    d = c;
    c = b;
    b += std::rotl(sum, md5_turns[i / 16][i % 4]);
  }
  state = {state[0] + a, state[1] + b, state[2] + c, state[3] + d};
}

void Sha1::mix(const Block &block) {
  std::array<uint32_t, 80> words{};
  for (size_t i = 0; i < 16; i++) words[i] = load<order>(&block[4 * i]);
  for (size_t i = 16; i < 80; i++) words[i] = std::rotl(words[i - 3] ^ words[i - 8] ^ words[i - 14] ^ words[i - 16], 1);
  auto [a, b, c, d, e] = state;
  for (size_t i = 0; i < 80; i++) {
    uint32_t f;
    switch (i / 20) {
      case 0:
        f = ((b & c) | (~b & d)) + 0x5a827999;
        break;
      case 1:
        f = (b ^ c ^ d) + 0x6ed9eba1;
        break;
      case 2:
        f = ((b & c) | (b & d) | (c & d)) + 0x8f1bbcdc;
        break;
      default:
        f = (b ^ c ^ d) + 0xca62c1d6;
    }
    const uint32_t next = std::rotl(a, 5) + f + e + words[i];
    e = d;
    d = c;
    c = std::rotl(b, 30);
    b = a;
    a = next;
  }
  state = {state[0] + a, state[1] + b, state[2] + c, state[3] + d, state[4] + e};
}

template <class Function>
class Hash {
 public:
  void add(const void *bytes, size_t length) {
    const auto *from = static_cast<const uint8_t *>(bytes);
    total_ += length;
    while (length > 0) {
      const size_t taken = std::min(length, block_size - filled_);
      std::memcpy(&block_[filled_], from, taken);
      from += taken;
      length -= taken;
      filled_ += taken;
      if (filled_ == block_size) mix();
    }
  }

  void finish(uint8_t *digest) {
    const uint64_t bits = total_ * 8;
    block_[filled_++] = 0x80;
    if (filled_ > block_size - 8) {
      fill_with_zeros();
      mix();
    }
    fill_with_zeros();
    const auto low = static_cast<uint32_t>(bits);
    const auto high = static_cast<uint32_t>(bits >> 32);
    constexpr bool low_first = Function::order == std::endian::little;
    store<Function::order>(&block_[block_size - 8], low_first ? low : high);
    store<Function::order>(&block_[block_size - 4], low_first ? high : low);
    mix();
    for (size_t i = 0; i < function_.state.size(); i++) store<Function::order>(digest + 4 * i, function_.state[i]);
  }

 private:
  void fill_with_zeros() {
    std::fill(block_.begin() + static_cast<std::ptrdiff_t>(filled_), block_.end(), uint8_t{0});
  }
  void mix() {
    function_.mix(block_);
    filled_ = 0;
  }
  Function function_;
  Block block_ = {};
  size_t filled_ = 0;
  uint64_t total_ = 0;
};

template <class Function>
void hmac(const void *buf, size_t len, const void *key, size_t key_len, size_t out_len, uint8_t *out) {
  Block pad = {};
  if (key_len > block_size) {
    Hash<Function> of_key;
    of_key.add(key, key_len);
    of_key.finish(pad.data());
  } else if (key_len > 0) {
    std::memcpy(pad.data(), key, key_len);
  }
  for (uint8_t &byte : pad) byte ^= 0x36;
  Hash<Function> inner;
  inner.add(pad.data(), pad.size());
  inner.add(buf, len);
  uint8_t digest[Function::digest_size];
  inner.finish(digest);
  for (uint8_t &byte : pad) byte ^= 0x36 ^ 0x5c;
  Hash<Function> outer;
  outer.add(pad.data(), pad.size());
  outer.add(digest, sizeof digest);
  outer.finish(digest);
  std::memcpy(out, digest, std::min(out_len, sizeof digest));
  explicit_bzero(pad.data(), pad.size());
  explicit_bzero(&inner, sizeof inner);
  explicit_bzero(&outer, sizeof outer);
}

}  // namespace

void hmac_md5(const void *buf, size_t len, const void *key, size_t key_len, uint8_t *digest) {
  hmac<Md5>(buf, len, key, key_len, Md5::digest_size, digest);
}

void hmac_sha1(const void *buf, size_t len, const void *key, size_t key_len, size_t out_len, uint8_t *digest) {
  hmac<Sha1>(buf, len, key, key_len, out_len, digest);
}

}  // namespace rsw::plain
