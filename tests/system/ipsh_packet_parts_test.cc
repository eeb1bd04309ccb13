// SPDX-License-Identifier: Apache-2.0
// What capture and ping are made of: echoes, their accounts, records of a capture, pcapng blocks.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

#include "capture_stream.h"
#include "captured_row.h"
#include "echo.h"
#include "ip_packet_util.h"
#include "pcapng.h"

namespace ipsh {
namespace {

using Packet = std::vector<uint8_t>;
using std::chrono::milliseconds;

constexpr EchoRequest request{.destination = 0x0a000002, .id = 0x1234, .sequence = 7, .data = 56};

// The packet as its receiver answers it.
Packet reply_to(Packet packet) {
  std::swap_ranges(packet.begin() + 12, packet.begin() + 16, packet.begin() + 16);
  packet[20] = 0;
  packet[22] = packet[23] = 0;
  const uint16_t checksum = ip_checksum(&packet[20], static_cast<uint32_t>(packet.size() - 20));
  std::memcpy(&packet[22], &checksum, sizeof checksum);
  return packet;
}

// An ICMP error from 10.0.0.9 that quotes so many bytes of the packet.
Packet error_about(const Packet &packet, uint8_t type, uint8_t code, size_t quoted) {
  Packet error(28, 0);
  error[0] = 0x45;
  error[8] = 63;
  error[9] = 1;
  error[12] = 10;
  error[15] = 9;
  error[20] = type;
  error[21] = code;
  error.insert(error.end(), packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(quoted));
  const uint16_t checksum = ip_checksum(&error[20], static_cast<uint32_t>(error.size() - 20));
  std::memcpy(&error[22], &checksum, sizeof checksum);
  return error;
}

TEST(Echo, IsAnIpv4PacketWithAGoodChecksum) {
  for (const uint32_t data : {0u, 1u, 56u, most_echo_data}) {
    EchoRequest sized = request;
    sized.data = data;
    const Packet packet = build_echo(sized);
    ASSERT_EQ(packet.size(), 28u + data);
    EXPECT_EQ(packet[0], 0x45);
    EXPECT_EQ(packet[2] << 8 | packet[3], 28 + static_cast<int>(data));
    EXPECT_EQ(packet[8], 64);
    EXPECT_EQ(packet[9], 1);
    EXPECT_EQ(Packet(packet.begin() + 16, packet.begin() + 20), (Packet{10, 0, 0, 2}));
    EXPECT_EQ(packet[20], 8);
    EXPECT_EQ(Packet(packet.begin() + 24, packet.begin() + 28), (Packet{0x12, 0x34, 0, 7}));
    EXPECT_EQ(ip_checksum(&packet[20], static_cast<uint32_t>(packet.size() - 20)), 0);
  }
}

TEST(Echo, KnowsItsOwnSequenceNumberAgain) {
  const Packet packet = build_echo(request);
  EXPECT_EQ(echo_sequence(packet, 0x1234), 7);
  EXPECT_EQ(echo_sequence(packet, 0x1235), std::nullopt);
  EXPECT_EQ(echo_sequence(std::span(packet).first(28), 0x1234), 7);
  EXPECT_EQ(echo_sequence(std::span(packet).first(27), 0x1234), std::nullopt);
}

TEST(EchoNews, AReplySaysFromWhomAndWhichOne) {
  const auto news = read_echo_news(reply_to(build_echo(request)), 0x1234);
  ASSERT_TRUE(news);
  EXPECT_TRUE(news->is_reply());
  EXPECT_EQ(news->sequence, 7);
  EXPECT_EQ(news->from, 0x0a000002u);
  EXPECT_EQ(news->ttl, 64);
  EXPECT_EQ(news->length, 64u);
}

TEST(EchoNews, AnErrorThatQuotesTheEchoSaysWhy) {
  const auto news = read_echo_news(error_about(build_echo(request), 11, 0, 28), 0x1234);
  ASSERT_TRUE(news);
  EXPECT_FALSE(news->is_reply());
  EXPECT_EQ(news->type, 11);
  EXPECT_EQ(news->sequence, 7);
  EXPECT_EQ(news->from, 0x0a000009u);
  EXPECT_STREQ(icmp_type_text(news->type), "time exceeded");
}

TEST(EchoNews, WhatIsNotAboutOneOfOursSaysNothing) {
  const Packet echo = build_echo(request);
  EXPECT_FALSE(read_echo_news(echo, 0x1234)) << "the request itself";
  EXPECT_FALSE(read_echo_news(reply_to(echo), 0x1235));
  EXPECT_FALSE(read_echo_news(error_about(echo, 11, 0, 28), 0x1235));
  EXPECT_FALSE(read_echo_news(error_about(echo, 11, 0, 27), 0x1234)) << "quotes too little";
  EXPECT_FALSE(read_echo_news(error_about(echo, 5, 0, 28), 0x1234)) << "a redirect ends nothing";
  Packet damaged = reply_to(echo);
  damaged.back() ^= 1;
  EXPECT_FALSE(read_echo_news(damaged, 0x1234));
  Packet fragment = reply_to(echo);
  fragment[7] = 1;
  EXPECT_FALSE(read_echo_news(fragment, 0x1234));
  Packet udp = reply_to(echo);
  udp[9] = 17;
  EXPECT_FALSE(read_echo_news(udp, 0x1234));
}

TEST(EchoNews, NoLengthIsReadBeyond) {
  for (const Packet &whole : {reply_to(build_echo(request)), error_about(build_echo(request), 3, 1, 40)}) {
    for (size_t length = 0; length < whole.size(); ++length) {
      const Packet cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
      EXPECT_FALSE(read_echo_news(cut, 0x1234)) << length;
    }
  }
  Packet long_header = reply_to(build_echo(request));
  long_header[0] = 0x4f;
  EXPECT_FALSE(read_echo_news(long_header, 0x1234));
}

class EchoBookTest : public testing::Test {
 protected:
  const EchoBook::Time start{std::chrono::hours(1)};
  EchoBook book;
};

TEST_F(EchoBookTest, RoundTripsAreMeasured) {
  book.sent(1, start);
  book.sent(2, start + milliseconds(10));
  EXPECT_FALSE(book.settled());
  EXPECT_DOUBLE_EQ(book.answered(2, start + milliseconds(14))->milliseconds, 4);
  EXPECT_DOUBLE_EQ(book.answered(1, start + milliseconds(2))->milliseconds, 2);
  EXPECT_TRUE(book.settled());
  const EchoStatistics statistics = book.statistics();
  EXPECT_EQ(statistics.sent, 2u);
  EXPECT_EQ(statistics.answered, 2u);
  EXPECT_DOUBLE_EQ(statistics.least, 2);
  EXPECT_DOUBLE_EQ(statistics.mean, 3);
  EXPECT_DOUBLE_EQ(statistics.most, 4);
  EXPECT_DOUBLE_EQ(statistics.deviation, 1);
}

TEST_F(EchoBookTest, ASecondAnswerIsADuplicate) {
  book.sent(1, start);
  EXPECT_FALSE(book.answered(1, start + milliseconds(1))->duplicate);
  EXPECT_TRUE(book.answered(1, start + milliseconds(2))->duplicate);
  EXPECT_EQ(book.statistics().answered, 1u);
  EXPECT_EQ(book.statistics().duplicates, 1u);
  EXPECT_DOUBLE_EQ(book.statistics().most, 1);
}

TEST_F(EchoBookTest, AnAnswerToNothingCountsAsNothing) {
  EXPECT_FALSE(book.answered(1, start));
  EXPECT_FALSE(book.failed(1, true));
  EXPECT_EQ(book.statistics().answered, 0u);
  EXPECT_DOUBLE_EQ(book.statistics().mean, 0);
}

TEST_F(EchoBookTest, WhatFailsIsSettledOnce) {
  book.sent(1, start);
  book.sent(2, start);
  EXPECT_TRUE(book.failed(1, true));
  EXPECT_FALSE(book.failed(1, true));
  EXPECT_TRUE(book.failed(2, false));
  EXPECT_TRUE(book.settled());
  EXPECT_EQ(book.statistics().errors, 1u);
  EXPECT_EQ(book.statistics().not_sent, 1u);
}

TEST_F(EchoBookTest, ASequenceNumberThatComesAgainIsANewEcho) {
  book.sent(1, start);
  book.sent(1, start + milliseconds(5));
  EXPECT_DOUBLE_EQ(book.answered(1, start + milliseconds(6))->milliseconds, 1);
  EXPECT_TRUE(book.settled());
  book.sent(1, start + milliseconds(10));
  EXPECT_FALSE(book.settled());
  EXPECT_FALSE(book.answered(1, start + milliseconds(11))->duplicate);
}

// A record as ipd sends it, with these bytes behind it.
std::vector<std::byte> record_of(ip_msg_captured record, size_t bytes) {
  record.header.major_type = IP_MAJOR_CLIENT;
  record.header.minor_type = IP_MSG_CAPTURED;
  std::vector<std::byte> message(sizeof record + bytes, std::byte{0x45});
  std::memcpy(message.data(), &record, sizeof record);
  return message;
}

TEST(CapturedRecord, IsReadWhole) {
  ip_msg_captured record{};
  record.seconds[0] = 5;
  record.seconds[1] = 1;
  record.nanoseconds = 6;
  record.dropped = 7;
  record.direction = IP_SHOW_TO_CLIENT;
  record.client = 8;
  record.minor = IP_MSG_INPUT;
  record.iod = 9;
  record.outcome = IP_SHOW_PACKET_QUEUE_FULL;
  record.packet_len = 40;
  record.captured_len = 20;
  CapturedPacket packet;
  ASSERT_TRUE(parse_captured(record_of(record, 20), &packet));
  EXPECT_EQ(packet.seconds, 0x100000005u);
  EXPECT_EQ(packet.nanoseconds, 6u);
  EXPECT_EQ(packet.dropped, 7u);
  EXPECT_TRUE(packet.to_client);
  EXPECT_EQ(packet.client, 8u);
  EXPECT_EQ(packet.minor, IP_MSG_INPUT);
  EXPECT_EQ(packet.iod, 9u);
  EXPECT_EQ(packet.outcome, IP_SHOW_PACKET_QUEUE_FULL);
  EXPECT_EQ(packet.length, 40u);
  EXPECT_EQ(packet.bytes, Packet(20, 0x45));
  const CapturedRow row = row_of(packet, "eth0");
  EXPECT_TRUE(row.has_header);
  EXPECT_EQ(row.source, 0x45454545u);
  EXPECT_EQ(comment_text(row), "delivery to process 8: queue-full");
}

TEST(CapturedRecord, OneThatMakesNoSenseIsNone) {
  CapturedPacket packet;
  ip_msg_captured record{};
  record.packet_len = record.captured_len = 20;
  EXPECT_TRUE(parse_captured(record_of(record, 20), &packet));
  EXPECT_FALSE(parse_captured(record_of(record, 19), &packet));
  EXPECT_FALSE(parse_captured(record_of(record, 21), &packet));
  const auto whole = record_of(record, 20);
  EXPECT_FALSE(parse_captured(std::span(whole).first(sizeof record - 1), &packet));
  auto other = whole;
  other[2] = std::byte{1};
  EXPECT_FALSE(parse_captured(other, &packet));
  record.packet_len = 19;
  EXPECT_FALSE(parse_captured(record_of(record, 20), &packet));
  record.packet_len = 20;
  record.nanoseconds = 1000000000;
  EXPECT_FALSE(parse_captured(record_of(record, 20), &packet));
}

TEST(CapturedRecord, AnUnknownMessageAndOutcomeHaveNamesToo) {
  CapturedPacket packet;
  packet.minor = 5;
  packet.outcome = 99;
  packet.client = 1;
  const CapturedRow row = row_of(packet, "");
  EXPECT_FALSE(row.has_header);
  EXPECT_EQ(comment_text(row), "message 5 from process 1: unknown-outcome");
}

TEST(Pcapng, BlocksHaveTheirLengthAtBothEndsAndEndAtAMultipleOfFour) {
  PcapngWriter writer;
  Packet file = PcapngWriter::section("test");
  for (size_t length = 0; length < 9; ++length) {
    const Packet bytes(length, 0x45);
    const auto block = writer.packet(
        length < 5 ? "one" : "other",
        {.nanoseconds = 1, .outbound = true, .dropped = length, .length = 9, .bytes = bytes, .comment = "why"});
    file.insert(file.end(), block.begin(), block.end());
  }
  std::vector<uint32_t> types;
  size_t at = 0;
  while (at + 12 <= file.size()) {
    uint32_t type = 0, length = 0, length_again = 0;
    std::memcpy(&type, &file[at], sizeof type);
    std::memcpy(&length, &file[at + 4], sizeof length);
    ASSERT_GE(length, 12u);
    ASSERT_EQ(length % 4, 0u);
    ASSERT_LE(at + length, file.size());
    std::memcpy(&length_again, &file[at + length - 4], sizeof length);
    EXPECT_EQ(length, length_again);
    types.push_back(type);
    at += length;
  }
  EXPECT_EQ(at, file.size());
  EXPECT_EQ(types, (std::vector<uint32_t>{0x0a0d0d0a, 1, 6, 6, 6, 6, 6, 1, 6, 6, 6, 6}));
}

}  // namespace
}  // namespace ipsh
