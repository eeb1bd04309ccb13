// SPDX-License-Identifier: Apache-2.0
// Groups and channels that clients join through ipd: in the kernel's tables, as published, and gone with the last
// client that wanted them.
#include <signal.h>

#include <algorithm>
#include <vector>

#include "asked_client.h"
#include "im.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "kernel_memberships.h"

namespace {

using ipd_test::IpdTest;
using test_support::AskedClient;
using test_support::kernel_all_multicast;
using test_support::kernel_groups;
using test_support::kernel_multicast_flag;
using test_support::kernel_sources;
using test_support::SourceFilters;
using GroupUsers = std::map<uint32_t, unsigned>;
using Groups = std::vector<uint32_t>;

constexpr uint32_t all_hosts = 0xe0000001, ospf = 0xe0000005, stream = 0xef010203, channel = 0xe8010203;
constexpr uint32_t source = 0x0a00002a;
constexpr auto deadline = std::chrono::seconds(60);

bool wait_until(const std::function<bool()> &condition) {
  return test_support::wait_until(condition, deadline);
}

bool kernel_has(const std::string &interface, const GroupUsers &groups) {
  return wait_until([&] { return kernel_groups(interface) == groups; });
}

bool kernel_has_sources(const std::string &interface, const SourceFilters &sources) {
  return wait_until([&] { return kernel_sources(interface) == sources; });
}

bool published(uint32_t iod, Groups expected) {
  std::sort(expected.begin(), expected.end());
  return wait_until([&] { return ipd_test::groups_of(iod) == expected; });
}

class IpdMembershipsTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_pair("va", "vb");
    start_ipd();
  }
};

TEST_F(IpdMembershipsTest, JoinsAndLeavesAreInTheKernelsTablesAndPublished) {
  AskedClient client("igmp");
  attach();
  const uint32_t va = iod("va");
  ASSERT_EQ(client.ip_join_group(stream, va), 1u);
  ASSERT_EQ(client.ip_join_channel(channel, source, va), 1u);
  ASSERT_EQ(client.ip_join_channel(stream, source, va), 1u);
  EXPECT_TRUE(kernel_has("va", {{stream, 2}, {channel, 1}})) << ipd_.output();
  EXPECT_TRUE(kernel_has_sources("va", {{{channel, source}, {1, 0}}, {{stream, source}, {1, 0}}}));
  EXPECT_TRUE(published(va, {all_hosts, stream, channel}));
  EXPECT_TRUE(published(iod("vb"), {all_hosts}));
  EXPECT_EQ(ip_is_group_joined(stream, va), 1u);

  EXPECT_EQ(client.ip_leave_group(stream, va), 1u);
  EXPECT_TRUE(kernel_has("va", {{stream, 1}, {channel, 1}})) << "from one source still";
  EXPECT_EQ(client.ip_leave_channel(stream, source, va), 1u);
  EXPECT_EQ(client.ip_leave_channel(channel, source, va), 1u);
  EXPECT_TRUE(kernel_has("va", {}));
  EXPECT_TRUE(published(va, {all_hosts}));
}

TEST_F(IpdMembershipsTest, SixtyFourGroupsOfAClientThatIsKilledAreAllThereAndAllGone) {
  AskedClient client("igmp");
  attach();
  const uint32_t va = iod("va");
  GroupUsers expected;
  Groups listed{all_hosts};
  for (uint32_t i = 0; i < 64; ++i) {
    ASSERT_EQ(client.ip_join_group(stream + i, va), 1u);
    expected[stream + i] = 1;
    listed.push_back(stream + i);
  }
  EXPECT_TRUE(kernel_has("va", expected));
  EXPECT_TRUE(published(va, listed));
  client.kill();
  EXPECT_TRUE(kernel_has("va", {}));
  EXPECT_TRUE(published(va, {all_hosts}));
}

TEST_F(IpdMembershipsTest, AGroupOfTwoClientsStaysUntilTheSecondIsGone) {
  AskedClient one("one");
  AskedClient other("other");
  attach();
  const uint32_t va = iod("va");
  ASSERT_EQ(one.ip_join_group(stream, va), 1u);
  ASSERT_EQ(other.ip_join_group(stream, va), 1u);
  ASSERT_EQ(one.ip_join_group(ospf, va), 1u);
  EXPECT_TRUE(kernel_has("va", {{stream, 1}, {ospf, 1}}));
  one.kill();
  EXPECT_TRUE(kernel_has("va", {{stream, 1}}));
  other.kill();
  EXPECT_TRUE(kernel_has("va", {}));
}

TEST_F(IpdMembershipsTest, ARegistrationThatEndsTakesNoMembershipWithIt) {
  AskedClient client("igmp");
  attach();
  ASSERT_EQ(client.ip_join_group(stream, iod("va")), 1u);
  ASSERT_EQ(client.ip_deregister(), 1u);
  ASSERT_EQ(client.ip_join_group(ospf, iod("va")), 1u);
  EXPECT_TRUE(kernel_has("va", {{stream, 1}, {ospf, 1}}));
}

TEST_F(IpdMembershipsTest, AnInterfaceThatIsMadeAnewHasTheMembershipsOfItsName) {
  AskedClient client("igmp");
  attach();
  const uint32_t before = iod("va");
  for (uint32_t i = 0; i < 30; ++i) ASSERT_EQ(client.ip_join_group(stream + i, before), 1u);
  ASSERT_EQ(client.ip_join_channel(channel, source, before), 1u);
  ASSERT_EQ(client.ip_enable_multicast(before), 1u);
  ASSERT_TRUE(wait_until([] { return kernel_all_multicast("va") == 1; }));
  const GroupUsers all = kernel_groups("va");
  ASSERT_EQ(all.size(), 31u);
  ip("link del va");
  ASSERT_TRUE(wait_until([&] { return lcache_im_get_extension1(before, IP_COMPONENT) == nullptr; }));
  ASSERT_EQ(client.ip_leave_group(stream, before), 1u) << "under the iod that was";
  ASSERT_EQ(client.ip_register(), 1u) << "its reply says that what was asked for before is done";
  ip("link add va type veth peer name vb");
  ip("link set va up");
  GroupUsers expected = all;
  expected.erase(stream);
  EXPECT_TRUE(kernel_has("va", expected)) << ipd_.output();
  EXPECT_TRUE(kernel_has_sources("va", {{{channel, source}, {1, 0}}}));
  EXPECT_TRUE(wait_until([] { return kernel_all_multicast("va") == 1; }));
  const uint32_t after = iod("va");
  EXPECT_NE(after, before);
  ASSERT_EQ(client.ip_leave_group(stream + 1, after), 1u);
  expected.erase(stream + 1);
  EXPECT_TRUE(kernel_has("va", expected));
  client.kill();
  EXPECT_TRUE(kernel_has("va", {}));
  EXPECT_TRUE(wait_until([] { return kernel_all_multicast("va") == 0; }));
}

TEST_F(IpdMembershipsTest, AnInterfaceUnderAnIfindexThatWasAnothersHasNoMembershipsOfThat) {
  AskedClient client("igmp");
  attach();
  const uint32_t before = iod("va");
  ASSERT_EQ(client.ip_join_group(stream, before), 1u);
  EXPECT_TRUE(kernel_has("va", {{stream, 1}}));
  const int index = ifindex("va");
  ip("link del va");
  ip("link add vn index " + std::to_string(index) + " type veth peer name vo");
  ip("link set vn up");
  ASSERT_TRUE(wait_until([&] { return iod("vn") != 0 && iod("vn") != before; }));
  ASSERT_EQ(client.ip_join_group(ospf, iod("vn")), 1u);
  EXPECT_TRUE(kernel_has("vn", {{ospf, 1}}));
  ip("link set vn name va");
  EXPECT_TRUE(kernel_has("va", {{ospf, 1}, {stream, 1}})) << "it has the name now";
}

TEST_F(IpdMembershipsTest, MembershipsOutliveDownAndUpAndAreTakenWhileDown) {
  AskedClient client("igmp");
  attach();
  const uint32_t va = iod("va");
  ASSERT_EQ(client.ip_join_group(stream, va), 1u);
  ASSERT_EQ(client.ip_join_channel(channel, source, va), 1u);
  EXPECT_TRUE(kernel_has("va", {{stream, 1}, {channel, 1}}));
  ip("link set va down");
  ASSERT_EQ(client.ip_join_group(ospf, va), 1u);
  EXPECT_TRUE(kernel_has("va", {{stream, 1}, {channel, 1}, {ospf, 1}}));
  ip("link set va up");
  EXPECT_TRUE(published(va, {all_hosts, stream, channel, ospf}));
  EXPECT_TRUE(kernel_has("va", {{stream, 1}, {channel, 1}, {ospf, 1}}));
  EXPECT_TRUE(kernel_has_sources("va", {{{channel, source}, {1, 0}}}));
}

TEST_F(IpdMembershipsTest, MembershipsComeBackWithTheIpv4StateOfTheirInterface) {
  AskedClient client("igmp");
  attach();
  const uint32_t lo = iod("lo");
  ASSERT_EQ(client.ip_join_group(stream, lo), 1u);
  EXPECT_TRUE(kernel_has("lo", {{stream, 1}}));
  ip("link set lo mtu 67");
  ASSERT_TRUE(kernel_has("lo", {}));
  ASSERT_TRUE(wait_until([&] { return lcache_im_get_if_mtu(lo) == 67; }));
  ASSERT_EQ(client.ip_join_group(ospf, lo), 1u);
  ip("link set lo mtu 65536");
  EXPECT_TRUE(kernel_has("lo", {{stream, 1}, {ospf, 1}}));
}

TEST_F(IpdMembershipsTest, AllOfMulticastIsOnWhileAClientHasItOn) {
  AskedClient one("one");
  AskedClient other("other");
  attach();
  const uint32_t va = iod("va");
  ip("link set va multicast off");
  ASSERT_TRUE(wait_until([&] { return ip_is_multicast_enabled(va) == 0; }));
  ASSERT_EQ(one.ip_enable_multicast(va), 1u);
  EXPECT_TRUE(wait_until([&] { return ip_is_multicast_enabled(va) == 1; }));
  EXPECT_EQ(kernel_all_multicast("va"), 1);
  ASSERT_EQ(other.ip_enable_multicast(va), 1u);
  ASSERT_EQ(other.ip_join_group(stream, va), 1u);
  ASSERT_TRUE(kernel_has("va", {{stream, 1}})) << "its earlier request is done too";
  EXPECT_EQ(kernel_all_multicast("va"), 1);
  one.kill();
  ASSERT_EQ(other.ip_leave_group(stream, va), 1u);
  ASSERT_TRUE(kernel_has("va", {}));
  EXPECT_EQ(kernel_all_multicast("va"), 1);
  EXPECT_TRUE(kernel_multicast_flag("va"));
  ASSERT_EQ(other.ip_disable_multicast(va), 1u);
  EXPECT_TRUE(wait_until([&] { return ip_is_multicast_enabled(va) == 0; }));
  EXPECT_EQ(kernel_all_multicast("va"), 0);
}

TEST_F(IpdMembershipsTest, AnIpdThatStopsLeavesInterfacesAsTheyWere) {
  AskedClient client("igmp");
  attach();
  ip("link set va multicast off");
  ASSERT_EQ(client.ip_enable_multicast(iod("va")), 1u);
  ASSERT_EQ(client.ip_enable_multicast(iod("vb")), 1u);
  ASSERT_EQ(client.ip_join_group(stream, iod("vb")), 1u);
  ASSERT_TRUE(kernel_has("vb", {{stream, 1}}));
  ASSERT_TRUE(kernel_multicast_flag("va"));
  ipd_.signal(SIGTERM);
  ASSERT_EQ(ipd_.wait(), 0);
  EXPECT_FALSE(kernel_multicast_flag("va"));
  EXPECT_TRUE(kernel_multicast_flag("vb"));
  EXPECT_EQ(kernel_all_multicast("va"), 0);
  EXPECT_EQ(kernel_all_multicast("vb"), 0);
  EXPECT_EQ(kernel_groups("vb"), GroupUsers{});
}

TEST_F(IpdMembershipsTest, JoiningByIndexWithoutARegistrationRegistersAndIsNotSent) {
  AskedClient client("igmp", AskedClient::Registered::no);
  attach();
  const auto va = static_cast<uint32_t>(ifindex("va"));
  EXPECT_EQ(client.ip_join_group_if(stream, va), 0u) << "the registration it makes has no queue to send from";
  ASSERT_EQ(client.ip_register(), 1u);
  EXPECT_EQ(client.ip_join_group_if(ospf, va), 1u);
  EXPECT_TRUE(kernel_has("va", {{ospf, 1}}));
  EXPECT_EQ(client.ip_leave_group_if(ospf, va), 1u);
  EXPECT_TRUE(kernel_has("va", {}));
}

TEST_F(IpdMembershipsTest, WhatMakesNoSenseIsRefusedAndSaidOnce) {
  AskedClient client("igmp");
  attach();
  const uint32_t va = iod("va");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(client.ip_join_group(stream, 4711), 1u);
  EXPECT_EQ(client.ip_leave_group(stream, va), 1u);
  EXPECT_EQ(client.ip_join_group(stream, va), 1u);
  EXPECT_TRUE(kernel_has("va", {{stream, 1}}));
  const std::string said = ipd_.output();
  const auto first = said.find("no such interface");
  EXPECT_NE(first, std::string::npos) << said;
  EXPECT_EQ(said.find("no such interface", first + 1), std::string::npos) << said;
}

TEST_F(IpdMembershipsTest, MembershipsEndWithIpdAndAreJoinedAgainWithTheNextOne) {
  AskedClient client("igmp");
  attach();
  ASSERT_EQ(client.ip_join_group(stream, iod("va")), 1u);
  ASSERT_EQ(client.ip_enable_multicast(iod("va")), 1u);
  EXPECT_TRUE(wait_until([] { return kernel_all_multicast("va") == 1; }));
  ipd_.signal(SIGKILL);
  ipd_.wait();
  EXPECT_TRUE(kernel_has("va", {}));
  EXPECT_EQ(kernel_all_multicast("va"), 0);
  EXPECT_EQ(client.ip_join_group(stream, iod("va")), 0u) << "nobody is there";
  start_ipd();
  ASSERT_EQ(client.ip_register(), 1u);
  ASSERT_EQ(client.ip_join_group(stream, iod("va")), 1u);
  EXPECT_TRUE(kernel_has("va", {{stream, 1}}));
  EXPECT_TRUE(published(iod("va"), {all_hosts, stream}));
}

}  // namespace
