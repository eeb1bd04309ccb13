// SPDX-License-Identifier: Apache-2.0
// Dumps: each line of them, where they go, and packets copied into a buffer.
#include "unit/call_lines.h"
#include "unit/packet_headers.h"

namespace unit {
namespace {

const std::string full_line = "  00010203 04050607 08090a0b 0c0d0e0f\n";

Bytes numbered(size_t count) {
  Bytes bytes(count);
  for (size_t i = 0; i < count; i++) bytes[i] = static_cast<uint8_t>(i);
  return bytes;
}

class DumpTest : public PacketTest {
 protected:
  DumpTest() { platform().scripts.answer("sdwrap_chk_int", 1); }
  static Calls lines_of(size_t length) {
    platform().debug_lines.clear();
    ip_dump_buffer(numbered(length).data(), "hello", static_cast<int32_t>(length));
    return platform().debug_lines;
  }
};

TEST_F(DumpTest, TwentyBytesAreALineOfSixteenAndOneOfFour) {
  EXPECT_EQ(lines_of(20), (Calls{"hello hexdump 20 bytes:\n", full_line, "  10111213 \n"}));
}

TEST_F(DumpTest, AGroupIsFollowedByABlankAlsoAtTheEnd) {
  EXPECT_EQ(lines_of(1).back(), "  00\n");
  EXPECT_EQ(lines_of(3).back(), "  000102\n");
  EXPECT_EQ(lines_of(4).back(), "  00010203 \n");
  EXPECT_EQ(lines_of(5).back(), "  00010203 04\n");
  EXPECT_EQ(lines_of(8).back(), "  00010203 04050607 \n");
  EXPECT_EQ(lines_of(12).back(), "  00010203 04050607 08090a0b \n");
  EXPECT_EQ(lines_of(15).back(), "  00010203 04050607 08090a0b 0c0d0e\n");
}

TEST_F(DumpTest, AFullLastLineIsFollowedByTwoBlanks) {
  EXPECT_EQ(lines_of(16), (Calls{"hello hexdump 16 bytes:\n", full_line, "  \n"}));
  EXPECT_EQ(lines_of(32).size(), 4u);
  EXPECT_EQ(lines_of(32).back(), "  \n");
}

TEST_F(DumpTest, EveryByteHasTwoDigits) {
  Bytes all = numbered(256);
  std::string digits;
  ip_dump_buffer(all.data(), "all", 256);
  for (size_t i = 1; i < platform().debug_lines.size(); i++) {
    for (const char letter : platform().debug_lines[i]) {
      if (letter != ' ' && letter != '\n') digits += letter;
    }
  }
  std::string expected;
  for (const uint8_t byte : all) {
    char two[3];
    snprintf(two, sizeof two, "%02x", byte);
    expected += two;
  }
  EXPECT_EQ(digits, expected);
}

TEST_F(DumpTest, ALengthBelowOneShowsNothing) {
  platform().scripts.succeed("sdwrap_chk_int");
  const uint8_t byte = 1;
  for (const int32_t length : {0, -1, INT32_MIN}) {
    ip_dump_buffer(&byte, "hello", length);
    ip_dump_buffer_buginf(&byte, "hello", length, 3);
  }
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(DumpTest, TheLibrarysDumpGoesThroughItsDebugLines) {
  const uint8_t byte = 0xab;
  ip_dump_buffer(&byte, "hello", 1);
  EXPECT_EQ(calls(), (Calls{
                         "sdwrap_chk_int(150, 0, 0, 1)",
                         "sdwrap_chk_int(150, 0, 0, 1)",
                         "buginf_func(1, \"fake-module\", \"[77] fake\", 0, \"hello hexdump 1 bytes:\n\")",
                         "sdwrap_chk_int(150, 0, 0, 1)",
                         "sdwrap_chk_int(150, 0, 0, 1)",
                         "buginf_func(1, \"fake-module\", \"[77] fake\", 0, \"  ab\n\")",
                     }));
  EXPECT_STREQ(dbg_str, "  ab\n");
}

TEST_F(DumpTest, NoDebugFlagIsNeeded) {
  EXPECT_EQ(lines_of(1).size(), 2u);
  platform().scripts.succeed("sdwrap_chk_int");
  EXPECT_EQ(lines_of(1), Calls{}) << "the level is";
}

// ------------------------------------------------------------ at a caller's level

TEST_F(DumpTest, TheOtherDumpAsksForEventsAndForItsLevel) {
  platform().scripts.succeed("sdwrap_chk_int");
  const uint8_t byte = 0xab;
  ip_dump_buffer_buginf(&byte, "hello", 1, 7);
  EXPECT_EQ(calls(), (Calls{
                         "sdwrap_hist_event_subtype_check(7536640, 7)",
                         "sdwrap_chk_int(7, 0, 0, 1)",
                         "sdwrap_hist_event_subtype_check(7536640, 7)",
                         "sdwrap_chk_int(7, 0, 0, 1)",
                     }));
}

TEST_F(DumpTest, EventsAndDebugOutputGetTheSameLines) {
  platform().scripts.answer("sdwrap_hist_event_subtype_check", 1);
  ip_dump_buffer_buginf(numbered(17).data(), "hello", 17, 7);
  const Calls lines = {"hello hexdump 17 bytes:\n", full_line, "  10\n"};
  EXPECT_EQ(platform().debug_lines, lines);
  Calls events;
  for (const std::string &line : lines) events.push_back("sdwrap_hist_event(7536640, 7, \"" + line + "\")");
  EXPECT_EQ(only(calls(), {"sdwrap_hist_event"}), events);
  EXPECT_EQ(platform().log.count("buginf"), 3u);
  EXPECT_EQ(platform().log.count("buginf_func"), 0u);
}

TEST_F(DumpTest, EventsAreKeptWhenTheLevelIsOff) {
  platform().scripts.succeed("sdwrap_chk_int");
  platform().scripts.answer("sdwrap_hist_event_subtype_check", 1);
  const uint8_t byte = 0xab;
  ip_dump_buffer_buginf(&byte, "hello", 1, 7);
  EXPECT_EQ(platform().log.count("sdwrap_hist_event"), 2u);
  EXPECT_EQ(platform().debug_lines, Calls{});
}

TEST_F(DumpTest, DebugOutputIsMadeWhenNoEventsAreKept) {
  const uint8_t byte = 0xab;
  ip_dump_buffer_buginf(&byte, "hello", 1, 7);
  EXPECT_EQ(platform().log.count("sdwrap_hist_event"), 0u);
  EXPECT_EQ(platform().debug_lines.size(), 2u);
}

TEST_F(DumpTest, ATitleMayHaveAPercentSignAtACallersLevel) {
  const uint8_t byte = 0xab;
  ip_dump_buffer_buginf(&byte, "100%s", 1, 7);
  EXPECT_EQ(platform().debug_lines.front(), "100%s hexdump 1 bytes:\n");
}

// ------------------------------------------------------------ packets

class CopyPacketTest : public PacketTest {
 protected:
  Bytes buffer = Bytes(6, 0x7e);
};

TEST_F(CopyPacketTest, TheFirstBytesAreCopied) {
  struct mbuf *packet = packet_of({{1, 2}, {3}, {4, 5}});
  EXPECT_EQ(ip_copy_packet_to_buffer(packet, buffer.data(), 4), 4u);
  EXPECT_EQ(buffer, (Bytes{1, 2, 3, 4, 0x7e, 0x7e}));
  EXPECT_EQ(calls(), (Calls{"m_copydata(packet, 0, 4)"}));
}

TEST_F(CopyPacketTest, NoPacketAndNoLengthCopyNothing) {
  struct mbuf *packet = packet_of({{1, 2}});
  EXPECT_EQ(ip_copy_packet_to_buffer(nullptr, buffer.data(), 1), 0u);
  EXPECT_EQ(ip_copy_packet_to_buffer(packet, buffer.data(), 0), 0u);
  EXPECT_EQ(ip_copy_packet_to_buffer(packet, buffer.data(), -1), 0u);
  EXPECT_EQ(buffer, Bytes(6, 0x7e));
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(CopyPacketTest, AShortPacketIsReported) {
  EXPECT_EQ(ip_copy_packet_to_buffer(packet_of({{1, 2}}), buffer.data(), 3), 0u);
  EXPECT_EQ(calls(),
            (Calls{"m_copydata(packet, 0, 3)", limited("IP_NO_MBUF", "while copying packet. error 0x00000001")}));
}

TEST_F(CopyPacketTest, TheStatusIsTheLowHalfOfTheAnswer) {
  struct mbuf *packet = packet_of({{1, 2}});
  platform().scripts.answer_call("m_copydata", 1, 0x12340000);
  EXPECT_EQ(ip_copy_packet_to_buffer(packet, buffer.data(), 2), 2u);
  platform().scripts.answer_call("m_copydata", 1, 0xabcd0002);
  EXPECT_EQ(ip_copy_packet_to_buffer(packet, buffer.data(), 2), 0u);
  EXPECT_EQ(calls().back(), limited("IP_NO_MBUF", "while copying packet. error 0x00000002"));
}

TEST_F(DumpTest, APacketIsDumpedByWayOfItsScratchBuffer) {
  Bytes scratch(4, 0);
  ip_dump_packet(packet_of({{1, 2}, {3, 4}}), 3, "packet", scratch.data());
  EXPECT_EQ(platform().debug_lines, (Calls{"packet hexdump 3 bytes:\n", "  010203\n"}));
  EXPECT_EQ(scratch, (Bytes{1, 2, 3, 0}));
}

TEST_F(DumpTest, APacketThatIsTooShortIsNotDumped) {
  platform().scripts.succeed("sdwrap_chk_int");
  Bytes scratch(4, 0);
  ip_dump_packet(packet_of({{1, 2}}), 3, "packet", scratch.data());
  ip_dump_packet(nullptr, 3, "packet", scratch.data());
  ip_dump_packet(packet_of({{1, 2}}), 0, "packet", scratch.data());
  EXPECT_EQ(only(calls(), {"sdwrap_chk_int", "buginf_func"}), Calls{});
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 1u);
}

}  // namespace
}  // namespace unit
