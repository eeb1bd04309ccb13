// SPDX-License-Identifier: Apache-2.0
// Sums of bytes by vectors.
//
// A lane of 64 bits holds two words of 32. Three instructions take a vector in: the lanes are added as they are, which
// wraps, and their upper words are shifted down and added to a second accumulator, which does not. In the end the
// second says by how much the first has wrapped: first - (second << 32) is the exact sum of the lower words, and adding
// the second to it gives the sum of all. Four vectors are taken per turn, into two pairs of accumulators, so that no
// addition waits for the one before.
//
// What is left at the end is taken by one more load, of the last full vector of the bytes, in which everything that was
// counted already is masked out. Nothing outside the bytes is read. An odd last byte is taken by itself, so that the
// words of that load lie as all others do.
#include "checksum_vector.h"

#if LIBIP_VECTOR_SUMS

#include <cpuid.h>

#include <array>
#include <cstring>

#include "checksum.h"

namespace libip {
namespace {

// So many lanes of 64 bits; the compiler has operators for them.
template <size_t count>
struct Lanes {
  typedef uint64_t Vector __attribute__((vector_size(8 * count)));
};

constexpr std::array<uint8_t, 128> zeros_and_ones() {
  std::array<uint8_t, 128> bytes{};
  for (size_t i = bytes.size() / 2; i < bytes.size(); i++) {
    bytes[i] = 0xff;
  }
  return bytes;
}

// A vector that is read n bytes before the end of the zeros begins with n zeros.
constexpr std::array<uint8_t, 128> last_bytes = zeros_and_ones();

// Does the system keep these states of the processor when it switches tasks?
bool system_keeps(uint32_t states) {
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (__get_cpuid(1, &a, &b, &c, &d) == 0 || (c & bit_OSXSAVE) == 0) return false;
  uint32_t low = 0;
  uint32_t high = 0;
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return (low & states) == states;
}

constexpr uint32_t vectors_of_256 = 0x06;  // the lower and the upper halves
constexpr uint32_t vectors_of_512 = 0xe6;  // these, the masks, and the halves and registers that came with AVX-512

}  // namespace

bool has_sse2() {
  unsigned a = 0, b = 0, c = 0, d = 0;
  return __get_cpuid(1, &a, &b, &c, &d) != 0 && (d & bit_SSE2) != 0;
}

bool has_avx2() {
  unsigned a = 0, b = 0, c = 0, d = 0;
  return system_keeps(vectors_of_256) && __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (b & bit_AVX2) != 0;
}

bool has_fast_avx512() {
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (!system_keeps(vectors_of_512) || __get_cpuid_count(7, 0, &a, &b, &c, &d) == 0) return false;
  return (b & bit_AVX512F) != 0 && (b & bit_AVX512BW) != 0 && (c & bit_AVX512VBMI2) != 0;
}

// One text for all, and not a template that each inlines: the compiler splits a vector's operators for the processor
// that the template itself is compiled for, before it inlines anything.
#define LIBIP_SUM_BY_VECTORS(name, features, count)                                                  \
  __attribute__((target(features))) uint64_t name(const uint8_t *from, size_t length) {              \
    using Vector = Lanes<count>::Vector;                                                             \
    Vector lanes = {};                                                                               \
    Vector upper = {};                                                                               \
    Vector lanes2 = {};                                                                              \
    Vector upper2 = {};                                                                              \
    for (; length >= 4 * sizeof(Vector); from += 4 * sizeof(Vector), length -= 4 * sizeof(Vector)) { \
      Vector first;                                                                                  \
      Vector second;                                                                                 \
      Vector third;                                                                                  \
      Vector fourth;                                                                                 \
      std::memcpy(&first, from, sizeof first);                                                       \
      std::memcpy(&second, from + sizeof first, sizeof second);                                      \
      std::memcpy(&third, from + 2 * sizeof first, sizeof third);                                    \
      std::memcpy(&fourth, from + 3 * sizeof first, sizeof fourth);                                  \
      lanes += first + third;                                                                        \
      upper += (first >> 32) + (third >> 32);                                                        \
      lanes2 += second + fourth;                                                                     \
      upper2 += (second >> 32) + (fourth >> 32);                                                     \
    }                                                                                                \
    for (; length >= sizeof(Vector); from += sizeof(Vector), length -= sizeof(Vector)) {             \
      Vector next;                                                                                   \
      std::memcpy(&next, from, sizeof next);                                                         \
      lanes += next;                                                                                 \
      upper += next >> 32;                                                                           \
    }                                                                                                \
    const uint64_t odd = (length & 1) != 0 ? word_of_byte(from[length - 1]) : 0;                     \
    const size_t even = length & ~size_t{1};                                                         \
    Vector rest;                                                                                     \
    Vector mask;                                                                                     \
    std::memcpy(&rest, from + even - sizeof rest, sizeof rest);                                      \
    std::memcpy(&mask, last_bytes.data() + last_bytes.size() / 2 - sizeof mask + even, sizeof mask); \
    rest &= mask;                                                                                    \
    lanes += lanes2 + rest;                                                                          \
    upper += upper2 + (rest >> 32);                                                                  \
    lanes = lanes - (upper << 32) + upper;                                                           \
    uint64_t total = odd;                                                                            \
    for (size_t i = 0; i < sizeof(Vector) / 8; i++) total += lanes[i];                               \
    return total;                                                                                    \
  }

LIBIP_SUM_BY_VECTORS(sum_by_sse2, "sse2", 2)
LIBIP_SUM_BY_VECTORS(sum_by_avx2, "avx2", 4)
LIBIP_SUM_BY_VECTORS(sum_by_avx512, "avx512f,avx512bw", 8)

#undef LIBIP_SUM_BY_VECTORS

}  // namespace libip

#endif
