// SPDX-License-Identifier: Apache-2.0
// Each way to sum bytes beside the plain loop over words: every length of a jumbo frame, every alignment in a cache
// line, nothing read outside, and the way that was chosen through the exported calls.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "checksum.h"
#include "checksum_vector.h"
#include "fake_platform/packets.h"
#include "fake_platform/platform.h"
#include "ip_api.h"
#include "unit/random_words.h"

namespace unit {
namespace {

constexpr size_t longest = 9216;
constexpr size_t alignments = 64;
// A sanitizer looks at each access: some alignments, and fewer packets, have to do there.
#ifdef LIBIP_SANITIZED
constexpr size_t alignment_step = 21;
constexpr int packets = 200;
#else
constexpr size_t alignment_step = 1;
constexpr int packets = 2000;
#endif

struct Way {
  const char *name;
  libip::SumOfBytes sum;
  size_t shortest;  // below that it is not asked
  bool there;
};

uint64_t where_the_caller_stands(const uint8_t *from, size_t length) {
  return libip::sum_of_bytes(from, length);
}

std::vector<Way> ways() {
  std::vector<Way> all = {{"Words", libip::sum_by_words, 0, true}, {"Inline", where_the_caller_stands, 0, true}};
#if LIBIP_VECTOR_SUMS
  all.push_back({"Sse2", libip::sum_by_sse2, 16, libip::has_sse2()});
  all.push_back({"Avx2", libip::sum_by_avx2, 32, libip::has_avx2()});
  all.push_back({"Avx512", libip::sum_by_avx512, 64, libip::has_fast_avx512()});
#endif
  return all;
}

// The loop of RFC 1071, 4.1, over words as they lie in memory, that can go on where it stopped.
class PlainLoop {
 public:
  explicit PlainLoop(const uint8_t *from) : from_(from) {}
  // The folded sum of the first `length` bytes; lengths come in ascending order.
  uint16_t sum_of_first(size_t length) {
    for (; at_ + 2 <= length; at_ += 2) add(word(from_[at_], from_[at_ + 1]));
    uint32_t sum = sum_;
    if (at_ < length) sum += word(from_[at_], 0);
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(sum);
  }

 private:
  static uint16_t word(uint8_t first, uint8_t second) {
    const uint8_t bytes[2] = {first, second};
    uint16_t both;
    std::memcpy(&both, bytes, sizeof both);
    return both;
  }
  void add(uint16_t word) {
    sum_ += word;
    if (sum_ >= 0x80000000u) sum_ = (sum_ & 0xffff) + (sum_ >> 16);
  }
  const uint8_t *from_;
  size_t at_ = 0;
  uint32_t sum_ = 0;
};

uint16_t plain_sum(const uint8_t *from, size_t length) {
  return PlainLoop(from).sum_of_first(length);
}

// Bytes between two pages that must not be touched.
class Fenced {
 public:
  explicit Fenced(size_t size) : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
    inside_ = (size + page_ - 1) / page_ * page_;
    void *all = mmap(nullptr, inside_ + 2 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    start_ = static_cast<uint8_t *>(all);
    if (all == MAP_FAILED || mprotect(begin(), inside_, PROT_READ | PROT_WRITE) != 0) abort();
  }
  ~Fenced() { munmap(start_, inside_ + 2 * page_); }
  Fenced(const Fenced &) = delete;
  Fenced &operator=(const Fenced &) = delete;
  [[nodiscard]] uint8_t *begin() const { return start_ + page_; }
  [[nodiscard]] uint8_t *end() const { return begin() + inside_; }

 private:
  size_t page_;
  size_t inside_;
  uint8_t *start_;
};

class SumTest : public testing::TestWithParam<Way> {
 protected:
  void fill(RandomWords &random) const {
    for (uint8_t *byte = memory.begin(); byte != memory.end(); byte++) *byte = static_cast<uint8_t>(random());
  }
  // The sum of the way under test; a way that this processor does not have is compared with itself elsewhere.
  static uint16_t sum(const uint8_t *from, size_t length) {
    const Way &way = GetParam();
    return libip::folded(way.there && length >= way.shortest ? way.sum(from, length)
                                                             : libip::sum_by_words(from, length));
  }
  Fenced memory{longest + alignments};
};

TEST_P(SumTest, EveryLengthAtEveryAlignmentIsThePlainLoops) {
  RandomWords random;
  fill(random);
  for (size_t alignment = 0; alignment < alignments; alignment += alignment_step) {
    const uint8_t *from = memory.begin() + alignment;
    PlainLoop twin(from);
    for (size_t length = 0; length <= longest; length++) {
      ASSERT_EQ(sum(from, length), twin.sum_of_first(length)) << "length " << length << ", alignment " << alignment;
    }
  }
}

TEST_P(SumTest, EveryLengthMayEndWhereMemoryEnds) {
  RandomWords random;
  fill(random);
  for (size_t length = 0; length <= longest; length += length < 600 ? 1 : 61) {
    const uint8_t *from = memory.end() - length;
    ASSERT_EQ(sum(from, length), plain_sum(from, length)) << length;
  }
}

TEST_P(SumTest, EveryLengthMayBeginWhereMemoryBegins) {
  RandomWords random;
  fill(random);
  PlainLoop twin(memory.begin());
  for (size_t length = 0; length <= longest; length++) {
    ASSERT_EQ(sum(memory.begin(), length), twin.sum_of_first(length)) << length;
  }
}

TEST_P(SumTest, OnesAndZerosKeepTheirTwoZeros) {
  for (const int value : {0x00, 0xff}) {
    std::memset(memory.begin(), value, longest);
    PlainLoop twin(memory.begin());
    for (size_t length = 0; length <= longest; length++) {
      ASSERT_EQ(sum(memory.begin(), length), twin.sum_of_first(length)) << length << " of " << value;
    }
  }
}

TEST_P(SumTest, EveryByteCountsOnce) {
  std::memset(memory.begin(), 0, longest);
  for (const size_t length : {size_t{1}, size_t{20}, size_t{63}, size_t{64}, size_t{65}, size_t{127}, size_t{129},
                              size_t{161}, size_t{255}, size_t{1500}}) {
    for (size_t at = 0; at < length; at++) {
      memory.begin()[at] = 1;
      ASSERT_EQ(sum(memory.begin(), length), plain_sum(memory.begin(), length)) << at << " of " << length;
      memory.begin()[at] = 0;
    }
  }
}

// More ones than a 32-bit count of carries, or a 64-bit sum of 64-bit words, could hold.
TEST_P(SumTest, ALargeRunDoesNotOverflow) {
  const std::vector<uint8_t> ones((size_t{16} << 20) + 3, 0xff);
  EXPECT_EQ(sum(ones.data(), ones.size()), plain_sum(ones.data(), ones.size()));
}

INSTANTIATE_TEST_SUITE_P(Ways, SumTest, testing::ValuesIn(ways()), [](const auto &of) { return of.param.name; });

// ------------------------------------------------------------ the way that was chosen

class ChosenSumTest : public testing::Test {
 protected:
  ChosenSumTest() { fake_platform::platform().reset(); }
};

TEST_F(ChosenSumTest, IpChecksumIsThePlainLoopsAtEveryLength) {
  RandomWords random;
  std::vector<uint8_t> bytes(longest + 8);
  for (uint8_t &byte : bytes) byte = static_cast<uint8_t>(random());
  for (size_t alignment = 0; alignment < 8; alignment++) {
    PlainLoop twin(bytes.data() + alignment);
    for (size_t length = 0; length <= longest; length++) {
      ASSERT_EQ(ip_checksum(bytes.data() + alignment, static_cast<uint32_t>(length)),
                static_cast<uint16_t>(~twin.sum_of_first(length)))
          << length;
    }
  }
}

TEST_F(ChosenSumTest, InCksumIsThePlainLoopsInEverySegmentation) {
  RandomWords random;
  for (int run = 0; run < packets; run++) {
    const size_t total = random.below(longest + 1);
    std::vector<uint8_t> bytes(total);
    for (uint8_t &byte : bytes) byte = static_cast<uint8_t>(random());
    std::vector<std::vector<uint8_t>> parts;
    const uint32_t largest = 1 + random.below(run % 2 == 0 ? 100 : 1980);
    for (size_t at = 0; at < total || parts.empty();) {
      const size_t size = std::min<size_t>(total - at, random.below(largest + 1));
      parts.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                         bytes.begin() + static_cast<std::ptrdiff_t>(at + size));
      at += size;
      if (size == 0 && parts.size() > 500) break;
    }
    size_t held = 0;
    for (const auto &part : parts) held += part.size();
    struct mbuf *packet = fake_platform::packet_chain(parts);
    // Buffers begin at any alignment, as they do behind headers that were taken off.
    const auto offset = static_cast<uint32_t>(random.below(static_cast<uint32_t>(held) + 1));
    const auto length = random.below(static_cast<uint32_t>(held) - offset + 1);
    ASSERT_EQ(in_cksum(packet, static_cast<int32_t>(offset), static_cast<int32_t>(length)),
              static_cast<uint16_t>(~plain_sum(bytes.data() + offset, length)))
        << "offset " << offset << ", length " << length << ", " << parts.size() << " buffers of " << held;
    if (run % 20 == 0) fake_platform::platform().memory.reset();
  }
}

#if LIBIP_VECTOR_SUMS
TEST_F(ChosenSumTest, TheWidestVectorsOfTheProcessorAreChosen) {
  libip::SumOfBytes best = libip::sum_by_words;
  for (const Way &way : ways()) {
    if (way.there && way.sum != where_the_caller_stands) best = way.sum;
  }
  EXPECT_EQ(libip::sum_of_many, best);
}

TEST_F(ChosenSumTest, WhatTheProcessorHasIsWhatTheCompilersRuntimeSays) {
  __builtin_cpu_init();
  EXPECT_EQ(libip::has_sse2(), __builtin_cpu_supports("sse2") != 0);
  EXPECT_EQ(libip::has_avx2(), __builtin_cpu_supports("avx2") != 0);
  EXPECT_EQ(libip::has_fast_avx512(), __builtin_cpu_supports("avx512f") != 0 &&
                                          __builtin_cpu_supports("avx512bw") != 0 &&
                                          __builtin_cpu_supports("avx512vbmi2") != 0);
}
#endif

}  // namespace
}  // namespace unit
