// SPDX-License-Identifier: Apache-2.0
// Fragments, put together again by a naive receiver.
#include "ipd/packet/fragments.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "packet_bytes.h"

namespace {

using ipd::packet::Fragments;
using ipd::packet::Outcome;
using test_support::make_packet;
using test_support::Packet;
using test_support::PacketFields;
namespace ipv4 = ipd::packet::ipv4;

// RFC 791: record route is not copied, loose source route is; no operation, end of options.
constexpr uint8_t record_route = 7, loose_source_route = 131, no_operation = 1;

std::vector<Packet> all(Fragments &fragments) {
  std::vector<Packet> list;
  for (auto next = fragments.next(); !next.empty(); next = fragments.next())
    list.emplace_back(next.begin(), next.end());
  return list;
}

std::vector<Packet> fragments_of(const Packet &packet, size_t mtu) {
  Fragments fragments(packet, mtu);
  EXPECT_EQ(fragments.outcome(), Outcome::done);
  return all(fragments);
}

Outcome outcome_of(const Packet &packet, size_t mtu) {
  Fragments fragments(packet, mtu);
  EXPECT_EQ(all(fragments).empty(), fragments.outcome() != Outcome::done);
  return fragments.outcome();
}

// Byte by byte, as the offsets say; a byte that came twice, or not at all, is a failure.
std::vector<std::byte> put_together(const std::vector<Packet> &fragments, size_t first_offset) {
  std::map<size_t, std::byte> bytes;
  for (const Packet &fragment : fragments) {
    const size_t header = ipv4::header_length(fragment);
    for (size_t i = header; i < fragment.size(); ++i) {
      EXPECT_TRUE(bytes.emplace(ipv4::fragment_offset(fragment) + i - header, fragment[i]).second);
    }
  }
  std::vector<std::byte> data;
  for (const auto &[at, byte] : bytes) {
    EXPECT_EQ(at, first_offset + data.size());
    data.push_back(byte);
  }
  return data;
}

std::vector<uint8_t> options_of(const Packet &packet) {
  std::vector<uint8_t> options;
  for (size_t at = ipv4::options_at; at < ipv4::header_length(packet); ++at) options.push_back(ipv4::read8(packet, at));
  return options;
}

TEST(PacketFragmentsTest, EachFitsAndTheyGoTogetherAgain) {
  const Packet packet = make_packet({.data = 4000});
  const auto fragments = fragments_of(packet, 1500);
  ASSERT_EQ(fragments.size(), 3u);
  EXPECT_EQ(fragments[0].size(), 1500u);
  EXPECT_EQ(fragments[1].size(), 1500u);
  EXPECT_EQ(fragments[2].size(), 1060u);
  const auto data = put_together(fragments, 0);
  EXPECT_TRUE(std::ranges::equal(data, ipv4::Bytes(packet).subspan(20)));
}

TEST(PacketFragmentsTest, AllButTheLastSayThatMoreFollow) {
  const auto fragments = fragments_of(make_packet({.data = 4000}), 1500);
  ASSERT_EQ(fragments.size(), 3u);
  EXPECT_TRUE(ipv4::has_more_fragments(fragments[0]));
  EXPECT_TRUE(ipv4::has_more_fragments(fragments[1]));
  EXPECT_FALSE(ipv4::has_more_fragments(fragments[2]));
}

TEST(PacketFragmentsTest, WhatIsLeftMayFillTheLinkToTheLastByte) {
  // 1484 bytes of data do not fill units of 8, which matters for all but the last.
  const auto fragments = fragments_of(make_packet({.data = 1480 + 1477}), 1497);
  ASSERT_EQ(fragments.size(), 3u);
  EXPECT_EQ(fragments[0].size(), 20u + 1472);
  EXPECT_EQ(fragments_of(make_packet({.data = 1472 + 1477}), 1497).back().size(), 1497u);
}

TEST(PacketFragmentsTest, LaterOnesHaveTheOptionsThatAreToBeCopiedAlone) {
  const std::vector<uint8_t> options = {record_route, 7, 4, 0, 0, 0, 0, loose_source_route, 7, 4, 10, 0, 0, 9, 0, 0};
  const auto fragments = fragments_of(make_packet({.options = options, .data = 200}), 100);
  ASSERT_GE(fragments.size(), 3u);
  EXPECT_EQ(options_of(fragments[0]), options);
  const std::vector<uint8_t> copied = {loose_source_route, 7, 4, 10, 0, 0, 9, 0};
  EXPECT_EQ(options_of(fragments[1]), copied);
  EXPECT_EQ(options_of(fragments.back()), copied);
}

TEST(PacketFragmentsTest, WithoutOptionsToCopyLaterHeadersAreShort) {
  const auto fragments = fragments_of(make_packet({.options = {no_operation, record_route, 3, 4}, .data = 100}), 80);
  ASSERT_GE(fragments.size(), 2u);
  EXPECT_EQ(ipv4::header_length(fragments[0]), 24u);
  EXPECT_EQ(ipv4::header_length(fragments[1]), 20u);
}

TEST(PacketFragmentsTest, AFragmentIsFragmentedFromItsOwnOffset) {
  const Packet packet = make_packet({.fragment = ipv4::more_fragments | 100, .data = 160});
  const auto fragments = fragments_of(packet, 100);
  EXPECT_EQ(put_together(fragments, 800).size(), 160u);
  EXPECT_TRUE(ipv4::has_more_fragments(fragments.back()));
}

TEST(PacketFragmentsTest, APacketThatMustNotBeFragmentedIsTooBig) {
  EXPECT_EQ(outcome_of(make_packet({.fragment = ipv4::dont_fragment, .data = 200}), 100), Outcome::too_big);
}

TEST(PacketFragmentsTest, ALinkWithoutRoomBehindTheHeaderIsTooSmall) {
  EXPECT_EQ(outcome_of(make_packet({.data = 200}), 27), Outcome::too_big);
  EXPECT_EQ(outcome_of(make_packet({.data = 200}), 28), Outcome::done);
}

TEST(PacketFragmentsTest, OptionsThatEndNowhereAreRefused) {
  EXPECT_EQ(outcome_of(make_packet({.options = {loose_source_route, 9, 4, 0}, .data = 200}), 100), Outcome::bad_packet);
  EXPECT_EQ(outcome_of(make_packet({.options = {loose_source_route, 1, 4, 0}, .data = 200}), 100), Outcome::bad_packet);
  EXPECT_EQ(outcome_of(make_packet({.options = {1, 1, 1, loose_source_route}, .data = 200}), 100), Outcome::bad_packet);
}

TEST(PacketFragmentsTest, DataBeyondTheLongestPacketIsRefused) {
  EXPECT_EQ(outcome_of(make_packet({.fragment = 8191, .data = 200}), 100), Outcome::bad_packet);
}

// Options as they may be: known lengths, copied or not, padded.
std::vector<uint8_t> random_options(std::mt19937 &random) {
  std::vector<uint8_t> options;
  while (random() % 3 != 0 && options.size() < 30) {
    if (random() % 4 == 0) {
      options.push_back(no_operation);
      continue;
    }
    const auto length = static_cast<uint8_t>(2 + random() % 8);
    options.push_back(static_cast<uint8_t>((random() % 2) << 7 | (2 + random() % 60)));
    options.push_back(length);
    for (uint8_t i = 2; i < length; ++i) options.push_back(static_cast<uint8_t>(random()));
  }
  options.resize((options.size() + 3) / 4 * 4);
  return options;
}

TEST(PacketFragmentsTest, AnyPacketOnAnyLinkGoesTogetherAgain) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 2000; ++round) {
    PacketFields fields{.identification = static_cast<uint16_t>(random()),
                        .options = random_options(random),
                        .data = 1 + random() % 3000};
    size_t first_offset = 0;
    if (random() % 4 == 0) {
      fields.fragment = static_cast<uint16_t>(random() % 2 * ipv4::more_fragments | random() % 1000);
      first_offset = (fields.fragment & ipv4::offset_bits) * size_t{8};
    }
    const Packet packet = make_packet(fields);
    const size_t header = ipv4::header_length(packet);
    const size_t mtu = header + 8 + random() % 1000;
    const auto fragments = fragments_of(packet, mtu);
    const auto data = put_together(fragments, first_offset);
    ASSERT_TRUE(std::ranges::equal(data, ipv4::Bytes(packet).subspan(header)));
    for (const Packet &fragment : fragments) {
      ASSERT_LE(fragment.size(), mtu);
      ASSERT_EQ(ipv4::total_length(fragment), fragment.size());
      ASSERT_EQ(ipv4::identification(fragment), fields.identification);
      ASSERT_TRUE(ipv4::checksum_is_good(fragment));
      ASSERT_EQ(ipv4::source(fragment), fields.source);
      ASSERT_EQ(ipv4::destination(fragment), fields.destination);
      const bool is_last = &fragment == &fragments.back();
      ASSERT_EQ(ipv4::has_more_fragments(fragment), !is_last || (fields.fragment & ipv4::more_fragments) != 0);
    }
    if (HasFailure()) return;
  }
}

}  // namespace
