// SPDX-License-Identifier: Apache-2.0
// The ones' complement sum of 16-bit words (RFC 1071), before it is folded to 16 bits.
//
// A sum is a plain number: any number of sums may be added, in any order, and folded at the end. It is 0 only when
// every byte is, so a folded sum is 0 or 0xffff exactly where that of a loop over words would be. Words are as they lie
// in memory; the sum of bytes that begin at an odd place is that of the bytes at an even place with its halves
// exchanged.
//
// 2^16 leaves 1 when it is divided by 2^16 - 1, so it does not matter at which place of a longer word a word of 16 bits
// stands: sums are taken over the machine's words, the carries that come out are added at the other end, and the result
// is a sum of words of 32 bits, which no packet overflows. Short runs are summed where the caller stands; longer ones
// are handed to the widest vectors that the processor has (checksum_vector.h), chosen once when the library is loaded.
#ifndef IP_CHECKSUM_H
#define IP_CHECKSUM_H

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace libip {

// Hidden, so that a call of one is a jump and nothing is looked up on the way.
#pragma GCC visibility push(hidden)
using SumOfBytes = uint64_t (*)(const uint8_t *from, size_t length);
// The sum of any number of bytes, on any processor.
[[nodiscard]] uint64_t sum_by_words(const uint8_t *from, size_t length);
// The best way for many_bytes and more. Written when the library is loaded, before any thread runs.
extern SumOfBytes sum_of_many;
#pragma GCC visibility pop

// From here on it pays to make the jump.
inline constexpr size_t many_bytes = 96;

template <class Word>
[[nodiscard]] inline Word word_at(const uint8_t *from) {
  Word word;
  std::memcpy(&word, from, sizeof word);
  return word;
}

// The last byte of an odd number: a word whose second byte is zero.
[[nodiscard]] constexpr uint64_t word_of_byte(uint8_t byte) {
  return std::endian::native == std::endian::little ? uint64_t{byte} : uint64_t{byte} << 8;
}

// A sum in one word of the machine, and the carries that came out of it.
class CarriedSum {
 public:
  void add(uintptr_t word) { carries_ += __builtin_add_overflow(sum_, word, &sum_) ? 1u : 0u; }
  [[nodiscard]] uint64_t total() const {
    return uint64_t{static_cast<uint32_t>(sum_)} + uint64_t{sum_} / 0x100000000 + carries_;
  }

 private:
  uintptr_t sum_ = 0;
  uint32_t carries_ = 0;
};

inline constexpr size_t machine_word = sizeof(uintptr_t);

// The sum of what is left of less than a machine word.
[[nodiscard]] inline uint64_t sum_of_rest(const uint8_t *from, size_t length) {
  uint64_t sum = 0;
  if (machine_word > 4 && (length & 4) != 0) {
    sum += word_at<uint32_t>(from);
    from += 4;
  }
  if ((length & 2) != 0) {
    sum += word_at<uint16_t>(from);
    from += 2;
  }
  if ((length & 1) != 0) sum += word_of_byte(*from);
  return sum;
}

// Of few bytes.
[[nodiscard]] inline uint64_t sum_where_we_are(const uint8_t *from, size_t length) {
  CarriedSum sum;
  for (; length >= 2 * machine_word; from += 2 * machine_word, length -= 2 * machine_word) {
    sum.add(word_at<uintptr_t>(from));
    sum.add(word_at<uintptr_t>(from + machine_word));
  }
  if ((length & machine_word) != 0) {
    sum.add(word_at<uintptr_t>(from));
    from += machine_word;
  }
  return sum.total() + sum_of_rest(from, length);
}

// Of `length` bytes at any alignment, an odd last one counting as if a zero followed. At most 2^30 times length, so
// that the sums of all parts of a packet fit.
[[nodiscard]] inline uint64_t sum_of_bytes(const uint8_t *from, size_t length) {
  return length < many_bytes ? sum_where_we_are(from, length) : sum_of_many(from, length);
}

// Of the 20 bytes of an IPv4 header without options: what is asked for most.
[[nodiscard]] inline uint32_t sum_of_header(const uint8_t *from) {
#if defined(__x86_64__) || defined(__i386__)
  // One chain of additions, in which each takes in the carry of the one before.
  unsigned sum = word_at<unsigned>(from);
  unsigned char carry = _addcarry_u32(0, sum, word_at<unsigned>(from + 4), &sum);
  carry = _addcarry_u32(carry, sum, word_at<unsigned>(from + 8), &sum);
  carry = _addcarry_u32(carry, sum, word_at<unsigned>(from + 12), &sum);
  carry = _addcarry_u32(carry, sum, word_at<unsigned>(from + 16), &sum);
  _addcarry_u32(carry, sum, 0, &sum);
  return sum;
#else
  const uint64_t sum = sum_where_we_are(from, 20);
  return static_cast<uint32_t>((sum + std::rotl(sum, 32)) >> 32);
#endif
}

// The same of 32 bits: each half added to the other, with the carry that comes out.
[[nodiscard]] constexpr uint16_t folded_32(uint32_t sum) {
  return static_cast<uint16_t>((sum + std::rotl(sum, 16)) >> 16);
}

// The sum in 16 bits.
[[nodiscard]] constexpr uint16_t folded(uint64_t sum) {
  const auto in_32 = static_cast<uint32_t>((sum + std::rotl(sum, 32)) >> 32);
  return folded_32(in_32);
}

// The sum of bytes that another byte stands in front of.
[[nodiscard]] constexpr uint16_t shifted_by_a_byte(uint64_t sum) {
  return std::rotl(folded(sum), 8);
}

[[nodiscard]] constexpr uint16_t checksum_of(uint64_t sum) {
  return static_cast<uint16_t>(~folded(sum));
}

}  // namespace libip

#endif
