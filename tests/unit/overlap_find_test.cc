// SPDX-License-Identifier: Apache-2.0
// The overlap search: interfaces that are down do not count as covers, one interface may be passed over, and the walk
// goes to the end of the subnet.
#include "tsp.h"
#include "unit/overlap_fixture.h"

namespace unit {
namespace {

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

}  // namespace
}  // namespace unit
