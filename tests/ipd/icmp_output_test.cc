// SPDX-License-Identifier: Apache-2.0
// Complete ICMP packets of clients.
#include "ipd/packet/icmp_output.h"

#include <gtest/gtest.h>

#include "ipd/icmp_packets.h"

namespace {

using namespace icmp_packets;

class IcmpOutputTest : public testing::Test {
 protected:
  IcmpOutputTest() {
    message.iod = 5;
    message.context_id = -1;
    message.flags = IP_OUTPUT_DONT_ROUTE;
  }
  Outcome send(Bytes &packet) { return hand_over(handler, IP_MSG_ICMP_OUTPUT, message, packet); }

  // An echo request without a checksum.
  static Bytes echo(uint16_t fragment = 0) {
    Bytes packet = packet_of({.protocol = icmp::protocol, .fragment = fragment}, 16);
    ipv4::write16(packet, 20, 0x0800);
    ipv4::write16(packet, 22, 0);
    return packet;
  }

  ip_msg_icmp_output message = begin_message<ip_msg_icmp_output>(IP_MSG_ICMP_OUTPUT);
  RecordingOutput output;
  IcmpOutput handler{output};
};

TEST_F(IcmpOutputTest, ThePacketLeavesAsTheMessageSays) {
  Bytes packet = echo();
  EXPECT_EQ(send(packet), Outcome::done);
  ASSERT_EQ(output.sent.size(), 1u);
  EXPECT_EQ(output.sent[0].way,
            (Way{.iod = 5, .next_hop = 0, .context_id = -1, .flags = IP_OUTPUT_DONT_ROUTE, .src_l2 = std::nullopt}));
}

TEST_F(IcmpOutputTest, AChecksumOfZeroIsFilledIn) {
  Bytes packet = echo();
  ASSERT_EQ(send(packet), Outcome::done);
  EXPECT_EQ(fault_of(output.sent[0].packet), nullptr);
  EXPECT_NE(ipv4::read16(output.sent[0].packet, 22), 0);
}

TEST_F(IcmpOutputTest, AChecksumThatIsThereIsTheClients) {
  Bytes packet = echo();
  ipv4::write16(packet, 22, 0x1234);
  const Bytes before = packet;
  ASSERT_EQ(send(packet), Outcome::done);
  EXPECT_EQ(output.sent[0].packet, before);
}

TEST_F(IcmpOutputTest, NothingElseOfThePacketIsChanged) {
  Bytes packet = echo();
  Bytes before = packet;
  ASSERT_EQ(send(packet), Outcome::done);
  ipv4::write16(before, 22, ipv4::read16(output.sent[0].packet, 22));
  EXPECT_EQ(output.sent[0].packet, before);
}

TEST_F(IcmpOutputTest, TheChecksumIsFoundBehindTheOptions) {
  Bytes packet = packet_of({.protocol = icmp::protocol, .options = {7, 7, 4, 0, 0, 0, 0, 0}}, 8);
  ipv4::write16(packet, 30, 0);
  ASSERT_EQ(send(packet), Outcome::done);
  EXPECT_EQ(fault_of(output.sent[0].packet), nullptr);
}

TEST_F(IcmpOutputTest, WithoutATotalLengthAllThatCameIsSummedUp) {
  Bytes packet = echo();
  ipv4::write16(packet, ipv4::total_length_at, 0);
  ASSERT_EQ(send(packet), Outcome::done);
  EXPECT_EQ(ipv4::add_words(std::span<const std::byte>(output.sent[0].packet).subspan(20)), 0xffff);
}

TEST_F(IcmpOutputTest, AFragmentKeepsWhatStandsInItsPlace) {
  for (const uint16_t fragment : {ipv4::more_fragments, uint16_t{1}}) {
    Bytes packet = echo(fragment);
    const Bytes before = packet;
    ASSERT_EQ(send(packet), Outcome::done);
    EXPECT_EQ(output.sent.back().packet, before);
  }
}

TEST_F(IcmpOutputTest, ALastFragmentMayBeShorterThanAHeaderOfIcmp) {
  Bytes packet = packet_of({.protocol = icmp::protocol, .fragment = 1}, 3);
  EXPECT_EQ(send(packet), Outcome::done);
}

TEST_F(IcmpOutputTest, OtherProtocolsAreRefused) {
  for (const int protocol : {0, 2, 17, 255}) {
    Bytes packet = packet_of({.protocol = static_cast<uint8_t>(protocol)});
    EXPECT_EQ(send(packet), Outcome::bad_packet) << protocol;
  }
  EXPECT_TRUE(output.sent.empty());
}

TEST_F(IcmpOutputTest, WhatHasNoWholeHeaderOfIcmpIsRefused) {
  for (const size_t data : {0u, 1u, 7u}) {
    Bytes packet = packet_of({.protocol = icmp::protocol}, data);
    EXPECT_EQ(send(packet), Outcome::bad_packet) << data;
  }
  EXPECT_TRUE(output.sent.empty());
}

TEST_F(IcmpOutputTest, WhatBecomesOfThePacketIsTheOutcome) {
  for (const Outcome outcome : {Outcome::no_route, Outcome::no_interface, Outcome::no_privilege, Outcome::kernel}) {
    output.outcome = outcome;
    Bytes packet = echo();
    EXPECT_EQ(send(packet), outcome);
  }
}

}  // namespace
