// SPDX-License-Identifier: Apache-2.0
// A new publisher on what an earlier one left: the earlier one's object is dropped without any clean-up, which is what
// a kill leaves.
#include <gtest/gtest.h>

#include "im.h"
#include "ipd/publish_system.h"
#include "support/process.h"

namespace publish_test {
namespace {

constexpr uint32_t permanent = ip(10, 0, 0, 1);
constexpr uint32_t last_word = ip(10, 9, 9, 9);  // published when the readers may stop

void publish_base(ipd::Publisher &publisher) {
  publisher.set_context(default_context);
  publisher.set_context(context(7, "blue"));
  publisher.set_interface(interface(2));
  publisher.set_interface(interface(3));
  publisher.set_address(2, primary(permanent, 24));
}

void reopen(System &system) {
  system.detach();
  system.publisher.reset();
  std::string reason;
  system.publisher = ipd::Publisher::open(&reason, std::chrono::milliseconds(0));
  ASSERT_NE(system.publisher, nullptr) << reason;
}

class PublishTakeOver : public testing::Test {
 protected:
  PublishTakeOver() {
    publish_base(*system);
    system.go_live();
  }
  System system;
};

TEST_F(PublishTakeOver, ContextsKeepTheirAddressesAndInterfacesTheirIods) {
  const ip_api_context_type *first = ip_get_api_context(1);
  const ip_api_context_type *second = ip_get_api_context(7);
  const uint32_t iod2 = system->iod(2);
  const uint32_t iod3 = system->iod(3);
  for (int i = 0; i < 3; ++i) {
    reopen(system);
    publish_base(*system);
    system.go_live();
    EXPECT_EQ(ip_get_api_context(1), first);
    EXPECT_EQ(ip_get_api_context(7), second);
    EXPECT_EQ(system->iod(2), iod2);
    EXPECT_EQ(system->iod(3), iod3);
    EXPECT_EQ(ip_get_iod_for_local_address("default", permanent), iod2);
  }
}

TEST_F(PublishTakeOver, ReadersSeeTheOldStateUntilTheFirstCommit) {
  system->set_address(2, primary(ip(10, 0, 1, 1), 24));
  system->set_interface(interface(4));
  system->set_context(context(9, "red"));
  const uint32_t iod2 = system->iod(2);
  const uint32_t iod4 = system->iod(4);
  ASSERT_TRUE(system.commit());
  reopen(system);
  system.attach();
  publish_base(*system);
  system->set_address(2, primary(ip(10, 0, 2, 1), 24));
  system->set_context(context(8, "green"));

  EXPECT_EQ(context_ids(), (std::vector<uint32_t>{1, 7, 9}));
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(10, 0, 1, 1)), iod2);
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(10, 0, 2, 1)), 0u);
  EXPECT_EQ(addresses_of(iod2), (Addresses{{permanent, 24}, {ip(10, 0, 1, 1), 24}}));
  EXPECT_NE(interface_record(iod4), nullptr);

  ASSERT_TRUE(system.commit());
  EXPECT_EQ(context_ids(), (std::vector<uint32_t>{1, 7, 8}));
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(10, 0, 1, 1)), 0u);
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(10, 0, 2, 1)), iod2);
  EXPECT_EQ(addresses_of(iod2), (Addresses{{permanent, 24}, {ip(10, 0, 2, 1), 24}}));
  EXPECT_EQ(interface_record(iod4), nullptr) << "nobody set it again";
  EXPECT_EQ(im_get_if_name(iod4), nullptr);
}

TEST_F(PublishTakeOver, ARenamedContextAndAnotherTableComeWithTheFirstCommit) {
  reopen(system);
  system.attach();
  system->set_context({.id = 1, .name = "main", .table_id = 254, .router_id = 0});
  system->set_context({.id = 7, .name = "blue", .table_id = 70, .router_id = ip(7, 7, 7, 7)});
  const ip_api_context_type *blue = ip_get_api_context(7);
  EXPECT_NE(ip_get_api_context_by_name("default"), nullptr);
  EXPECT_EQ(blue->table_id, 1007u);
  ASSERT_TRUE(system.commit());
  EXPECT_EQ(ip_get_api_context_by_name("default"), nullptr);
  EXPECT_NE(ip_get_api_context_by_name("main"), nullptr);
  EXPECT_EQ(ip_get_api_context(7), blue);
  EXPECT_EQ(blue->table_id, 70u);
  EXPECT_EQ(blue->router_id, ip(7, 7, 7, 7));
}

TEST_F(PublishTakeOver, MayBeTakenOverItselfBeforeItsFirstCommit) {
  const ip_api_context_type *first = ip_get_api_context(1);
  reopen(system);
  system->set_context(default_context);
  system->set_interface(interface(5));
  reopen(system);
  publish_base(*system);
  system.go_live();
  EXPECT_EQ(ip_get_api_context(1), first);
  EXPECT_EQ(context_ids(), (std::vector<uint32_t>{1, 7}));
  EXPECT_EQ(ip_get_iod_for_local_address("default", permanent), system->iod(2));
  EXPECT_EQ(system->iod(5), 0u);
}

TEST_F(PublishTakeOver, ManyTakeOversDoNotFillTheSegment) {
  for (uint32_t i = 0; i < 200; ++i) system->set_address(3, primary(ip(20, 0, 0, 1) + i, 24));
  ASSERT_TRUE(system.commit());
  uint64_t after_the_first = 0;
  for (int round = 0; round < 30; ++round) {
    reopen(system);
    publish_base(*system);
    for (uint32_t i = 0; i < 200; ++i) system->set_address(3, primary(ip(20, 0, 0, 1) + i, 24));
    ASSERT_TRUE(system.commit());
    system->tick(std::chrono::steady_clock::now());
    if (round == 1) after_the_first = system->use().segment_bytes;
  }
  EXPECT_EQ(system->use().segment_bytes, after_the_first);
}

// Fills the window in some ten starts if nothing is ever free.
std::vector<ipd::GroupState> many_groups() {
  std::vector<ipd::GroupState> groups;
  for (uint32_t i = 0; i < 800000; ++i) groups.push_back({.group = ip(239, 0, 0, 0) + i, .data = i});
  return groups;
}

TEST_F(PublishTakeOver, AnyNumberOfPublishersThatEndAtOnceLeaveRoomForTheNext) {
  const ip_api_context_type *blue = ip_get_api_context(7);
  const uint32_t iod2 = system->iod(2);
  const std::vector<ipd::GroupState> groups = many_groups();
  ipd::MulticastCounters counters{.packets = {1, 2, 3, 4, 5}, .bytes = {6, 7}};
  ASSERT_TRUE(system->set_multicast_counters(2, counters));
  bool were_gone = false;
  // None of them lives until what it retired is free.
  for (uint32_t time = 0; time < 7; ++time) {
    SCOPED_TRACE(time);
    reopen(system);
    system.attach();
    const bool are_gone = ip_get_iod_for_local_address("default", permanent) == 0;
    if (are_gone) {  // that one does not even get to its first commit
      reopen(system);
      system.attach();
    }
    were_gone = were_gone || are_gone;
    publish_base(*system);
    EXPECT_EQ(system->multicast_counters(2), counters);
    ++counters.packets[0];
    ASSERT_TRUE(system->set_multicast_counters(2, counters));
    ASSERT_TRUE(system->set_groups(2, groups)) << system->last_error();
    ASSERT_TRUE(system->commit()) << system->last_error();
    EXPECT_EQ(ip_get_api_context(7), blue);
    ASSERT_EQ(ip_get_iod_for_local_address("default", permanent), iod2);
    if (!are_gone) continue;
    EXPECT_EQ(groups_of(iod2), groups);
  }
  EXPECT_TRUE(were_gone) << "they did not fill it, so nothing was seen";
}

// One process attaches and asks, over and over, while publishers come and go; every answer must be the permanent one.
int keep_asking() {
  if (!attach_when_published()) return 10;
  const ip_api_context_type *record = ip_get_api_context_by_name("default");
  const uint32_t iod = ip_get_iod_for_local_address("default", permanent);
  if (record == nullptr || iod == 0) return 11;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (ip_get_iod_for_local_address("default", last_word) == 0) {
    if (std::chrono::steady_clock::now() > deadline) return 12;
    if (ip_get_api_context_by_name("default") != record) return 13;
    if (ip_get_iod_for_local_address("default", permanent) != iod) return 14;
    if (ip_is_address_on_interface(permanent, iod) != 1) return 15;
    if (ip_get_local_mask_len(permanent, iod) != 24) return 16;
    if (ip_get_iod_for_local_address("default", ip(10, 1, 1, 1)) != 0) return 17;
    if (ip_is_multicast_enabled(iod) != 1) return 18;
    if (ip_get_api_context_id("blue") != 7) return 19;
  }
  return 0;
}

// The same while publishers have to make room: the addresses are there or not, all else is as ever.
int keep_asking_through_gaps() {
  if (!attach_when_published()) return 10;
  const ip_api_context_type *record = ip_get_api_context_by_name("default");
  const uint32_t iod = ip_get_iod_for_local_address("default", permanent);
  if (record == nullptr || iod == 0) return 11;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(240);
  while (ip_get_iod_for_local_address("default", last_word) == 0) {
    if (std::chrono::steady_clock::now() > deadline) return 12;
    if (ip_get_api_context_by_name("default") != record) return 13;
    const uint32_t found = ip_get_iod_for_local_address("default", permanent);
    if (found != 0 && found != iod) return 14;
    const uint32_t length = ip_get_local_mask_len(permanent, iod);
    if (length != 0 && length != 24) return 15;
    if (ip_is_multicast_enabled(iod) != 1) return 16;
    if (counters_of(iod).value_or(ipd::MulticastCounters{}).packets[4] != 5) return 17;
  }
  return 0;
}

TEST(PublishTakeOverLive, AttachedClientsSeeNothingWrongWhileRoomIsMade) {
  test_support::RunDirectory directory;
  test_support::Process reader(keep_asking_through_gaps);
  const std::vector<ipd::GroupState> groups = many_groups();
  std::string reason;
  bool were_gone = false;
  for (int round = 0; round < 7; ++round) {
    const auto publisher = ipd::Publisher::open(&reason, std::chrono::milliseconds(0));
    ASSERT_NE(publisher, nullptr) << reason;
    if (round > 0) {
      ASSERT_NE(ip_shm_api_init(), nullptr);
      were_gone = were_gone || ip_get_iod_for_local_address("default", permanent) == 0;
      ip_api_close();
    }
    publish_base(*publisher);
    ASSERT_TRUE(publisher->set_multicast_counters(2, {.packets = {1, 2, 3, 4, 5}, .bytes = {}}));
    ASSERT_TRUE(publisher->set_groups(3, groups)) << publisher->last_error();
    if (round == 6) publisher->set_address(3, primary(last_word, 32));
    ASSERT_TRUE(publisher->commit());
  }
  EXPECT_TRUE(were_gone) << "no room had to be made, so nothing was seen";
  EXPECT_EQ(reader.wait(), 0) << reader.output();
}

TEST(PublishTakeOverLive, AttachedClientsGoOnWithoutAttachingAgain) {
  test_support::RunDirectory directory;
  test_support::Process reader(keep_asking);
  test_support::Process other_reader(keep_asking);
  std::string reason;
  for (int round = 0; round < 25; ++round) {
    const auto publisher = ipd::Publisher::open(&reason, std::chrono::milliseconds(0));
    ASSERT_NE(publisher, nullptr) << reason;
    publish_base(*publisher);
    for (uint32_t i = 0; i < 50; ++i) {
      publisher->set_address(3, primary(ip(30, 0, static_cast<uint8_t>(round), 1) + i, 24));
    }
    ASSERT_TRUE(publisher->commit());
    for (uint32_t i = 0; i < 300; ++i) {
      publisher->set_address(3, primary(ip(40, 0, 0, 1) + i % 64, 24));
      publisher->set_address(2, secondary(ip(10, 0, 0, 2) + i % 16, 24));
      publisher->remove_address(2, ip(10, 0, 0, 2) + (i + 8) % 16, 24);
      publisher->remove_address(3, ip(40, 0, 0, 1) + (i + 32) % 64, 24);
      publisher->commit();
      publisher->tick(std::chrono::steady_clock::now());
    }
    if (round == 24) {
      publisher->set_address(3, primary(last_word, 32));
      publisher->commit();
    }
  }
  EXPECT_EQ(reader.wait(), 0) << reader.output();
  EXPECT_EQ(other_reader.wait(), 0) << other_reader.output();
}

}  // namespace
}  // namespace publish_test
