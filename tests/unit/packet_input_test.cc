// SPDX-License-Identifier: Apache-2.0
// ip_cl_input and ip_cl_consume: debug lines, memory, and what is theirs alone.
#include "fake_platform/console.h"
#include "unit/packet_calls.h"

namespace unit {
namespace {

class PacketInputTest : public PacketTest {
 protected:
  uint32_t input(mbuf *m) { return ip_cl_input(1, m, 2, &client); }
  uint32_t consume(mbuf *m) { return ip_cl_consume(1, m, 2, l2_address, &client); }
};

TEST_F(PacketInputTest, AConsumedPacketWithoutASourceSaysZeros) {
  EXPECT_EQ(ip_cl_consume(1, packet(), 2, nullptr, &client), 1u);
  EXPECT_EQ(Bytes(sent_bytes().begin() + 80, sent_bytes().begin() + 86), Bytes(6));
}

TEST_F(PacketInputTest, EachCallIsTracedByItsOwnFlag) {
  show_debug_lines();
  mbuf *m = packet();
  dbg_cl_input = 1;
  input(m);
  consume(m);
  EXPECT_EQ(debug_lines(), Calls{"ip_cl_input (" + shown(m) + " " + shown(&client) + ")\n"});
  platform().debug_lines.clear();
  dbg_cl_input = 0;
  dbg_ip_cl_consume = 1;
  input(m);
  consume(m);
  EXPECT_EQ(debug_lines(), Calls{"ip_cl_consume (" + shown(m) + " " + shown(&client) + ")\n"});
}

// Not by the flag that is named after ip_cl_consume: who watches input sees all of it.
TEST_F(PacketInputTest, AGoodSendOfEitherIsToldByTheFlagOfInput) {
  show_debug_lines();
  dbg_ip_cl_input = 1;
  EXPECT_EQ(input(packet()), 1u);
  EXPECT_EQ(consume(packet()), 1u);
  EXPECT_EQ(debug_lines(), (Calls{"ip_cl_input: good send\n", "ip_cl_consume: good send\n"}));
}

TEST_F(PacketInputTest, RefusalsAreTraced) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  input(nullptr);
  consume(nullptr);
  ip_cl_input(1, packet(), 2, nullptr);
  ip_cl_consume(1, packet(), 2, l2_address, nullptr);
  EXPECT_EQ(debug_lines(), (Calls{"ip_cl_input: bad packet\n", "ip_cl_consume: bad packet\n",
                                  "ip_cl_input: bad client\n", "ip_cl_consume: bad client\n"}));
  EXPECT_EQ(times_freed(), 2u);
}

TEST_F(PacketInputTest, ANullPacketIsRefusedBeforeANullClient) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  EXPECT_EQ(ip_cl_input(1, nullptr, 2, nullptr), 0u);
  EXPECT_EQ(ip_cl_consume(1, nullptr, 2, l2_address, nullptr), 0u);
  EXPECT_EQ(debug_lines(), (Calls{"ip_cl_input: bad packet\n", "ip_cl_consume: bad packet\n"}));
  EXPECT_EQ(times_freed(), 0u);
}

TEST_F(PacketInputTest, ABadSendIsToldBeforeThePacketIsFreed) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  platform().scripts.fail("mts_send");
  EXPECT_EQ(input(packet()), 0u);
  EXPECT_EQ(consume(packet()), 0u);
  EXPECT_EQ(debug_lines(), (Calls{"ip_cl_input: bad send\n", "ip_cl_consume: bad send\n"}));
  EXPECT_EQ(only(calls(), {"buginf_func", "m_freem"}).back(), "m_freem(packet)");
}

TEST_F(PacketInputTest, WithoutMemoryTheConsoleAndTheLogAreToldAndThePacketIsFreed) {
  dbg_ip_api_misc = 1;
  platform().set_facility("ip", 6);
  platform().scripts.fail("mtrack_alloc");
  const fake_platform::ConsoleCapture console;
  EXPECT_EQ(input(packet()), 0u);
  EXPECT_EQ(only(calls(), {"mtrack_alloc", "syslog_msg_rate_limit", "m_freem"}),
            (Calls{"mtrack_alloc(267, 1, 232)", limited("IP_NO_MEM", "client message"), "m_freem(packet)"}));
  EXPECT_EQ(consume(packet()), 0u);
  ASSERT_EQ(platform().syslog.size(), 2u);
  for (const auto &line : platform().syslog) {
    EXPECT_EQ(line.text, "<<%IP-3-IP_NO_MEM>> Failed to allocate private memory for client message");
  }
  EXPECT_EQ(times_freed(), 2u);
  EXPECT_STREQ(dbg_str, "") << "unlike ICMP output";
}

TEST_F(PacketInputTest, TheConsolesWarningsNameFixedLines) {
  platform().scripts.fail("mtrack_alloc");
  fake_platform::ConsoleCapture console;
  input(packet());
  consume(packet());
  EXPECT_EQ(console.text(),
            "Warning! Malloc Failure in routing/ip/ip_api.cc[710] for size 232\n"
            "Warning! Malloc Failure in routing/ip/ip_api.cc[810] for size 232\n");
}

TEST_F(PacketInputTest, TheMessageIsZeroedMemory) {
  by_reference();
  EXPECT_EQ(input(packet()), 1u);
  EXPECT_EQ(sent_bytes()[24], 0);
  EXPECT_EQ(sent_bytes()[231], 0);
  EXPECT_TRUE(platform().allocations.empty());
}

}  // namespace
}  // namespace unit
