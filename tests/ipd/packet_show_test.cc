// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "ip_show.h"
#include "ipd/control_fakes.h"
#include "ipd/packet/show.h"
#include "ipd/packet_rig.h"

namespace {

using namespace packet_rig;
using ipd::control::Refusal;
using test_support::FakeTransport;

class PacketShowTest : public testing::Test, public System {
 protected:
  Refusal ask(uint32_t after, bool wants_answer = true) {
    ip_msg_show question{};
    question.header.major_type = IP_MAJOR_CLIENT;
    question.header.minor_type = IP_MSG_SHOW_PACKETS;
    question.after = after;
    auto request = test_support::request_of(question, sender, IP_OPCODE_CLIENT);
    request.wants_answer = wants_answer;
    return show.handle(request);
  }
  std::vector<ip_show_packets> entries_after(uint32_t after) {
    transport.sent.clear();
    EXPECT_EQ(ask(after), Refusal::none);
    std::vector<ip_show_packets> entries;
    if (transport.sent.size() != 1) return entries;
    const Bytes &bytes = transport.sent[0].bytes;
    const auto reply = transport.sent[0].as<ip_msg_show_reply>();
    EXPECT_EQ(reply.header.minor_type, IP_MSG_SHOW_PACKETS);
    EXPECT_EQ(reply.entry_size, sizeof(ip_show_packets));
    EXPECT_EQ(reply.more, 0u);
    EXPECT_EQ(bytes.size(), sizeof reply + reply.count * sizeof(ip_show_packets));
    entries.resize((bytes.size() - sizeof reply) / sizeof(ip_show_packets));
    if (!entries.empty()) std::memcpy(entries.data(), bytes.data() + sizeof reply, bytes.size() - sizeof reply);
    return entries;
  }
  void send_output(size_t length) {
    const auto message = begin_message<ip_msg_output>(IP_MSG_OUTPUT, length);
    const Bytes packet = ipv4_packet(length);
    Bytes bytes(sizeof message + length);
    std::memcpy(bytes.data(), &message, sizeof message);
    std::memcpy(bytes.data() + sizeof message, packet.data(), length);
    receive(bytes);
  }

  FakeTransport transport;
  ipd::packet::Show show{transport, service};
};

TEST_F(PacketShowTest, EachKindOfMessageAndDeliveriesAreShownInOrder) {
  const auto entries = entries_after(0);
  ASSERT_EQ(entries.size(), message_kinds().size() + 2);
  EXPECT_EQ(entries.front().minor, 0u);
  EXPECT_STREQ(entries.front().name, "others");
  EXPECT_STREQ(entries[2].name, "output");
  EXPECT_EQ(entries[2].minor, IP_MSG_OUTPUT);
  EXPECT_EQ(entries[2].direction, IP_SHOW_FROM_CLIENT);
  EXPECT_STREQ(entries.back().name, "delivery");
  EXPECT_EQ(entries.back().minor, IP_MSG_INPUT);
  EXPECT_EQ(entries.back().direction, IP_SHOW_TO_CLIENT);
  EXPECT_TRUE(std::ranges::is_sorted(entries, {}, &ip_show_packets::order));
}

TEST_F(PacketShowTest, MessagesBytesAndOutcomesAreCounted) {
  send_output(100);
  handler.outcome = Outcome::no_route;
  send_output(60);
  may_send.clear();
  send_output(60);
  const auto entry = entries_after(0)[2];
  EXPECT_EQ(entry.received[0], 3u);
  EXPECT_EQ(entry.received[1], 0u);
  EXPECT_EQ(entry.bytes[0], 220u);
  EXPECT_EQ(entry.counts[IP_SHOW_PACKET_DONE][0], 1u);
  EXPECT_EQ(entry.counts[IP_SHOW_PACKET_NO_ROUTE][0], 1u);
  EXPECT_EQ(entry.counts[IP_SHOW_PACKET_NOT_ALLOWED][0], 1u);
}

TEST_F(PacketShowTest, DeliveriesAreCountedWithWhatBecameOfThem) {
  service.delivered(20, 3, Outcome::done, ipv4_packet(100));
  service.delivered(20, 3, Outcome::queue_full, ipv4_packet(50));
  const auto entry = entries_after(0).back();
  EXPECT_EQ(entry.received[0], 2u);
  EXPECT_EQ(entry.bytes[0], 150u);
  EXPECT_EQ(entry.counts[IP_SHOW_PACKET_DONE][0], 1u);
  EXPECT_EQ(entry.counts[IP_SHOW_PACKET_QUEUE_FULL][0], 1u);
}

TEST_F(PacketShowTest, TheNextPageBeginsBehindTheLastEntry) {
  const auto all = entries_after(0);
  const auto rest = entries_after(all[3].order);
  ASSERT_EQ(rest.size(), all.size() - 4);
  EXPECT_EQ(rest.front().order, all[4].order);
  EXPECT_TRUE(entries_after(all.back().order).empty());
  EXPECT_TRUE(entries_after(0xffffffff).empty());
}

TEST_F(PacketShowTest, TheWholeNameOfEachMessageFits) {
  for (const MessageKind &kind : message_kinds()) EXPECT_LT(strlen(kind.name), sizeof(ip_show_packets::name));
}

TEST_F(PacketShowTest, AQuestionThatNobodyWaitsForIsRefused) {
  EXPECT_EQ(ask(0, false), Refusal::bad_field);
  EXPECT_TRUE(transport.sent.empty());
}

TEST_F(PacketShowTest, AnAnswerThatCannotBeDeliveredIsSaid) {
  transport.error = ECONNRESET;
  EXPECT_EQ(ask(0), Refusal::no_answer);
}

}  // namespace
