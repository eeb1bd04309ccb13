// SPDX-License-Identifier: Apache-2.0
// The Patricia tree with a million prefixes; a tenth of that under the sanitizers, where each access costs far more.
#include <gtest/gtest.h>

#include <random>

#include "platform/tree_rig.h"

namespace {

using tree_rig::Prefix;

#ifdef LIBIP_SANITIZED
constexpr size_t wanted = 100000;
#else
constexpr size_t wanted = 1000000;
#endif

TEST(PtLarge, AMillionPrefixesAreFoundInOrderAndGoneAgain) {
  tree_rig::TreeRig rig(std::chrono::milliseconds(1000));
  std::mt19937 random(7);
  std::vector<Prefix> prefixes;
  while (prefixes.size() < wanted) {
    while (prefixes.size() < wanted + wanted / 16) {
      const uint32_t length = random() % 2 == 0 ? 32 : 12 + static_cast<uint32_t>(random() % 20);
      prefixes.push_back({static_cast<uint32_t>(random()) & tree_rig::mask_of(length), length});
    }
    std::ranges::sort(prefixes);
    const auto rest = std::ranges::unique(prefixes);
    prefixes.erase(rest.begin(), rest.end());
  }
  std::ranges::shuffle(prefixes, random);
  prefixes.resize(wanted);

  rig.tree->hold();
  for (const Prefix &prefix : prefixes) ASSERT_TRUE(rig.add(prefix));
  rig.tree->publish();
  EXPECT_EQ(rig.tree->size(), wanted);
  for (const Prefix &prefix : prefixes) ASSERT_EQ(tree_rig::exact(rig.handle(), prefix), prefix);

  std::ranges::sort(prefixes);
  Prefix at = tree_rig::first(rig.handle());
  for (const Prefix &prefix : prefixes) {
    ASSERT_EQ(at, prefix);
    at = tree_rig::next(rig.handle(), at);
  }
  EXPECT_EQ(at, tree_rig::none);

  std::ranges::shuffle(prefixes, random);
  const size_t erased = wanted / 20;
  for (size_t i = 0; i < erased; ++i) {
    ASSERT_TRUE(rig.remove(prefixes[i]));
    if (i % 1024 == 0) rig.tick();
  }
  for (size_t i = 0; i < 2 * erased; ++i) {
    ASSERT_EQ(tree_rig::exact(rig.handle(), prefixes[i]), i < erased ? tree_rig::none : prefixes[i]);
  }
}

}  // namespace
