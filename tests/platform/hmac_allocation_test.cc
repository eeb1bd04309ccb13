// SPDX-License-Identifier: Apache-2.0
// A keyed digest takes nothing from the heap.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hmac.h"
#include "platform/counting_allocator.h"

namespace {

using counting_allocator::allocations;

// Around the edges of blocks, of data and of key.
constexpr std::array<uint32_t, 10> data_lengths = {0, 1, 55, 56, 63, 64, 65, 100, 1500, 65515};
constexpr std::array<uint32_t, 7> key_lengths = {0, 1, 16, 20, 64, 65, 300};

template <class Digest>
uint64_t allocations_of_digests(Digest digest) {
  const std::vector<uint8_t> data(data_lengths.back(), 0xdd);
  const std::vector<uint8_t> key(key_lengths.back(), 0xaa);
  const uint64_t before = allocations();
  for (const uint32_t length : data_lengths) {
    for (const uint32_t key_length : key_lengths) digest(data.data(), length, key.data(), key_length);
  }
  return allocations() - before;
}

TEST(HmacAllocation, TheCountSeesWhatADigestMightTake) {
  const auto copies = [](const void *data, uint32_t length, const void *, uint32_t) {
    void *volatile copy = malloc(length + 1);
    if (copy != nullptr) std::memcpy(copy, data, length);
    free(copy);
  };
  EXPECT_GE(allocations_of_digests(copies), data_lengths.size() * key_lengths.size());
}

TEST(HmacAllocation, Md5TakesNothing) {
  const auto md5 = [](const void *data, uint32_t length, const void *key, uint32_t key_length) {
    uint8_t digest[16];
    hmac_md5(data, length, key, key_length, digest);
  };
  EXPECT_EQ(allocations_of_digests(md5), 0u);
}

TEST(HmacAllocation, ShaTakesNothingWhateverIsWanted) {
  for (const uint32_t wanted : {0u, 16u, 20u, 64u}) {
    const auto sha = [wanted](const void *data, uint32_t length, const void *key, uint32_t key_length) {
      uint8_t digest[64];
      hmac_sha(data, length, key, key_length, wanted, digest);
    };
    EXPECT_EQ(allocations_of_digests(sha), 0u) << wanted;
  }
}

}  // namespace
