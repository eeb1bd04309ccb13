// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/filling.h"

#include <gtest/gtest.h>

#include "packet_bytes.h"

namespace {

using ipd::packet::check_header;
using ipd::packet::fill_header;
using ipd::packet::Identifications;
using ipd::packet::Outcome;
using test_support::make_packet;
using test_support::Packet;
using test_support::PacketFields;
namespace ipv4 = ipd::packet::ipv4;

constexpr uint32_t own = 0x0a000009, group = 0xef010203, everybody = 0xffffffff;

Packet filled(const PacketFields &fields, uint32_t source = own) {
  Packet packet = make_packet(fields);
  Identifications identifications(77);
  EXPECT_EQ(fill_header(packet, source, identifications), Outcome::done);
  EXPECT_TRUE(ipv4::checksum_is_good(packet));
  return packet;
}

Outcome outcome_of(const PacketFields &fields, uint32_t source) {
  Packet packet = make_packet(fields);
  Identifications identifications(77);
  return fill_header(packet, source, identifications);
}

// RFC 1071, section 3: the sum of 00 01 f2 03 f4 f5 f6 f7 is ddf2.
TEST(PacketFillingTest, TheSumIsThatOfTheStandard) {
  const std::vector<std::byte> bytes = {std::byte{0x00}, std::byte{0x01}, std::byte{0xf2}, std::byte{0x03},
                                        std::byte{0xf4}, std::byte{0xf5}, std::byte{0xf6}, std::byte{0xf7}};
  EXPECT_EQ(ipv4::add_words(bytes), 0xddf2);
  EXPECT_EQ(ipv4::checksum_of(bytes), 0x220d);
  EXPECT_EQ(ipv4::add_words(ipv4::Bytes(bytes).first(3)), 0xf201);
}

TEST(PacketFillingTest, WhatIsThereStays) {
  const PacketFields fields{.ttl = 3, .identification = 0x4321};
  EXPECT_EQ(filled(fields), make_packet(fields));
}

TEST(PacketFillingTest, AMissingSourceIsFilledIn) {
  EXPECT_EQ(ipv4::source(filled({.source = 0})), own);
}

TEST(PacketFillingTest, AMissingTtlIsOneToGroupsAndMoreToOthers) {
  EXPECT_EQ(ipv4::ttl(filled({.ttl = 0})), 64);
  EXPECT_EQ(ipv4::ttl(filled({.destination = group, .ttl = 0})), 1);
}

TEST(PacketFillingTest, AMissingLengthIsThatOfWhatCame) {
  EXPECT_EQ(ipv4::total_length(filled({.says_length = false, .data = 100})), 120);
}

TEST(PacketFillingTest, AMissingIdentificationIsFilledInUnlessItTellsNothing) {
  EXPECT_EQ(ipv4::identification(filled({.identification = 0})), 77);
  EXPECT_EQ(ipv4::identification(filled({.identification = 0, .fragment = ipv4::dont_fragment})), 0);
  EXPECT_EQ(ipv4::identification(filled({.identification = 0, .fragment = ipv4::more_fragments})), 0);
  EXPECT_EQ(ipv4::identification(filled({.identification = 0, .fragment = 4})), 0);
}

TEST(PacketFillingTest, NoIdentificationIsZero) {
  Identifications identifications(0xffff);
  EXPECT_EQ(identifications.next(), 0xffff);
  EXPECT_EQ(identifications.next(), 1);
  EXPECT_EQ(Identifications(0).next(), 1);
}

TEST(PacketFillingTest, AWrongChecksumIsMadeGood) {
  Packet packet = make_packet();
  ipv4::write16(packet, ipv4::checksum_at, 0x5555);
  Identifications identifications(1);
  EXPECT_EQ(fill_header(packet, own, identifications), Outcome::done);
  EXPECT_EQ(packet, make_packet());
}

TEST(PacketFillingTest, WithoutAnAddressOnlySomeMayBeSent) {
  EXPECT_EQ(outcome_of({.source = 0}, 0), Outcome::no_source);
  EXPECT_EQ(outcome_of({.source = 0, .destination = group}, 0), Outcome::no_source);
  EXPECT_EQ(outcome_of({.source = 0, .destination = everybody}, 0), Outcome::done);
  EXPECT_EQ(outcome_of({.source = 0, .destination = group, .protocol = 2}, 0), Outcome::done);
  EXPECT_EQ(outcome_of({.source = 0, .protocol = 2}, 0), Outcome::no_source);
}

TEST(PacketFillingTest, AHeaderThatNobodyMaySendIsRefused) {
  EXPECT_EQ(check_header(make_packet()), Outcome::done);
  EXPECT_EQ(check_header(make_packet({.source = 0})), Outcome::done);
  EXPECT_EQ(check_header(make_packet({.says_length = false})), Outcome::done);
  EXPECT_EQ(check_header(make_packet({.source = group})), Outcome::bad_packet);
  EXPECT_EQ(check_header(make_packet({.source = everybody})), Outcome::bad_packet);
  EXPECT_EQ(check_header(make_packet({.destination = 0})), Outcome::bad_packet);
}

TEST(PacketFillingTest, APacketThatIsNotWholeIsRefused) {
  Packet packet = make_packet({.data = 0});
  EXPECT_EQ(check_header(packet), Outcome::done);
  EXPECT_EQ(check_header(ipv4::Bytes(packet).first(19)), Outcome::bad_packet);
  ipv4::write16(packet, ipv4::total_length_at, 21);
  EXPECT_EQ(check_header(packet), Outcome::bad_packet);
  ipv4::write16(packet, ipv4::total_length_at, 0);
  ipv4::write8(packet, 0, 0x46);
  EXPECT_EQ(check_header(packet), Outcome::bad_packet) << "a header longer than the packet";
  ipv4::write8(packet, 0, 0x44);
  EXPECT_EQ(check_header(packet), Outcome::bad_packet) << "a header shorter than any";
  ipv4::write8(packet, 0, 0x65);
  EXPECT_EQ(check_header(packet), Outcome::bad_packet) << "another version";
}

}  // namespace
