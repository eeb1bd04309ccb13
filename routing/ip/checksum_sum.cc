// SPDX-License-Identifier: Apache-2.0
// The sum of many bytes: the way that any processor can go, and the choice of a better one.
#include "checksum.h"
#include "checksum_vector.h"

namespace libip {

uint64_t sum_by_words(const uint8_t *from, size_t length) {
  uint64_t even = 0;
  uint64_t odd = 0;
  for (; length >= 16; from += 16, length -= 16) {
    even += uint64_t{word_at<uint32_t>(from)} + word_at<uint32_t>(from + 8);
    odd += uint64_t{word_at<uint32_t>(from + 4)} + word_at<uint32_t>(from + 12);
  }
  return even + odd + sum_where_we_are(from, length);
}

// Right from the start, for constructors of other libraries that run before the choice is made.
SumOfBytes sum_of_many = sum_by_words;

namespace {

[[gnu::constructor]] void choose_sum() {
#if LIBIP_VECTOR_SUMS
  if (has_sse2()) sum_of_many = sum_by_sse2;
  if (has_avx2()) sum_of_many = sum_by_avx2;
  if (has_fast_avx512()) sum_of_many = sum_by_avx512;
#endif
}

}  // namespace
}  // namespace libip
