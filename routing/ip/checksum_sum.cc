// SPDX-License-Identifier: Apache-2.0
// The sum under every checksum.
#include <cstring>

#include "checksum.h"

namespace libip {

uint64_t sum_of_bytes(const uint8_t *from, size_t length) {
  uint64_t sum = 0;
  for (; length >= 2; from += 2, length -= 2) {
    uint16_t word;
    std::memcpy(&word, from, sizeof word);
    sum += word;
  }
  if (length == 1) {
    uint16_t word = 0;
    std::memcpy(&word, from, 1);
    sum += word;
  }
  return sum;
}

}  // namespace libip
