// SPDX-License-Identifier: Apache-2.0
// The calls with a frame: what they refuse, their flags, and the one that never sends.
#include "unit/packet_calls.h"

namespace unit {
namespace {

class PacketOutputL2Test : public PacketTest {
 protected:
  static uint32_t l2(mbuf *m, uint32_t flags) { return ip_cl_output_l2(m, 5, 6, 7, 0, 0, l2_address, flags); }
  static uint32_t mvr(mbuf *m, uint32_t flags) { return ip_cl_output_l2_mvr(m, 5, 6, 7, 0, 0, l2_address, flags); }
  static uint32_t dce(mbuf *m, uint32_t iod, uint32_t free_flag, const uint8_t *dst, const uint8_t *src) {
    return ip_cl_output_l2_dce(m, iod, 6, 7, free_flag, dst, 1, 2, 3, 4, 5, 6, 7, 8, src, 9, 10);
  }
  static uint8_t sent_flags() {
    const uint8_t flags = sent_bytes()[128];
    platform().sent.clear();
    return flags;
  }
  static Bytes sent_between(size_t from, size_t to) {
    Bytes part(sent_bytes().begin() + static_cast<ptrdiff_t>(from), sent_bytes().begin() + static_cast<ptrdiff_t>(to));
    platform().sent.clear();
    return part;
  }
};

TEST_F(PacketOutputL2Test, EachReadsAnotherBitOfItsFlags) {
  mbuf *m = packet();
  l2(m, 4);
  EXPECT_EQ(sent_flags(), 1);
  l2(m, 1);
  EXPECT_EQ(sent_flags(), 0);
  l2(m, 0xffffffff);
  EXPECT_EQ(sent_flags(), 1);
  mvr(m, 4);
  EXPECT_EQ(sent_flags(), 0);
  mvr(m, 1);
  EXPECT_EQ(sent_flags(), 1);
  mvr(m, 0xffffffff);
  EXPECT_EQ(sent_flags(), 1);
}

TEST_F(PacketOutputL2Test, AddressesThatAreNotGivenAreZeros) {
  mbuf *m = packet();
  ip_cl_output_l2(m, 5, 6, 7, 0, 0, nullptr, 0);
  EXPECT_EQ(sent_between(80, 92), Bytes(12));
  ip_cl_output_l2_mvr(m, 5, 6, 7, 0, 0, nullptr, 0);
  EXPECT_EQ(sent_between(80, 92), Bytes(12));
  dce(m, 5, 0, nullptr, l2_address2);
  EXPECT_EQ(sent_between(80, 92), (Bytes{0, 0, 0, 0, 0, 0, 0xb1, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6}));
  dce(m, 5, 0, l2_address, nullptr);
  EXPECT_EQ(sent_between(80, 92), (Bytes{0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0, 0, 0, 0, 0, 0}));
}

TEST_F(PacketOutputL2Test, WithoutAnInterfaceNothingIsSent) {
  mbuf *m = packet();
  EXPECT_EQ(ip_cl_output_l2(m, 0, 6, 7, 0, 0, l2_address, 0), 0u);
  EXPECT_EQ(ip_cl_output_l2_mvr(m, 0, 6, 7, 0, 0, l2_address, 0), 0u);
  EXPECT_EQ(dce(m, 0, 0, l2_address, l2_address2), 0u);
  EXPECT_EQ(calls(), Calls{}) << "the packet is the caller's";
}

TEST_F(PacketOutputL2Test, WithoutAnInterfaceTheFreeFlagFrees) {
  EXPECT_EQ(ip_cl_output_l2(packet(), 0, 6, 7, 0, 1, l2_address, 0), 0u);
  EXPECT_EQ(ip_cl_output_l2_mvr(packet(), 0, 6, 7, 0, 2, l2_address, 0), 0u);
  EXPECT_EQ(dce(packet(), 0, 0x80000000, l2_address, l2_address2), 0u);
  EXPECT_EQ(calls(), (Calls{"m_freem(packet)", "m_freem(packet)", "m_freem(packet)"}));
}

TEST_F(PacketOutputL2Test, ANullPacketReachesTheFreeAsItIs) {
  EXPECT_EQ(ip_cl_output_l2(nullptr, 5, 6, 7, 0, 1, l2_address, 0), 0u);
  EXPECT_EQ(ip_cl_output_l2_mvr(nullptr, 5, 6, 7, 0, 1, l2_address, 0), 0u);
  EXPECT_EQ(dce(nullptr, 5, 1, l2_address, l2_address2), 0u);
  EXPECT_EQ(calls(), Calls(3, "m_freem(null)"));
}

TEST_F(PacketOutputL2Test, ANullPacketThatIsNotToBeFreedMakesNoCall) {
  EXPECT_EQ(ip_cl_output_l2(nullptr, 5, 6, 7, 0, 0, l2_address, 0), 0u);
  EXPECT_EQ(ip_cl_output_l2_mvr(nullptr, 5, 6, 7, 0, 0, l2_address, 0), 0u);
  EXPECT_EQ(dce(nullptr, 5, 0, l2_address, l2_address2), 0u);
  EXPECT_EQ(ip_cl_output_l2_pw(nullptr, 5, 6, 7, 0, nullptr), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(PacketOutputL2Test, NothingIsToldOfSends) {
  dbg_ip_api_misc = dbg_ip_cl_output = 1;
  mbuf *m = packet();
  EXPECT_EQ(l2(m, 0), 1u);
  EXPECT_EQ(l2(nullptr, 0), 0u);
  platform().scripts.fail("mts_send");
  EXPECT_EQ(mvr(m, 0), 0u);
  EXPECT_STREQ(dbg_str, "");
}

// It passes no interface on: that is how its callers know it.
TEST_F(PacketOutputL2Test, ThePseudowireCallNeverSends) {
  by_segments();
  EXPECT_EQ(ip_cl_output_l2_pw(packet(), 5, 6, 7, 0, l2_address), 0u);
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(ip_cl_output_l2_pw(packet(), 5, 6, 7, 1, l2_address), 0u);
  EXPECT_EQ(ip_cl_output_l2_pw(nullptr, 5, 6, 7, 1, nullptr), 0u);
  EXPECT_EQ(calls(), (Calls{"m_freem(packet)", "m_freem(null)"}));
}

}  // namespace
}  // namespace unit
