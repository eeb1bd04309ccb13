// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/input.h"

#include "ipd/reception_rig.h"

namespace {

using namespace reception_rig;

constexpr int32_t driver = 10;

class PacketInputTest : public testing::Test {
 protected:
  PacketInputTest() {
    box_.add(5, 50, "eth0");
    box_.add(6, 60, "eth1").state.context_id = 7;
    box_.add(7, 1, "lo").state.loopback = true;
  }
  static ip_msg_input message(uint32_t iod, uint32_t context_id) {
    ip_msg_input made{};
    made.iod = iod;
    made.context_id = context_id;
    return made;
  }
  Outcome hand_in_bytes(Bytes packet, uint32_t iod = 5, uint32_t context_id = 0) {
    const ip_msg_input record = message(iod, context_id);
    Request request = request_of(record, IP_MSG_INPUT, driver, packet);
    return input_.handle(request);
  }
  Outcome hand_in(const PacketFields &fields, uint32_t iod = 5, uint32_t context_id = 0) {
    return hand_in_bytes(packet_with(fields), iod, context_id);
  }

  test_support::FakeBox box_;
  ListedAddresses addresses_;
  RecordingLocal local_;
  Input input_{box_, addresses_, local_};
};

TEST_F(PacketInputTest, APacketForUsIsDelivered) {
  EXPECT_EQ(hand_in(PacketFields{}), Outcome::done);
  ASSERT_EQ(local_.given.size(), 1u);
  EXPECT_EQ(local_.given[0].first, (Arrival{.iod = 5, .context_id = 1, .from_pid = driver}));
  EXPECT_EQ(local_.given[0].second, packet_with({}));
}

TEST_F(PacketInputTest, WhatDeliverySaysIsTheOutcome) {
  local_.outcome = Outcome::queue_full;
  EXPECT_EQ(hand_in(PacketFields{}), Outcome::queue_full);
}

TEST_F(PacketInputTest, TheFramesSourceIsHandedOnOnlyOfAPacketToConsume) {
  ip_msg_input record = message(5, 0);
  const std::array<uint8_t, 6> mac{2, 3, 4, 5, 6, 7};
  std::ranges::copy(mac, record.src_l2_addr);
  Bytes packet = packet_with({});
  Request consume = request_of(record, IP_MSG_CONSUME, driver, packet);
  Request input = request_of(record, IP_MSG_INPUT, driver, packet);
  EXPECT_EQ(input_.handle(consume), Outcome::done);
  EXPECT_EQ(input_.handle(input), Outcome::done);
  ASSERT_EQ(local_.given.size(), 2u);
  EXPECT_EQ(local_.given[0].first.src_l2, mac);
  EXPECT_EQ(local_.given[1].first.src_l2, (std::array<uint8_t, 6>{}));
}

TEST_F(PacketInputTest, AnInterfaceHasToBeThere) {
  EXPECT_EQ(hand_in(PacketFields{}, 9), Outcome::no_interface);
  EXPECT_TRUE(local_.given.empty());
}

TEST_F(PacketInputTest, WithoutAnInterfaceTheDefaultContextCounts) {
  EXPECT_EQ(hand_in(PacketFields{}, 0), Outcome::done);
  EXPECT_EQ(local_.given.at(0).first, (Arrival{.iod = 0, .context_id = 1, .from_pid = driver}));
}

TEST_F(PacketInputTest, TheMessagesContextStandsBeforeTheInterfaces) {
  addresses_.local.insert({7, our_address + 9});
  EXPECT_EQ(hand_in({.destination = our_address + 9}, 5, 7), Outcome::done);
  EXPECT_EQ(local_.given.at(0).first, (Arrival{.iod = 5, .context_id = 7, .from_pid = driver}));
  EXPECT_EQ(hand_in(PacketFields{}, 5, 7), Outcome::no_receiver);
  EXPECT_EQ(hand_in({.destination = our_address + 9}, 6, 7), Outcome::done);
}

TEST_F(PacketInputTest, AContextHasToBeThere) {
  EXPECT_EQ(hand_in(PacketFields{}, 5, 99), Outcome::no_context);
}

TEST_F(PacketInputTest, ABadChecksumIsRefused) {
  Bytes packet = packet_with({});
  packet[ipv4::checksum_at] ^= std::byte{1};
  EXPECT_EQ(hand_in_bytes(packet), Outcome::bad_packet);
  ipv4::write16(packet, ipv4::checksum_at, 0);
  EXPECT_EQ(hand_in_bytes(packet), Outcome::bad_packet);
  EXPECT_TRUE(local_.given.empty());
}

TEST_F(PacketInputTest, AMissingTotalLengthIsRefused) {
  Bytes packet = packet_with({});
  ipv4::write16(packet, ipv4::total_length_at, 0);
  ipv4::write_checksum(packet);
  EXPECT_EQ(hand_in_bytes(packet), Outcome::bad_packet);
}

TEST_F(PacketInputTest, SourcesThatNoWireCarriesAreRefused) {
  for (const uint32_t source :
       {0u, 0x00000001u, 0x7f000001u, group, 0xf0000001u, 0xffffffffu, our_address, subnet_broadcast}) {
    EXPECT_EQ(hand_in({.source = source}), Outcome::bad_packet) << std::hex << source;
  }
  EXPECT_TRUE(local_.given.empty());
}

TEST_F(PacketInputTest, WhoDoesNotKnowHisAddressMayAskEverybody) {
  EXPECT_EQ(hand_in({.source = 0, .destination = 0xffffffff}), Outcome::done);
  EXPECT_EQ(hand_in({.source = 0, .destination = all_hosts}), Outcome::done);
}

TEST_F(PacketInputTest, ByALoopbackInterfaceOurOwnAddressesComeIn) {
  EXPECT_EQ(hand_in({.source = 0x7f000001, .destination = 0x7f000001}, 7), Outcome::done);
  EXPECT_EQ(hand_in({.source = our_address}, 7), Outcome::done);
}

TEST_F(PacketInputTest, WhatIsForSomebodyElseHasNoReceiver) {
  for (const uint32_t destination : {neighbor, 0x7f000001u, 0u, 0xf0000001u}) {
    EXPECT_EQ(hand_in({.source = neighbor + 1, .destination = destination}), Outcome::no_receiver);
  }
  EXPECT_TRUE(local_.given.empty());
}

TEST_F(PacketInputTest, GroupsAndBroadcastsAreForUs) {
  for (const uint32_t destination : {group, all_hosts, 0xffffffffu, subnet_broadcast}) {
    EXPECT_EQ(hand_in({.destination = destination}), Outcome::done) << std::hex << destination;
  }
  EXPECT_EQ(local_.given.size(), 4u);
}

TEST_F(PacketInputTest, TheBroadcastAddressOfAnotherInterfaceIsNotForUs) {
  addresses_.local.insert({7, our_address});
  EXPECT_EQ(hand_in({.destination = subnet_broadcast}, 6), Outcome::no_receiver);
}

}  // namespace
