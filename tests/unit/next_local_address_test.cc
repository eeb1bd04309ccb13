// SPDX-License-Identifier: Apache-2.0
// Which local address of a context comes next.
#include <set>

#include "unit/call_lines.h"
#include "unit/library_test.h"
#include "unit/random_words.h"

namespace unit {
namespace {

constexpr uint32_t table = 20;

struct Next {
  const char *name;
  uint32_t (*ask)(const char *context, uint32_t addr);
};

class NextLocalAddress : public LibraryTest, public testing::WithParamInterface<Next> {
 protected:
  NextLocalAddress() : red(database.context(2, "red", table)) {}
  static uint32_t next(uint32_t addr) { return GetParam().ask("red", addr); }
  ip_api_context_type *red;
};

TEST_P(NextLocalAddress, VisitsAllInAscendingOrder) {
  for (uint32_t addr : {address(200, 0, 0, 1), address(10, 0, 0, 2), address(10, 0, 0, 1)})
    database.node(red, addr, {5});
  attach();
  EXPECT_EQ(next(0), address(10, 0, 0, 1));
  EXPECT_EQ(next(address(10, 0, 0, 1)), address(10, 0, 0, 2));
  EXPECT_EQ(next(address(10, 0, 0, 2)), address(200, 0, 0, 1));
  EXPECT_EQ(next(address(200, 0, 0, 1)), 0u);
}

TEST_P(NextLocalAddress, GoesOnFromAnAddressThatIsNotThere) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  EXPECT_EQ(next(address(9, 255, 255, 255)), address(10, 0, 0, 1));
  EXPECT_EQ(next(address(11, 0, 0, 0)), 0u);
}

TEST_P(NextLocalAddress, AnyInformationWillDo) {
  database.node(red, address(10, 0, 0, 1), {}, {.with_info = false});
  database.node(red, address(10, 0, 0, 2), {}, {.vip = true});
  attach();
  EXPECT_EQ(next(0), address(10, 0, 0, 1));
  EXPECT_EQ(next(address(10, 0, 0, 1)), address(10, 0, 0, 2));
}

TEST_P(NextLocalAddress, PassesSubnetsOver) {
  database.node(red, address(10, 0, 0, 0), {5}, {.length = 24});
  database.node(red, address(10, 0, 0, 2), {5}, {.length = 31});
  database.node(red, address(10, 0, 0, 3), {5});
  attach();
  EXPECT_EQ(next(address(9, 0, 0, 0)), address(10, 0, 0, 3));
}

TEST_P(NextLocalAddress, StepsFromTheWholeAddressUnderTheLock) {
  database.node(red, address(10, 0, 0, 0), {5}, {.length = 30});
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  EXPECT_EQ(next(address(10, 0, 0, 0)), address(10, 0, 0, 1));
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            "pt_get_next_node(tree of red, 10.0.0.0/32, 0)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(NextLocalAddress, TakesNoLockInTheIpProcess) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(next(0), address(10, 0, 0, 1));
  EXPECT_EQ(calls(), Calls{"pt_get_next_node(tree of red, 0.0.0.0/32, 0)"});
}

TEST_P(NextLocalAddress, InNoContextIsNoneAndAsksNobody) {
  attach();
  EXPECT_EQ(GetParam().ask(nullptr, 0), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_P(NextLocalAddress, InAnUnknownContextOrOneWithoutATreeIsNone) {
  database.context_without_tree(4, "treeless");
  attach();
  EXPECT_EQ(GetParam().ask("Red", 0), 0u);
  EXPECT_EQ(GetParam().ask("treeless", 0), 0u);
  EXPECT_EQ(platform().log.count("pt_get_next_node"), 0u);
}

TEST_P(NextLocalAddress, DetachedIsNone) {
  EXPECT_EQ(next(0), 0u);
  EXPECT_EQ(platform().log.count("pt_get_next_node"), 0u);
}

TEST_P(NextLocalAddress, IsNoneWhenTheTreeLibraryFails) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  platform().scripts.fail("pt_get_next_node");
  EXPECT_EQ(next(0), 0u);
}

TEST_P(NextLocalAddress, ASubnetThatIsAnsweredAgainAndAgainIsNoAnswer) {
  auto *node = database.node(red, address(10, 0, 0, 0), {}, {.length = 8});
  attach();
  platform().log.record(false);
  // The first step stands at the subnet; from there on the answer is a node, and the key stays where it is.
  for (unsigned n = 2; n <= 64; n++) {
    platform().scripts.answer_call("pt_get_next_node", n, reinterpret_cast<uintptr_t>(node));
  }
  EXPECT_EQ(next(0), 0u) << "all that it met was a subnet";
}

TEST_P(NextLocalAddress, WalksLikeATwinOnRandomTrees) {
  RandomWords random;
  attach();
  platform().log.record(false);
  for (int round = 0; round < 50; round++) {
    platform().trees[red->local_pt.get()] = {};
    std::set<uint32_t> hosts;
    std::set<std::pair<uint32_t, uint32_t>> known;
    for (uint32_t n = random.below(30); n != 0; n--) {
      const uint32_t length = random.below(3) == 0 ? 24 + random.below(8) : 32;
      const uint32_t addr = (random() & 0xc0000f0f) & ~uint32_t{0} << (32 - length);
      if (!known.emplace(addr, length).second) continue;
      database.node(red, addr, {5}, {.length = length});
      if (length == 32) hosts.insert(addr);
    }
    for (int question = 0; question < 40; question++) {
      const uint32_t addr = random() & 0xc0000f0f;
      const auto expected = hosts.upper_bound(addr);
      ASSERT_EQ(next(addr), expected == hosts.end() ? 0 : *expected) << fake_platform::dotted(addr);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Names, NextLocalAddress,
                         testing::Values(Next{"NextAddress", ip_get_next_address},
                                         Next{"NextAllAddress", ip_get_next_all_address}),
                         [](const auto &of) { return std::string(of.param.name); });

}  // namespace
}  // namespace unit
