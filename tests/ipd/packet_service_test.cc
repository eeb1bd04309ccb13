// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "packet_rig.h"

namespace {

using namespace packet_rig;

// The message of a row, whatever its record, about a packet of so many bytes.
Bytes message_of(const MessageKind &kind, size_t length) {
  Bytes message(kind.size);
  begin(message, kind.minor);
  const auto packet_len = static_cast<uint16_t>(length);
  if (kind.has_packet) std::memcpy(message.data() + kind.length_at, &packet_len, sizeof packet_len);
  return message;
}

Bytes with_reference(Bytes message, uint32_t reference) {
  std::memcpy(message.data() + 32, &reference, sizeof reference);
  return message;
}

Bytes joined(Bytes message, const Bytes &packet) {
  message.insert(message.end(), packet.begin(), packet.end());
  return message;
}

const MessageKind &kind_of(uint16_t minor) {
  return *find_message(minor);
}

class PacketService : public testing::Test, public System {};

TEST(PacketMessages, AreTheTenThatTheLibrarySends) {
  std::vector<uint16_t> minors;
  for (const MessageKind &kind : message_kinds()) minors.push_back(kind.minor);
  EXPECT_EQ(minors, (std::vector<uint16_t>{3, 4, 6, 11, 12, 18, 20, 25, 26, 30}));
  EXPECT_EQ(find_message(5), nullptr);
}

TEST(PacketMessages, SayWhereTheirRecordsHaveLengthAndInterface) {
  EXPECT_EQ(kind_of(IP_MSG_OUTPUT).length_at, 58u);
  EXPECT_EQ(kind_of(IP_MSG_OUTPUT).iod_at, 28u);
  EXPECT_EQ(kind_of(IP_MSG_ICMP_ERROR).length_at, 52u);
  EXPECT_EQ(kind_of(IP_MSG_OUTPUT_L2).iod_at, 72u);
  EXPECT_EQ(kind_of(IP_MSG_DRIVER_ICMP).size, 100u);
}

TEST(PacketOutcomes, HaveATextEach) {
  std::set<std::string> texts;
  for (size_t i = 0; i < outcome_count; ++i) texts.insert(outcome_text(static_cast<Outcome>(i)));
  EXPECT_EQ(texts.size(), outcome_count);
  EXPECT_EQ(static_cast<size_t>(Outcome::kernel) + 1, outcome_count);
  EXPECT_STREQ(outcome_text(static_cast<Outcome>(outcome_count)), "?");
}

TEST_F(PacketService, HandsAPacketBehindItsMessageToTheHandler) {
  for (const MessageKind &kind : message_kinds()) {
    if (!kind.has_packet) continue;
    handler.handled.clear();
    const Bytes packet = ipv4_packet(100);
    receive(joined(message_of(kind, 100), packet));
    ASSERT_EQ(handler.handled.size(), 1u) << kind.name;
    EXPECT_EQ(handler.handled[0].minor, kind.minor);
    EXPECT_EQ(handler.handled[0].message, message_of(kind, 100));
    EXPECT_EQ(handler.handled[0].packet, packet);
    EXPECT_EQ(count(kind.minor, Outcome::done), 1u);
    EXPECT_EQ(service.counts().at(kind.minor).bytes, 100u);
  }
}

TEST_F(PacketService, BringsAPacketThatIsNamedByReference) {
  references.packets[{0x74001000, sender.pid}] = ipv4_packet(1500);
  receive(with_reference(message_of(kind_of(IP_MSG_OUTPUT), 1500), 0x74001000));
  ASSERT_EQ(handler.handled.size(), 1u);
  EXPECT_EQ(handler.handled[0].packet, ipv4_packet(1500));
  EXPECT_TRUE(references.packets.empty());
}

TEST_F(PacketService, RefusesAReferenceToWhatIsNotTheSenders) {
  references.packets[{0x74001000, 1}] = ipv4_packet(100);
  receive(with_reference(message_of(kind_of(IP_MSG_OUTPUT), 100), 0x74001000));
  EXPECT_TRUE(handler.handled.empty());
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::bad_reference), 1u);
  EXPECT_EQ(references.packets.size(), 1u);
}

TEST_F(PacketService, TakesAPacketOverEvenIfItsMessageIsRefused) {
  const Bytes message = with_reference(message_of(kind_of(IP_MSG_OUTPUT), 100), 0x74001000);
  references.packets[{0x74001000, sender.pid}] = ipv4_packet(100);
  receive(message, IP_OPCODE_CLIENT);
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::wrong_opcode), 1u);
  EXPECT_TRUE(references.packets.empty());

  references.packets[{0x74001000, sender.pid}] = ipv4_packet(100);
  may_send.clear();
  receive(message);
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::not_allowed), 1u);
  EXPECT_TRUE(references.packets.empty());

  may_send.insert(sender.pid);
  references.packets[{0x74001000, sender.pid}] = ipv4_packet(100);
  receive(joined(message, ipv4_packet(100)));
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::too_long), 1u);
  EXPECT_TRUE(references.packets.empty());
  EXPECT_TRUE(handler.handled.empty());
}

TEST_F(PacketService, NeverLooksForAPacketInAMessageThatIsTooShort) {
  Bytes message = with_reference(message_of(kind_of(IP_MSG_OUTPUT), 100), 0x74001000);
  message.pop_back();
  receive(message);
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::too_short), 1u);
  EXPECT_TRUE(references.taken.empty());
}

TEST_F(PacketService, RefusesEveryMessageThatIsCutShort) {
  for (const MessageKind &kind : message_kinds()) {
    const Bytes whole = message_of(kind, 0);
    for (size_t size = 0; size < whole.size(); ++size)
      receive(Bytes(whole.begin(), whole.begin() + static_cast<int>(size)));
    EXPECT_EQ(count(kind.minor, Outcome::too_short), kind.size - 4) << kind.name;
  }
  EXPECT_EQ(count(0, Outcome::too_short), 4u * message_kinds().size());
  EXPECT_TRUE(handler.handled.empty());
}

TEST_F(PacketService, RefusesWhatIsNoMessageOfThisQueue) {
  Bytes message = message_of(kind_of(IP_MSG_OUTPUT), 100);
  message[0] = std::byte{6};
  receive(joined(message, ipv4_packet(100)));
  EXPECT_EQ(count(0, Outcome::wrong_major), 1u);

  message = message_of(kind_of(IP_MSG_OUTPUT), 100);
  message[2] = std::byte{5};
  receive(joined(message, ipv4_packet(100)));
  EXPECT_EQ(count(0, Outcome::unknown_minor), 1u);

  receive(joined(message_of(kind_of(IP_MSG_OUTPUT), 100), ipv4_packet(100)), 0x14c05);
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::wrong_opcode), 1u);

  receive(joined(message_of(kind_of(IP_MSG_DRIVER_ICMP), 0), ipv4_packet(20)));
  EXPECT_EQ(count(IP_MSG_DRIVER_ICMP, Outcome::too_long), 1u);
  EXPECT_TRUE(handler.handled.empty());
}

TEST_F(PacketService, RefusesASenderWithoutTheRightOrWithoutAProcess) {
  may_send.clear();
  receive(joined(message_of(kind_of(IP_MSG_OUTPUT), 100), ipv4_packet(100)));
  may_send.insert(0);
  sender.pid = 0;
  receive(joined(message_of(kind_of(IP_MSG_OUTPUT), 100), ipv4_packet(100)));
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::not_allowed), 2u);
  EXPECT_TRUE(handler.handled.empty());
}

TEST_F(PacketService, RefusesAPacketOfAnotherLengthThanItsMessageSays) {
  receive(joined(message_of(kind_of(IP_MSG_OUTPUT), 99), ipv4_packet(100)));
  receive(joined(message_of(kind_of(IP_MSG_ICMP_ERROR), 101), ipv4_packet(100)));
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::bad_length), 1u);
  EXPECT_EQ(count(IP_MSG_ICMP_ERROR, Outcome::bad_length), 1u);
}

TEST_F(PacketService, RefusesWhatIsNoIpv4Packet) {
  const auto &kind = kind_of(IP_MSG_OUTPUT);
  std::vector<Bytes> bad = {{},
                            Bytes(19, std::byte{0x45}),
                            ipv4_packet(100),
                            ipv4_packet(100),
                            ipv4_packet(100),
                            ipv4_packet(100),
                            ipv4_packet(100)};
  bad[2][0] = std::byte{0x65};  // version
  bad[3][0] = std::byte{0x44};  // a header of 16 bytes
  bad[4] = ipv4_packet(59);
  bad[4][0] = std::byte{0x4f};  // one of 60, which is longer than the packet
  bad[5][3] = std::byte{101};   // total length: more than there is
  bad[6][3] = std::byte{19};    // less than the header
  for (const Bytes &packet : bad) receive(joined(message_of(kind, packet.size()), packet));
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::bad_packet), bad.size());
  EXPECT_TRUE(handler.handled.empty());
}

TEST_F(PacketService, RefusesAPacketThatIsLongerThanAnyIpv4Packet) {
  const Bytes packet = ipv4_packet(65536);
  receive(joined(message_of(kind_of(IP_MSG_OUTPUT), packet.size()), packet));
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::bad_packet), 1u);
  Bytes longest = ipv4_packet(65535);
  receive(joined(message_of(kind_of(IP_MSG_OUTPUT), longest.size()), longest));
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::done), 1u);
}

TEST_F(PacketService, LeavesOutWhatStandsBehindThePacket) {
  Bytes padded = ipv4_packet(28);
  padded.resize(46, std::byte{0});
  receive(joined(message_of(kind_of(IP_MSG_INPUT), padded.size()), padded));
  ASSERT_EQ(handler.handled.size(), 1u);
  EXPECT_EQ(handler.handled[0].packet, ipv4_packet(28));
}

TEST_F(PacketService, TakesAllBytesWhenTheTotalLengthIsStillZero) {
  Bytes packet = ipv4_packet(100);
  packet[2] = packet[3] = std::byte{0};
  receive(joined(message_of(kind_of(IP_MSG_OUTPUT), packet.size()), packet));
  ASSERT_EQ(handler.handled.size(), 1u);
  EXPECT_EQ(handler.handled[0].packet.size(), 100u);
}

TEST_F(PacketService, CountsWhatTheHandlerMadeOfIt) {
  handler.outcome = Outcome::no_route;
  receive(joined(message_of(kind_of(IP_MSG_OUTPUT), 100), ipv4_packet(100)));
  EXPECT_EQ(count(IP_MSG_OUTPUT, Outcome::no_route), 1u);
  EXPECT_EQ(service.counts().at(IP_MSG_OUTPUT).received, 1u);
}

TEST_F(PacketService, RefusesAMessageThatNobodyHandles) {
  Service alone{references, [](const ipd::control::Request &) { return true; }};
  const Bytes bytes = joined(message_of(kind_of(IP_MSG_OUTPUT), 100), ipv4_packet(100));
  alone.receive({.sender = sender,
                 .minor = 0,
                 .opcode = IP_OPCODE_PACKET,
                 .bytes = bytes,
                 .reference = nullptr,
                 .wants_answer = false});
  EXPECT_EQ(alone.counts().at(IP_MSG_OUTPUT).by_outcome[static_cast<size_t>(Outcome::unknown_minor)], 1u);
}

TEST_F(PacketService, ShowsATapThePacketAsItCame) {
  RecordingTap tap;
  service.add(tap);
  Bytes message = message_of(kind_of(IP_MSG_OUTPUT), 100);
  message[28] = std::byte{7};
  receive(joined(message, ipv4_packet(100)));
  ASSERT_EQ(tap.seen.size(), 1u);
  EXPECT_FALSE(tap.seen[0].first.to_client);
  EXPECT_EQ(tap.seen[0].first.pid, sender.pid);
  EXPECT_EQ(tap.seen[0].first.minor, IP_MSG_OUTPUT);
  EXPECT_EQ(tap.seen[0].first.iod, 7u);
  EXPECT_EQ(tap.seen[0].first.outcome, Outcome::done);
  EXPECT_EQ(tap.seen[0].second, ipv4_packet(100));
}

TEST_F(PacketService, ShowsATapWhatWasRefused) {
  RecordingTap tap;
  service.add(tap);
  receive(joined(message_of(kind_of(IP_MSG_OUTPUT), 99), ipv4_packet(100)));
  receive(Bytes(232));  // of no kind that is known: there is nothing to show
  ASSERT_EQ(tap.seen.size(), 1u);
  EXPECT_EQ(tap.seen[0].first.outcome, Outcome::bad_length);
  EXPECT_TRUE(tap.seen[0].second.empty());
}

TEST_F(PacketService, ShowsNothingToATapThatWantsNothing) {
  RecordingTap tap;
  tap.wanted = false;
  service.add(tap);
  receive(joined(message_of(kind_of(IP_MSG_OUTPUT), 100), ipv4_packet(100)));
  service.delivered(9, 3, Outcome::done, ipv4_packet(40));
  EXPECT_TRUE(tap.seen.empty());
}

TEST_F(PacketService, CountsAndShowsWhatGoesToClients) {
  RecordingTap tap;
  service.add(tap);
  service.delivered(9, 3, Outcome::done, ipv4_packet(40));
  service.delivered(9, 3, Outcome::queue_full, ipv4_packet(60));
  EXPECT_EQ(service.deliveries().received, 2u);
  EXPECT_EQ(service.deliveries().bytes, 100u);
  EXPECT_EQ(service.deliveries().by_outcome[static_cast<size_t>(Outcome::queue_full)], 1u);
  ASSERT_EQ(tap.seen.size(), 2u);
  EXPECT_TRUE(tap.seen[1].first.to_client);
  EXPECT_EQ(tap.seen[1].first.iod, 3u);
  EXPECT_EQ(tap.seen[1].second, ipv4_packet(60));
}

TEST_F(PacketService, LogsMisuseOnceForEachProcessAndReason) {
  const auto misuse = [this] {
    testing::internal::CaptureStderr();
    receive(joined(message_of(kind_of(IP_MSG_OUTPUT), 99), ipv4_packet(100)));
    return testing::internal::GetCapturedStderr();
  };
  EXPECT_NE(misuse().find("refused from process 4711 (user 1000, SAP 2048): output, 332 bytes: the packet is not as "
                          "long as the message says"),
            std::string::npos);
  EXPECT_EQ(misuse(), "");
  service.process_gone(sender.pid);
  EXPECT_NE(misuse(), "");
}

TEST_F(PacketService, LogsNothingAboutPacketsThatAreLost) {
  handler.outcome = Outcome::no_neighbor;
  testing::internal::CaptureStderr();
  receive(joined(message_of(kind_of(IP_MSG_OUTPUT), 100), ipv4_packet(100)));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
