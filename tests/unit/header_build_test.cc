// SPDX-License-Identifier: Apache-2.0
// Headers in front of a packet: each byte of them, what is refused, and who has the packet afterwards.
#include "unit/packet_headers.h"

namespace unit {
namespace {

constexpr uint32_t source = 0xc0000201;       // 192.0.2.1
constexpr uint32_t destination = 0xc6336402;  // 198.51.100.2

class BuildHeaderTest : public PacketTest {
 protected:
  struct mbuf *packet = packet_of({{0xaa, 0xbb}, {0xcc}});
  uint32_t hdr_len = 77;
};

TEST_F(BuildHeaderTest, EveryFieldStandsInNetworkOrder) {
  ASSERT_EQ(ip_build_header(packet, 0xb8, 0x1234, 63, 89, source, destination), packet);
  Bytes expected = {0x45, 0xb8, 0x12, 0x34, 0, 0, 0, 0, 63, 89, 0, 0, 192, 0, 2, 1, 198, 51, 100, 2};
  put_half(expected, 10, textbook_checksum(expected));
  EXPECT_EQ(bytes_of(packet), joined(expected, {0xaa, 0xbb, 0xcc}));
  EXPECT_EQ(packet->m_len, 22u) << "the header lies in the first buffer";
}

TEST_F(BuildHeaderTest, TheHeadersChecksumIsGood) {
  ip_build_header(packet, 0, 23, 255, 17, source, destination);
  EXPECT_EQ(ip_checksum(packet->data.get(), 20), 0);
}

TEST_F(BuildHeaderTest, OneBufferIsAskedForRoom) {
  ip_build_header(packet, 0, 23, 255, 17, source, destination);
  EXPECT_EQ(calls(), (Calls{"m_prepend(packet, 20, 1)"}));
}

TEST_F(BuildHeaderTest, TheTotalLengthIsTakenAsGiven) {
  ip_build_header(packet, 0, 0xffff, 255, 17, source, destination);
  EXPECT_EQ(packet->data.get()[2], 0xff);
  EXPECT_EQ(packet->data.get()[3], 0xff);
}

TEST_F(BuildHeaderTest, ARefusedPacketStaysTheCallers) {
  EXPECT_EQ(ip_build_header(packet, 0, 23, 255, 17, 0, destination), nullptr);
  EXPECT_EQ(ip_build_header(packet, 0, 23, 255, 17, source, 0), nullptr);
  EXPECT_EQ(ip_build_header(nullptr, 0, 23, 255, 17, source, destination), nullptr);
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(bytes_of(packet), (Bytes{0xaa, 0xbb, 0xcc}));
}

TEST_F(BuildHeaderTest, WithoutABufferThereIsNoPacket) {
  platform().scripts.fail("m_prepend");
  EXPECT_EQ(ip_build_header(packet, 0, 23, 255, 17, source, destination), nullptr);
  EXPECT_EQ(calls(), (Calls{"m_prepend(packet, 20, 1)"})) << "the packet is gone: nobody frees it again";
}

TEST_F(BuildHeaderTest, AUdpHeaderHasPortsLengthAndNoChecksum) {
  ASSERT_EQ(udp_build_header(packet, 520, 0x1234, 3, source, destination, 0, &hdr_len), packet);
  EXPECT_EQ(bytes_of(packet), (Bytes{0x02, 0x08, 0x12, 0x34, 0, 11, 0, 0, 0xaa, 0xbb, 0xcc}));
  EXPECT_EQ(hdr_len, 8u);
  EXPECT_EQ(calls(), (Calls{"m_prepend(packet, 8, 1)"}));
}

TEST_F(BuildHeaderTest, AUdpLengthIsThePayloadsAndTheHeaders) {
  udp_build_header(packet, 520, 520, 0x1ff8, source, destination, 0, &hdr_len);
  EXPECT_EQ(packet->data.get()[4], 0x20);
  EXPECT_EQ(packet->data.get()[5], 0x00);
}

TEST_F(BuildHeaderTest, UdpAddressesAreNotLookedAt) {
  EXPECT_EQ(udp_build_header(packet, 520, 520, 3, 0, 0, 0, &hdr_len), packet);
}

struct PortRow {
  uint32_t random;
  uint16_t port;
};

TEST_F(BuildHeaderTest, WithoutASourcePortAnEphemeralOneIsDrawn) {
  for (const PortRow &row : {PortRow{0, 49152}, PortRow{1, 49153}, PortRow{16382, 65534}, PortRow{16383, 49152},
                             PortRow{0xffffffff, 49152 + 0xffffffff % 16383}}) {
    platform().scripts.answer("ksink_trel_rand", row.random);
    struct mbuf *each = packet_of({{1}});
    ASSERT_EQ(udp_build_header(each, 0, 520, 1, source, destination, 0, &hdr_len), each);
    EXPECT_EQ(each->data.get()[0] << 8 | each->data.get()[1], row.port) << row.random;
  }
}

TEST_F(BuildHeaderTest, TheRandomSourceIsAskedOnlyForAMissingPort) {
  udp_build_header(packet, 1, 520, 3, source, destination, 0, &hdr_len);
  EXPECT_EQ(platform().log.count("ksink_trel_rand"), 0u);
  udp_build_header(packet, 0, 520, 3, source, destination, 0, &hdr_len);
  EXPECT_EQ(calls().back(), "ksink_trel_rand(0)");
}

struct RefusedUdp {
  const char *name;
  uint16_t dport, payload_len;
  uint32_t reserved;
};

class RefusedUdpHeader : public BuildHeaderTest, public testing::WithParamInterface<RefusedUdp> {};

TEST_P(RefusedUdpHeader, FreesThePacket) {
  EXPECT_EQ(udp_build_header(packet, 520, GetParam().dport, GetParam().payload_len, source, destination,
                             GetParam().reserved, &hdr_len),
            nullptr);
  EXPECT_EQ(calls(), (Calls{"m_freem(packet)"}));
  EXPECT_EQ(hdr_len, 77u) << "untouched";
}

INSTANTIATE_TEST_SUITE_P(Arguments, RefusedUdpHeader,
                         testing::Values(RefusedUdp{"NoDestinationPort", 0, 3, 0}, RefusedUdp{"NoPayload", 520, 0, 0},
                                         RefusedUdp{"ReservedSet", 520, 3, 1}),
                         [](const auto &of) { return std::string(of.param.name); });

TEST_F(BuildHeaderTest, ANullPacketOfUdpIsRefusedAtOnce) {
  EXPECT_EQ(udp_build_header(nullptr, 520, 0, 0, source, destination, 1, &hdr_len), nullptr);
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(hdr_len, 77u);
}

TEST_F(BuildHeaderTest, WithoutABufferTheUdpHeadersLengthIsZero) {
  platform().scripts.fail("m_prepend");
  EXPECT_EQ(udp_build_header(packet, 520, 520, 3, source, destination, 0, &hdr_len), nullptr);
  EXPECT_EQ(hdr_len, 0u);
  EXPECT_EQ(calls(), (Calls{"m_prepend(packet, 8, 1)"}));
}

}  // namespace
}  // namespace unit
