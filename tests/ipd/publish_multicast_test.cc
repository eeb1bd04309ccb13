// SPDX-License-Identifier: Apache-2.0
// Groups, counters and the load-share setting, as libip answers about them.
#include <gtest/gtest.h>

#include "im/im_writer.h"
#include "ipd/publish_system.h"

namespace publish_test {
namespace {

using Groups = std::vector<ipd::GroupState>;

constexpr ipd::GroupState all_hosts{.group = ip(224, 0, 0, 1), .data = 0};
constexpr ipd::GroupState all_routers{.group = ip(224, 0, 0, 2), .data = 7};
constexpr ipd::GroupState stream{.group = ip(239, 1, 2, 3), .data = 9};
constexpr ipd::MulticastCounters some_counters{.packets = {1, 2, 3, 4, 5}, .bytes = {uint64_t{6} << 32 | 7, 8}};

class PublishMulticast : public testing::Test {
 protected:
  PublishMulticast() {
    tell_base();
    system.go_live();
  }
  void tell_base() {
    system->set_context(default_context);
    system->set_context(context(7, "blue"));
    system->set_interface(interface(2));
    system->set_interface(interface(3));
  }
  // The next ipd on what this one leaves; it commits when the test says so.
  void restart() {
    system.detach();
    system.publisher.reset();
    std::string reason;
    system.publisher = ipd::Publisher::open(&reason, std::chrono::milliseconds(0));
    ASSERT_NE(system.publisher, nullptr) << reason;
    system.attach();
  }
  [[nodiscard]] uint32_t iod(uint32_t ifindex = 2) const { return system.publisher->iod(ifindex); }
  [[nodiscard]] const ip_maddrtype *first_group() const { return interface_record(iod())->group_list; }
  System system;
};

TEST_F(PublishMulticast, GroupsStandInTheOrderGiven) {
  ASSERT_TRUE(system->set_groups(2, {stream, all_hosts, all_routers}));
  EXPECT_EQ(groups_of(iod()), (Groups{stream, all_hosts, all_routers}));
  EXPECT_EQ(groups_of(iod(3)), Groups{});
  ASSERT_TRUE(system->set_groups(2, {all_routers, all_hosts}));
  EXPECT_EQ(groups_of(iod()), (Groups{all_routers, all_hosts}));
  ASSERT_TRUE(system->set_groups(2, {}));
  EXPECT_EQ(groups_of(iod()), Groups{});
}

TEST_F(PublishMulticast, ANewGroupInFrontLeavesTheOthersWhereTheyAre) {
  ASSERT_TRUE(system->set_groups(2, {all_routers, all_hosts}));
  const ip_maddrtype *before = first_group();
  ASSERT_TRUE(system->set_groups(2, {stream, all_routers, all_hosts}));
  EXPECT_EQ(first_group()->next.get(), before);
  ASSERT_TRUE(system->set_groups(2, {all_routers, all_hosts}));
  EXPECT_EQ(first_group(), before);
}

TEST_F(PublishMulticast, AChangeOfAGroupsDataIsPublished) {
  ASSERT_TRUE(system->set_groups(2, {stream, all_hosts}));
  auto changed = stream;
  changed.data = 10;
  ASSERT_TRUE(system->set_groups(2, {changed, all_hosts}));
  EXPECT_EQ(groups_of(iod()), (Groups{changed, all_hosts}));
}

TEST_F(PublishMulticast, WhatIsNoGroupIsRefusedWithTheWholeList) {
  ASSERT_TRUE(system->set_groups(2, {all_hosts}));
  for (const uint32_t address : {ip(10, 0, 0, 1), ip(223, 255, 255, 255), ip(240, 0, 0, 0), 0u}) {
    EXPECT_FALSE(system->set_groups(2, {stream, {.group = address, .data = 0}}));
  }
  EXPECT_EQ(system->last_error(), "a group of interface port2 is not in 224.0.0.0/4");
  EXPECT_EQ(groups_of(iod()), Groups{all_hosts});
}

TEST_F(PublishMulticast, AnUnknownInterfaceHasNoGroupsAndNoCounters) {
  EXPECT_FALSE(system->set_groups(4, {all_hosts}));
  EXPECT_FALSE(system->set_multicast_counters(4, some_counters));
  EXPECT_FALSE(system->set_pim_asserts(4, 1));
  EXPECT_EQ(system->last_error(), "no interface has the index 4");
  EXPECT_EQ(system->pim_asserts(4), 0u);
  EXPECT_EQ(system->multicast_counters(4), std::nullopt);
}

TEST_F(PublishMulticast, CountersAreThereFromTheFirstTellingOn) {
  EXPECT_EQ(counters_of(iod()), std::nullopt);
  ASSERT_TRUE(system->set_multicast_counters(2, {}));
  EXPECT_EQ(counters_of(iod()), ipd::MulticastCounters{});
  ASSERT_TRUE(system->set_multicast_counters(2, some_counters));
  EXPECT_EQ(counters_of(iod()), some_counters);
  EXPECT_EQ(system->multicast_counters(2), some_counters);
  EXPECT_EQ(counters_of(iod(3)), std::nullopt);
}

TEST_F(PublishMulticast, CountersWakeNobody) {
  ASSERT_TRUE(system->set_multicast_counters(2, {}));
  ASSERT_TRUE(system.commit());
  const uint32_t before = rsw::im_header()->generation;
  ASSERT_TRUE(system->set_multicast_counters(2, some_counters));
  ASSERT_TRUE(system->set_pim_asserts(2, 5));
  ASSERT_TRUE(system.commit());
  EXPECT_EQ(rsw::im_header()->generation, before);
  ASSERT_TRUE(system->set_groups(2, {all_hosts}));
  ASSERT_TRUE(system.commit());
  EXPECT_NE(rsw::im_header()->generation, before);
}

TEST_F(PublishMulticast, SurviveAnyChangeOfTheInterface) {
  ASSERT_TRUE(system->set_groups(2, {stream, all_hosts}));
  ASSERT_TRUE(system->set_multicast_counters(2, some_counters));
  ASSERT_TRUE(system->set_pim_asserts(2, 42));
  auto state = interface(2, "uplink");
  state.forwarding = false;
  state.up = false;
  state.context_id = 7;
  ASSERT_TRUE(system->set_interface(state));
  ASSERT_TRUE(system->set_vip({.ifindex = 2, .addr = ip(10, 0, 0, 9)}));
  ASSERT_TRUE(system->set_unnumbered(2, 3, "port3"));
  ASSERT_TRUE(system.commit());
  EXPECT_EQ(groups_of(iod()), (Groups{stream, all_hosts}));
  EXPECT_EQ(counters_of(iod()), some_counters);
  EXPECT_EQ(ip_get_pim_assert_sent_count(iod()), 42u);
}

TEST_F(PublishMulticast, GoWithTheInterface) {
  ASSERT_TRUE(system->set_groups(2, {stream}));
  ASSERT_TRUE(system->set_multicast_counters(2, some_counters));
  ASSERT_TRUE(system->set_pim_asserts(2, 42));
  const uint32_t before = iod();
  ASSERT_TRUE(system->remove_interface(2));
  EXPECT_EQ(groups_of(before), Groups{});
  EXPECT_EQ(counters_of(before), std::nullopt);
  ASSERT_TRUE(system->set_interface(interface(2)));
  EXPECT_EQ(groups_of(iod()), Groups{});
  EXPECT_EQ(counters_of(iod()), std::nullopt);
  EXPECT_EQ(ip_get_pim_assert_sent_count(iod()), 0u);
}

TEST_F(PublishMulticast, TheLoadShareSettingIsReadInHostOrder) {
  ASSERT_TRUE(system->set_load_share(3, 0x01020304));
  ip_ecmp_loadshare_status status{};
  ASSERT_EQ(ip_get_ecmp_loadshare_status(&status), 1u);
  EXPECT_EQ(status.mode, 3u);
  EXPECT_EQ(status.value, 0x01020304u);
  const uint8_t *stored =
      reinterpret_cast<const uint8_t *>(&static_cast<const ip_root *>(ip_api_data)->ecmp_loadshare_value);
  EXPECT_EQ(std::vector<uint8_t>(stored, stored + 4), (std::vector<uint8_t>{1, 2, 3, 4})) << "network order";
}

TEST_F(PublishMulticast, ARestartKeepsWhatWasCounted) {
  ASSERT_TRUE(system->set_groups(2, {stream}));
  ASSERT_TRUE(system->set_multicast_counters(2, some_counters));
  ASSERT_TRUE(system->set_pim_asserts(2, 42));
  ASSERT_TRUE(system->set_pim_asserts(3, 43));
  ASSERT_TRUE(system->set_load_share(3, 5));
  const auto block = interface_record(iod())->stats.get();
  for (int round = 0; round < 3; ++round) {
    restart();
    tell_base();
    EXPECT_EQ(system->pim_asserts(2), 42u);
    EXPECT_EQ(system->multicast_counters(2), some_counters);
    EXPECT_EQ(system->multicast_counters(3), std::nullopt);
    ASSERT_TRUE(system.commit());
    EXPECT_EQ(ip_get_pim_assert_sent_count(iod(2)), 42u);
    EXPECT_EQ(ip_get_pim_assert_sent_count(iod(3)), 43u);
    EXPECT_EQ(counters_of(iod()), some_counters);
    EXPECT_EQ(interface_record(iod())->stats.get(), block) << "readers stay at one block";
    EXPECT_EQ(groups_of(iod()), Groups{}) << "the kernel's to tell again";
    ip_ecmp_loadshare_status status{};
    ASSERT_EQ(ip_get_ecmp_loadshare_status(&status), 1u);
    EXPECT_EQ(status.mode, 0u);
  }
}

TEST_F(PublishMulticast, ReadersKeepTheOldGroupsUntilTheFirstCommit) {
  ASSERT_TRUE(system->set_groups(2, {stream}));
  ASSERT_TRUE(system->set_load_share(3, 5));
  restart();
  tell_base();
  ASSERT_TRUE(system->set_groups(2, {all_hosts}));
  ASSERT_TRUE(system->set_load_share(4, 6));
  ip_ecmp_loadshare_status status{};
  EXPECT_EQ(groups_of(iod()), Groups{stream});
  ASSERT_EQ(ip_get_ecmp_loadshare_status(&status), 1u);
  EXPECT_EQ(status.mode, 3u);
  ASSERT_TRUE(system.commit());
  EXPECT_EQ(groups_of(iod()), Groups{all_hosts});
  ASSERT_EQ(ip_get_ecmp_loadshare_status(&status), 1u);
  EXPECT_EQ(status.mode, 4u);
  EXPECT_EQ(status.value, 6u);
}

TEST_F(PublishMulticast, AnInterfaceThatIsReplacedBeforeTheFirstCommitInheritsNothing) {
  ASSERT_TRUE(system->set_multicast_counters(2, some_counters));
  ASSERT_TRUE(system->set_pim_asserts(2, 42));
  restart();
  tell_base();
  ASSERT_TRUE(system->remove_interface(2));
  ASSERT_TRUE(system->set_interface(interface(2)));
  ASSERT_TRUE(system.commit());
  EXPECT_EQ(ip_get_pim_assert_sent_count(iod()), 0u);
  EXPECT_EQ(counters_of(iod()), std::nullopt);
}

TEST_F(PublishMulticast, AWordThatLeadsToNoBlockIsNotInherited) {
  ASSERT_TRUE(system->set_groups(3, {stream}));
  ASSERT_TRUE(system->set_pim_asserts(2, 42));
  auto *record = const_cast<ip_iftype *>(interface_record(iod(2)));
  record->stats = reinterpret_cast<uint8_t *>(interface_record(iod(3))->group_list.get());
  restart();
  tell_base();
  ASSERT_TRUE(system.commit());
  EXPECT_EQ(counters_of(iod(2)), std::nullopt);
  EXPECT_EQ(ip_get_pim_assert_sent_count(iod(2)), 42u);
}

TEST_F(PublishMulticast, ABlockThatTwoRecordsNameIsInheritedOnce) {
  ASSERT_TRUE(system->set_multicast_counters(2, some_counters));
  const_cast<ip_iftype *>(interface_record(iod(3)))->stats = interface_record(iod(2))->stats.get();
  restart();
  tell_base();
  ASSERT_TRUE(system.commit());
  EXPECT_EQ(counters_of(iod(2)), some_counters);
  EXPECT_EQ(counters_of(iod(3)), std::nullopt);
}

}  // namespace
}  // namespace publish_test
