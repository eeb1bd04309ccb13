// SPDX-License-Identifier: Apache-2.0
// Received headers: pulled up, checked, recognised, and who has the packet afterwards.
#include "unit/call_lines.h"
#include "unit/packet_headers.h"

namespace unit {
namespace {

const Bytes options = {1, 1, 1, 0, 7, 3, 4, 0};

class HeaderCheckTest : public PacketTest {
 protected:
  static Calls pullups() { return only(calls(), {"m_pullup"}); }
  // Makes each pull-up answer a packet with another first buffer.
  static void move_packets() { platform().scripts.answer("m_pullup", fake_platform::moves_packet); }
  // A valid packet is as it was; an invalid one is freed by the check itself.
  static void expect_valid(struct mbuf *packet) {
    const Bytes before = bytes_of(packet);
    const struct mbuf *checked = ip_packet_is_valid(packet);
    ASSERT_NE(checked, nullptr);
    EXPECT_EQ(bytes_of(checked), before);
    EXPECT_EQ(platform().log.count("m_freem"), 0u);
  }
  static void expect_freed(struct mbuf *packet) {
    EXPECT_EQ(ip_packet_is_valid(packet), nullptr);
    EXPECT_EQ(only(calls(), {"m_freem"}), (Calls{"m_freem(packet)"}));
    EXPECT_TRUE(is_free(packet));
  }
};

// ------------------------------------------------------------ ip_pullup_header

TEST_F(HeaderCheckTest, AHeaderInOneBufferIsNotPulledUp) {
  struct mbuf *packet = packet_of({good_header(options)});
  EXPECT_EQ(ip_pullup_header(packet, 0), packet);
  EXPECT_EQ(ip_pullup_header(packet, 1), packet);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(HeaderCheckTest, TwentyBytesArePulledUp) {
  struct mbuf *packet = packet_of(cut(good_header(options), {19}));
  EXPECT_EQ(ip_pullup_header(packet, 0), packet);
  EXPECT_EQ(packet->m_len, 20u);
  EXPECT_EQ(calls(), (Calls{"m_pullup(packet, 20)"}));
}

TEST_F(HeaderCheckTest, TheOptionsArePulledUpWhenTheyAreWanted) {
  struct mbuf *packet = packet_of(cut(good_header(options), {1, 19}));
  EXPECT_EQ(ip_pullup_header(packet, 1), packet);
  EXPECT_EQ(packet->m_len, 28u);
  EXPECT_EQ(calls(), (Calls{"m_pullup(packet, 20)", "m_pullup(packet, 28)"}));
}

TEST_F(HeaderCheckTest, OnlyTheOptionsArePulledUpBehindAWholeHeader) {
  struct mbuf *packet = packet_of(cut(good_header(options), {20}));
  EXPECT_EQ(ip_pullup_header(packet, 7), packet) << "any value but 0 wants them";
  EXPECT_EQ(calls(), (Calls{"m_pullup(packet, 28)"}));
}

TEST_F(HeaderCheckTest, EachPullUpGoesOnWithThePacketOfTheLast) {
  struct mbuf *packet = packet_of(cut(good_header(options), {1, 19}));
  move_packets();
  const struct mbuf *pulled = ip_pullup_header(packet, 1);
  ASSERT_NE(pulled, nullptr);
  EXPECT_NE(pulled, packet);
  EXPECT_EQ(pulled->m_len, 28u);
  EXPECT_EQ(bytes_of(pulled), good_header(options));
  EXPECT_TRUE(is_free(packet));
}

TEST_F(HeaderCheckTest, APacketThatIsTooShortToPullUpIsGone) {
  EXPECT_EQ(ip_pullup_header(packet_of({{0x45, 0}, {0, 48}}), 0), nullptr);
  EXPECT_EQ(ip_pullup_header(packet_of({{0x45, 0}, {0, 48}}), 1), nullptr);
  EXPECT_EQ(ip_pullup_header(packet_of({header_with(0, 0x4f)}), 1), nullptr) << "no 60 bytes";
  EXPECT_EQ(platform().log.count("m_freem"), 0u) << "the pull-up has freed it";
  EXPECT_EQ(ip_pullup_header(nullptr, 1), nullptr);
}

// ------------------------------------------------------------ ip_packet_is_valid

TEST_F(HeaderCheckTest, AGoodPacketComesBackInNetworkOrder) {
  expect_valid(packet_of({joined(good_header(), Bytes(28, 0xee))}));
  EXPECT_EQ(pullups(), Calls{});
}

TEST_F(HeaderCheckTest, OptionsAreNotParsed) {
  expect_valid(packet_of({good_header(options)}));
}

TEST_F(HeaderCheckTest, TheTotalLengthIsNotComparedWithThePackets) {
  expect_valid(packet_of({good_header()}));
}

TEST_F(HeaderCheckTest, ATotalLengthOfJustTheHeaderIsGood) {
  expect_valid(packet_of({header_with(3, 20)}));
}

TEST_F(HeaderCheckTest, ASplitHeaderIsPulledUpFirst) {
  expect_valid(packet_of(cut(good_header(options), {3, 10, 9})));
  EXPECT_EQ(pullups(), (Calls{"m_pullup(packet, 20)", "m_pullup(packet, 28)"}));
}

TEST_F(HeaderCheckTest, ThePacketThatAPullUpMovedIsChecked) {
  struct mbuf *packet = packet_of(cut(good_header(options), {3, 19}));
  move_packets();
  const struct mbuf *checked = ip_packet_is_valid(packet);
  ASSERT_NE(checked, nullptr);
  EXPECT_NE(checked, packet);
  EXPECT_EQ(bytes_of(checked), good_header(options));
}

TEST_F(HeaderCheckTest, NoPacketIsInvalid) {
  EXPECT_EQ(ip_packet_is_valid(nullptr), nullptr);
  EXPECT_EQ(calls(), Calls{});
}

struct InvalidRow {
  const char *name;
  Bytes bytes;
};

class InvalidPacket : public HeaderCheckTest, public testing::WithParamInterface<InvalidRow> {};

TEST_P(InvalidPacket, IsFreed) {
  expect_freed(packet_of({GetParam().bytes}));
}

Bytes header_with_a_bad_checksum() {
  Bytes header = good_header();
  header[11] ^= 1;
  return header;
}

INSTANTIATE_TEST_SUITE_P(Headers, InvalidPacket,
                         testing::Values(InvalidRow{"Version6", header_with(0, 0x65)},
                                         InvalidRow{"Version0", header_with(0, 0x05)},
                                         InvalidRow{"HeaderLength16", header_with(0, 0x44)},
                                         InvalidRow{"HeaderLength0", header_with(0, 0x40)},
                                         InvalidRow{"BadChecksum", header_with_a_bad_checksum()},
                                         InvalidRow{"TotalLength19", header_with(3, 19)},
                                         InvalidRow{"TotalLength0", header_with(3, 0)},
                                         InvalidRow{"TotalLengthBelowOptions", header_with(3, 27, options)}),
                         [](const auto &of) { return std::string(of.param.name); });

TEST_F(HeaderCheckTest, TheChecksumIsThatOfTheOptionsToo) {
  Bytes header = good_header(options);
  header[21] ^= 1;
  expect_freed(packet_of({header}));
}

TEST_F(HeaderCheckTest, APacketTooShortForItsHeaderIsFreedOnce) {
  for (const auto &parts : {cut(good_header(), {5}), std::vector<Bytes>{Bytes(19, 0x45)}}) {
    struct mbuf *packet = packet_of(parts);
    if (parts.size() > 1) platform().scripts.fail("m_pullup");
    EXPECT_EQ(ip_packet_is_valid(packet), nullptr);
    EXPECT_TRUE(is_free(packet));
  }
  EXPECT_EQ(platform().log.count("m_freem"), 0u) << "the pull-up has freed it";
}

TEST_F(HeaderCheckTest, APacketTooShortForItsOptionsIsFreedOnce) {
  struct mbuf *packet = packet_of({header_with(0, 0x46)});
  EXPECT_EQ(ip_packet_is_valid(packet), nullptr);
  EXPECT_EQ(calls(), (Calls{"m_pullup(packet, 24)"}));
  EXPECT_TRUE(is_free(packet));
}

TEST_F(HeaderCheckTest, TheVersionIsLookedAtBeforeTheOptionsArePulledUp) {
  expect_freed(packet_of({header_with(0, 0x66)}));
  EXPECT_EQ(pullups(), Calls{});
}

// ------------------------------------------------------------ ip_is_mpls_oam_echo_request_packet

class EchoRequestTest : public HeaderCheckTest {
 protected:
  // A UDP packet to 127.0.0.1, port 3503.
  static Bytes request(const Bytes &with_options = {}) {
    Bytes bytes = good_header(with_options);
    bytes[16] = 127;
    bytes[17] = bytes[18] = 0;
    bytes[19] = 1;
    return joined(bytes, {0x40, 0x00, 0x0d, 0xaf, 0, 20, 0, 0, 0xee});
  }
  uint32_t ask(const std::vector<Bytes> &parts) {
    first = packet = packet_of(parts);
    return ip_is_mpls_oam_echo_request_packet(&packet);
  }
  static Bytes changed(Bytes bytes, size_t offset, uint8_t value) {
    bytes.at(offset) = value;
    return bytes;
  }
  struct mbuf *packet = nullptr;
  const struct mbuf *first = nullptr;
};

TEST_F(EchoRequestTest, UdpToPort3503OfTheLoopbackNetworkIsOne) {
  EXPECT_EQ(ask({request()}), 1u);
  EXPECT_EQ(ask({changed(request(), 18, 9)}), 1u) << "any address of 127/8";
  EXPECT_EQ(packet, first);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(EchoRequestTest, ThePortStandsBehindTheOptions) {
  EXPECT_EQ(ask({request(options)}), 1u);
}

TEST_F(EchoRequestTest, AnythingElseIsNone) {
  EXPECT_EQ(ask({changed(request(), 16, 10)}), 0u) << "another network";
  EXPECT_EQ(ask({changed(request(), 9, 6)}), 0u) << "another protocol";
  EXPECT_EQ(ask({changed(request(), 23, 0xae)}), 0u) << "another port";
  EXPECT_EQ(ask({changed(request(), 22, 0x0e)}), 0u) << "another port";
  EXPECT_EQ(packet, first) << "and the packet stays";
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(EchoRequestTest, ThePortOfTheSourceDoesNotCount) {
  Bytes bytes = request();
  std::swap_ranges(bytes.begin() + 20, bytes.begin() + 22, bytes.begin() + 22);
  EXPECT_EQ(ask({bytes}), 0u);
}

TEST_F(EchoRequestTest, OnlyUdpToTheLoopbackNetworkIsPulledUpBehindTheHeader) {
  EXPECT_EQ(ask(cut(changed(request(), 16, 10), {20})), 0u);
  EXPECT_EQ(ask(cut(changed(request(), 9, 6), {20})), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(EchoRequestTest, WhatIsSplitIsPulledUp) {
  EXPECT_EQ(ask(cut(request(options), {2, 19})), 1u);
  EXPECT_EQ(calls(), (Calls{"m_pullup(packet, 20)", "m_pullup(packet, 36)"}));
  EXPECT_EQ(bytes_of(packet), request(options));
}

TEST_F(EchoRequestTest, TheCallerGetsThePacketThatAPullUpMoved) {
  move_packets();
  EXPECT_EQ(ask(cut(request(), {2, 21})), 1u);
  EXPECT_NE(packet, first);
  EXPECT_EQ(bytes_of(packet), request());
  EXPECT_EQ(ask(cut(changed(request(), 9, 6), {2})), 0u);
  EXPECT_NE(packet, first) << "also when it is none";
}

TEST_F(EchoRequestTest, APacketThatIsTooShortIsGone) {
  EXPECT_EQ(ask({{0x45}}), 0u);
  EXPECT_EQ(packet, nullptr);
  Bytes without_ports = request();
  without_ports.resize(27);
  EXPECT_EQ(ask({without_ports}), 0u);
  EXPECT_EQ(packet, nullptr);
}

TEST_F(EchoRequestTest, NoPacketIsNone) {
  EXPECT_EQ(ip_is_mpls_oam_echo_request_packet(nullptr), 0u);
  EXPECT_EQ(ip_is_mpls_oam_echo_request_packet(&packet), 0u);
}

}  // namespace
}  // namespace unit
