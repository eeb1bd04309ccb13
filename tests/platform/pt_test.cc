// SPDX-License-Identifier: Apache-2.0
// The Patricia tree: its contract by example, then beside its twin.
#include <gtest/gtest.h>

#include <random>

#include "platform/tree_rig.h"

namespace {

using tree_rig::Prefix;
using tree_rig::TreeRig;
using tree_rig::Twin;
using Prefixes = std::vector<Prefix>;

constexpr uint32_t ip(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return a << 24 | b << 16 | c << 8 | d;
}

TEST(Pt, NullAndEmptyTreesAnswerNothing) {
  TreeRig rig;
  for (void *tree : {static_cast<void *>(nullptr), rig.handle()}) {
    EXPECT_EQ(tree_rig::exact(tree, {0, 0}), tree_rig::none);
    EXPECT_EQ(tree_rig::exact(tree, {ip(10, 0, 0, 1), 32}), tree_rig::none);
    EXPECT_EQ(tree_rig::covering(tree, {ip(10, 0, 0, 1), 32}), Prefixes{});
    EXPECT_EQ(tree_rig::more_specific(tree, {0, 0}), tree_rig::none);
    EXPECT_EQ(tree_rig::first(tree), tree_rig::none);
    EXPECT_EQ(tree_rig::next(tree, {0, 0}), tree_rig::none);
  }
}

TEST(Pt, AHandleOutsideTheWindowsAnswersNothing) {
  uint32_t elsewhere[4] = {1, 2, 3, 4};
  EXPECT_EQ(tree_rig::exact(elsewhere, {ip(10, 0, 0, 1), 32}), tree_rig::none);
  EXPECT_EQ(tree_rig::first(elsewhere), tree_rig::none);
  EXPECT_EQ(tree_rig::covering(elsewhere, {ip(10, 0, 0, 1), 32}), Prefixes{});
}

TEST(Pt, LengthsAbove32AnswerNothing) {
  TreeRig rig;
  ASSERT_TRUE(rig.add({0, 0}));
  ASSERT_TRUE(rig.add({ip(10, 0, 0, 1), 32}));
  EXPECT_EQ(tree_rig::exact(rig.handle(), {ip(10, 0, 0, 1), 33}), tree_rig::none);
  EXPECT_EQ(tree_rig::covering(rig.handle(), {ip(10, 0, 0, 1), 33}), Prefixes{});
  EXPECT_EQ(tree_rig::more_specific(rig.handle(), {0, 255}), tree_rig::none);
  EXPECT_EQ(tree_rig::next(rig.handle(), {0, ~0u}), tree_rig::none);
  EXPECT_FALSE(rig.add({0, 33}));
  EXPECT_FALSE(rig.remove({0, 33}));
}

TEST(Pt, ExactLookupFindsOnlyTheVeryPrefix) {
  TreeRig rig;
  ASSERT_TRUE(rig.add({ip(10, 0, 0, 0), 8}));
  ASSERT_TRUE(rig.add({ip(10, 0, 0, 0), 24}));
  ASSERT_TRUE(rig.add({ip(10, 0, 0, 0), 32}));
  EXPECT_EQ(tree_rig::exact(rig.handle(), {ip(10, 0, 0, 0), 8}), (Prefix{ip(10, 0, 0, 0), 8}));
  EXPECT_EQ(tree_rig::exact(rig.handle(), {ip(10, 0, 0, 0), 24}), (Prefix{ip(10, 0, 0, 0), 24}));
  EXPECT_EQ(tree_rig::exact(rig.handle(), {ip(10, 0, 0, 0), 32}), (Prefix{ip(10, 0, 0, 0), 32}));
  EXPECT_EQ(tree_rig::exact(rig.handle(), {ip(10, 0, 0, 0), 16}), tree_rig::none);
  EXPECT_EQ(tree_rig::exact(rig.handle(), {ip(10, 0, 0, 128), 32}), tree_rig::none);
}

TEST(Pt, ExactLookupDoesNotLookAtBitsBeyondTheLength) {
  TreeRig rig;
  ASSERT_TRUE(rig.add({ip(10, 1, 2, 0), 24}));
  EXPECT_EQ(tree_rig::exact(rig.handle(), {ip(10, 1, 2, 77), 24}), (Prefix{ip(10, 1, 2, 0), 24}));
}

TEST(Pt, APrefixIsInTheTreeOnce) {
  TreeRig rig;
  ASSERT_TRUE(rig.add({ip(10, 0, 0, 1), 32}));
  EXPECT_FALSE(rig.add({ip(10, 0, 0, 1), 32}));
  ASSERT_TRUE(rig.add({ip(10, 0, 0, 0), 8}));
  EXPECT_FALSE(rig.add({ip(10, 9, 9, 9), 8})) << "bits beyond the length do not make another prefix";
  EXPECT_EQ(rig.tree->size(), 2u);
  EXPECT_TRUE(rig.remove({ip(10, 0, 0, 1), 32}));
  EXPECT_FALSE(rig.remove({ip(10, 0, 0, 1), 32}));
  EXPECT_EQ(rig.tree->size(), 1u);
}

TEST(Pt, ANodeKeepsItsAddressAndItsWordsWhileOthersComeAndGo) {
  TreeRig rig;
  const Prefix kept{ip(10, 0, 0, 1), 32};
  ASSERT_TRUE(rig.add(kept));
  void *node = tree_rig::exact_node(rig.handle(), kept);
  for (uint32_t i = 2; i < 5000; ++i) ASSERT_TRUE(rig.add({ip(10, 0, 0, 0) + i, 32}));
  for (uint32_t length = 0; length < 32; ++length) ASSERT_TRUE(rig.add({kept.key, length}));
  for (uint32_t i = 2; i < 5000; ++i) ASSERT_TRUE(rig.remove({ip(10, 0, 0, 0) + i, 32}));
  EXPECT_EQ(tree_rig::exact_node(rig.handle(), kept), node);
  EXPECT_EQ(tree_rig::info_word(node), tree_rig::info_of(kept));
  EXPECT_EQ(rig.tree->find(kept.key, 32), node);
}

TEST(Pt, CoveringNodesComeShortestFirstAndAreAtMost33) {
  TreeRig rig;
  const Prefix question{ip(172, 16, 255, 85), 32};
  Prefixes all;
  for (uint32_t length = 0; length <= 32; ++length) {
    const Prefix cover{question.key & tree_rig::mask_of(length), length};
    all.push_back(cover);
    ASSERT_TRUE(rig.add(cover));
    rig.add({(question.key ^ 1u << (31 - std::min(length, 31u))) & tree_rig::mask_of(length), length});
  }
  EXPECT_EQ(tree_rig::covering(rig.handle(), question), all);
  EXPECT_EQ(tree_rig::covering(rig.handle(), {question.key, 20}), Prefixes(all.begin(), all.begin() + 21));
}

TEST(Pt, MoreSpecificIsTheFirstStrictlyLongerInsideThePrefix) {
  TreeRig rig;
  ASSERT_TRUE(rig.add({ip(10, 0, 0, 0), 8}));
  ASSERT_TRUE(rig.add({ip(10, 1, 0, 0), 16}));
  ASSERT_TRUE(rig.add({ip(10, 1, 2, 0), 24}));
  ASSERT_TRUE(rig.add({ip(11, 0, 0, 0), 8}));
  EXPECT_EQ(tree_rig::more_specific(rig.handle(), {ip(10, 0, 0, 0), 8}), (Prefix{ip(10, 1, 0, 0), 16}));
  EXPECT_EQ(tree_rig::more_specific(rig.handle(), {ip(10, 1, 2, 3), 16}), (Prefix{ip(10, 1, 2, 0), 24}));
  EXPECT_EQ(tree_rig::more_specific(rig.handle(), {ip(10, 0, 0, 0), 7}), (Prefix{ip(10, 0, 0, 0), 8}));
  EXPECT_EQ(tree_rig::more_specific(rig.handle(), {ip(10, 1, 2, 0), 24}), tree_rig::none);
  EXPECT_EQ(tree_rig::more_specific(rig.handle(), {ip(10, 2, 0, 0), 16}), tree_rig::none);
  EXPECT_EQ(tree_rig::more_specific(rig.handle(), {ip(10, 1, 2, 3), 32}), tree_rig::none);
}

TEST(Pt, NextGoesOnAfterAPrefixThatIsNotThere) {
  TreeRig rig;
  ASSERT_TRUE(rig.add({ip(10, 1, 0, 0), 16}));
  ASSERT_TRUE(rig.add({ip(10, 1, 0, 0), 24}));
  ASSERT_TRUE(rig.add({ip(10, 1, 0, 1), 32}));
  EXPECT_EQ(tree_rig::next(rig.handle(), {0, 0}), (Prefix{ip(10, 1, 0, 0), 16}));
  EXPECT_EQ(tree_rig::next(rig.handle(), {ip(10, 1, 0, 0), 20}), (Prefix{ip(10, 1, 0, 0), 24}));
  EXPECT_EQ(tree_rig::next(rig.handle(), {ip(10, 1, 0, 0), 32}), (Prefix{ip(10, 1, 0, 1), 32}))
      << "a caller's length buffer of 32 passes over longer prefixes of the same key";
  EXPECT_EQ(tree_rig::next(rig.handle(), {ip(10, 1, 0, 9), 8}), tree_rig::none) << "the key counts with all its bits";
}

TEST(Pt, TheFirstNodeIgnoresWhatTheBuffersHeld) {
  TreeRig rig;
  ASSERT_TRUE(rig.add({ip(10, 0, 0, 1), 32}));
  tree_rig::KeyBuffer key(~0u);
  uint32_t length = ~0u;
  ASSERT_NE(pt_get_first_node(rig.handle(), &key, &length, 0), nullptr);
  EXPECT_EQ(key.host(), ip(10, 0, 0, 1));
  EXPECT_EQ(length, 32u);
}

TEST(Pt, ALookupWithoutAnswerLeavesTheBuffersAlone) {
  TreeRig rig;
  ASSERT_TRUE(rig.add({ip(10, 0, 0, 1), 32}));
  tree_rig::KeyBuffer key(ip(10, 0, 0, 1));
  uint32_t length = 32;
  EXPECT_EQ(pt_get_next_node(rig.handle(), &key, &length, 0), nullptr);
  EXPECT_EQ(pt_lookup_more_specific(rig.handle(), &key, length), nullptr);
  EXPECT_EQ(key.host(), ip(10, 0, 0, 1));
  EXPECT_EQ(length, 32u);
}

TEST(Pt, WalksSeeHeldBackChangesWhenTheyArePublished) {
  TreeRig rig;
  ASSERT_TRUE(rig.add({ip(10, 0, 0, 0), 8}));
  rig.tree->hold();
  ASSERT_TRUE(rig.add({ip(10, 1, 0, 0), 16}));
  ASSERT_TRUE(rig.add({ip(10, 1, 1, 0), 24}));
  EXPECT_EQ(tree_rig::covering(rig.handle(), {ip(10, 1, 1, 1), 32}), (Prefixes{{ip(10, 0, 0, 0), 8}}));
  EXPECT_EQ(tree_rig::exact(rig.handle(), {ip(10, 1, 1, 0), 24}), (Prefix{ip(10, 1, 1, 0), 24}));
  rig.tree->publish();
  EXPECT_EQ(tree_rig::covering(rig.handle(), {ip(10, 1, 1, 1), 32}),
            (Prefixes{{ip(10, 0, 0, 0), 8}, {ip(10, 1, 0, 0), 16}, {ip(10, 1, 1, 0), 24}}));
}

TEST(Pt, EverythingOfARetiredTreeGoesBackToTheArena) {
  TreeRig rig;
  for (uint32_t i = 0; i < 3000; ++i) ASSERT_TRUE(rig.add({i << 12, 20 + i % 13}));
  rig.tree->retire_all();
  ASSERT_TRUE(test_support::wait_until([&] {
    rig.tick();
    return rig.arena->retired_bytes() == 0;
  }));
  for (const rsw::RecordTypeUse &use : rig.arena->use()) {
    if (use.info.type >= rsw::first_pt_type) {
      EXPECT_EQ(use.live, 0u) << use.info.name;
    }
  }
}

// Keys whose hashes agree in their top 20 bits: they all belong into one group of 32 index entries, however long the
// array.
TEST(Pt, PrefixesThatFindNoPlaceInTheIndexAreFoundAllTheSame) {
  TreeRig rig;
  Twin twin;
  uint32_t inverse = 0x9e3779b1u;  // of the hash's factor, modulo 2^32, by Newton's iteration
  for (int i = 0; i < 5; ++i) inverse *= 2 - 0x9e3779b1u * inverse;
  ASSERT_EQ(inverse * 0x9e3779b1u, 1u);
  const auto key = [&](uint32_t i) { return (0x12345000u | i) * inverse; };
  for (uint32_t i = 0; i < 200; ++i) {
    ASSERT_TRUE(rig.add({key(i), 32}));
    twin.add({key(i), 32});
  }
  for (uint32_t i = 0; i < 200; i += 3) {
    ASSERT_TRUE(rig.remove({key(i), 32}));
    twin.remove({key(i), 32});
  }
  for (uint32_t i = 0; i < 400; ++i) {
    const Prefix question{key(i), 32};
    ASSERT_EQ(tree_rig::exact(rig.handle(), question), twin.exact(question)) << i;
    ASSERT_EQ(tree_rig::next(rig.handle(), question), twin.next(question)) << i;
  }
}

// Random changes and questions. `width` is how many of the key's bits vary: few bits make a crowded tree.
void compare_with_twin(uint32_t seed, uint32_t width, uint32_t steps, uint32_t size) {
  SCOPED_TRACE(testing::Message() << "seed " << seed << ", width " << width);
  TreeRig rig;
  Twin twin;
  std::mt19937 random(seed);
  const auto any = [&] {
    const uint32_t key = static_cast<uint32_t>(random()) << (32 - width);
    const uint32_t length = random() % 3 == 0 ? 32 : static_cast<uint32_t>(random() % 33);
    return Prefix{(random() & 1) != 0 ? key : key | static_cast<uint32_t>(random() & 3), length};
  };
  for (uint32_t step = 0; step < steps; ++step) {
    const bool grow = random() % (2 * size) >= twin.prefixes.size();
    Prefix change = any();
    if (!grow && !twin.prefixes.empty()) change = twin.prefixes[random() % twin.prefixes.size()];
    change.key &= tree_rig::mask_of(change.length);
    if (random() % 64 == 0) {
      if ((random() & 1) != 0) {
        rig.tree->hold();
      } else {
        rig.tree->publish();
      }
    }
    if (grow) {
      ASSERT_EQ(rig.add(change), twin.add(change));
    } else {
      ASSERT_EQ(rig.remove(change), twin.remove(change));
    }
    if (step % 16 == 0) rig.tick();
    ASSERT_EQ(rig.tree->size(), twin.prefixes.size());
    if (step % 4 != 0) continue;
    rig.tree->publish();
    for (int i = 0; i < 8; ++i) {
      Prefix question = any();
      if (i < 3 && !twin.prefixes.empty()) question = twin.prefixes[random() % twin.prefixes.size()];
      const Prefix masked{question.key & tree_rig::mask_of(question.length), question.length};
      ASSERT_EQ(tree_rig::exact(rig.handle(), question), twin.exact(masked));
      ASSERT_EQ(rig.tree->find(question.key, static_cast<uint8_t>(question.length)) != nullptr,
                twin.exact(masked) == masked);
      ASSERT_EQ(tree_rig::covering(rig.handle(), question), twin.covering(masked));
      ASSERT_EQ(tree_rig::more_specific(rig.handle(), question), twin.more_specific(masked));
      ASSERT_EQ(tree_rig::next(rig.handle(), question), twin.next(question));
    }
    ASSERT_EQ(tree_rig::first(rig.handle()), twin.prefixes.empty() ? tree_rig::none : twin.prefixes.front());
  }
  Prefixes in_order;
  for (Prefix at = tree_rig::first(rig.handle()); at != tree_rig::none; at = tree_rig::next(rig.handle(), at)) {
    in_order.push_back(at);
  }
  EXPECT_EQ(in_order, twin.prefixes);
}

TEST(Pt, SmallCrowdedTreesAnswerLikeTheSortedVector) {
  for (uint32_t seed = 1; seed <= 8; ++seed) compare_with_twin(seed, 4, 3000, 40);
}

TEST(Pt, MiddleTreesAnswerLikeTheSortedVector) {
  compare_with_twin(20, 16, 20000, 2000);
}

TEST(Pt, WideTreesAnswerLikeTheSortedVector) {
  compare_with_twin(30, 32, 20000, 4000);
}

TEST(Pt, ATreeThatWasEmptiedStartsAnew) {
  TreeRig rig;
  for (int round = 0; round < 3; ++round) {
    for (uint32_t i = 0; i < 2000; ++i) ASSERT_TRUE(rig.add({i * 2654435761u, 32}));
    for (uint32_t i = 0; i < 2000; ++i) ASSERT_TRUE(rig.remove({i * 2654435761u, 32}));
    EXPECT_EQ(tree_rig::first(rig.handle()), tree_rig::none);
    EXPECT_EQ(tree_rig::exact(rig.handle(), {2654435761u, 32}), tree_rig::none);
    rig.tick();
  }
}

}  // namespace
