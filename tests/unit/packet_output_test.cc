// SPDX-License-Identifier: Apache-2.0
// ip_cl_output and its two companions: debug lines, and what is theirs alone.
#include "unit/packet_calls.h"

namespace unit {
namespace {

class PacketOutputTest : public PacketTest {
 protected:
  uint32_t output(mbuf *m) { return ip_cl_output(1, m, 2, -3, 4, &client); }
  uint32_t output_nfree(mbuf *m) { return ip_cl_output_nfree(1, m, 2, -3, 4, &client); }
  uint32_t output_src_l2_addr(mbuf *m, const uint8_t *l2) {
    return ip_cl_output_src_l2_addr(1, m, 2, -3, 4, &client, l2);
  }
  std::string entry_line(const mbuf *m, const struct ip_client *of) {
    return "ip_cl_output (" + shown(m) + " -3 " + shown(of) + ")\n";
  }
};

TEST_F(PacketOutputTest, ANullSourceIsAsNoSourceAtAll) {
  mbuf *first = packet();
  EXPECT_EQ(output(first), 1u);
  const Bytes plain = sent_bytes();
  platform().sent.clear();
  EXPECT_EQ(output_src_l2_addr(first, nullptr), 1u);
  EXPECT_EQ(sent_bytes(), plain);
  EXPECT_EQ(plain[63], 0);
}

TEST_F(PacketOutputTest, ASourceOfZerosIsASource) {
  constexpr uint8_t zeros[6] = {};
  EXPECT_EQ(output_src_l2_addr(packet(), zeros), 1u);
  EXPECT_EQ(sent_bytes()[63], 1);
}

TEST_F(PacketOutputTest, EachCallIsTracedUnderOneName) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  mbuf *m = packet();
  output(m);
  output_nfree(m);
  output_src_l2_addr(m, l2_address);
  EXPECT_EQ(debug_lines(), Calls(3, entry_line(m, &client)));
}

TEST_F(PacketOutputTest, RefusalsAreTraced) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  mbuf *m = packet();
  output(nullptr);
  ip_cl_output_nfree(1, m, 2, -3, 4, nullptr);
  EXPECT_EQ(debug_lines(), (Calls{entry_line(nullptr, &client), "ip_cl_output: bad packet\n", entry_line(m, nullptr),
                                  "ip_cl_output: bad client\n"}));
}

TEST_F(PacketOutputTest, ANullPacketIsRefusedBeforeANullClient) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  EXPECT_EQ(ip_cl_output(1, nullptr, 2, -3, 4, nullptr), 0u);
  EXPECT_EQ(debug_lines(), (Calls{entry_line(nullptr, nullptr), "ip_cl_output: bad packet\n"}));
  EXPECT_EQ(times_freed(), 0u);
}

TEST_F(PacketOutputTest, AGoodSendIsToldByItsOwnFlag) {
  show_debug_lines();
  dbg_ip_cl_output = 1;
  by_segments();
  EXPECT_EQ(output(packet()), 1u);
  EXPECT_EQ(debug_lines(), Calls{"ip_cl_output: good send\n"});
  EXPECT_EQ(only(calls(), {"mts_send", "buginf_func", "m_freem"}).back(), "m_freem(packet)") << "told first";
}

TEST_F(PacketOutputTest, ABadSendIsToldByTheCommonFlag) {
  show_debug_lines();
  dbg_ip_cl_output = 1;
  platform().scripts.fail("mts_send");
  EXPECT_EQ(output(packet()), 0u);
  EXPECT_EQ(debug_lines(), Calls{});
  dbg_ip_api_misc = 1;
  mbuf *m = packet();
  EXPECT_EQ(output(m), 0u);
  EXPECT_EQ(debug_lines(), (Calls{entry_line(m, &client), "ip_cl_output: bad send\n"}));
  EXPECT_EQ(only(calls(), {"buginf_func", "m_freem"}).back(), "m_freem(packet)") << "told first";
}

TEST_F(PacketOutputTest, ByReferenceNothingIsAllocated) {
  by_reference();
  EXPECT_EQ(output(packet()), 1u);
  EXPECT_EQ(platform().log.count("mtrack_alloc"), 0u);
}

}  // namespace
}  // namespace unit
