// SPDX-License-Identifier: Apache-2.0
// About which packets an ICMP error may be sent, rule by rule.
#include "ipd/packet/icmp_rules.h"

#include <gtest/gtest.h>

#include "ipd/icmp_packets.h"

namespace {

using namespace icmp_packets;
using Attached = std::vector<std::pair<uint32_t, ipd::AddressState>>;

ipd::AddressState attached_address(uint32_t addr, uint8_t length) {
  return {.addr = addr, .mask_len = length, .secondary = false, .scope = 0};
}

const Attached attached = {{1, attached_address(own, 24)},
                           {2, attached_address(address(172, 16, 5, 5), 30)},
                           {3, attached_address(address(198, 51, 100, 0), 31)},
                           {4, attached_address(address(203, 0, 113, 255), 32)}};

Objection to(const Bytes &packet) {
  return objection_to_error(packet, attached);
}
Objection to_source(uint32_t source) {
  return to(packet_of({.source = source}));
}
Objection to_destination(uint32_t destination) {
  return to(packet_of({.destination = destination}));
}
Bytes with_checksum(Bytes packet) {
  ipv4::write_checksum(packet);
  return packet;
}

TEST(IcmpRules, NothingStandsAgainstAnOrdinaryPacket) {
  EXPECT_EQ(to(packet_of({})), Objection::none);
}

TEST(IcmpRules, NothingStandsAgainstAPacketWithoutData) {
  EXPECT_EQ(to(packet_of({}, 0)), Objection::none);
}

TEST(IcmpRules, NothingStandsAgainstAPacketWithTheLongestHeader) {
  EXPECT_EQ(to(packet_of({.options = std::vector<uint8_t>(40, 1)})), Objection::none);
}

TEST(IcmpRules, WhatIsNoIpv4PacketHasNoError) {
  const Bytes good = packet_of({}, 0);
  for (size_t length = 0; length < good.size(); ++length) {
    EXPECT_EQ(to({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length)}), Objection::no_packet) << length;
  }
  for (const int first : {0x55, 0x65, 0x05, 0x44, 0x46, 0x4f}) {
    Bytes bad = good;
    bad[0] = static_cast<std::byte>(first);
    EXPECT_EQ(to(bad), Objection::no_packet) << first;
  }
}

TEST(IcmpRules, ATotalLengthWithoutRoomForTheHeaderIsNoPackets) {
  Bytes packet = packet_of({});
  ipv4::write16(packet, ipv4::total_length_at, 19);
  EXPECT_EQ(to(with_checksum(packet)), Objection::no_packet);
}

TEST(IcmpRules, ATotalLengthThatIsNotFilledInYetIsNoObstacle) {
  Bytes packet = packet_of({});
  ipv4::write16(packet, ipv4::total_length_at, 0);
  EXPECT_EQ(to(with_checksum(packet)), Objection::none);
}

TEST(IcmpRules, APacketOfWhichOnlyTheBeginningIsThereMayHaveOne) {
  Bytes packet = packet_of({}, 1400);
  packet.resize(28);
  EXPECT_EQ(to(packet), Objection::none);
}

TEST(IcmpRules, AHeaderWithABadChecksumHasNoError) {
  Bytes packet = packet_of({});
  ipv4::write8(packet, ipv4::ttl_at, 77);
  EXPECT_EQ(to(packet), Objection::bad_checksum);
}

TEST(IcmpRules, AChecksumThatIsNotFilledInYetIsNoObstacle) {
  Bytes packet = packet_of({});
  ipv4::write16(packet, ipv4::checksum_at, 0);
  EXPECT_EQ(to(packet), Objection::none);
}

TEST(IcmpRules, OfFragmentsOnlyTheFirstHasAnError) {
  EXPECT_EQ(to(packet_of({.fragment = ipv4::more_fragments})), Objection::none);
  EXPECT_EQ(to(packet_of({.fragment = ipv4::more_fragments | 1})), Objection::later_fragment);
  EXPECT_EQ(to(packet_of({.fragment = 0x1fff})), Objection::later_fragment);
  EXPECT_EQ(to(packet_of({.fragment = ipv4::dont_fragment})), Objection::none);
}

TEST(IcmpRules, IcmpErrorsHaveNoError) {
  for (const int type : {3, 4, 5, 11, 12}) {
    EXPECT_EQ(to(icmp_packet(type)), Objection::icmp_error) << type;
  }
}

TEST(IcmpRules, IcmpOfNoKnownTypeMayBeAnErrorAndHasNone) {
  for (const int type : {1, 2, 6, 7, 19, 31, 41, 44, 255}) {
    EXPECT_EQ(to(icmp_packet(type)), Objection::icmp_error) << type;
  }
}

TEST(IcmpRules, IcmpWhoseTypeIsNotThereHasNone) {
  EXPECT_EQ(to(packet_of({.protocol = icmp::protocol}, 0)), Objection::icmp_error);
}

TEST(IcmpRules, IcmpQueriesAndRepliesHaveAnError) {
  for (const int type : {0, 8, 9, 10, 13, 14, 15, 16, 17, 18, 42, 43}) {
    EXPECT_EQ(to(icmp_packet(type)), Objection::none) << type;
  }
}

TEST(IcmpRules, TheTypeIsReadBehindTheOptions) {
  Bytes packet = packet_of({.protocol = icmp::protocol, .options = {3, 3, 3, 0}});
  packet[24] = std::byte{icmp::echo_request};
  EXPECT_EQ(to(packet), Objection::none);
}

TEST(IcmpRules, OtherProtocolsMayBeginWithAnyByte) {
  Bytes packet = packet_of({});
  packet[ipv4::shortest_header] = std::byte{icmp::unreachable};
  EXPECT_EQ(to(packet), Objection::none);
}

TEST(IcmpRules, PacketsToAMulticastGroupHaveNoError) {
  for (const uint32_t group : {0xe0000000u, 0xe0000001u, 0xef010203u, 0xefffffffu}) {
    EXPECT_EQ(to_destination(group), Objection::to_many);
  }
}

TEST(IcmpRules, PacketsToTheLimitedBroadcastHaveNoError) {
  EXPECT_EQ(to_destination(0xffffffff), Objection::to_many);
  EXPECT_EQ(to_destination(0), Objection::to_many) << "as systems of old write it";
}

TEST(IcmpRules, PacketsToABroadcastOfAnAttachedSubnetHaveNoError) {
  EXPECT_EQ(to_destination(address(10, 0, 0, 255)), Objection::to_many);
  EXPECT_EQ(to_destination(address(10, 0, 0, 0)), Objection::to_many) << "as systems of old write it";
  EXPECT_EQ(to_destination(address(172, 16, 5, 7)), Objection::to_many);
  EXPECT_EQ(to_destination(address(172, 16, 5, 6)), Objection::none);
  EXPECT_EQ(to_destination(address(10, 0, 1, 255)), Objection::none) << "nobody says that this is one";
}

TEST(IcmpRules, SubnetsOfTwoAddressesAndOfOneHaveNoBroadcast) {
  EXPECT_EQ(to_destination(address(198, 51, 100, 1)), Objection::none);
  EXPECT_EQ(to_destination(address(198, 51, 100, 0)), Objection::none);
  EXPECT_EQ(to_destination(address(203, 0, 113, 255)), Objection::none);
}

TEST(IcmpRules, PacketsFromThisNetworkHaveNoError) {
  EXPECT_EQ(to_source(0), Objection::from_no_host);
  EXPECT_EQ(to_source(address(0, 1, 2, 3)), Objection::from_no_host);
}

TEST(IcmpRules, PacketsFromALoopbackAddressHaveNoError) {
  EXPECT_EQ(to_source(address(127, 0, 0, 1)), Objection::from_no_host);
  EXPECT_EQ(to_source(address(127, 255, 255, 255)), Objection::from_no_host);
}

TEST(IcmpRules, PacketsFromAMulticastAddressHaveNoError) {
  EXPECT_EQ(to_source(address(224, 0, 0, 5)), Objection::from_no_host);
  EXPECT_EQ(to_source(address(239, 255, 255, 255)), Objection::from_no_host);
}

TEST(IcmpRules, PacketsFromABroadcastAddressHaveNoError) {
  EXPECT_EQ(to_source(0xffffffff), Objection::from_no_host);
  EXPECT_EQ(to_source(address(10, 0, 0, 255)), Objection::from_no_host);
  EXPECT_EQ(to_source(address(10, 0, 0, 0)), Objection::from_no_host);
}

TEST(IcmpRules, PacketsFromAReservedAddressHaveNoError) {
  EXPECT_EQ(to_source(address(240, 0, 0, 1)), Objection::from_no_host);
  EXPECT_EQ(to_source(address(255, 255, 255, 254)), Objection::from_no_host);
}

TEST(IcmpRules, PacketsFromTheEdgesOfTheUnicastAddressesHaveOne) {
  for (const uint32_t source :
       {address(1, 0, 0, 0), address(126, 255, 255, 255), address(128, 0, 0, 0), address(223, 255, 255, 255)}) {
    EXPECT_EQ(to_source(source), Objection::none);
  }
}

class RedirectRules : public testing::Test {
 protected:
  [[nodiscard]] Objection to(uint32_t gateway) const {
    return objection_to_redirect(packet_of({.options = options}), gateway, arrival);
  }
  std::vector<uint8_t> options;
  std::vector<ipd::AddressState> arrival = {attached_address(address(172, 16, 5, 5), 30), attached_address(own, 24)};
};

TEST_F(RedirectRules, TheGatewayIsANeighborOfTheSource) {
  EXPECT_EQ(to(second_neighbor), Objection::none);
  EXPECT_EQ(to(address(172, 16, 5, 6)), Objection::gateway_out_of_reach) << "of ours, on another subnet";
  EXPECT_EQ(to(far), Objection::gateway_out_of_reach);
}

TEST_F(RedirectRules, WhereTheInterfaceIsNotKnownAnyHostWillDo) {
  arrival.clear();
  EXPECT_EQ(to(far), Objection::none);
}

TEST_F(RedirectRules, TheGatewayIsOneHost) {
  arrival.clear();
  for (const uint32_t gateway : {0u, 0x00000001u, 0x7f000001u, 0xe0000001u, 0xf0000001u, 0xffffffffu}) {
    EXPECT_EQ(to(gateway), Objection::gateway_out_of_reach);
  }
}

TEST_F(RedirectRules, SourceRoutedPacketsAreNotRedirected) {
  options = {0x83, 7, 4, 10, 0, 0, 9, 0};
  EXPECT_EQ(to(second_neighbor), Objection::source_routed);
  options = {1, 0x89, 3, 4};
  EXPECT_EQ(to(second_neighbor), Objection::source_routed);
  options = {7, 4, 4, 0, 0x83, 3, 4, 0};
  EXPECT_EQ(to(second_neighbor), Objection::source_routed);
}

TEST_F(RedirectRules, OtherOptionsAreNoObstacle) {
  options = {7, 7, 4, 0x83, 0x83, 0x83, 0x83, 0};  // a recorded route, whatever stands in it
  EXPECT_EQ(to(second_neighbor), Objection::none);
  options = {0, 0x83, 3, 4};  // behind the end
  EXPECT_EQ(to(second_neighbor), Objection::none);
}

TEST_F(RedirectRules, OptionsThatMakeNoSenseAreLeft) {
  for (const std::vector<uint8_t> &bad : {std::vector<uint8_t>{1, 1, 1, 7}, {7, 0, 0, 0}, {7, 1, 0, 0}, {7, 5, 0, 0}}) {
    options = bad;
    EXPECT_EQ(to(second_neighbor), Objection::none);
  }
}

}  // namespace
