// SPDX-License-Identifier: Apache-2.0
// Does a new prefix collide with one that an interface of the context holds already? Three questions, which differ on
// purpose: whose holder is passed over, whose state counts, how far the walk goes. Here is what they have in common;
// overlap_find_test.cc and overlap_check_test.cc have what is their own.
#include <cstdio>

#include "tsp.h"
#include "unit/overlap_fixture.h"

namespace unit {
namespace {

struct Search {
  const char *name;
  uint32_t (*ask)(ip_api_context_type *context, uint32_t addr, uint8_t len, uint32_t *out);
};

const Search searches[] = {
    {"Find", [](ip_api_context_type *context, uint32_t addr, uint8_t len,
                uint32_t *out) { return ip_find_overlap_interface(context, addr, len, 0, out); }},
    {"Check", ip_check_for_prefix_overlap},
    {"CheckNoState", ip_check_for_prefix_overlap_no_state},
};

class OverlapSearch : public OverlapFixture, public testing::WithParamInterface<Search> {
 protected:
  uint32_t ask(ip_api_context_type *context, uint32_t addr, uint8_t len) {
    return GetParam().ask(context, addr, len, &out);
  }
};

TEST_P(OverlapSearch, ACoveringPrefixIsAnOverlapWithItsFirstHolder) {
  held(net10, 8, {6, 5});
  attach();
  EXPECT_EQ(ask(red, address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 6u);
}

TEST_P(OverlapSearch, ThePrefixItselfIsAnOverlap) {
  held(address(10, 1, 2, 0), 24, {5});
  attach();
  EXPECT_EQ(ask(red, address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 5u);
}

TEST_P(OverlapSearch, HostBitsOfTheAddressDoNotCount) {
  held(address(10, 1, 2, 0), 24, {5});
  attach();
  EXPECT_EQ(ask(red, address(10, 1, 2, 77), 24), 1u);
  EXPECT_EQ(out, 5u);
}

TEST_P(OverlapSearch, AMoreSpecificPrefixIsAnOverlap) {
  held(address(10, 1, 2, 1), 32, {5});
  attach();
  EXPECT_EQ(ask(red, net10, 8), 1u);
  EXPECT_EQ(out, 5u);
}

TEST_P(OverlapSearch, ADisjointPrefixIsNone) {
  held(address(10, 1, 2, 0), 24, {5});
  held(address(10, 1, 4, 1), 32, {6});
  attach();
  EXPECT_EQ(ask(red, address(10, 1, 3, 0), 24), 0u);
  EXPECT_EQ(out, 0u);
}

TEST_P(OverlapSearch, AnEmptyTreeHasNone) {
  attach();
  EXPECT_EQ(ask(red, net10, 8), 0u);
  EXPECT_EQ(out, 0u);
}

TEST_P(OverlapSearch, ShorterCoversComeFirst) {
  held(address(10, 1, 0, 0), 16, {6});
  held(net10, 8, {5});
  held(address(10, 1, 2, 0), 24, {7});
  attach();
  EXPECT_EQ(ask(red, address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 5u);
}

TEST_P(OverlapSearch, ACoverEndsTheSearch) {
  held(net10, 8, {5});
  held(address(10, 1, 2, 1), 32, {6});
  attach();
  EXPECT_EQ(ask(red, address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 5u);
  EXPECT_EQ(platform().log.count("pt_lookup_more_specific"), 0u);
}

TEST_P(OverlapSearch, LooksAtTheTreeUnderTheLock) {
  attach();
  ask(red, address(10, 1, 2, 3), 24);
  EXPECT_EQ(calls_but_debug(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "pt_lookup_return_leafs(tree of red, 10.1.2.3/24)",
                   "pt_lookup_more_specific(tree of red, 10.1.2.3/24)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(OverlapSearch, TakesNoLockInTheIpProcess) {
  held(net10, 8, {5});
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ask(red, net10, 24), 1u);
  EXPECT_EQ(platform().log.count("tsp_lock_acquire_rdlock"), 0u);
  EXPECT_EQ(platform().log.count("tsp_lock_release_rdlock"), 0u);
}

TEST_P(OverlapSearch, MayBeAskedWhileTheLockIsHeld) {
  held(net10, 8, {5});
  attach();
  tsp_lock_acquire_rdlock(ip_client.rwsem_lock);
  EXPECT_EQ(ask(red, net10, 24), 1u);
  tsp_lock_release_rdlock(ip_client.rwsem_lock);
}

TEST_P(OverlapSearch, NoContextIsRefusedAsAnOverlapWithNobodyWithoutTheLock) {
  attach();
  EXPECT_EQ(ask(nullptr, net10, 8), 1u);
  EXPECT_EQ(out, 0u);
  EXPECT_EQ(calls_but_debug(), Calls{});
}

TEST_P(OverlapSearch, NoContextComesBeforeAttachment) {
  EXPECT_EQ(ask(nullptr, net10, 8), 1u);
  EXPECT_EQ(out, 0u);
}

TEST_P(OverlapSearch, DetachedHasNoneUnderTheLock) {
  held(net10, 8, {5});
  EXPECT_EQ(ask(red, net10, 24), 0u);
  EXPECT_EQ(out, 0u);
  EXPECT_EQ(calls_but_debug(), (Calls{"tsp_lock_acquire_rdlock(0)", "tsp_lock_release_rdlock(0)"}));
}

TEST_P(OverlapSearch, AttachmentLostWhileWaitingForTheLockIsNoticed) {
  held(net10, 8, {5});
  attach();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  EXPECT_EQ(ask(red, net10, 24), 0u);
  EXPECT_EQ(out, 0u);
  EXPECT_EQ(platform().log.count("pt_lookup_return_leafs"), 0u);
}

TEST_P(OverlapSearch, AContextWithoutATreeHasNone) {
  attach();
  EXPECT_EQ(ask(database.context_without_tree(4, "treeless"), net10, 8), 0u);
  EXPECT_EQ(out, 0u);
  EXPECT_EQ(calls_but_debug(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(OverlapSearch, GoesOnToMoreSpecificOnesWhenTheCoverLookupFails) {
  held(net10, 8, {5});
  held(address(10, 1, 2, 1), 32, {6});
  attach();
  platform().scripts.fail("pt_lookup_return_leafs");
  EXPECT_EQ(ask(red, address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 6u);
}

TEST_P(OverlapSearch, HasNoneWhenTheTreeLibraryFails) {
  held(net10, 8, {5});
  held(address(10, 1, 2, 1), 32, {6});
  attach();
  platform().scripts.fail("pt_lookup_return_leafs");
  platform().scripts.fail("pt_lookup_more_specific");
  EXPECT_EQ(ask(red, address(10, 1, 2, 0), 24), 0u);
  EXPECT_EQ(out, 0u);
}

TEST_P(OverlapSearch, PassesOverNullNodesOfTheCover) {
  attach();
  platform().covering_nodes = std::vector<void *>{nullptr, nullptr, database.node(red, address(99, 0, 0, 0), {6})};
  EXPECT_EQ(ask(red, net10, 8), 1u);
  EXPECT_EQ(out, 6u);
}

TEST_P(OverlapSearch, HasRoomForACoverOfEveryLength) {
  attach();
  std::vector<void *> cover(32);
  cover.push_back(database.node(red, address(99, 0, 0, 0), {6}));
  platform().covering_nodes = cover;
  EXPECT_EQ(ask(red, net10, 32), 1u);
  EXPECT_EQ(out, 6u);
}

TEST_P(OverlapSearch, ReportsNothingToTheOperatorAndLeavesTheErrorText) {
  std::snprintf(ip_api_err_log, sizeof ip_api_err_log, "kept");
  ask(red, net10, 8);
  ask(nullptr, net10, 8);
  attach();
  ask(red, net10, 8);
  EXPECT_STREQ(ip_api_get_error(), "kept");
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 0u);
}

TEST_P(OverlapSearch, SaysWhichCoverItFoundWithoutTheCommonLineBuffer) {
  held(net10, 8, {6});
  attach();
  platform().scripts.answer("sdwrap_chk_int", 1);
  ask(red, address(10, 1, 2, 0), 24);
  ASSERT_FALSE(platform().debug_lines.empty());
  EXPECT_EQ(platform().debug_lines.back(), "Returning from 1: iod 6");
  EXPECT_EQ(std::string(dbg_str).find("Returning"), std::string::npos);
}

TEST_P(OverlapSearch, SaysNothingAboutAMoreSpecificOneItFound) {
  held(address(10, 1, 2, 1), 32, {6});
  attach();
  platform().scripts.answer("sdwrap_chk_int", 1);
  EXPECT_EQ(ask(red, net10, 8), 1u);
  for (const std::string &line : platform().debug_lines) EXPECT_EQ(line.find("Returning"), std::string::npos) << line;
  // The same gate lets a cover through.
  platform().covering_nodes = std::vector<void *>{database.node(red, address(99, 0, 0, 0), {6})};
  ask(red, net10, 8);
  EXPECT_EQ(platform().debug_lines.back(), "Returning from 1: iod 6");
}

TEST_P(OverlapSearch, SaysNothingWhenTheLevelIsOff) {
  held(net10, 8, {6});
  held(address(11, 1, 2, 1), 32, {6});
  attach();
  ask(red, address(10, 1, 2, 0), 24);
  ask(red, address(11, 0, 0, 0), 8);
  EXPECT_EQ(platform().debug_lines, Calls{});
}

INSTANTIATE_TEST_SUITE_P(Searches, OverlapSearch, testing::ValuesIn(searches),
                         [](const auto &of) { return std::string(of.param.name); });

}  // namespace
}  // namespace unit
