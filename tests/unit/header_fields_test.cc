// SPDX-License-Identifier: Apache-2.0
// Single fields of a header that is there, and its two byte orders.
#include "unit/packet_headers.h"

namespace unit {
namespace {

class HeaderFieldsTest : public PacketTest {
 protected:
  struct mbuf *packet = packet_of({good_header(), {1, 2}});
  // Its header crosses two buffers.
  struct mbuf *split = packet_of(cut(good_header(), {19}));
  uint8_t ttl = 77;
};

TEST_F(HeaderFieldsTest, ThreeFieldsChangeTheirByteOrderAndNothingElse) {
  for (const auto convert : {ip_ntoh_header, ip_hton_header}) {
    Bytes header = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
    convert(header.data());
    for (const size_t field : {2, 4, 6}) {
      const auto number = static_cast<uint16_t>((field + 1) << 8 | (field + 2));
      EXPECT_EQ(std::memcmp(&header[field], &number, sizeof number), 0) << field;
    }
    EXPECT_EQ(Bytes(header.begin(), header.begin() + 2), (Bytes{1, 2}));
    EXPECT_EQ(Bytes(header.begin() + 8, header.end()), (Bytes{9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20}));
  }
}

TEST_F(HeaderFieldsTest, InHostOrderTheMachineReadsTheFields) {
  Bytes header = good_header();
  ip_ntoh_header(header.data());
  uint16_t fields[3];
  std::memcpy(fields, &header[2], sizeof fields);
  EXPECT_EQ(fields[0], 48);
  EXPECT_EQ(fields[1], 0x1234);
  EXPECT_EQ(fields[2], 0x2001);
}

TEST_F(HeaderFieldsTest, ThereAndBackIsTheSameHeader) {
  Bytes header = good_header();
  ip_ntoh_header(header.data());
  ip_hton_header(header.data());
  EXPECT_EQ(header, good_header());
}

TEST_F(HeaderFieldsTest, AHeaderMayLieAtAnyAddress) {
  alignas(8) uint8_t room[32] = {};
  const Bytes header = good_header();
  std::copy(header.begin(), header.end(), room + 1);
  ip_ntoh_header(room + 1);
  ip_hton_header(room + 1);
  EXPECT_EQ(Bytes(room + 1, room + 21), header);
  EXPECT_EQ(room[0], 0);
  EXPECT_EQ(room[21], 0);
}

TEST_F(HeaderFieldsTest, NoHeaderIsNothingToConvert) {
  ip_ntoh_header(nullptr);
  ip_hton_header(nullptr);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(HeaderFieldsTest, TheTtlIsRead) {
  EXPECT_EQ(ip_get_ttl_from_packet(packet, &ttl), 1u);
  EXPECT_EQ(ttl, 64);
}

TEST_F(HeaderFieldsTest, NoTtlIsReadOfWhatIsNoHeader) {
  EXPECT_EQ(ip_get_ttl_from_packet(nullptr, &ttl), 0u);
  EXPECT_EQ(ip_get_ttl_from_packet(packet, nullptr), 0u);
  EXPECT_EQ(ip_get_ttl_from_packet(split, &ttl), 0u);
  EXPECT_EQ(ttl, 77) << "untouched";
}

TEST_F(HeaderFieldsTest, TheTtlIsWrittenAndTheChecksumLeftAlone) {
  EXPECT_EQ(ip_set_ttl_in_packet(packet, 63), 1u);
  Bytes expected = good_header();
  expected[8] = 63;
  EXPECT_EQ(bytes_of(packet), joined(expected, {1, 2}));
}

TEST_F(HeaderFieldsTest, ATtlOfZeroIsRefused) {
  EXPECT_EQ(ip_set_ttl_in_packet(packet, 0), 0u);
  EXPECT_EQ(bytes_of(packet), joined(good_header(), {1, 2}));
}

TEST_F(HeaderFieldsTest, NothingIsWrittenToWhatIsNoHeader) {
  EXPECT_EQ(ip_set_ttl_in_packet(nullptr, 63), 0u);
  EXPECT_EQ(ip_set_ttl_in_packet(split, 63), 0u);
  EXPECT_EQ(ip_set_df_in_packet(nullptr), 0u);
  EXPECT_EQ(ip_set_df_in_packet(split), 0u);
  EXPECT_EQ(bytes_of(split), good_header());
}

TEST_F(HeaderFieldsTest, DfIsSetInAHeaderInHostOrder) {
  ip_ntoh_header(packet->data.get());
  EXPECT_EQ(ip_set_df_in_packet(packet), 1u);
  ip_hton_header(packet->data.get());
  Bytes expected = good_header();
  expected[6] |= 0x40;
  EXPECT_EQ(bytes_of(packet), joined(expected, {1, 2})) << "no other bit, and not the checksum";
}

TEST_F(HeaderFieldsTest, DfThatIsSetStaysSet) {
  ip_ntoh_header(packet->data.get());
  EXPECT_EQ(ip_set_df_in_packet(packet), 1u);
  EXPECT_EQ(ip_set_df_in_packet(packet), 1u);
  ip_hton_header(packet->data.get());
  EXPECT_EQ(packet->data.get()[6], 0x60);
}

TEST_F(HeaderFieldsTest, TheTotalLengthIsInHostOrder) {
  packet->data.get()[2] = 0x12;
  packet->data.get()[3] = 0x34;
  EXPECT_EQ(ip_packet_hdr_total_len(packet), 0x1234u);
}

TEST_F(HeaderFieldsTest, WhatIsNotVersion4HasNoTotalLength) {
  packet->data.get()[0] = 0x65;
  EXPECT_EQ(ip_packet_hdr_total_len(packet), 0u);
  EXPECT_EQ(ip_packet_hdr_total_len(nullptr), 0u);
  packet->data = nullptr;
  EXPECT_EQ(ip_packet_hdr_total_len(packet), 0u);
}

}  // namespace
}  // namespace unit
