// SPDX-License-Identifier: Apache-2.0
// The Internet checksum over a buffer, and UDP's: known sums, edges, and a textbook's loop beside them.
#include <array>

#include "unit/packet_headers.h"
#include "unit/random_words.h"

namespace unit {
namespace {

using ChecksumTest = PacketTest;

uint16_t checksum(const Bytes &bytes) {
  return ip_checksum(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

// RFC 1071, section 3: these eight bytes sum to ddf2.
TEST_F(ChecksumTest, TheExampleOfRfc1071HasItsChecksum) {
  EXPECT_EQ(checksum({0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}), on_the_wire(0x220d));
}

// RFC 1624, section 4: a header that sums to cd7a but for one field has dd2f with 5555 in it, and 0000 with 3285.
TEST_F(ChecksumTest, TheExampleOfRfc1624HasItsChecksums) {
  EXPECT_EQ(checksum({0xcd, 0x7a, 0x55, 0x55}), on_the_wire(0xdd2f));
  EXPECT_EQ(checksum({0xcd, 0x7a, 0x32, 0x85}), 0x0000);
}

TEST_F(ChecksumTest, NoBytesAre0xffff) {
  EXPECT_EQ(ip_checksum(nullptr, 0), 0xffff);
  const uint8_t byte = 1;
  EXPECT_EQ(ip_checksum(&byte, 0), 0xffff);
}

TEST_F(ChecksumTest, AnOddByteCountsAsIfAZeroFollowed) {
  EXPECT_EQ(checksum({0xab}), on_the_wire(static_cast<uint16_t>(~0xab00)));
  EXPECT_EQ(checksum({0x12, 0x34, 0xab}), checksum({0x12, 0x34, 0xab, 0x00}));
}

TEST_F(ChecksumTest, ZerosAre0xffffAndOnesAreZero) {
  for (size_t length = 1; length < 200; length++) EXPECT_EQ(checksum(Bytes(length, 0)), 0xffff) << length;
  for (size_t length = 2; length < 200; length += 2) EXPECT_EQ(checksum(Bytes(length, 0xff)), 0) << length;
}

TEST_F(ChecksumTest, AHeaderThatCarriesItsChecksumIsZero) {
  EXPECT_EQ(checksum(good_header()), 0);
  EXPECT_EQ(checksum(good_header({1, 1, 1, 0})), 0);
}

TEST_F(ChecksumTest, ASumThatFoldsToNothingButCarriesIsZero) {
  EXPECT_EQ(checksum({0xff, 0xfe, 0x00, 0x01}), 0);
  EXPECT_EQ(checksum({0x80, 0x00, 0x7f, 0xff}), 0);
}

TEST_F(ChecksumTest, AMaximalPacketOfOnesDoesNotOverflow) {
  EXPECT_EQ(checksum(Bytes(65535, 0xff)), on_the_wire(static_cast<uint16_t>(~0xff00)));
}

TEST_F(ChecksumTest, RandomBytesHaveTheTextbooksChecksum) {
  RandomWords random;
  for (int i = 0; i < 2000; i++) {
    Bytes bytes(random.below(3000));
    for (uint8_t &byte : bytes) byte = static_cast<uint8_t>(random());
    EXPECT_EQ(checksum(bytes), on_the_wire(textbook_checksum(bytes))) << bytes.size();
  }
}

// ------------------------------------------------------------ UDP

constexpr std::array<uint8_t, 4> source = {192, 0, 2, 1};
constexpr std::array<uint8_t, 4> destination = {198, 51, 100, 2};
constexpr std::array<uint8_t, 16> source6 = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
constexpr std::array<uint8_t, 16> destination6 = {0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 2};

uint16_t udp4(const Bytes &bytes, uint32_t is_ipv4 = 1) {
  return udp_checksum(bytes.data(), static_cast<uint32_t>(bytes.size()), source.data(), destination.data(), is_ipv4);
}

uint16_t udp6(const Bytes &bytes) {
  return udp_checksum(bytes.data(), static_cast<uint32_t>(bytes.size()), source6.data(), destination6.data(), 0);
}

// RFC 768: addresses, zero and protocol, UDP length, then the header and the data. RFC 8200, 8.1, for IPv6.
template <class Address>
uint16_t by_pseudo_header(const Address &from, const Address &to, const Bytes &bytes) {
  Bytes all(from.begin(), from.end());
  all.insert(all.end(), to.begin(), to.end());
  const auto length = static_cast<uint32_t>(bytes.size());
  for (const uint32_t word : {length, 17u}) {
    for (const int shift : {24, 16, 8, 0}) all.push_back(static_cast<uint8_t>(word >> shift));
  }
  return on_the_wire(textbook_checksum(joined(all, bytes)));
}

TEST_F(ChecksumTest, AUdpChecksumIsThatOfPseudoHeaderHeaderAndData) {
  const Bytes even = {0x02, 0x08, 0x02, 0x08, 0, 12, 0, 0, 1, 2, 3, 4};
  EXPECT_EQ(udp4(even), by_pseudo_header(source, destination, even));
  EXPECT_EQ(udp6(even), by_pseudo_header(source6, destination6, even));
}

TEST_F(ChecksumTest, AnyIpv4FlagButZeroMeansFourBytesOfAddress) {
  const Bytes bytes = {0x02, 0x08, 0x02, 0x08, 0, 8, 0, 0};
  EXPECT_EQ(udp4(bytes, 0x80000000), udp4(bytes));
}

TEST_F(ChecksumTest, AnOddUdpByteIsTheHighByteOfAWord) {
  const Bytes odd = {0x02, 0x08, 0x02, 0x08, 0, 9, 0, 0, 0xab};
  EXPECT_EQ(udp4(odd), by_pseudo_header(source, destination, odd));
  EXPECT_EQ(udp6(odd), by_pseudo_header(source6, destination6, odd));
}

TEST_F(ChecksumTest, AUdpHeaderWithItsChecksumGivesZero) {
  Bytes bytes = {0x02, 0x08, 0x02, 0x08, 0, 11, 0, 0, 7, 8, 9};
  const uint16_t sum = udp4(bytes);
  std::memcpy(&bytes[6], &sum, sizeof sum);
  EXPECT_EQ(udp4(bytes), 0);
}

TEST_F(ChecksumTest, AUdpChecksumOfZeroIsNotReplaced) {
  Bytes bytes = {0x02, 0x08, 0x02, 0x08, 0, 10, 0, 0, 0, 0};
  const uint16_t rest = udp4(bytes);
  std::memcpy(&bytes[8], &rest, sizeof rest);
  EXPECT_EQ(udp4(bytes), 0x0000);
}

TEST_F(ChecksumTest, RandomDatagramsHaveTheTextbooksChecksum) {
  RandomWords random;
  for (int i = 0; i < 500; i++) {
    Bytes bytes(random.below(70000));
    for (uint8_t &byte : bytes) byte = static_cast<uint8_t>(random());
    EXPECT_EQ(udp4(bytes), by_pseudo_header(source, destination, bytes)) << bytes.size();
    EXPECT_EQ(udp6(bytes), by_pseudo_header(source6, destination6, bytes)) << bytes.size();
  }
}

}  // namespace
}  // namespace unit
