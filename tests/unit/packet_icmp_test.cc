// SPDX-License-Identifier: Apache-2.0
// ip_cl_icmp_output and ip_icmp_error: debug lines, memory.
#include "fake_platform/console.h"
#include "unit/packet_calls.h"

namespace unit {
namespace {

class PacketIcmpTest : public PacketTest {
 protected:
  uint32_t output(mbuf *m) { return ip_cl_icmp_output(1, m, -3, &client, 4); }
  uint32_t error(mbuf *m) { return ip_icmp_error(1, m, 3, 0xffffffff, &client, 4, 5); }
  std::string output_line(const mbuf *m, const struct ip_client *of) {
    return "ip_cl_icmp_output (" + shown(m) + " -3 " + shown(of) + ")\n";
  }
  std::string error_line(const mbuf *m, const struct ip_client *of) {
    return "ip_icmp_error(" + shown(m) + " 3 -1 " + shown(of) + ")\n";
  }
};

TEST_F(PacketIcmpTest, EachCallIsTraced) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  mbuf *m = packet();
  output(m);
  error(m);
  EXPECT_EQ(debug_lines(), (Calls{output_line(m, &client), error_line(m, &client)}));
}

TEST_F(PacketIcmpTest, RefusalsAreTracedAndThePacketStaysTheCallers) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  mbuf *m = packet();
  output(nullptr);
  error(nullptr);
  ip_cl_icmp_output(1, m, -3, nullptr, 4);
  ip_icmp_error(1, m, 3, 0xffffffff, nullptr, 4, 5);
  EXPECT_EQ(debug_lines(),
            (Calls{output_line(nullptr, &client), "ip_cl_icmp_output: bad packet\n", error_line(nullptr, &client),
                   "ip_icmp_error: bad packet\n", output_line(m, nullptr), "ip_cl_icmp_output: bad client\n",
                   error_line(m, nullptr), "ip_icmp_error: bad client\n"}));
  EXPECT_EQ(times_freed(), 0u);
}

TEST_F(PacketIcmpTest, ANullPacketIsRefusedBeforeANullClient) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  ip_cl_icmp_output(1, nullptr, -3, nullptr, 4);
  EXPECT_EQ(debug_lines(), (Calls{output_line(nullptr, nullptr), "ip_cl_icmp_output: bad packet\n"}));
}

TEST_F(PacketIcmpTest, AGoodSendIsToldByAFlagOfItsOwn) {
  show_debug_lines();
  dbg_ip_cl_icmp_output = 1;
  EXPECT_EQ(output(packet()), 1u);
  EXPECT_EQ(error(packet()), 1u);
  EXPECT_EQ(debug_lines(), Calls{"ip_cl_icmp_output: good send\n"});
  dbg_ip_cl_icmp_output = 0;
  dbg_ip_icmp_error = 1;
  EXPECT_EQ(output(packet()), 1u);
  EXPECT_EQ(error(packet()), 1u);
  EXPECT_EQ(debug_lines().back(), "ip_icmp_error: good send\n");
  EXPECT_EQ(debug_lines().size(), 2u);
}

TEST_F(PacketIcmpTest, ABadSendIsToldByTheCommonFlagAndThePacketStaysTheCallers) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  platform().scripts.fail("mts_send");
  mbuf *m = packet();
  EXPECT_EQ(output(m), 0u);
  EXPECT_EQ(error(m), 0u);
  EXPECT_EQ(debug_lines(), (Calls{output_line(m, &client), "ip_cl_icmp_output: bad send\n", error_line(m, &client),
                                  "ip_icmp_error: bad send\n"}));
  EXPECT_EQ(fake_platform::packet_bytes(m), (Bytes{1, 2, 3, 4, 5}));
}

TEST_F(PacketIcmpTest, WithoutMemoryTheConsoleIsToldAndThePacketStaysTheCallers) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  platform().scripts.fail("mtrack_alloc");
  fake_platform::ConsoleCapture console;
  mbuf *m = packet();
  EXPECT_EQ(output(m), 0u);
  EXPECT_EQ(error(m), 0u);
  EXPECT_EQ(console.text(),
            "Warning! Malloc Failure in routing/ip/ip_api.cc[424] for size 232\n"
            "Warning! Malloc Failure in routing/ip/ip_api.cc[316] for size 232\n");
  EXPECT_EQ(debug_lines(), (Calls{output_line(m, &client), "ip_cl_icmp_output: no memory\n", error_line(m, &client),
                                  "ip_icmp_error: no memory\n"}));
  EXPECT_EQ(without(calls(), {"sdwrap_chk_int", "buginf_func"}), Calls(2, "mtrack_alloc(267, 1, 232)"))
      << "nothing in the system log";
  EXPECT_EQ(fake_platform::packet_bytes(m), (Bytes{1, 2, 3, 4, 5}));
}

}  // namespace
}  // namespace unit
