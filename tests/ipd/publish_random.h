// SPDX-License-Identifier: Apache-2.0
// Random changes of a small world, in which everything collides with everything: made to a publisher and to its twin.
#ifndef TESTS_IPD_PUBLISH_RANDOM_H
#define TESTS_IPD_PUBLISH_RANDOM_H

#include <cstdint>
#include <random>

#include "ipd/publish_twin.h"

namespace publish_test {

class RandomChanges {
 public:
  // The seed is that of the environment variable PUBLISH_SEED, else a fresh one.
  RandomChanges();
  [[nodiscard]] uint32_t seed() const { return seed_; }

  // One change to both; the publisher's answer must be the twin's. When the publisher has no room (`may_refuse`), the
  // twin is left as it was. False: it was refused for that reason.
  bool one(ipd::Publisher &publisher, Twin &twin, bool may_refuse = false);

 private:
  uint32_t below(uint32_t limit) { return static_cast<uint32_t>(engine_() % limit); }
  uint32_t address();

  uint32_t seed_;
  std::mt19937 engine_;
};

}  // namespace publish_test

#endif
