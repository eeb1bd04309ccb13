// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <vector>

#include "ip_packet.h"
#include "ipd/control_fakes.h"
#include "ipd/packet/capture.h"
#include "ipd/packet/request.h"

namespace {

using namespace ipd::packet;
using ipd::control::Refusal;
using ipd::control::Sender;
using test_support::FakeTransport;

using Bytes = std::vector<std::byte>;

// 20 bytes of header and what follows, counted up.
Bytes packet_of(uint8_t protocol, size_t payload) {
  Bytes packet(20 + payload);
  packet[0] = std::byte{0x45};
  packet[9] = std::byte{protocol};
  for (size_t i = 20; i < packet.size(); ++i) packet[i] = static_cast<std::byte>(i);
  return packet;
}

class PacketCaptureTest : public testing::Test {
 protected:
  static constexpr Sender asker{.pid = 10, .uid = 0, .sap = 2048};
  static constexpr Passed sent{
      .to_client = false, .pid = 20, .minor = IP_MSG_OUTPUT, .iod = 3, .outcome = Outcome::no_route};
  static constexpr Passed delivered{
      .to_client = true, .pid = 21, .minor = IP_MSG_INPUT, .iod = 4, .outcome = Outcome::done};

  static ip_msg_capture begin_message() {
    ip_msg_capture message{};
    message.header.major_type = IP_MAJOR_CLIENT;
    message.header.minor_type = IP_MSG_CAPTURE;
    message.action = IP_CAPTURE_BEGIN;
    message.protocol = IP_CAPTURE_ANY_PROTOCOL;
    return message;
  }
  Refusal ask(const ip_msg_capture &message, const Sender &sender = asker, bool wants_answer = true) {
    auto request = test_support::request_of(message, sender, IP_OPCODE_CLIENT);
    request.wants_answer = wants_answer;
    return capture.handle(request);
  }
  // The records that were sent to the queue, since it was looked at last.
  std::vector<ip_msg_captured> records(uint32_t sap = asker.sap) {
    std::vector<ip_msg_captured> list;
    for (const FakeTransport::Sent &message : transport.sent) {
      if (message.sap == sap) list.push_back(message.as<ip_msg_captured>());
    }
    transport.sent.clear();
    return list;
  }

  FakeTransport transport;
  Capture capture{transport};
};

TEST_F(PacketCaptureTest, NobodyWantsAnyBeforeSomebodyAsked) {
  EXPECT_FALSE(capture.wants());
  capture.passed(sent, packet_of(17, 8));
  EXPECT_TRUE(transport.sent.empty());
}

TEST_F(PacketCaptureTest, WhoAskedIsToldOfEachPacketAndWhatBecameOfIt) {
  ASSERT_EQ(ask(begin_message()), Refusal::none);
  EXPECT_TRUE(capture.wants());
  ASSERT_EQ(transport.sent.size(), 1u);
  EXPECT_EQ(transport.sent[0].as<ip_msg_capture_reply>().status, IP_CAPTURE_DONE);
  EXPECT_EQ(transport.sent[0].as<ip_msg_capture_reply>().captures, 1u);
  transport.sent.clear();
  const Bytes packet = packet_of(17, 8);
  timespec before{};
  clock_gettime(CLOCK_REALTIME, &before);
  capture.passed(sent, packet);
  ASSERT_EQ(transport.sent.size(), 1u);
  const FakeTransport::Sent &message = transport.sent[0];
  EXPECT_EQ(message.sap, asker.sap);
  EXPECT_EQ(message.opcode, IP_OPCODE_CLIENT);
  const auto record = message.as<ip_msg_captured>();
  EXPECT_EQ(record.header.major_type, IP_MAJOR_CLIENT);
  EXPECT_EQ(record.header.minor_type, IP_MSG_CAPTURED);
  EXPECT_GE(record.seconds[0], static_cast<uint32_t>(before.tv_sec));
  EXPECT_LT(record.nanoseconds, 1000000000u);
  EXPECT_EQ(record.dropped, 0u);
  EXPECT_EQ(record.direction, IP_SHOW_FROM_CLIENT);
  EXPECT_EQ(record.client, 20u);
  EXPECT_EQ(record.minor, IP_MSG_OUTPUT);
  EXPECT_EQ(record.iod, 3u);
  EXPECT_EQ(record.outcome, IP_SHOW_PACKET_NO_ROUTE);
  EXPECT_EQ(record.packet_len, packet.size());
  EXPECT_EQ(record.captured_len, packet.size());
  EXPECT_TRUE(std::equal(packet.begin(), packet.end(), message.bytes.begin() + sizeof record, message.bytes.end()));
}

TEST_F(PacketCaptureTest, APacketIsCutAtTheSnapLength) {
  auto message = begin_message();
  message.snap_len = 24;
  ask(message);
  transport.sent.clear();
  capture.passed(delivered, packet_of(17, 100));
  ASSERT_EQ(transport.sent.size(), 1u);
  EXPECT_EQ(transport.sent[0].bytes.size(), sizeof(ip_msg_captured) + 24);
  const auto record = transport.sent[0].as<ip_msg_captured>();
  EXPECT_EQ(record.packet_len, 120u);
  EXPECT_EQ(record.captured_len, 24u);
  EXPECT_EQ(record.direction, IP_SHOW_TO_CLIENT);
}

TEST_F(PacketCaptureTest, TheLongestPacketIsToldOfWhole) {
  ask(begin_message());
  transport.sent.clear();
  capture.passed(sent, packet_of(17, longest_packet - 20));
  ASSERT_EQ(transport.sent.size(), 1u);
  EXPECT_EQ(transport.sent[0].as<ip_msg_captured>().captured_len, static_cast<uint32_t>(longest_packet));
  EXPECT_LE(transport.sent[0].bytes.size(), IP_MAX_IPC_PAYLOAD);
}

TEST_F(PacketCaptureTest, AMessageWithoutAPacketIsToldOfWithoutBytes) {
  ask(begin_message());
  transport.sent.clear();
  capture.passed(sent, {});
  const auto list = records();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].packet_len, 0u);
  EXPECT_EQ(list[0].captured_len, 0u);
}

TEST_F(PacketCaptureTest, ADirectionMayBeChosen) {
  auto message = begin_message();
  message.directions = IP_SHOW_TO_CLIENT;
  ask(message);
  capture.passed(sent, packet_of(1, 8));
  capture.passed(delivered, packet_of(1, 8));
  const auto list = records();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].client, 21u);
}

TEST_F(PacketCaptureTest, AnInterfaceMayBeChosen) {
  auto message = begin_message();
  message.iod = 3;
  ask(message);
  capture.passed(sent, packet_of(1, 8));
  capture.passed(delivered, packet_of(1, 8));
  const auto list = records();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].iod, 3u);
}

TEST_F(PacketCaptureTest, AClientMayBeChosen) {
  auto message = begin_message();
  message.pid = 21;
  ask(message);
  capture.passed(sent, packet_of(1, 8));
  capture.passed(delivered, packet_of(1, 8));
  const auto list = records();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].client, 21u);
}

TEST_F(PacketCaptureTest, AProtocolMayBeChosenAndWhatIsNoIpv4PacketHasNone) {
  auto message = begin_message();
  message.protocol = 0;
  ask(message);
  capture.passed(sent, packet_of(17, 8));
  capture.passed(sent, Bytes(19));
  capture.passed(sent, Bytes(40));
  EXPECT_TRUE(records().empty());
  capture.passed(sent, packet_of(0, 8));
  EXPECT_EQ(records().size(), 1u);
}

TEST_F(PacketCaptureTest, WhatHasNoRoomIsCountedAndToldWithTheNextRecord) {
  ask(begin_message());
  transport.sent.clear();
  transport.error = EAGAIN;
  for (int i = 0; i < 3; ++i) capture.passed(sent, packet_of(1, 8));
  transport.error = 0;
  capture.passed(sent, packet_of(1, 8));
  capture.passed(sent, packet_of(1, 8));
  const auto list = records();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].dropped, 3u);
  EXPECT_EQ(list[1].dropped, 0u);
}

TEST_F(PacketCaptureTest, AQueueThatIsThereNoMoreEndsIt) {
  for (const int error : {ECONNREFUSED, ECONNRESET}) {
    ask(begin_message());
    ASSERT_TRUE(capture.wants());
    transport.error = error;
    capture.passed(sent, packet_of(1, 8));
    EXPECT_FALSE(capture.wants());
    transport.error = 0;
  }
}

TEST_F(PacketCaptureTest, ItEndsWithTheQueueThatAskedAndNoOther) {
  ask(begin_message());
  ask(begin_message(), {.pid = 10, .uid = 0, .sap = 2049});
  capture.queue_gone({.pid = 10, .uid = 0, .sap = 2050});
  capture.queue_gone(asker);
  transport.sent.clear();
  capture.passed(sent, packet_of(1, 8));
  ASSERT_EQ(transport.sent.size(), 1u);
  EXPECT_EQ(transport.sent[0].sap, 2049u);
}

TEST_F(PacketCaptureTest, ItEndsWithTheProcessThatAsked) {
  ask(begin_message());
  capture.process_gone(11);
  EXPECT_TRUE(capture.wants());
  capture.process_gone(10);
  EXPECT_FALSE(capture.wants());
}

TEST_F(PacketCaptureTest, ItEndsWhenItsQueueSaysSo) {
  ask(begin_message());
  auto message = begin_message();
  message.action = IP_CAPTURE_END;
  EXPECT_EQ(ask(message), Refusal::none);
  EXPECT_FALSE(capture.wants());
  EXPECT_EQ(ask(message), Refusal::not_registered);
}

TEST_F(PacketCaptureTest, AQueueHasOneAndANewOneTakesItsPlace) {
  ask(begin_message());
  auto message = begin_message();
  message.protocol = 17;
  ask(message);
  transport.sent.clear();
  capture.passed(sent, packet_of(1, 8));
  EXPECT_TRUE(records().empty());
}

TEST_F(PacketCaptureTest, ThereIsALimitForAllAndWhoHasOneIsNotHeldUpByIt) {
  for (uint32_t i = 0; i < Capture::most_captures; ++i) {
    EXPECT_EQ(ask(begin_message(), {.pid = 10, .uid = 0, .sap = 3000 + i}), Refusal::none);
  }
  transport.sent.clear();
  EXPECT_EQ(ask(begin_message(), asker), Refusal::limit);
  ASSERT_EQ(transport.sent.size(), 1u);
  EXPECT_EQ(transport.sent[0].as<ip_msg_capture_reply>().status, IP_CAPTURE_LIMIT);
  EXPECT_EQ(transport.sent[0].as<ip_msg_capture_reply>().captures, Capture::most_captures);
  EXPECT_EQ(ask(begin_message(), {.pid = 10, .uid = 0, .sap = 3000}), Refusal::none);
}

TEST_F(PacketCaptureTest, ARequestThatMakesNoSenseIsRefused) {
  auto message = begin_message();
  message.action = 3;
  EXPECT_EQ(ask(message), Refusal::bad_field);
  message = begin_message();
  message.directions = 4;
  EXPECT_EQ(ask(message), Refusal::bad_field);
  message = begin_message();
  message.protocol = 257;
  EXPECT_EQ(ask(message), Refusal::bad_field);
  EXPECT_EQ(ask(begin_message(), {.pid = 10, .uid = 0, .sap = 0}), Refusal::bad_field);
  EXPECT_EQ(ask(begin_message(), asker, false), Refusal::bad_field);
  EXPECT_FALSE(capture.wants());
  EXPECT_TRUE(transport.sent.empty());
}

TEST_F(PacketCaptureTest, OneWhoseAnswerCannotBeDeliveredIsNone) {
  transport.error = ECONNRESET;
  EXPECT_EQ(ask(begin_message()), Refusal::no_answer);
  EXPECT_FALSE(capture.wants());
}

}  // namespace
