// SPDX-License-Identifier: Apache-2.0
// Who holds which membership, what of it is asked of the kernel, and what happens when that refuses.
#include <cerrno>

#include "control_memberships_fixture.h"

namespace memberships_test {
namespace {

TEST_F(MembershipsTest, AJoinReachesTheKernelAndALeaveUndoesIt) {
  EXPECT_EQ(join(ospf, group), Refusal::none);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}}));
  EXPECT_EQ(memberships_.held_by(ospf), 1u);
  ipd::control::Holdings held;
  memberships_.add_holdings(ospf, held);
  memberships_.add_holdings(pim, held);
  EXPECT_EQ(held.memberships, 1u);
  EXPECT_EQ(leave(ospf, group), Refusal::none);
  EXPECT_EQ(kernel_.joined, Joined{});
  EXPECT_EQ(memberships_.held_by(ospf), 0u);
}

TEST_F(MembershipsTest, AProcessThatJoinsTwiceHoldsOnce) {
  EXPECT_EQ(join(ospf, group), Refusal::none);
  EXPECT_EQ(join(ospf, group), Refusal::none);
  EXPECT_EQ(kernel_.calls, 1u);
  EXPECT_EQ(memberships_.held_by(ospf), 1u);
  EXPECT_EQ(leave(ospf, group), Refusal::none);
  EXPECT_EQ(kernel_.joined, Joined{});
  EXPECT_EQ(leave(ospf, group), Refusal::not_registered);
}

TEST_F(MembershipsTest, AGroupStaysUntilTheLastProcessLeaves) {
  for (const bool first_leaves_first : {false, true}) {
    join(ospf, group);
    join(pim, group);
    EXPECT_EQ(leave(first_leaves_first ? ospf : pim, group), Refusal::none);
    EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}}));
    EXPECT_EQ(leave(first_leaves_first ? pim : ospf, group), Refusal::none);
    EXPECT_EQ(kernel_.joined, Joined{});
  }
}

TEST_F(MembershipsTest, ALeaveOfWhatIsNotHeldChangesNothing) {
  EXPECT_EQ(leave(ospf, group), Refusal::not_registered) << "nobody holds anything there";
  join(pim, group);
  join(ospf, other_group);
  EXPECT_EQ(leave(ospf, group), Refusal::not_registered) << "another process holds it";
  EXPECT_EQ(leave(ospf, other_group, source), Refusal::not_registered) << "it is held from any source";
  EXPECT_EQ(leave(ospf, 0), Refusal::not_registered);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}, {ifindex, other_group, 0}}));
}

TEST_F(MembershipsTest, AnySourceAndEachSourceOfAGroupAreHeldApart) {
  EXPECT_EQ(join(ospf, group), Refusal::none);
  EXPECT_EQ(join(ospf, group, source), Refusal::none);
  EXPECT_EQ(join(ospf, group, other_source), Refusal::none);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}, {ifindex, group, source}, {ifindex, group, other_source}}));
  EXPECT_EQ(leave(ospf, group), Refusal::none);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, source}, {ifindex, group, other_source}}));
  EXPECT_EQ(leave(ospf, group, source), Refusal::none);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, other_source}}));
}

TEST_F(MembershipsTest, GroupsOfTwoInterfacesAreHeldApart) {
  set(6, 60, "eth1");
  join(ospf, group);
  join(ospf, group, 0, 6);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}, {60, group, 0}}));
  EXPECT_EQ(leave(ospf, group), Refusal::none);
  EXPECT_EQ(kernel_.joined, (Joined{{60, group, 0}}));
}

TEST_F(MembershipsTest, WithoutAGroupNothingButTheInterfaceCounts) {
  EXPECT_EQ(join(ospf, 0, 0xffffffff), Refusal::none);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, 0, 0}}));
  EXPECT_EQ(join(pim, 0, 0xe0000001), Refusal::none);
  EXPECT_EQ(leave(ospf, 0, 0x01020304), Refusal::none);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, 0, 0}}));
  EXPECT_EQ(leave(pim, 0, 17), Refusal::none);
  EXPECT_EQ(kernel_.joined, Joined{});
}

TEST_F(MembershipsTest, WhatIsNoGroupOrNoSourceIsRefused) {
  for (const uint32_t bad : {1u, 0x0a000001u, 0xdfffffffu, 0xf0000000u, 0xffffffffu}) {
    EXPECT_EQ(join(ospf, bad), Refusal::bad_field) << bad;
    EXPECT_EQ(leave(ospf, bad), Refusal::bad_field) << bad;
  }
  for (const uint32_t bad : {0xe0000001u, 0xefffffffu, 0xf0000000u, 0xffffffffu}) {
    EXPECT_EQ(join(ospf, group, bad), Refusal::bad_field) << bad;
    EXPECT_EQ(leave(ospf, group, bad), Refusal::bad_field) << bad;
  }
  EXPECT_EQ(join(ospf, 0xe0000000, 0xdfffffff), Refusal::none);
  EXPECT_EQ(join(ospf, 0xefffffff, 1), Refusal::none);
  EXPECT_EQ(kernel_.calls, 2u);
}

TEST_F(MembershipsTest, AnInterfaceThatIsNotThereIsRefused) {
  for (const uint32_t bad : {0u, 4u, 0xffffffffu}) {
    EXPECT_EQ(join(ospf, group, 0, bad), Refusal::no_interface) << bad;
    EXPECT_EQ(leave(ospf, group, 0, bad), Refusal::no_interface) << bad;
  }
  EXPECT_EQ(kernel_.calls, 0u);
}

TEST_F(MembershipsTest, WhatADeadProcessHeldEnds) {
  set(6, 60, "eth1");
  set(7, 70, "gone0");
  join(ospf, group, 0, 7);
  remove(7);
  join(ospf, group);
  join(ospf, group, source, 6);
  join(ospf, 0, 0, 6);
  join(pim, group);
  memberships_.process_gone(ospf);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}}));
  EXPECT_EQ(memberships_.held_by(ospf), 0u);
  change(8, 70, "gone0");
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}})) << "nobody holds anything on it any more";
  memberships_.process_gone(pim);
  memberships_.process_gone(pim);
  EXPECT_EQ(kernel_.joined, Joined{});
}

TEST_F(MembershipsTest, AnotherProcessWithTheNumberHoldsNothing) {
  join(ospf, group);
  memberships_.process_gone(ospf);
  EXPECT_EQ(leave(ospf, group), Refusal::not_registered);
  EXPECT_EQ(join(ospf, group), Refusal::none);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}}));
}

// ---------------------------------------------------------------------------------------------- what the kernel
// refuses

TEST_F(MembershipsTest, AJoinThatTheKernelHasNoRoomForIsKeptAndTriedAgain) {
  for (const int error : {ENOBUFS, ENOMEM, EMFILE, ENFILE}) {
    kernel_.join_error = error;
    EXPECT_EQ(join(ospf, group), Refusal::kernel);
    EXPECT_EQ(memberships_.held_by(ospf), 1u);
    tick();
    EXPECT_EQ(kernel_.joined, Joined{});
    kernel_.join_error = 0;
    tick();
    EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}})) << strerror(error);
    EXPECT_EQ(leave(ospf, group), Refusal::none);
  }
}

TEST_F(MembershipsTest, AJoinThatCameTooEarlyOrTooLateForItsInterfaceIsKept) {
  kernel_.join_error = ENODEV;
  EXPECT_EQ(join(ospf, group), Refusal::none);
  kernel_.join_error = 0;
  tick();
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}}));
}

TEST_F(MembershipsTest, AJoinThatTheKernelRefusesIsNotHeld) {
  for (const int error : {EPERM, EINVAL, EADDRINUSE, EACCES}) {
    kernel_.join_error = error;
    EXPECT_EQ(join(ospf, group), Refusal::kernel);
    EXPECT_EQ(memberships_.held_by(ospf), 0u);
    kernel_.join_error = 0;
    tick();
    EXPECT_EQ(kernel_.joined, Joined{}) << strerror(error);
    EXPECT_EQ(leave(ospf, group), Refusal::not_registered);
  }
}

TEST_F(MembershipsTest, WhatWasNeverJoinedIsNotLeftInTheKernel) {
  kernel_.join_error = ENOBUFS;
  join(ospf, group);
  const size_t calls = kernel_.calls;
  EXPECT_EQ(leave(ospf, group), Refusal::none);
  EXPECT_EQ(kernel_.calls, calls);
  kernel_.join_error = 0;
  tick();
  EXPECT_EQ(kernel_.joined, Joined{});
}

TEST_F(MembershipsTest, AnotherProcessThatWantsTheSameTriesAtOnce) {
  kernel_.join_error = ENOBUFS;
  join(ospf, group);
  kernel_.join_error = 0;
  EXPECT_EQ(join(pim, group), Refusal::none);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}}));
  kernel_.join_error = ENOBUFS;
  tick();
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}}));
}

TEST_F(MembershipsTest, APermanentRefusalToOneProcessLeavesWhatAnotherWaitsFor) {
  kernel_.join_error = ENOBUFS;
  join(ospf, group);
  kernel_.join_error = EINVAL;
  EXPECT_EQ(join(pim, group), Refusal::kernel);
  EXPECT_EQ(memberships_.held_by(pim), 0u);
  EXPECT_EQ(memberships_.held_by(ospf), 1u);
  kernel_.join_error = 0;
  tick();
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, 0}}));
}

TEST_F(MembershipsTest, TriesAreMadeNoMoreOftenThanTheirPeriodAndEndWhereThereIsNoRoom) {
  for (uint32_t i = 0; i < 10; ++i) join(ospf, group + i);
  remove(iod);
  kernel_.join_error = ENOBUFS;
  kernel_.room = 4;
  change(10, 100, "eth0");
  EXPECT_EQ(kernel_.joined.size(), 4u);
  tick();
  const size_t calls = kernel_.calls;
  memberships_.tick(now_ + Memberships::retry_period / 2);
  EXPECT_EQ(kernel_.calls, calls);
  tick();
  EXPECT_EQ(kernel_.calls, calls + 1) << "the first that finds no room is the last";
  kernel_.room = 6;
  tick();
  EXPECT_EQ(kernel_.joined.size(), 10u);
  const size_t all = kernel_.calls;
  tick();
  tick();
  EXPECT_EQ(kernel_.calls, all) << "nothing is missing any more";
}

TEST_F(MembershipsTest, OneThatCannotComeBackDoesNotHoldUpTheOthers) {
  join(ospf, group);
  join(ospf, other_group);
  remove(iod);
  kernel_.join_error = EPERM;
  change(10, 100, "eth0");
  EXPECT_EQ(kernel_.joined, Joined{});
  kernel_.room = 1;
  tick();
  EXPECT_EQ(kernel_.joined.size(), 1u);
  kernel_.join_error = 0;
  tick();
  EXPECT_EQ(kernel_.joined.size(), 2u);
}

TEST_F(MembershipsTest, ALeaveThatTheKernelRefusesIsToldAndTheMembershipIsNotHeld) {
  join(ospf, group);
  kernel_.leave_error = EPERM;
  EXPECT_EQ(leave(ospf, group), Refusal::kernel);
  EXPECT_EQ(memberships_.held_by(ospf), 0u);
  for (const int harmless : {ENODEV, EADDRNOTAVAIL}) {
    join(ospf, group);
    kernel_.leave_error = harmless;
    EXPECT_EQ(leave(ospf, group), Refusal::none) << "it is not there, which is what was wanted";
  }
}

// ---------------------------------------------------------------------------------------------------------------
// limits

TEST_F(MembershipsTest, AProcessHoldsSoManyAndAnotherOneStillCan) {
  for (uint32_t i = 0; i < Memberships::most_per_process; ++i) ASSERT_EQ(join(ospf, group + i), Refusal::none);
  EXPECT_EQ(join(ospf, group, source), Refusal::limit);
  EXPECT_EQ(join(ospf, group), Refusal::none) << "it holds that already";
  EXPECT_EQ(join(pim, group, source), Refusal::none);
  EXPECT_EQ(leave(ospf, group), Refusal::none);
  EXPECT_EQ(join(ospf, group, source), Refusal::none);
  EXPECT_EQ(join(ospf, group, other_source), Refusal::limit);
  memberships_.process_gone(ospf);
  EXPECT_EQ(kernel_.joined, (Joined{{ifindex, group, source}}));
}

TEST_F(MembershipsTest, AllProcessesTogetherHoldSoMany) {
  const auto processes = static_cast<int32_t>(Memberships::most / Memberships::most_per_process);
  for (int32_t pid = 1; pid <= processes; ++pid) {
    for (uint32_t i = 0; i < Memberships::most_per_process; ++i) ASSERT_EQ(join(pid, 0xe0000000 + i), Refusal::none);
  }
  EXPECT_EQ(join(processes + 1, group), Refusal::limit);
  memberships_.process_gone(1);
  EXPECT_EQ(join(processes + 1, group), Refusal::none);
}

// A refused join leaves nothing behind that a change of the interface would trip over.
TEST_F(MembershipsTest, AfterARefusedFirstJoinTheInterfaceIsOneLikeAnyOther) {
  kernel_.join_error = EPERM;
  join(ospf, group);
  kernel_.join_error = 0;
  remove(iod);
  EXPECT_EQ(kernel_.forgotten, std::vector<uint32_t>{});
  change(10, 100, "eth0");
  EXPECT_EQ(join(ospf, group, 0, 10), Refusal::none);
  EXPECT_EQ(kernel_.joined, (Joined{{100, group, 0}}));
}

TEST_F(MembershipsTest, AProcessWantsWhatItJoinedWhereItJoined) {
  set(6, 60, "eth1");
  join(ospf, group);
  join(pim, other_group, source);
  EXPECT_TRUE(memberships_.wants(ospf, iod, group, source));
  EXPECT_FALSE(memberships_.wants(ospf, iod, other_group, source));
  EXPECT_FALSE(memberships_.wants(ospf, 6, group, source));
  EXPECT_FALSE(memberships_.wants(pim, iod, group, source));
  EXPECT_TRUE(memberships_.wants(pim, iod, other_group, source));
  EXPECT_FALSE(memberships_.wants(pim, iod, other_group, other_source));
}

TEST_F(MembershipsTest, WhoTakesEveryGroupWantsEach) {
  join(pim, 0);
  EXPECT_TRUE(memberships_.wants(pim, iod, group, source));
}

TEST_F(MembershipsTest, OnAnyInterfaceCountsWhatIsJoinedOnOne) {
  join(pim, group);
  EXPECT_TRUE(memberships_.wants(pim, 0, group, source));
  EXPECT_FALSE(memberships_.wants(pim, 0, other_group, source));
  EXPECT_FALSE(memberships_.wants(ospf, 0, group, source));
}

TEST_F(MembershipsTest, WhatWasLeftIsNotWantedAnyMore) {
  join(pim, group);
  leave(pim, group);
  EXPECT_FALSE(memberships_.wants(pim, iod, group, source));
  EXPECT_TRUE(memberships_.interfaces_with(group, source).empty());
}

TEST_F(MembershipsTest, TheInterfacesOfAGroupAreThoseWhereAnybodyJoinedItOrItsSource) {
  for (uint32_t other = 6; other <= 9; ++other) set(other, other * 10, "eth" + std::to_string(other));
  join(ospf, group, 0, 9);
  join(pim, group, source, 6);
  join(pim, group, other_source, 7);
  join(pim, 0, 0, 8);
  join(pim, other_group);
  EXPECT_EQ(memberships_.interfaces_with(group, source), (std::vector<uint32_t>{6, 9}));
}

}  // namespace
}  // namespace memberships_test
