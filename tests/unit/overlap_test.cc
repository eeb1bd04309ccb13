// SPDX-License-Identifier: Apache-2.0
// Does a new prefix collide with one that an interface of the context holds already? Three questions, which differ on
// purpose: whose holder is passed over, whose state counts, how far the walk goes.
#include <cstdio>

#include "tsp.h"
#include "unit/call_lines.h"
#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t net10 = address(10, 0, 0, 0);
constexpr uint32_t untouched = 0xabcdef01;

class OverlapFixture : public LibraryTest {
 protected:
  OverlapFixture() {
    red = database.context(2, "red", 20);
    for (uint32_t iod : {5u, 6u, 7u}) database.interface(iod);
  }
  static void down(uint32_t iod) { platform().interfaces[iod].admin_up = false; }
  void held(uint32_t addr, uint32_t length, const std::vector<uint32_t> &iods) {
    platform().log.name(database.node(red, addr, iods, {.length = length}), "node");
  }
  void bare(uint32_t addr, uint32_t length) { database.node(red, addr, {}, {.length = length, .with_info = false}); }
  static Calls calls_but_debug() { return without(calls(), {"sdwrap_chk_int"}); }

  ip_api_context_type *red;
  uint32_t out = untouched;
};

// ------------------------------------------------------------ what all three have in common

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

// ------------------------------------------------------------ the overlap search

class FindOverlap : public OverlapFixture {
 protected:
  uint32_t find(uint32_t addr, uint8_t len, uint32_t ignore_iod = 0) {
    return ip_find_overlap_interface(red, addr, len, ignore_iod, &out);
  }
};

TEST_F(FindOverlap, AsksForEachCoverWhetherItsInterfaceIsUp) {
  held(net10, 8, {5});
  held(address(10, 1, 0, 0), 16, {6});
  down(5);
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 6u);
  EXPECT_EQ(calls_but_debug(), (Calls{"tsp_lock_acquire_rdlock(7)", "pt_lookup_return_leafs(tree of red, 10.1.2.0/24)",
                                      "im_is_adminup(5)", "im_is_adminup(6)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(FindOverlap, ACoverOnAnInterfaceThatIsDownIsNone) {
  held(net10, 8, {5});
  down(5);
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24), 0u);
  EXPECT_EQ(out, 0u);
}

TEST_F(FindOverlap, WhetherTheIgnoredInterfaceIsUpIsAskedAllTheSame) {
  held(net10, 8, {5});
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 5), 0u);
  EXPECT_EQ(only(calls(), {"im_is_adminup"}), Calls{"im_is_adminup(5)"});
}

TEST_F(FindOverlap, TheCarrierDoesNotCount) {
  held(net10, 8, {5});
  platform().interfaces[5].up = false;
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24), 1u);
}

TEST_F(FindOverlap, ACoverIsNoneWhenTheInterfaceManagerFails) {
  held(net10, 8, {5});
  attach();
  platform().scripts.fail("im_is_adminup");
  EXPECT_EQ(find(address(10, 1, 2, 0), 24), 0u);
}

TEST_F(FindOverlap, AMoreSpecificOneOnAnInterfaceThatIsDownCounts) {
  held(address(10, 1, 2, 1), 32, {5});
  down(5);
  attach();
  EXPECT_EQ(find(net10, 8), 1u);
  EXPECT_EQ(out, 5u);
  EXPECT_EQ(platform().log.count("im_is_adminup"), 0u) << "not even asked";
}

TEST_F(FindOverlap, TheIgnoredInterfaceIsPassedOverInBothSteps) {
  held(net10, 8, {5});
  held(address(10, 1, 2, 1), 32, {5});
  held(address(10, 1, 2, 2), 32, {5});
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 5), 0u);
  EXPECT_EQ(out, 0u);
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 6), 1u);
  EXPECT_EQ(out, 5u);
}

TEST_F(FindOverlap, BehindTheIgnoredInterfaceAnotherOneIsFound) {
  held(net10, 8, {5});
  held(address(10, 1, 0, 0), 16, {6});
  held(address(11, 0, 0, 1), 32, {5});
  held(address(11, 0, 0, 2), 32, {7});
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 5), 1u);
  EXPECT_EQ(out, 6u);
  EXPECT_EQ(find(address(11, 0, 0, 0), 8, 5), 1u);
  EXPECT_EQ(out, 7u);
}

TEST_F(FindOverlap, OnlyTheFirstHolderCounts) {
  held(net10, 8, {5, 6});
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 5), 0u);
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 6), 1u);
  EXPECT_EQ(out, 5u);
}

TEST_F(FindOverlap, ACoverWithoutInformationStandsForTheOneBeforeIt) {
  held(net10, 8, {5});
  bare(address(10, 1, 0, 0), 16);
  attach();
  platform().scripts.fail_call("im_is_adminup", 1);
  EXPECT_EQ(find(address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 5u);
  EXPECT_EQ(platform().log.count("im_is_adminup"), 2u);
}

TEST_F(FindOverlap, ANullCoverStandsForTheOneBeforeIt) {
  attach();
  platform().covering_nodes = std::vector<void *>{database.node(red, address(99, 0, 0, 0), {6}), nullptr};
  platform().scripts.fail_call("im_is_adminup", 1);
  EXPECT_EQ(find(net10, 8), 1u);
  EXPECT_EQ(out, 6u);
}

TEST_F(FindOverlap, TheLastCoverIsCarriedIntoTheWalk) {
  held(net10, 8, {5});
  bare(address(10, 1, 2, 1), 32);
  down(5);
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24), 1u) << "a node without information, and the interface is down";
  EXPECT_EQ(out, 5u);
}

TEST_F(FindOverlap, ANodeThatNobodyHoldsEndsTheCarrying) {
  held(net10, 8, {5});
  held(address(10, 1, 0, 0), 16, {});
  bare(address(10, 1, 2, 1), 32);
  down(5);
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24), 0u);
  EXPECT_EQ(platform().log.count("im_is_adminup"), 1u);
}

TEST_F(FindOverlap, ANodeOfTheWalkIsCarriedToTheNextOne) {
  held(address(10, 1, 2, 1), 32, {});
  bare(address(10, 1, 2, 2), 32);
  held(address(10, 1, 2, 3), 32, {5});
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 5u);
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 5), 0u);
}

TEST_F(FindOverlap, WalksFromTheFirstMoreSpecificOneWithLength32) {
  held(address(10, 0, 0, 0), 16, {5});
  held(address(10, 0, 0, 0), 24, {6});  // behind 10.0.0.0/16, before 10.0.0.0/32
  held(address(10, 0, 1, 0), 24, {5});
  held(address(10, 0, 1, 0), 30, {7});
  attach();
  EXPECT_EQ(find(net10, 8, 5), 1u);
  EXPECT_EQ(out, 7u) << "the first step goes on after the whole of the address, the following ones do not";
  EXPECT_EQ(calls_but_debug(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "pt_lookup_return_leafs(tree of red, 10.0.0.0/8)",
                   "pt_lookup_more_specific(tree of red, 10.0.0.0/8)", "pt_get_next_node(tree of red, 10.0.0.0/32, 0)",
                   "pt_get_next_node(tree of red, 10.0.1.0/24, 0)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(FindOverlap, StopsAtTheFirstNodeBehindTheSubnet) {
  held(address(10, 1, 2, 1), 32, {5});
  held(address(10, 1, 3, 1), 32, {6});
  held(address(10, 1, 4, 1), 32, {7});
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 5), 0u);
  EXPECT_EQ(out, 0u);
  EXPECT_EQ(platform().log.count("pt_get_next_node"), 1u);
}

TEST_F(FindOverlap, WalksOnOverNodesOfTheIgnoredInterfaceBehindTheSubnet) {
  held(address(10, 1, 2, 1), 32, {5});
  held(address(10, 1, 3, 1), 32, {5});
  held(address(10, 1, 4, 1), 32, {6});
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 5), 0u);
  EXPECT_EQ(platform().log.count("pt_get_next_node"), 2u) << "the test stands behind the one for the ignored interface";
}

TEST_F(FindOverlap, ComparesSubnetsWithoutASign) {
  held(address(10, 1, 2, 1), 32, {5});
  held(address(200, 0, 0, 1), 32, {6});
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 5), 0u);
  EXPECT_EQ(platform().log.count("pt_get_next_node"), 1u);
}

TEST_F(FindOverlap, LengthZeroComparesWholeAddresses) {
  held(address(10, 0, 0, 1), 32, {5});
  held(address(10, 0, 0, 2), 32, {6});
  attach();
  EXPECT_EQ(find(address(10, 0, 0, 1), 0), 1u);
  EXPECT_EQ(out, 5u);
  EXPECT_EQ(find(address(10, 0, 0, 2), 0), 1u);
  EXPECT_EQ(out, 6u) << "the lower one is passed";
  EXPECT_EQ(find(address(10, 0, 0, 0), 0), 0u) << "behind at once";
  EXPECT_EQ(find(address(10, 0, 0, 3), 0), 0u) << "never reached";
}

TEST_F(FindOverlap, Length32HasNothingMoreSpecific) {
  held(address(10, 0, 0, 1), 32, {5});
  attach();
  EXPECT_EQ(find(address(10, 0, 0, 1), 32), 1u);
  EXPECT_EQ(out, 5u);
  EXPECT_EQ(find(address(10, 0, 0, 2), 32), 0u);
}

TEST_F(FindOverlap, AFailingNextStepEndsTheWalk) {
  held(address(10, 1, 2, 1), 32, {5});
  held(address(10, 1, 2, 2), 32, {6});
  attach();
  platform().scripts.fail("pt_get_next_node");
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 5), 0u);
}

TEST_F(FindOverlap, ATreeThatNeverEndsIsLeft) {
  held(address(10, 1, 2, 1), 32, {5});
  void *node = platform().trees[red->local_pt.get()].entries.front().node;
  attach();
  platform().scripts.answer("pt_get_next_node", reinterpret_cast<uintptr_t>(node));
  platform().log.record(false);
  EXPECT_EQ(find(address(10, 1, 2, 0), 24, 5), 0u);
}

// Its debug lines, gated by the level alone.
class FindOverlapDebugLines : public FindOverlap {
 protected:
  void attach_with_debug_lines() {
    attach();
    platform().scripts.answer("sdwrap_chk_int", 1);
  }
  static const Calls &lines() { return platform().debug_lines; }
};

TEST_F(FindOverlapDebugLines, NameTheSubnetAndTheCover) {
  held(net10, 8, {6});
  attach_with_debug_lines();
  find(address(10, 1, 2, 3), 24);
  EXPECT_EQ(lines(), (Calls{"new_subnet: 10.1.2.0", "Returning from 1: iod 6"}));
  EXPECT_STREQ(dbg_str, "new_subnet: 10.1.2.0") << "only the first went through the common buffer";
}

TEST_F(FindOverlapDebugLines, NameTheSubnetBeforeAnythingElse) {
  attach_with_debug_lines();
  ip_find_overlap_interface(nullptr, address(10, 1, 2, 3), 16, 0, &out);
  EXPECT_EQ(lines(), Calls{"new_subnet: 10.1.0.0"});
  EXPECT_EQ(calls().front(), "sdwrap_chk_int(150, 0, 0, 1)");
}

TEST_F(FindOverlapDebugLines, NameTheSubnetBeforeTheLock) {
  attach_with_debug_lines();
  find(net10, 8);
  EXPECT_EQ(
      only(calls(), {"buginf_func", "tsp_lock_acquire_rdlock", "tsp_lock_release_rdlock"}),
      (Calls{R"(buginf_func(1, "fake-module", "[77] fake", 0, "new_subnet: 10.0.0.0"))", "tsp_lock_acquire_rdlock(7)",
             R"(buginf_func(1, "fake-module", "[77] fake", 0, " First Key value 10.0.0.0"))",
             "tsp_lock_release_rdlock(7)"}));
}

TEST_F(FindOverlapDebugLines, LengthZeroShowsTheAddressItself) {
  attach_with_debug_lines();
  find(address(10, 1, 2, 3), 0);
  EXPECT_EQ(lines(), (Calls{"new_subnet: 10.1.2.3", " First Key value 10.1.2.3"}));
}

TEST_F(FindOverlapDebugLines, AreMadeWhenTheLevelIsOffToo) {
  held(address(10, 1, 2, 1), 32, {5});
  attach();
  EXPECT_EQ(find(address(10, 1, 2, 3), 24, 5), 0u);
  EXPECT_STREQ(dbg_str, "Key value 10.1.2.1, mask 32");
  EXPECT_EQ(only(calls(), {"sdwrap_chk_int"}), Calls(3, "sdwrap_chk_int(150, 0, 0, 1)")) << "once a line";
  EXPECT_EQ(lines(), Calls{});
}

TEST_F(FindOverlapDebugLines, FollowTheWalkToTheOverlap) {
  held(address(10, 1, 2, 1), 32, {5});
  held(address(10, 1, 2, 128), 25, {6});
  attach_with_debug_lines();
  EXPECT_EQ(find(address(10, 1, 2, 3), 24, 5), 1u);
  EXPECT_EQ(lines(), (Calls{"new_subnet: 10.1.2.0", " First Key value 10.1.2.1", "Key value 10.1.2.128, mask 25",
                            "Current Subnet: 10.1.2.0"}));
}

TEST_F(FindOverlapDebugLines, FollowTheWalkPastTheSubnet) {
  held(address(10, 1, 2, 1), 32, {5});
  held(address(10, 1, 3, 1), 32, {6});
  attach_with_debug_lines();
  EXPECT_EQ(find(address(10, 1, 2, 3), 24, 5), 0u);
  EXPECT_EQ(lines(), (Calls{"new_subnet: 10.1.2.0", " First Key value 10.1.2.1", "Key value 10.1.3.1, mask 32",
                            "Current Subnet: 10.1.3.0", "Reached a greater mask, no overlapping interface found"}));
}

TEST_F(FindOverlapDebugLines, ShowTheLastKeyAgainWhenTheTreeEnds) {
  held(address(10, 1, 2, 0), 30, {5});
  attach_with_debug_lines();
  EXPECT_EQ(find(address(10, 1, 2, 3), 24, 5), 0u);
  EXPECT_EQ(lines(), (Calls{"new_subnet: 10.1.2.0", " First Key value 10.1.2.0", "Key value 10.1.2.0, mask 32"}));
}

// ------------------------------------------------------------ any overlap with an interface that is up

class CheckOverlap : public OverlapFixture {
 protected:
  uint32_t check(uint32_t addr, uint8_t len) { return ip_check_for_prefix_overlap(red, addr, len, &out); }
};

TEST_F(CheckOverlap, ACoverOnAnInterfaceThatIsDownIsNone) {
  held(net10, 8, {5});
  down(5);
  attach();
  EXPECT_EQ(check(address(10, 1, 2, 0), 24), 0u);
  EXPECT_EQ(out, 0u);
}

TEST_F(CheckOverlap, AMoreSpecificOneOnAnInterfaceThatIsDownIsNone) {
  held(address(10, 1, 2, 1), 32, {5});
  down(5);
  attach();
  EXPECT_EQ(check(net10, 8), 0u);
  EXPECT_EQ(out, 0u);
}

TEST_F(CheckOverlap, IsNoneWhenTheInterfaceManagerFails) {
  held(net10, 8, {5});
  held(address(10, 1, 2, 1), 32, {6});
  attach();
  platform().scripts.fail("im_is_adminup");
  EXPECT_EQ(check(address(10, 1, 2, 0), 24), 0u);
  EXPECT_EQ(out, 0u);
  EXPECT_EQ(platform().log.count("im_is_adminup"), 2u);
}

TEST_F(CheckOverlap, LooksOnlyAtTheFirstMoreSpecificOne) {
  held(address(10, 1, 2, 1), 32, {5});
  held(address(10, 1, 2, 2), 32, {6});
  down(5);
  attach();
  EXPECT_EQ(check(net10, 8), 0u);
  EXPECT_EQ(platform().log.count("pt_get_next_node"), 0u);
}

TEST_F(CheckOverlap, ACoverIsAskedForOnceWhereNothingIsMoreSpecific) {
  held(net10, 8, {5});
  down(5);
  attach();
  EXPECT_EQ(check(address(10, 1, 2, 0), 24), 0u);
  EXPECT_EQ(platform().log.count("im_is_adminup"), 1u);
}

TEST_F(CheckOverlap, ComparesNoSubnets) {
  held(address(10, 0, 0, 9), 32, {5});
  attach();
  EXPECT_EQ(check(address(10, 0, 0, 1), 0), 1u) << "where the search would compare whole addresses";
  EXPECT_EQ(out, 5u);
}

TEST_F(CheckOverlap, ACoverWithoutInformationStandsForTheOneBeforeIt) {
  held(net10, 8, {5});
  bare(address(10, 1, 0, 0), 16);
  attach();
  platform().scripts.fail_call("im_is_adminup", 1);
  EXPECT_EQ(check(address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 5u);
}

TEST_F(CheckOverlap, TheLastCoverIsCarriedToTheMoreSpecificOne) {
  held(net10, 8, {5});
  bare(address(10, 1, 2, 1), 32);
  attach();
  platform().scripts.fail_call("im_is_adminup", 1);
  EXPECT_EQ(check(address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 5u);
}

TEST_F(CheckOverlap, ANodeThatNobodyHoldsEndsTheCarrying) {
  held(net10, 8, {5});
  held(address(10, 1, 0, 0), 16, {});
  bare(address(10, 1, 2, 1), 32);
  attach();
  platform().scripts.fail_call("im_is_adminup", 1);
  EXPECT_EQ(check(address(10, 1, 2, 0), 24), 0u);
  EXPECT_EQ(out, 0u);
}

TEST_F(CheckOverlap, AMoreSpecificOneThatNobodyHoldsIsNone) {
  held(net10, 8, {5});
  held(address(10, 1, 2, 1), 32, {});
  attach();
  platform().scripts.fail_call("im_is_adminup", 1);
  EXPECT_EQ(check(address(10, 1, 2, 0), 24), 0u);
}

TEST_F(CheckOverlap, SaysNothingButWhichCoverItFound) {
  held(net10, 8, {5});
  attach();
  platform().scripts.answer("sdwrap_chk_int", 1);
  check(address(10, 1, 2, 0), 24);
  check(address(11, 1, 2, 0), 24);
  EXPECT_EQ(platform().debug_lines, Calls{"Returning from 1: iod 5"});
}

// ------------------------------------------------------------ any overlap

class CheckOverlapNoState : public OverlapFixture {
 protected:
  uint32_t check(uint32_t addr, uint8_t len) { return ip_check_for_prefix_overlap_no_state(red, addr, len, &out); }
};

TEST_F(CheckOverlapNoState, NeverAsksWhetherAnInterfaceIsUp) {
  held(net10, 8, {5});
  held(address(11, 1, 2, 1), 32, {6});
  down(5);
  down(6);
  attach();
  EXPECT_EQ(check(address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 5u);
  EXPECT_EQ(check(address(11, 0, 0, 0), 8), 1u);
  EXPECT_EQ(out, 6u);
  EXPECT_EQ(platform().log.count("im_is_adminup"), 0u);
}

TEST_F(CheckOverlapNoState, TheFirstCoverWithAHolderWins) {
  bare(net10, 8);
  held(address(10, 1, 0, 0), 16, {});
  held(address(10, 1, 2, 0), 23, {6});
  held(address(10, 1, 2, 0), 24, {5});
  attach();
  EXPECT_EQ(check(address(10, 1, 2, 0), 24), 1u);
  EXPECT_EQ(out, 6u);
}

TEST_F(CheckOverlapNoState, LooksOnlyAtTheFirstMoreSpecificOne) {
  held(address(10, 1, 2, 1), 32, {});
  held(address(10, 1, 2, 2), 32, {6});
  bare(address(11, 1, 2, 1), 32);
  held(address(11, 1, 2, 2), 32, {6});
  attach();
  EXPECT_EQ(check(net10, 8), 0u);
  EXPECT_EQ(check(address(11, 0, 0, 0), 8), 0u);
  EXPECT_EQ(out, 0u);
  EXPECT_EQ(platform().log.count("pt_get_next_node"), 0u);
}

TEST_F(CheckOverlapNoState, SaysNothingButWhichCoverItFound) {
  held(net10, 8, {5});
  attach();
  platform().scripts.answer("sdwrap_chk_int", 1);
  check(address(10, 1, 2, 0), 24);
  check(address(11, 1, 2, 0), 24);
  EXPECT_EQ(platform().debug_lines, Calls{"Returning from 1: iod 5"});
}

}  // namespace
}  // namespace unit
