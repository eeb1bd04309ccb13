// SPDX-License-Identifier: Apache-2.0
#include "ipd/state/state.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <functional>
#include <numeric>

#include "ipd/kernel_messages.h"
#include "ipd/process/log.h"
#include "ipd/recording_publisher.h"

namespace {

using namespace ipd;
using namespace ipd::kernel;
using kernel_messages::address;
using kernel_messages::link;
using kernel_messages::link_gone;

constexpr uint32_t a1 = 0x0a000001, a2 = 0x0a000002, a3 = 0x0a000003, b1 = 0x0a010001;

LinkMessage vrf(uint32_t ifindex, const std::string &name, uint32_t table) {
  LinkMessage message = link(ifindex, name);
  message.kind = "vrf";
  message.vrf_table = table;
  return message;
}

LinkMessage in_vrf(uint32_t ifindex, const std::string &name, uint32_t master) {
  LinkMessage message = link(ifindex, name);
  message.master = master;
  return message;
}

AddressMessage gone(AddressMessage message) {
  message.removed = true;
  return message;
}

class StateTest : public testing::Test {
 protected:
  StateTest() { set_log_limit(LOG_CRIT); }
  ~StateTest() override { set_log_limit(LOG_NOTICE); }

  bool update() { return state.update(picture, picture.take_changes()); }
  void configure(const std::string &json) {
    std::string reason;
    const auto configuration = parse_configuration(json, "test", &reason);
    ASSERT_TRUE(configuration) << reason;
    state.configure(*configuration);
  }
  [[nodiscard]] uint32_t context_of(uint32_t ifindex) { return publisher.interfaces.at(ifindex).state.context_id; }

  test_support::RecordingPublisher publisher;
  ContextIds ids{""};
  Picture picture;
  State state{publisher, ids};
};

using List = std::vector<uint32_t>;

TEST_F(StateTest, TheDefaultContextIsAlwaysThere) {
  EXPECT_TRUE(update());
  ASSERT_EQ(publisher.contexts.size(), 1u);
  EXPECT_EQ(publisher.contexts.at(1).name, "default");
  EXPECT_EQ(publisher.contexts.at(1).table_id, 254u);
}

TEST_F(StateTest, ALinkBecomesAnInterface) {
  LinkMessage message = link(4, "eth0");
  message.mtu = 9000;
  picture.link(message);
  picture.netconf({.ifindex = 4, .forwarding = true});
  update();
  EXPECT_EQ(publisher.interfaces.at(4).state, (InterfaceState{.ifindex = 4,
                                                              .name = "eth0",
                                                              .up = true,
                                                              .admin_up = true,
                                                              .loopback = false,
                                                              .multicast = true,
                                                              .forwarding = true,
                                                              .directed_broadcast = false,
                                                              .mtu = 9000,
                                                              .context_id = 1}));
}

TEST_F(StateTest, AnInterfaceIsUpOnlyWithCarrierAndPermission) {
  LinkMessage message = link(4, "eth0");
  message.flags = IFF_UP;
  picture.link(message);
  message = link(5, "eth1");
  message.flags = IFF_RUNNING | IFF_LOOPBACK;
  picture.link(message);
  update();
  EXPECT_FALSE(publisher.interfaces.at(4).state.up);
  EXPECT_TRUE(publisher.interfaces.at(4).state.admin_up);
  EXPECT_FALSE(publisher.interfaces.at(5).state.up);
  EXPECT_FALSE(publisher.interfaces.at(5).state.admin_up);
  EXPECT_TRUE(publisher.interfaces.at(5).state.loopback);
}

// Every order of the events of one system, each event published alone and all of them as one batch.
TEST_F(StateTest, EveryOrderOfEventsGivesTheSamePicture) {
  const std::vector<std::function<void(Picture &)>> events = {
      [](Picture &p) { p.link(link(2, "eth0")); },
      [](Picture &p) { p.link(vrf(9, "blue", 1001)); },
      [](Picture &p) { p.link(in_vrf(3, "eth1", 9)); },
      [](Picture &p) { p.address(address(2, a1)); },
      [](Picture &p) { p.address(address(3, b1)); },
      [](Picture &p) { p.netconf({.ifindex = 3, .forwarding = true, .directed_broadcast = true}); },
      [](Picture &p) { p.netconf({.ifindex = netconf_all, .directed_broadcast = true}); },
  };
  std::vector<size_t> order(events.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::string expected;
  size_t orders = 0;
  do {
    for (const bool one_batch : {false, true}) {
      test_support::RecordingPublisher recorder;
      ContextIds fresh_ids("");
      State merge(recorder, fresh_ids);
      Picture kernel;
      for (size_t index : order) {
        events[index](kernel);
        if (!one_batch) {
          ASSERT_TRUE(merge.update(kernel, kernel.take_changes()));
        }
      }
      ASSERT_TRUE(merge.update(kernel, kernel.take_changes()));
      if (expected.empty()) expected = recorder.picture();
      ASSERT_EQ(recorder.picture(), expected);
    }
    ++orders;
  } while (std::next_permutation(order.begin(), order.end()));
  EXPECT_EQ(orders, 5040u);
  EXPECT_NE(expected.find("blue"), std::string::npos);
  EXPECT_NE(expected.find(std::to_string(b1)), std::string::npos);
}

TEST_F(StateTest, AnAddressWaitsForItsLink) {
  picture.address(address(7, a1));
  EXPECT_TRUE(update());
  EXPECT_TRUE(publisher.interfaces.empty());
  picture.link(link(7, "late"));
  EXPECT_TRUE(update());
  EXPECT_EQ(publisher.addresses(7), List{a1});
}

TEST_F(StateTest, OneAddressCostsOneCall) {
  picture.link(link(2, "eth0"));
  for (uint32_t i = 0; i < 100; ++i) picture.address(address(2, a1 + i, i > 0));
  update();
  publisher.calls.clear();
  picture.address(address(2, a1 + 200, true));
  update();
  EXPECT_EQ(publisher.calls.size(), 1u);
  publisher.calls.clear();
  picture.address(gone(address(2, a1 + 50, true)));
  update();
  EXPECT_EQ(publisher.calls.size(), 1u);
}

TEST_F(StateTest, WhatDidNotChangeIsNotToldAgain) {
  picture.link(link(2, "eth0"));
  picture.address(address(2, a1));
  update();
  publisher.calls.clear();
  picture.link(link(2, "eth0"));
  picture.address(address(2, a1));
  picture.netconf({.ifindex = 2, .forwarding = false});
  update();
  EXPECT_TRUE(publisher.calls.empty());
  EXPECT_EQ(publisher.commits, 2u);
}

TEST_F(StateTest, AnAddressThatWentAndCameInOneBatchGetsItsNewPlace) {
  picture.link(link(2, "eth0"));
  for (uint32_t local : {a1, a2, a3}) picture.address(address(2, local));
  update();
  picture.address(gone(address(2, a1)));
  picture.address(address(2, a1));
  update();
  EXPECT_EQ(publisher.addresses(2), (List{a2, a3, a1}));
}

TEST_F(StateTest, APromotionMovesTheAddressWithoutTakingItAway) {
  picture.link(link(2, "eth0"));
  picture.address(address(2, a1));
  picture.address(address(2, a2, true));
  picture.address(address(2, a3, true));
  update();
  publisher.calls.clear();
  picture.address(gone(address(2, a1)));
  picture.address(address(2, a3, false));
  update();
  EXPECT_EQ(publisher.addresses(2), (List{a3, a2}));
  for (const std::string &call : publisher.calls) EXPECT_NE(call, "remove_address 2 " + std::to_string(a3));
}

TEST_F(StateTest, ARenameKeepsTheInterface) {
  picture.link(link(2, "eth0"));
  picture.address(address(2, a1));
  update();
  const uint64_t made = publisher.interfaces.at(2).made;
  picture.link(link(2, "uplink"));
  update();
  EXPECT_EQ(publisher.interfaces.at(2).state.name, "uplink");
  EXPECT_EQ(publisher.interfaces.at(2).made, made);
  EXPECT_EQ(publisher.addresses(2), List{a1});
}

TEST_F(StateTest, ADeviceThatTakesOverAnIfindexIsANewInterface) {
  picture.link(link(2, "eth0"));
  picture.address(address(2, a1));
  update();
  const uint64_t made = publisher.interfaces.at(2).made;
  picture.link(link_gone(2));
  picture.address(address(2, b1));
  picture.link(link(2, "eth0"));
  update();
  EXPECT_NE(publisher.interfaces.at(2).made, made);
  EXPECT_EQ(publisher.addresses(2), List{b1});
}

TEST_F(StateTest, AfterADumpOnlyTheDifferenceIsTold) {
  picture.link(link(2, "eth0"));
  picture.link(link(3, "eth1"));
  for (uint32_t local : {a1, a2, a3}) picture.address(address(2, local));
  update();
  publisher.calls.clear();
  picture.doubt();
  picture.begin_dump();
  picture.dump_link(link(2, "eth0"));
  for (uint32_t local : {a1, a3, b1}) picture.dump_address(address(2, local));
  picture.end_dump(true);
  update();
  std::sort(publisher.calls.begin(), publisher.calls.end());
  EXPECT_EQ(publisher.calls, (std::vector<std::string>{"remove_address 2 " + std::to_string(a2), "remove_interface 3",
                                                       "set_address 2 " + std::to_string(b1)}));
  publisher.calls.clear();
  picture.address(address(2, a2));
  update();
  EXPECT_EQ(publisher.calls.size(), 1u) << "single events go on being single calls after a dump";
  EXPECT_EQ(publisher.addresses(2), (List{a1, a3, b1, a2}));
}

TEST_F(StateTest, ADumpRestoresTheKernelsOrder) {
  picture.link(link(2, "eth0"));
  for (uint32_t local : {a1, a2, a3}) picture.address(address(2, local));
  update();
  picture.begin_dump();
  picture.dump_link(link(2, "eth0"));
  for (uint32_t local : {a2, a3, a1}) picture.dump_address(address(2, local));
  picture.end_dump(true);
  update();
  EXPECT_EQ(publisher.addresses(2), (List{a2, a3, a1}));
}

TEST_F(StateTest, AfterLostEventsAReusedIfindexIsANewInterface) {
  picture.link(link(2, "eth0"));
  update();
  const uint64_t made = publisher.interfaces.at(2).made;
  picture.doubt();
  picture.begin_dump();
  LinkMessage other = link(2, "eth0");
  other.hardware_address[0] = 99;
  picture.dump_link(other);
  picture.end_dump(true);
  update();
  EXPECT_NE(publisher.interfaces.at(2).made, made);
}

TEST_F(StateTest, AVrfDeviceIsAContextAndItsLoopback) {
  picture.link(vrf(9, "blue", 1001));
  picture.link(in_vrf(3, "eth1", 9));
  picture.link(link(2, "eth0"));
  update();
  ASSERT_EQ(publisher.contexts.size(), 2u);
  EXPECT_EQ(publisher.contexts.at(2).name, "blue");
  EXPECT_EQ(publisher.contexts.at(2).table_id, 1001u);
  EXPECT_EQ(context_of(9), 2u);
  EXPECT_TRUE(publisher.interfaces.at(9).state.loopback);
  EXPECT_EQ(context_of(3), 2u);
  EXPECT_EQ(context_of(2), 1u);
}

TEST_F(StateTest, AnInterfaceMovesBetweenVrfsWithItsAddresses) {
  picture.link(vrf(9, "blue", 1001));
  picture.link(vrf(8, "red", 1002));
  picture.link(in_vrf(3, "eth1", 9));
  picture.address(address(3, a1));
  update();
  const uint64_t made = publisher.interfaces.at(3).made;
  const uint32_t before = context_of(3);
  picture.link(in_vrf(3, "eth1", 8));
  update();
  EXPECT_NE(context_of(3), before);
  EXPECT_EQ(publisher.interfaces.at(3).made, made);
  EXPECT_EQ(publisher.addresses(3), List{a1});
}

TEST_F(StateTest, WhenAVrfDeviceGoesItsMembersFallBackToDefault) {
  picture.link(vrf(9, "blue", 1001));
  picture.link(in_vrf(3, "eth1", 9));
  update();
  picture.link(link_gone(9));
  picture.link(link(3, "eth1"));
  EXPECT_TRUE(update());
  EXPECT_EQ(publisher.contexts.size(), 1u);
  EXPECT_EQ(context_of(3), 1u);
}

TEST_F(StateTest, AVrfThatComesAgainHasItsIdAgain) {
  picture.link(vrf(8, "red", 1002));
  picture.link(vrf(9, "blue", 1001));
  update();
  const std::string before = publisher.contexts.at(3).name;
  picture.link(link_gone(8));
  picture.link(link_gone(9));
  update();
  EXPECT_EQ(publisher.contexts.size(), 1u);
  picture.link(vrf(20, before, 1001));
  update();
  EXPECT_EQ(publisher.contexts.at(3).name, before);
}

TEST_F(StateTest, AVrfDeviceThatIsRenamedIsAnotherContext) {
  picture.link(vrf(9, "blue", 1001));
  picture.link(in_vrf(3, "eth1", 9));
  update();
  picture.link(vrf(9, "green", 1001));
  EXPECT_TRUE(update());
  EXPECT_EQ(publisher.contexts.size(), 2u);
  EXPECT_EQ(publisher.contexts.at(context_of(3)).name, "green");
}

TEST_F(StateTest, ANewTableOfAVrfIsPublished) {
  picture.link(vrf(9, "blue", 1001));
  update();
  picture.link(vrf(9, "blue", 1005));
  update();
  EXPECT_EQ(publisher.contexts.at(2).table_id, 1005u);
}

TEST_F(StateTest, PatternsPutInterfacesIntoContexts) {
  configure(R"({"contexts": [{"name": "lab", "id": 7, "table": 100, "router_id": "9.9.9.9", "interfaces": ["eth[12]"]},
                             {"name": "rest", "table": 101, "interfaces": ["eth*"]}]})");
  for (uint32_t i = 0; i < 4; ++i) picture.link(link(10 + i, "eth" + std::to_string(i)));
  picture.link(link(20, "wlan0"));
  update();
  EXPECT_EQ(publisher.contexts.at(7).router_id, 0x09090909u);
  EXPECT_EQ(context_of(11), 7u);
  EXPECT_EQ(context_of(12), 7u);
  EXPECT_EQ(publisher.contexts.at(context_of(10)).name, "rest");
  EXPECT_EQ(publisher.contexts.at(context_of(13)).name, "rest");
  EXPECT_EQ(context_of(20), 1u);
}

TEST_F(StateTest, MembershipOfAVrfBeatsAPattern) {
  configure(R"({"contexts": [{"name": "lab", "table": 100, "interfaces": ["*"]}]})");
  picture.link(vrf(9, "blue", 1001));
  picture.link(in_vrf(3, "eth1", 9));
  picture.link(link(4, "eth2"));
  update();
  EXPECT_EQ(publisher.contexts.at(context_of(3)).name, "blue");
  EXPECT_EQ(publisher.contexts.at(context_of(9)).name, "blue");
  EXPECT_EQ(publisher.contexts.at(context_of(4)).name, "lab");
}

TEST_F(StateTest, ARuleWithoutPatternsTellsMoreAboutAVrf) {
  configure(R"({"contexts": [{"name": "blue", "id": 44, "router_id": "1.2.3.4"}]})");
  update();
  EXPECT_EQ(publisher.contexts.size(), 1u) << "no device, no context";
  picture.link(vrf(9, "blue", 1001));
  update();
  EXPECT_EQ(publisher.contexts.at(44).router_id, 0x01020304u);
  EXPECT_EQ(publisher.contexts.at(44).table_id, 1001u);
}

TEST_F(StateTest, TheRouterIdAtTheTopIsTheDefaultContexts) {
  configure(R"({"router_id": "1.1.1.1"})");
  update();
  EXPECT_EQ(publisher.contexts.at(1).router_id, 0x01010101u);
}

TEST_F(StateTest, AReloadMovesInterfacesAndDropsContexts) {
  configure(R"({"contexts": [{"name": "lab", "table": 100, "interfaces": ["eth1"]}]})");
  picture.link(link(3, "eth1"));
  picture.address(address(3, a1));
  update();
  const uint64_t made = publisher.interfaces.at(3).made;
  configure("{}");
  EXPECT_TRUE(update());
  EXPECT_EQ(context_of(3), 1u);
  EXPECT_EQ(publisher.contexts.size(), 1u);
  EXPECT_EQ(publisher.interfaces.at(3).made, made);
}

TEST_F(StateTest, AReloadThatGivesContextsOtherIdsMakesTheirInterfacesAnew) {
  configure(R"({"contexts": [{"name": "a", "id": 2, "table": 100, "interfaces": ["eth1"]},
                             {"name": "b", "id": 3, "table": 101, "interfaces": ["eth2"]}]})");
  picture.link(link(3, "eth1"));
  picture.link(link(4, "eth2"));
  picture.address(address(3, a1));
  update();
  configure(R"({"contexts": [{"name": "a", "id": 3, "table": 100, "interfaces": ["eth1"]},
                             {"name": "b", "id": 2, "table": 101, "interfaces": ["eth2"]}]})");
  EXPECT_TRUE(update());
  EXPECT_EQ(publisher.contexts.at(3).name, "a");
  EXPECT_EQ(publisher.contexts.at(2).name, "b");
  EXPECT_EQ(context_of(3), 3u);
  EXPECT_EQ(context_of(4), 2u);
  EXPECT_EQ(publisher.addresses(3), List{a1});
}

TEST_F(StateTest, AnAllottedIdGivesWayToAConfiguredOne) {
  picture.link(vrf(9, "blue", 1001));
  update();
  EXPECT_EQ(publisher.contexts.at(2).name, "blue");
  configure(R"({"contexts": [{"name": "lab", "id": 2, "table": 100, "interfaces": ["eth1"]}]})");
  EXPECT_TRUE(update());
  EXPECT_EQ(publisher.contexts.at(2).name, "lab");
  EXPECT_EQ(publisher.contexts.at(context_of(9)).name, "blue");
}

TEST_F(StateTest, VirtualAddressesWaitForTheirInterfaceAndFollowItsName) {
  configure(R"({"vips": [{"interface": "eth0", "address": "10.0.0.100"}]})");
  EXPECT_TRUE(update());
  picture.link(link(2, "eth0"));
  update();
  EXPECT_EQ(publisher.interfaces.at(2).vips, std::set<uint32_t>{0x0a000064});
  picture.link(link(2, "old0"));
  picture.link(link(3, "eth0"));
  EXPECT_TRUE(update());
  EXPECT_TRUE(publisher.interfaces.at(2).vips.empty());
  EXPECT_EQ(publisher.interfaces.at(3).vips, std::set<uint32_t>{0x0a000064});
  picture.link(link_gone(3));
  EXPECT_TRUE(update());
  picture.link(link(3, "eth0"));
  EXPECT_TRUE(update());
  EXPECT_EQ(publisher.interfaces.at(3).vips, std::set<uint32_t>{0x0a000064});
}

TEST_F(StateTest, AReloadTakesVirtualAddressesBack) {
  configure(
      R"({"vips": [{"interface": "eth0", "address": "10.0.0.100"}, {"interface": "eth0", "address": "10.0.0.101"}]})");
  picture.link(link(2, "eth0"));
  update();
  configure(R"({"vips": [{"interface": "eth0", "address": "10.0.0.101"}]})");
  EXPECT_TRUE(update());
  EXPECT_EQ(publisher.interfaces.at(2).vips, std::set<uint32_t>{0x0a000065});
}

TEST_F(StateTest, AnUnnumberedInterfaceNeedsBothInterfaces) {
  configure(R"({"unnumbered": [{"interface": "tun0", "source": "lo"}]})");
  picture.link(link(5, "tun0"));
  update();
  EXPECT_EQ(publisher.interfaces.at(5).lender.first, 0u);
  picture.link(link(1, "lo"));
  update();
  EXPECT_EQ(publisher.interfaces.at(5).lender, (std::pair<uint32_t, std::string>{1, "lo"}));
  picture.link(link_gone(1));
  EXPECT_TRUE(update());
  EXPECT_EQ(publisher.interfaces.at(5).lender.first, 0u);
}

TEST_F(StateTest, ASourceThatIsAnotherDeviceNowIsLentAnew) {
  configure(R"({"unnumbered": [{"interface": "tun0", "source": "eth0"}]})");
  picture.link(link(5, "tun0"));
  picture.link(link(6, "eth0"));
  update();
  publisher.calls.clear();
  picture.link(link_gone(6));
  picture.link(link(6, "eth0"));
  EXPECT_TRUE(update());
  EXPECT_NE(std::find(publisher.calls.begin(), publisher.calls.end(), "set_unnumbered 5 0"), publisher.calls.end());
  EXPECT_EQ(publisher.interfaces.at(5).lender.first, 6u);
}

TEST_F(StateTest, WhatThePublisherRefusedIsTriedAgainWhenAllIsCompared) {
  publisher.room = 1;
  picture.link(link(2, "eth0"));
  picture.link(link(3, "eth1"));
  picture.address(address(3, a1));
  EXPECT_FALSE(update());
  EXPECT_TRUE(state.retry_due());
  publisher.room = 2;
  Changes all;
  all.everything = true;
  EXPECT_TRUE(state.update(picture, all));
  EXPECT_FALSE(state.retry_due());
  EXPECT_EQ(publisher.addresses(3), List{a1});
}

TEST_F(StateTest, NamesThatTwoInterfacesExchangeEndUpRight) {
  configure(R"({"vips": [{"interface": "eth0", "address": "10.0.0.100"}]})");
  picture.link(link(2, "eth0"));
  picture.link(link(3, "eth1"));
  update();
  picture.link(link(2, "tmp"));
  picture.link(link(3, "eth0"));
  picture.link(link(2, "eth1"));
  EXPECT_TRUE(update());
  EXPECT_TRUE(publisher.interfaces.at(2).vips.empty());
  EXPECT_EQ(publisher.interfaces.at(3).vips.size(), 1u);
}

}  // namespace
