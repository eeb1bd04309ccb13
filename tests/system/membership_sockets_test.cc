// SPDX-License-Identifier: Apache-2.0
// Memberships of this process in a real kernel: more than one socket takes, and what is left of them afterwards.
#include <gtest/gtest.h>
#include <net/if.h>
#include <signal.h>
#include <sys/resource.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "ipd/kernel/membership_sockets.h"
#include "kernel_memberships.h"
#include "support/network_namespace.h"
#include "support/peer_namespace.h"
#include "support/process.h"

namespace {

using ipd::kernel::Membership;
using ipd::kernel::MembershipSockets;
using test_support::kernel_all_multicast;
using test_support::kernel_groups;
using test_support::kernel_multicast_flag;
using test_support::kernel_sources;
using test_support::run_ip;
using test_support::SourceFilters;
using GroupUsers = std::map<uint32_t, unsigned>;

constexpr uint32_t group = 0xef010203;
constexpr uint32_t source = 0x0a000001;

size_t open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

class MembershipSocketsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string reason;
    ASSERT_TRUE(test_support::enter_network_namespace(&reason)) << reason;
    make_pair();
    descriptors_ = open_descriptors();
  }
  void make_pair(const std::string &index = "") {
    ASSERT_EQ(run_ip("link add va " + index + " type veth peer name vb"), "");
    ASSERT_EQ(run_ip("link set va up"), "");
    va_ = if_nametoindex("va");
  }
  static void set(const std::string &name, int value) {
    std::ofstream file("/proc/sys/net/ipv4/" + name);
    file << value << std::flush;
    ASSERT_TRUE(file.good()) << name;
  }
  int join(uint32_t its_group, uint32_t its_source = 0) { return sockets_->join({va_, its_group, its_source}); }
  int leave(uint32_t its_group, uint32_t its_source = 0) { return sockets_->leave({va_, its_group, its_source}); }
  // Sockets that are open now and were not before.
  [[nodiscard]] size_t sockets() const { return open_descriptors() - descriptors_; }

  std::unique_ptr<MembershipSockets> sockets_ = MembershipSockets::make();
  uint32_t va_ = 0;
  size_t descriptors_ = 0;
};

TEST_F(MembershipSocketsTest, SixtyFourGroupsTakeAsManySocketsAsTheKernelAsksFor) {
  GroupUsers expected;
  for (uint32_t i = 0; i < 64; ++i) {
    ASSERT_EQ(join(group + i), 0);
    expected[group + i] = 1;
  }
  EXPECT_EQ(kernel_groups("va"), expected);
  EXPECT_EQ(sockets(), 4u) << "20 groups each";
  for (uint32_t i = 0; i < 64; i += 2) {
    ASSERT_EQ(leave(group + i), 0);
    expected.erase(group + i);
  }
  EXPECT_EQ(kernel_groups("va"), expected);
  for (uint32_t i = 0; i < 32; ++i) ASSERT_EQ(join(group + 1000 + i), 0);
  EXPECT_EQ(sockets(), 4u) << "those that had become free again";
  for (uint32_t i = 0; i < 32; ++i) ASSERT_EQ(leave(group + 1000 + i), 0);
  for (const auto &[each, users] : expected) ASSERT_EQ(leave(each), 0);
  EXPECT_EQ(kernel_groups("va"), GroupUsers{});
  EXPECT_EQ(sockets(), 0u);
}

TEST_F(MembershipSocketsTest, ManySourcesOfAGroupTakeAsManySocketsAsTheKernelAsksFor) {
  SourceFilters expected;
  for (uint32_t i = 0; i < 35; ++i) {
    ASSERT_EQ(join(group, source + i), 0);
    expected[{group, source + i}] = {1, 0};
  }
  EXPECT_EQ(kernel_sources("va"), expected);
  EXPECT_EQ(sockets(), 4u) << "10 sources each";
  for (uint32_t i = 0; i < 35; i += 3) {
    ASSERT_EQ(leave(group, source + i), 0);
    expected.erase({group, source + i});
  }
  EXPECT_EQ(kernel_sources("va"), expected);
  EXPECT_EQ(join(group, source), 0);
  EXPECT_EQ(sockets(), 4u);
  EXPECT_EQ(leave(group, source), 0);
  for (const auto &[each, users] : expected) ASSERT_EQ(leave(group, each.second), 0);
  EXPECT_EQ(kernel_sources("va"), SourceFilters{});
  EXPECT_EQ(kernel_groups("va"), GroupUsers{});
  EXPECT_EQ(sockets(), 0u);
}

TEST_F(MembershipSocketsTest, AGroupIsJoinedFromAnySourceAndFromOneAtOnce) {
  for (const bool any_first : {false, true}) {
    ASSERT_EQ(join(group, any_first ? 0 : source), 0);
    ASSERT_EQ(join(group, any_first ? source : 0), 0);
    EXPECT_EQ(kernel_groups("va"), (GroupUsers{{group, 2}}));
    EXPECT_EQ(kernel_sources("va"), (SourceFilters{{{group, source}, {1, 0}}}));
    EXPECT_EQ(leave(group), 0);
    EXPECT_EQ(kernel_groups("va"), (GroupUsers{{group, 1}}));
    EXPECT_EQ(kernel_sources("va"), (SourceFilters{{{group, source}, {1, 0}}}));
    ASSERT_EQ(join(group), 0);
    EXPECT_EQ(leave(group, source), 0);
    EXPECT_EQ(kernel_sources("va"), SourceFilters{});
    EXPECT_EQ(kernel_groups("va"), (GroupUsers{{group, 1}}));
    EXPECT_EQ(leave(group), 0);
    EXPECT_EQ(sockets(), 0u);
  }
}

TEST_F(MembershipSocketsTest, WhatTheKernelHasNoRoomForLeavesNothingBehind) {
  set("igmp_max_memberships", 0);
  EXPECT_EQ(join(group), ENOBUFS);
  EXPECT_EQ(join(group, source), ENOBUFS);
  EXPECT_EQ(kernel_groups("va"), GroupUsers{});
  EXPECT_EQ(sockets(), 0u);
  set("igmp_max_memberships", 20);
  EXPECT_EQ(join(group), 0);
  EXPECT_EQ(join(group, source), 0);
  EXPECT_EQ(kernel_groups("va"), (GroupUsers{{group, 2}}));
}

TEST_F(MembershipSocketsTest, ASettingThatIsChangedCountsFromThenOn) {
  set("igmp_max_memberships", 1);
  set("igmp_max_msf", 1);
  for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(join(group, source + i), 0);
  EXPECT_EQ(sockets(), 3u);
  set("igmp_max_memberships", 30);
  for (uint32_t i = 1; i < 30; ++i) ASSERT_EQ(join(group + i), 0);
  EXPECT_LE(sockets(), 4u);
  EXPECT_EQ(kernel_groups("va").size(), 30u);
}

TEST_F(MembershipSocketsTest, WithoutDescriptorsAJoinFailsAndSucceedsLater) {
  for (uint32_t i = 0; i < 20; ++i) ASSERT_EQ(join(group + i), 0);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit none = before;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const int group_error = join(group + 20);
  const int source_error = join(group, source);
  const int all_error = join(0);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(group_error, EMFILE);
  EXPECT_EQ(source_error, EMFILE);
  EXPECT_EQ(all_error, EMFILE);
  EXPECT_EQ(kernel_groups("va").size(), 20u);
  EXPECT_EQ(join(group + 20), 0);
  EXPECT_EQ(join(group, source), 0);
  EXPECT_EQ(kernel_groups("va").size(), 21u);
}

TEST_F(MembershipSocketsTest, AnInterfaceThatIsNotThereIsSaid) {
  for (const Membership &each : {Membership{4711, group, 0}, Membership{4711, group, source}, Membership{4711, 0, 0}}) {
    EXPECT_EQ(sockets_->join(each), ENODEV);
    EXPECT_EQ(sockets_->leave(each), EADDRNOTAVAIL);
  }
  sockets_->forget(4711);
}

TEST_F(MembershipSocketsTest, AnInterfaceKeepsMembershipsWhileItIsDown) {
  ASSERT_EQ(join(group), 0);
  ASSERT_EQ(join(group + 1, source), 0);
  ASSERT_EQ(run_ip("link set va down"), "");
  ASSERT_EQ(join(group + 2), 0);
  ASSERT_EQ(run_ip("link set va up"), "");
  EXPECT_EQ(kernel_groups("va"), (GroupUsers{{group, 1}, {group + 1, 1}, {group + 2, 1}}));
  EXPECT_EQ(kernel_sources("va"), (SourceFilters{{{group + 1, source}, {1, 0}}}));
}

TEST_F(MembershipSocketsTest, AfterForgettingAnInterfaceUnderTheSameIfindexIsJoinedAnew) {
  for (uint32_t i = 0; i < 25; ++i) ASSERT_EQ(join(group + i), 0);
  ASSERT_EQ(join(group, source), 0);
  ASSERT_EQ(join(0), 0);
  ASSERT_EQ(run_ip("link del va"), "");
  const uint32_t before = va_;
  sockets_->forget(va_);
  make_pair("index " + std::to_string(va_));
  ASSERT_EQ(va_, before);
  EXPECT_EQ(kernel_groups("va"), GroupUsers{});
  ASSERT_EQ(join(group), 0);
  ASSERT_EQ(join(group, source), 0);
  ASSERT_EQ(join(0), 0);
  EXPECT_EQ(kernel_groups("va"), (GroupUsers{{group, 2}}));
  EXPECT_EQ(kernel_all_multicast("va"), 1);
}

TEST_F(MembershipSocketsTest, ForgettingLetsGoOfMembershipsOfNoOtherInterface) {
  ASSERT_EQ(run_ip("link set vb up"), "");
  const uint32_t vb = if_nametoindex("vb");
  for (uint32_t i = 0; i < 15; ++i) {
    ASSERT_EQ(join(group + i), 0);
    ASSERT_EQ(sockets_->join({vb, group + i, 0}), 0);
  }
  sockets_->forget(va_);
  EXPECT_EQ(kernel_groups("va"), GroupUsers{});
  EXPECT_EQ(kernel_groups("vb").size(), 15u);
  EXPECT_EQ(sockets_->leave({vb, group, 0}), 0);
  EXPECT_EQ(kernel_groups("vb").size(), 14u);
}

TEST_F(MembershipSocketsTest, ALossOfIpv4StateCanBeForgottenAndJoinedAgain) {
  ASSERT_EQ(run_ip("link set lo up"), "");
  const uint32_t lo = if_nametoindex("lo");
  ASSERT_EQ(sockets_->join({lo, group, 0}), 0);
  ASSERT_EQ(sockets_->join({lo, group + 1, source}), 0);
  ASSERT_EQ(run_ip("link set lo mtu 67"), "");
  EXPECT_EQ(kernel_groups("lo"), GroupUsers{});
  EXPECT_EQ(sockets_->join({lo, group + 2, 0}), ENODEV);
  EXPECT_EQ(sockets_->join({lo, group + 2, source}), ENODEV);
  sockets_->forget(lo);
  EXPECT_EQ(sockets(), 0u);
  ASSERT_EQ(run_ip("link set lo mtu 68"), "");
  EXPECT_EQ(kernel_groups("lo"), GroupUsers{});
  ASSERT_EQ(sockets_->join({lo, group, 0}), 0);
  ASSERT_EQ(sockets_->join({lo, group + 1, source}), 0);
  EXPECT_EQ(kernel_groups("lo"), (GroupUsers{{group, 1}, {group + 1, 1}}));
  EXPECT_EQ(kernel_sources("lo"), (SourceFilters{{{group + 1, source}, {1, 0}}}));
}

TEST_F(MembershipSocketsTest, EveryGroupIsCountedBesideTheOperatorsOwnWish) {
  ASSERT_EQ(kernel_all_multicast("va"), 0);
  ASSERT_EQ(join(0), 0);
  EXPECT_EQ(kernel_all_multicast("va"), 1);
  ASSERT_EQ(run_ip("link set va allmulticast on"), "");
  EXPECT_EQ(kernel_all_multicast("va"), 2);
  EXPECT_EQ(leave(0), 0);
  EXPECT_EQ(kernel_all_multicast("va"), 1) << "the operator's";
  ASSERT_EQ(join(0), 0);
  ASSERT_EQ(run_ip("link set va allmulticast off"), "");
  EXPECT_EQ(kernel_all_multicast("va"), 1);
  sockets_.reset();
  EXPECT_EQ(kernel_all_multicast("va"), 0);
}

TEST_F(MembershipSocketsTest, TheMulticastFlagIsSetAndTakenBackWhereItWasNot) {
  ASSERT_TRUE(kernel_multicast_flag("va"));
  ASSERT_EQ(join(0), 0);
  EXPECT_EQ(leave(0), 0);
  EXPECT_TRUE(kernel_multicast_flag("va")) << "it was there before";
  ASSERT_EQ(run_ip("link set va multicast off"), "");
  ASSERT_EQ(join(0), 0);
  EXPECT_TRUE(kernel_multicast_flag("va"));
  EXPECT_EQ(leave(0), 0);
  EXPECT_FALSE(kernel_multicast_flag("va"));
  ASSERT_EQ(join(0), 0);
  EXPECT_TRUE(kernel_multicast_flag("va"));
  sockets_.reset();
  EXPECT_FALSE(kernel_multicast_flag("va"));
}

TEST_F(MembershipSocketsTest, EverythingEndsWithTheObjectAndWithTheProcess) {
  for (uint32_t i = 0; i < 30; ++i) ASSERT_EQ(join(group + i), 0);
  ASSERT_EQ(join(group, source), 0);
  sockets_.reset();
  EXPECT_EQ(kernel_groups("va"), GroupUsers{});
  EXPECT_EQ(sockets(), 0u);

  const uint32_t va = va_;
  test_support::Process holder([va] {
    const auto own = MembershipSockets::make();
    const bool done =
        own->join({va, group, 0}) == 0 && own->join({va, group, source}) == 0 && own->join({va, 0, 0}) == 0;
    return done && kernel_groups("va").size() == 1 && kernel_all_multicast("va") == 1 ? raise(SIGKILL) : 1;
  });
  EXPECT_EQ(holder.wait(), 128 + SIGKILL);
  EXPECT_EQ(kernel_groups("va"), GroupUsers{});
  EXPECT_EQ(kernel_all_multicast("va"), 0);
}

}  // namespace
