// SPDX-License-Identifier: Apache-2.0
// Random words for a test. The seed is printed, so that a crash shows it too, and stands beside each failed
// expectation; LIBIP_TEST_SEED repeats a run.
#ifndef TESTS_UNIT_RANDOM_WORDS_H
#define TESTS_UNIT_RANDOM_WORDS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

namespace unit {

class RandomWords {
 public:
  uint32_t operator()() { return static_cast<uint32_t>(engine_()); }
  uint32_t below(uint32_t end) { return (*this)() % end; }

 private:
  static uint32_t choose_seed() {
    const char *given = std::getenv("LIBIP_TEST_SEED");
    const uint32_t seed =
        given != nullptr ? static_cast<uint32_t>(std::strtoul(given, nullptr, 0)) : std::random_device()();
    std::printf("LIBIP_TEST_SEED=%u\n", seed);
    return seed;
  }

  const uint32_t seed_ = choose_seed();
  std::mt19937 engine_{seed_};
  testing::ScopedTrace trace_{__FILE__, __LINE__, "LIBIP_TEST_SEED=" + std::to_string(seed_)};
};

}  // namespace unit

#endif
