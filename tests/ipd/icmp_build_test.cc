// SPDX-License-Identifier: Apache-2.0
// The bytes of an ICMP error.
#include "ipd/packet/icmp_build.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <random>

#include "ipd/icmp_packets.h"
#include "ipd/packet/icmp_rules.h"

namespace {

using namespace icmp_packets;

Bytes build(const IcmpError &error, const Bytes &offending, uint32_t source = own) {
  std::array<std::byte, largest_icmp_error> room;
  room.fill(std::byte{0x5a});
  const size_t length = build_icmp_error(error, offending, source, room);
  EXPECT_LE(length, room.size());
  for (size_t at = length; at < room.size(); ++at) EXPECT_EQ(room[at], std::byte{0x5a}) << "behind it, at " << at;
  return {room.begin(), room.begin() + static_cast<std::ptrdiff_t>(length)};
}

constexpr IcmpError port_unreachable{.type = 3, .code = 3};

TEST(IcmpBuild, ItIsAnIcmpPacketFromUsToTheSource) {
  const Bytes packet = build(port_unreachable, packet_of({}));
  EXPECT_EQ(fault_of(packet), nullptr);
  EXPECT_EQ(ipv4::source(packet), own);
  EXPECT_EQ(ipv4::destination(packet), neighbor);
  EXPECT_EQ(ipv4::ttl(packet), 64);
  EXPECT_EQ(ipv4::header_length(packet), ipv4::shortest_header);
}

TEST(IcmpBuild, IdentificationAndHeaderChecksumAreLeftToTheOutput) {
  const Bytes packet = build(port_unreachable, packet_of({}));
  EXPECT_EQ(ipv4::identification(packet), 0);
  EXPECT_EQ(ipv4::checksum(packet), 0);
}

TEST(IcmpBuild, ItsPrecedenceIsThatOfInternetworkControl) {
  EXPECT_EQ(ipv4::tos(build(port_unreachable, packet_of({}))), 0xc0);
}

TEST(IcmpBuild, TheTypeOfServiceIsThePacketsButForPrecedenceAndCongestion) {
  EXPECT_EQ(ipv4::tos(build(port_unreachable, packet_of({.tos = 0x10}))), 0xd0);
  EXPECT_EQ(ipv4::tos(build(port_unreachable, packet_of({.tos = 0xff}))), 0xdc);
}

TEST(IcmpBuild, TypeAndCodeStandFirst) {
  const Bytes message = message_of(build({.type = 11, .code = 1}, packet_of({})));
  EXPECT_EQ(ipv4::read8(message, 0), 11);
  EXPECT_EQ(ipv4::read8(message, 1), 1);
}

TEST(IcmpBuild, TheRestOfTheHeaderIsANumberWithItsMostSignificantByteFirst) {
  const Bytes message = message_of(build({.type = 3, .code = 4, .rest_of_header = 0x01020304}, packet_of({})));
  EXPECT_EQ((Bytes{message.begin() + 4, message.begin() + 8}),
            (Bytes{std::byte{1}, std::byte{2}, std::byte{3}, std::byte{4}}));
}

TEST(IcmpBuild, AnMtuStandsInTheLowHalfOfTheRest) {
  const Bytes message = message_of(build({.type = 3, .code = 4, .rest_of_header = 1400}, packet_of({})));
  EXPECT_EQ(ipv4::read16(message, 4), 0);
  EXPECT_EQ(ipv4::read16(message, 6), 1400);  // RFC 1191, section 4
}

TEST(IcmpBuild, APointerStandsInTheTopByteOfTheRest) {
  const Bytes message = message_of(build({.type = 12, .code = 0, .rest_of_header = 20u << 24}, packet_of({})));
  EXPECT_EQ(ipv4::read8(message, 4), 20);  // RFC 792
  EXPECT_EQ(ipv4::read32(message, 4) & 0xffffff, 0u);
}

TEST(IcmpBuild, AGatewayIsAllOfTheRest) {
  const Bytes message = message_of(build({.type = 5, .code = 1, .rest_of_header = second_neighbor}, packet_of({})));
  EXPECT_EQ(ipv4::read32(message, 4), second_neighbor);  // RFC 792
}

TEST(IcmpBuild, ThePacketIsQuotedAsItCame) {
  const Bytes offending = packet_of({.tos = 0x2e, .fragment = 0x4000, .options = {7, 7, 4, 0, 0, 0, 0, 0}});
  EXPECT_EQ(quoted_in(build(port_unreachable, offending)), offending);
}

TEST(IcmpBuild, OfALongPacketAsMuchIsQuotedAsFitsInto576Bytes) {
  for (const size_t data : {527u, 528u, 529u, 1480u, 65515u}) {
    const Bytes offending = packet_of({}, data);
    const Bytes quoted = quoted_in(build(port_unreachable, offending));
    ASSERT_EQ(quoted.size(), std::min<size_t>(offending.size(), 548)) << data;
    EXPECT_TRUE(std::equal(quoted.begin(), quoted.end(), offending.begin())) << data;
  }
}

TEST(IcmpBuild, OfAPacketOfWhichOnlyTheBeginningIsThereThatIsQuoted) {
  Bytes offending = packet_of({}, 1400);
  offending.resize(28);
  EXPECT_EQ(quoted_in(build(port_unreachable, offending)), offending);
}

TEST(IcmpBuild, PaddingBehindThePacketIsNotQuoted) {
  const Bytes offending = packet_of({}, 2);
  Bytes padded = offending;
  padded.resize(46);
  EXPECT_EQ(quoted_in(build(port_unreachable, padded)), offending);
}

TEST(IcmpBuild, WithoutATotalLengthAllThatCameIsQuoted) {
  Bytes offending = packet_of({});
  ipv4::write16(offending, ipv4::total_length_at, 0);
  EXPECT_EQ(quoted_in(build(port_unreachable, offending)), offending);
}

TEST(IcmpBuild, AnOddNumberOfBytesIsSummedUp) {
  EXPECT_EQ(fault_of(build(port_unreachable, packet_of({}, 13))), nullptr);
}

// Each packet lies at the end of a block of its own, where a sanitizer sees the first byte read behind it.
TEST(IcmpBuild, AboutAnyBytesWithoutAnObjectionItIsAGoodIcmpPacket) {
  const uint32_t seed = std::random_device()();
  std::printf("seed %u\n", seed);
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  uint32_t built = 0;
  for (int round = 0; round < 20000; ++round) {
    Bytes offending = packet_of({.source = static_cast<uint32_t>(random()),
                                 .destination = static_cast<uint32_t>(random()),
                                 .protocol = static_cast<uint8_t>(random() % 4 == 0 ? 1 : random()),
                                 .tos = static_cast<uint8_t>(random()),
                                 .fragment = static_cast<uint16_t>(random() % 2 == 0 ? 0 : random()),
                                 .options = std::vector<uint8_t>(4 * (random() % 11))},
                                random() % 700);
    for (uint32_t hits = random() % 4; hits > 0; --hits) offending[random() % ipv4::shortest_header] = static_cast<std::byte>(random());
    if (random() % 2 == 0) ipv4::write16(offending, ipv4::checksum_at, 0);
    const size_t there = random() % 3 == 0 ? random() % (offending.size() + 1) : offending.size();
    const auto exact = std::make_unique<std::byte[]>(there);
    std::copy_n(offending.begin(), there, exact.get());
    const std::span<const std::byte> packet(exact.get(), there);
    if (objection_to_error(packet, {}) != Objection::none) continue;
    (void)objection_to_redirect(packet, second_neighbor, {});
    std::array<std::byte, largest_icmp_error> room;
    const IcmpError error{.type = 12, .code = 1, .rest_of_header = static_cast<uint32_t>(random())};
    const size_t length = build_icmp_error(error, packet, own, room);
    ASSERT_EQ(fault_of(std::span(room).first(length)), nullptr);
    ASSERT_GE(length, 28 + ipv4::header_length(packet));
    ++built;
  }
  EXPECT_GT(built, 1000u);
}

}  // namespace
