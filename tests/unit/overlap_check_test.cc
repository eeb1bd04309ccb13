// SPDX-License-Identifier: Apache-2.0
// The two checks: any overlap with an interface that is up, and any overlap at all. They look at the first more
// specific prefix and no further.
#include "unit/overlap_fixture.h"

namespace unit {
namespace {

// ------------------------------------------------------------ any overlap with an interface that is up

class CheckOverlap : public OverlapFixture {
 protected:
  uint32_t check(uint32_t addr, uint8_t len) { return ip_check_for_prefix_overlap(red, addr, len, &out); }
  // Beside what the test made: the interface of net10 is found up at the second time of asking.
  void expect_the_cover_of_net10() {
    held(net10, 8, {5});
    attach();
    platform().scripts.fail_call("im_is_adminup", 1);
    EXPECT_EQ(check(address(10, 1, 2, 0), 24), 1u);
    EXPECT_EQ(out, 5u);
  }
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
  bare(address(10, 1, 0, 0), 16);
  expect_the_cover_of_net10();
}

TEST_F(CheckOverlap, TheLastCoverIsCarriedToTheMoreSpecificOne) {
  bare(address(10, 1, 2, 1), 32);
  expect_the_cover_of_net10();
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
