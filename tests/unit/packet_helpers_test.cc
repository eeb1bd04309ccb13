// SPDX-License-Identifier: Apache-2.0
// Replication's flag, and what stands beside the packet calls: the mark for a restart, the source towards a
// destination, a bare header, the kind of a destination.
#include "unit/packet_calls.h"
#include "unit/route_test.h"

namespace unit {
namespace {

using PacketReplicateTest = PacketTest;

TEST_F(PacketReplicateTest, OnlyOneBitOfTheFlagIsCarried) {
  for (const auto &[flag, carried] : {std::pair{0x00, 0}, std::pair{0x01, 1}, std::pair{0xfe, 0}, std::pair{0xff, 1}}) {
    EXPECT_EQ(ip_send_replicate(packet(), 1, 2, static_cast<uint8_t>(flag)), 1u);
    EXPECT_EQ(sent_bytes()[128], carried) << flag;
    platform().sent.clear();
  }
}

TEST_F(PacketReplicateTest, ANullPacketMakesNoCall) {
  EXPECT_EQ(ip_send_replicate(nullptr, 1, 2, 0), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(PacketReplicateTest, NothingIsToldOfSends) {
  dbg_ip_api_misc = dbg_ip_cl_output = 1;
  EXPECT_EQ(ip_send_replicate(packet(), 1, 2, 0), 1u);
  EXPECT_EQ(ip_send_replicate(nullptr, 1, 2, 0), 0u);
  platform().scripts.fail("mts_send");
  EXPECT_EQ(ip_send_replicate(packet(), 1, 2, 0), 0u);
  EXPECT_STREQ(dbg_str, "");
}

// ------------------------------------------------------------ restart

using RestartTest = PacketTest;

TEST_F(RestartTest, MarksTheClientAndNothingElse) {
  struct ip_client before = client;
  before.reg_aux8 = 1;
  before.reg_aux32 = 0xfffffffe;
  EXPECT_EQ(ip_dont_forward_ra_on_restart("ospf", 3, &client, 0xfffffffe), 1u);
  EXPECT_EQ(std::memcmp(&client, &before, sizeof client), 0);
  EXPECT_EQ(ip_client.reg_aux8, 0);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(RestartTest, WithoutAClientNothingIsMarked) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  EXPECT_EQ(ip_dont_forward_ra_on_restart(nullptr, 255, nullptr, 7), 0u);
  EXPECT_EQ(debug_lines(), (Calls{"ip_dont_forward_ra_on_restart ((null) 255 0x0 ivl 7)\n",
                                  "ip_dont_forward_ra_on_restart: bad client\n"}));
  EXPECT_EQ(ip_client.reg_aux8, 0);
}

TEST_F(RestartTest, IsTraced) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  EXPECT_EQ(ip_dont_forward_ra_on_restart("ospf", 3, &client, 0xfffffffe), 1u);
  EXPECT_EQ(debug_lines(), Calls{"ip_dont_forward_ra_on_restart (ospf 3 " + shown(&client) + " ivl 4294967294)\n"});
}

TEST_F(RestartTest, TheMarkLeavesWithTheDeregistration) {
  ip_dont_forward_ra_on_restart("ospf", 3, &ip_client, 90);
  EXPECT_EQ(ip_deregister("ospf", 89, &ip_client), 1);
  EXPECT_EQ(sent_bytes()[124], 1);
  EXPECT_EQ(sent_bytes()[128], 90);
}

// ------------------------------------------------------------ the source towards a destination

class LocalFromRemoteTest : public RouteTest {
 protected:
  LocalFromRemoteTest() {
    database.interface(5, {{address(10, 0, 0, 1), 24}});
    database.node(red, address(10, 0, 0, 1), {5});
    attach();
  }
  static uint32_t local_from(uint32_t remote) { return ip_local_from_remote(2, in_network_order(remote)); }
};

TEST_F(LocalFromRemoteTest, IsWhatTheRouteSays) {
  add_route("default", {.length = 0, .first_iod = 5});
  const uint32_t remote = address(192, 0, 2, 1);
  EXPECT_EQ(local_from(remote), address(10, 0, 0, 1));
  uint32_t iod = 0;
  EXPECT_EQ(local_from(remote), ip_get_route(2, in_network_order(remote), &iod));
}

TEST_F(LocalFromRemoteTest, IsNoneWithoutARouteOrAContext) {
  EXPECT_EQ(local_from(address(192, 0, 2, 1)), 0u);
  EXPECT_EQ(ip_local_from_remote(77, in_network_order(address(192, 0, 2, 1))), 0u);
}

// In host order, like every answer, though the question is in network order.
TEST_F(LocalFromRemoteTest, TowardsLoopbackIsLoopbackWithoutAQuestion) {
  EXPECT_EQ(local_from(address(127, 0, 0, 1)), 0x7f000001u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(LocalFromRemoteTest, TowardsAMartianIsNoneWithoutAQuestion) {
  for (const uint32_t martian : {address(127, 0, 0, 2), 0u, address(0, 1, 2, 3), 0xffffffffu}) {
    EXPECT_EQ(local_from(martian), 0u) << martian;
  }
  EXPECT_EQ(calls(), Calls{});
}

// 1.0.0.127 is 127.0.0.1 in the other byte order: an address like any other.
TEST_F(LocalFromRemoteTest, ReadsTheRemoteInNetworkOrder) {
  add_route("default", {.length = 0, .first_iod = 5});
  EXPECT_EQ(local_from(address(1, 0, 0, 127)), address(10, 0, 0, 1));
}

// ------------------------------------------------------------ headers

TEST(BareHeader, HasTheGivenLengthAsItIsAndAddressesInNetworkOrder) {
  Bytes room(22, 0x5a);
  EXPECT_EQ(ip_l3_encap(room.data() + 1, 0x0014, 89, 0x0a000102, 0xe0000005), 1u);
  EXPECT_EQ(room, (Bytes{0x5a, 0x45, 0, 0x14, 0x00, 0, 0, 0, 0, 255, 89, 0, 0, 10, 0, 1, 2, 224, 0, 0, 5, 0x5a}));
}

// ------------------------------------------------------------ kinds of destinations

class DestinationKindTest : public LibraryTest {
 protected:
  DestinationKindTest() {
    database.interface(5, {{address(240, 0, 0, 1), 24}, {address(10, 0, 0, 1), 24}});
    attach();
  }
};

TEST_F(DestinationKindTest, ClassDIsMulticast) {
  EXPECT_EQ(ip_packet_stats_type(address(224, 0, 0, 0), 5), 1u);
  EXPECT_EQ(ip_packet_stats_type(address(239, 255, 255, 255), 5), 1u);
}

TEST_F(DestinationKindTest, AllOnesIsBroadcastWhateverTheInterface) {
  EXPECT_EQ(ip_packet_stats_type(0xffffffff, 5), 2u);
  EXPECT_EQ(ip_packet_stats_type(0xffffffff, 0), 2u);
}

TEST_F(DestinationKindTest, ADirectedBroadcastIsBroadcastOnItsInterface) {
  EXPECT_EQ(ip_packet_stats_type(address(10, 0, 0, 255), 5), 2u);
  EXPECT_EQ(ip_packet_stats_type(address(10, 0, 0, 0), 5), 2u);
  EXPECT_EQ(ip_packet_stats_type(address(10, 0, 0, 255), 6), 0u);
  EXPECT_EQ(ip_packet_stats_type(address(240, 0, 0, 0), 5), 2u);
}

TEST_F(DestinationKindTest, EverythingElseIsUnicast) {
  EXPECT_EQ(ip_packet_stats_type(address(10, 0, 0, 2), 5), 0u);
  EXPECT_EQ(ip_packet_stats_type(address(223, 255, 255, 255), 5), 0u);
  EXPECT_EQ(ip_packet_stats_type(address(240, 0, 0, 0), 6), 0u);
}

}  // namespace
}  // namespace unit
