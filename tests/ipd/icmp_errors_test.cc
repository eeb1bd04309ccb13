// SPDX-License-Identifier: Apache-2.0
// ICMP errors that clients and drivers ask for.
#include "ipd/packet/icmp_errors.h"

#include <gtest/gtest.h>

#include "ipd/control_fakes.h"
#include "ipd/icmp_packets.h"

namespace {

using namespace icmp_packets;

constexpr uint32_t second_own = address(10, 0, 0, 200);

ipd::AddressState attached_address(uint32_t addr, uint8_t length) {
  return {.addr = addr, .mask_len = length, .secondary = false, .scope = 0};
}

class IcmpErrorsTest : public testing::Test {
 protected:
  IcmpErrorsTest() {
    box.add(1, 101, "eth1").addresses = {attached_address(own, 24), attached_address(second_own, 24)};
    box.add(2, 102, "eth2");
    auto &red = box.add(3, 103, "red1");
    red.state.context_id = 7;
    red.addresses = {attached_address(address(172, 16, 0, 1), 16)};
    wish.iod = 1;
    wish.type = icmp::unreachable;
    wish.code = 1;
  }

  Outcome ask(const Bytes &offending) {
    Bytes packet = offending;
    const Outcome outcome = hand_over(errors, IP_MSG_ICMP_ERROR, wish, packet);
    EXPECT_EQ(packet, offending) << "the packet in question is left as it is";
    return outcome;
  }
  Outcome ask() { return ask(packet_of({})); }
  Outcome ask_for(uint32_t type, uint32_t code) {
    wish.type = type;
    wish.code = code;
    now += std::chrono::minutes(1);
    return ask();
  }
  Outcome ask_as_driver(uint32_t type, uint32_t code, const Bytes &quoted) {
    ip_msg_driver_icmp message{};
    message.major_type = IP_MAJOR_CLIENT;
    message.minor_type = IP_MSG_DRIVER_ICMP;
    message.quoted_len = static_cast<uint32_t>(quoted.size());
    std::memcpy(message.quoted, quoted.data(), std::min<size_t>(quoted.size(), sizeof message.quoted));
    message.type = type;
    message.code = code;
    return hand_over(errors, IP_MSG_DRIVER_ICMP, message);
  }

  test_support::FakeBox box;
  RecordingOutput output;
  IcmpLimits::Moment now{std::chrono::seconds(1000)};
  IcmpErrors errors{box, output, {}, [this] { return now; }};
  ip_msg_icmp_error wish = begin_message<ip_msg_icmp_error>(IP_MSG_ICMP_ERROR);
};

TEST_F(IcmpErrorsTest, AnErrorGoesToTheSourceAndQuotesThePacket) {
  const Bytes offending = packet_of({});
  ASSERT_EQ(ask(offending), Outcome::done);
  ASSERT_EQ(output.sent.size(), 1u);
  const Bytes &packet = output.sent[0].packet;
  EXPECT_EQ(fault_of(packet), nullptr);
  EXPECT_EQ(ipv4::destination(packet), neighbor);
  EXPECT_EQ(ipv4::read16(message_of(packet), 0), 0x0301);
  EXPECT_EQ(quoted_in(packet), offending);
}

TEST_F(IcmpErrorsTest, TheRestOfTheHeaderIsTheMessages) {
  wish.code = icmp::fragmentation_needed;
  wish.rest_of_header = 1280;
  ASSERT_EQ(ask(), Outcome::done);
  EXPECT_EQ(ipv4::read32(message_of(output.sent[0].packet), 4), 1280u);
}

class IcmpTooBigTest : public IcmpErrorsTest {
 protected:
  IcmpTooBigTest() {
    wish.code = icmp::fragmentation_needed;
    output.mtu = 1280;
  }
  [[nodiscard]] uint32_t told() const { return ipv4::read32(message_of(output.sent.back().packet), 4); }
};

TEST_F(IcmpTooBigTest, AnMtuThatIsNotGivenIsThatOfTheWayToThePacketsDestination) {
  ASSERT_EQ(ask(packet_of({}, 1400)), Outcome::done);
  EXPECT_EQ(told(), 1280u);
  ASSERT_EQ(output.asked_for_mtu.size(), 1u);
  EXPECT_EQ(output.asked_for_mtu[0], (std::pair{output.sent[0].way, far}));
}

TEST_F(IcmpTooBigTest, AnMtuThatIsGivenIsTheClients) {
  wish.rest_of_header = 900;
  ASSERT_EQ(ask(packet_of({}, 1400)), Outcome::done);
  EXPECT_EQ(told(), 900u);
  EXPECT_TRUE(output.asked_for_mtu.empty());
}

TEST_F(IcmpTooBigTest, AnMtuThatThePacketFitsIsNotTold) {
  ASSERT_EQ(ask(packet_of({}, 1260)), Outcome::done);
  EXPECT_EQ(told(), 0u);
  ASSERT_EQ(ask(packet_of({}, 1261)), Outcome::done);
  EXPECT_EQ(told(), 1280u);
}

TEST_F(IcmpTooBigTest, ADriversIsFilledInByTheLengthThatThePacketSays) {
  Bytes quoted = packet_of({}, 1400);
  quoted.resize(28);
  ASSERT_EQ(ask_as_driver(3, 4, quoted), Outcome::done);
  EXPECT_EQ(told(), 1280u);
}

TEST_F(IcmpTooBigTest, OtherErrorsHaveNoMtu) {
  wish.code = 1;
  ASSERT_EQ(ask(packet_of({}, 1400)), Outcome::done);
  EXPECT_EQ(told(), 0u);
  EXPECT_TRUE(output.asked_for_mtu.empty());
}

TEST_F(IcmpErrorsTest, TheRouteSaysWhichWayItLeaves) {
  ASSERT_EQ(ask(), Outcome::done);
  const Way way{.iod = 0, .next_hop = 0, .context_id = 1, .flags = 0, .src_l2 = std::nullopt};
  EXPECT_EQ(output.sent[0].way, way);
  ASSERT_EQ(output.asked.size(), 1u);
  EXPECT_EQ(output.asked[0], (std::pair{way, neighbor}));
}

TEST_F(IcmpErrorsTest, ItIsSentFromTheAddressTowardsTheSource) {
  output.source = second_own;
  ASSERT_EQ(ask(), Outcome::done);
  EXPECT_EQ(ipv4::source(output.sent[0].packet), second_own);
}

TEST_F(IcmpErrorsTest, WithoutSuchAnAddressItIsSentFromThePrimaryOneOfTheInterfaceItCameInBy) {
  output.source = 0;
  ASSERT_EQ(ask(), Outcome::done);
  EXPECT_EQ(ipv4::source(output.sent[0].packet), own);
}

TEST_F(IcmpErrorsTest, AnInterfaceThatBorrowsItsAddressGivesTheLendersOne) {
  output.source = 0;
  box.interfaces[2].lender_iod = 1;
  wish.iod = 2;
  ASSERT_EQ(ask(), Outcome::done);
  EXPECT_EQ(ipv4::source(output.sent[0].packet), own);
  box.interfaces[2].lender_iod = 99;
  ASSERT_EQ(ask(), Outcome::done);
  EXPECT_EQ(ipv4::source(output.sent[1].packet), 0u);
}

TEST_F(IcmpErrorsTest, ALoopbackAddressIsNobodysSource) {
  output.source = 0;
  box.interfaces[1].addresses = {attached_address(address(127, 0, 0, 1), 8), attached_address(own, 24)};
  ASSERT_EQ(ask(), Outcome::done);
  EXPECT_EQ(ipv4::source(output.sent[0].packet), own);
}

TEST_F(IcmpErrorsTest, WithoutAnyAddressTheOutputHasTheLastWord) {
  output.source = 0;
  output.outcome = Outcome::no_source;
  wish.iod = 0;
  EXPECT_EQ(ask(), Outcome::no_source);
  EXPECT_EQ(ipv4::source(output.sent[0].packet), 0u);
}

TEST_F(IcmpErrorsTest, WhatBecomesOfTheErrorIsTheOutcome) {
  for (const Outcome outcome : {Outcome::no_route, Outcome::no_context, Outcome::no_privilege, Outcome::kernel}) {
    output.outcome = outcome;
    EXPECT_EQ(ask(), outcome);
  }
}

TEST_F(IcmpErrorsTest, TheContextIsTheMessagesElseTheInterfacesElseTheDefaultOne) {
  wish.iod = 3;
  wish.context_id = 9;
  ASSERT_EQ(ask(), Outcome::done);
  EXPECT_EQ(output.sent.back().way.context_id, 9);
  wish.context_id = 0;
  ASSERT_EQ(ask(), Outcome::done);
  EXPECT_EQ(output.sent.back().way.context_id, 7);
  wish.iod = 0;
  ASSERT_EQ(ask(), Outcome::done);
  EXPECT_EQ(output.sent.back().way.context_id, 1);
}

TEST_F(IcmpErrorsTest, ThereIsNoContextOfALargerNumberThanAnyHas) {
  wish.context_id = 0x80000000;
  EXPECT_EQ(ask(), Outcome::no_context);
  EXPECT_TRUE(output.sent.empty());
}

TEST_F(IcmpErrorsTest, BroadcastsAreThoseOfThePacketsContext) {
  const Bytes to_broadcast = packet_of({.destination = address(172, 16, 255, 255)});
  EXPECT_EQ(ask(to_broadcast), Outcome::done);
  wish.iod = 3;
  EXPECT_EQ(ask(to_broadcast), Outcome::not_eligible);
}

TEST_F(IcmpErrorsTest, AnInterfaceThatIsNotThereIsRefused) {
  wish.iod = 99;
  EXPECT_EQ(ask(), Outcome::no_interface);
  EXPECT_TRUE(output.sent.empty());
}

TEST_F(IcmpErrorsTest, ErrorsThatThereAreAreSent) {
  for (uint32_t code = 0; code <= 15; ++code) EXPECT_EQ(ask_for(3, code), Outcome::done) << code;
  for (uint32_t code = 0; code <= 1; ++code) EXPECT_EQ(ask_for(11, code), Outcome::done) << code;
  for (uint32_t code = 0; code <= 1; ++code) EXPECT_EQ(ask_for(12, code), Outcome::done) << code;
  wish.rest_of_header = second_neighbor;
  for (const uint32_t code : {1u, 3u}) EXPECT_EQ(ask_for(5, code), Outcome::done) << code;
  EXPECT_EQ(output.sent.size(), 22u);
}

TEST_F(IcmpErrorsTest, OtherTypesAndCodesAreRefused) {
  wish.rest_of_header = second_neighbor;
  EXPECT_EQ(ask_for(3, 16), Outcome::bad_field);
  EXPECT_EQ(ask_for(3, 32), Outcome::bad_field) << "one bit further round";
  EXPECT_EQ(ask_for(3, 0x103), Outcome::bad_field);
  EXPECT_EQ(ask_for(0x103, 3), Outcome::bad_field);
  EXPECT_EQ(ask_for(11, 2), Outcome::bad_field);
  EXPECT_EQ(ask_for(12, 2), Outcome::bad_field);
  for (const uint32_t type : {0u, 1u, 4u, 8u, 13u, 255u, 0xffffffffu}) {
    EXPECT_EQ(ask_for(type, 0), Outcome::bad_field) << type;
  }
  EXPECT_TRUE(output.sent.empty());
}

TEST_F(IcmpErrorsTest, RedirectsForANetworkAreRefused) {
  wish.rest_of_header = second_neighbor;
  for (const uint32_t code : {0u, 2u, 4u}) EXPECT_EQ(ask_for(5, code), Outcome::bad_field) << code;
}

TEST_F(IcmpErrorsTest, ARedirectToWhereTheSourceCannotGoIsNotSent) {
  wish.rest_of_header = far;
  EXPECT_EQ(ask_for(5, 1), Outcome::not_eligible);
  wish.rest_of_header = 0;
  EXPECT_EQ(ask_for(5, 1), Outcome::not_eligible);
  EXPECT_TRUE(output.sent.empty());
}

TEST_F(IcmpErrorsTest, WhatHasNoErrorIsCountedAsSuch) {
  EXPECT_EQ(ask(icmp_packet(icmp::time_exceeded)), Outcome::not_eligible);
  EXPECT_EQ(ask(packet_of({.fragment = 4})), Outcome::not_eligible);
  EXPECT_EQ(ask(packet_of({.source = 0})), Outcome::not_eligible);
  EXPECT_EQ(ask(packet_of({.destination = 0xe0000005})), Outcome::not_eligible);
  Bytes packet = packet_of({});
  ipv4::write8(packet, ipv4::ttl_at, 9);
  EXPECT_EQ(ask(packet), Outcome::not_eligible);
  EXPECT_TRUE(output.sent.empty());
}

TEST_F(IcmpErrorsTest, MoreThanADestinationMayGetIsNotSent) {
  for (int i = 0; i < 6; ++i) EXPECT_EQ(ask(), Outcome::done);
  EXPECT_EQ(ask(), Outcome::rate_limited);
  EXPECT_EQ(ask(packet_of({.source = second_neighbor})), Outcome::done);
  now += std::chrono::seconds(1);
  EXPECT_EQ(ask(), Outcome::done);
  EXPECT_EQ(output.sent.size(), 8u);
}

TEST_F(IcmpErrorsTest, WhatHasNoErrorCostsNoneOfThoseThatMayBeSent) {
  for (int i = 0; i < 100; ++i) EXPECT_EQ(ask(packet_of({.fragment = 4})), Outcome::not_eligible);
  EXPECT_EQ(ask(), Outcome::done);
}

TEST_F(IcmpErrorsTest, AnotherConfigurationHoldsAtOnce) {
  errors.configure({.rate = 0, .burst = 1, .destination_rate = 1, .destination_burst = 1});
  EXPECT_EQ(ask(), Outcome::done);
  EXPECT_EQ(ask(), Outcome::rate_limited);
}

TEST_F(IcmpErrorsTest, ADriversErrorQuotesWhatItGave) {
  for (const size_t size : {28u, 40u, 68u}) {
    Bytes quoted = packet_of({}, 1480);
    quoted.resize(size);
    ASSERT_EQ(ask_as_driver(3, 4, quoted), Outcome::done);
    const Bytes &packet = output.sent.back().packet;
    EXPECT_EQ(fault_of(packet), nullptr);
    EXPECT_EQ(quoted_in(packet), quoted);
    EXPECT_EQ(ipv4::read32(message_of(packet), 0) >> 16, 0x0304u);
    EXPECT_EQ(ipv4::read32(message_of(packet), 4), 0u);
  }
}

TEST_F(IcmpErrorsTest, ADriversErrorIsOfTheDefaultContext) {
  ASSERT_EQ(ask_as_driver(11, 0, packet_of({}, 8)), Outcome::done);
  EXPECT_EQ(output.sent[0].way.context_id, 1);
}

TEST_F(IcmpErrorsTest, ADriversRequestOfAnotherLengthIsRefused) {
  for (const size_t size : {0u, 27u, 69u, 1500u}) {
    Bytes quoted = packet_of({}, 1480);
    quoted.resize(size);
    EXPECT_EQ(ask_as_driver(3, 4, quoted), Outcome::bad_field) << size;
  }
  EXPECT_TRUE(output.sent.empty());
}

TEST_F(IcmpErrorsTest, ADriversBytesThatAreNoPacketAreRefused) {
  EXPECT_EQ(ask_as_driver(3, 4, Bytes(28)), Outcome::bad_packet);
  Bytes longer_header = packet_of({}, 20);
  longer_header.resize(28);
  longer_header[0] = std::byte{0x4f};
  EXPECT_EQ(ask_as_driver(3, 4, longer_header), Outcome::bad_packet);
}

TEST_F(IcmpErrorsTest, ADriverIsBoundByTheSameRules) {
  EXPECT_EQ(ask_as_driver(4, 0, packet_of({})), Outcome::bad_field);
  EXPECT_EQ(ask_as_driver(3, 16, packet_of({})), Outcome::bad_field);
  EXPECT_EQ(ask_as_driver(3, 4, packet_of({.fragment = 4})), Outcome::not_eligible);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(ask_as_driver(3, 4, packet_of({})), Outcome::done);
  EXPECT_EQ(ask_as_driver(3, 4, packet_of({})), Outcome::rate_limited);
}

TEST_F(IcmpErrorsTest, ADriverHasNoGatewayToRedirectTo) {
  EXPECT_EQ(ask_as_driver(5, 1, packet_of({})), Outcome::not_eligible);
}

}  // namespace
