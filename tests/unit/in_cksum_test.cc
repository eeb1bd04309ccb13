// SPDX-License-Identifier: Apache-2.0
// The checksum over a part of a packet: offsets and lengths across buffers of any size, and what it shows a developer.
#include "unit/call_lines.h"
#include "unit/packet_headers.h"
#include "unit/random_words.h"

namespace unit {
namespace {

class InCksumTest : public PacketTest {
 protected:
  static uint16_t flat(const Bytes &bytes, size_t offset, size_t length) {
    return ip_checksum(bytes.data() + offset, static_cast<uint32_t>(length));
  }
  const Bytes nine = {0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0, 0x11};
};

TEST_F(InCksumTest, OneBufferIsAsItLies) {
  EXPECT_EQ(in_cksum(packet_of({nine}), 0, 9), flat(nine, 0, 9));
  EXPECT_EQ(in_cksum(packet_of({nine}), 0, 8), flat(nine, 0, 8));
}

// RFC 1071, section 3.
TEST_F(InCksumTest, TheExampleOfRfc1071MayBeCutAnywhere) {
  const Bytes example = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
  for (size_t first = 0; first <= 8; first++) {
    for (size_t second = 0; first + second <= 8; second++) {
      EXPECT_EQ(in_cksum(packet_of(cut(example, {first, second})), 0, 8), on_the_wire(0x220d)) << first << second;
    }
  }
}

TEST_F(InCksumTest, EveryPartOfEveryCutIsAsIfItWereFlat) {
  for (size_t first = 0; first <= 9; first++) {
    for (size_t second = 0; first + second <= 9; second++) {
      struct mbuf *packet = packet_of(cut(nine, {first, second}));
      for (size_t offset = 0; offset <= 9; offset++) {
        for (size_t length = 0; offset + length <= 9; length++) {
          EXPECT_EQ(in_cksum(packet, static_cast<int32_t>(offset), static_cast<int32_t>(length)),
                    flat(nine, offset, length))
              << first << " " << second << " " << offset << " " << length;
        }
      }
    }
  }
}

TEST_F(InCksumTest, EmptyBuffersAreSkipped) {
  EXPECT_EQ(in_cksum(packet_of({{}, {0x12}, {}, {}, {0x34, 0x56}, {}}), 0, 3), flat({0x12, 0x34, 0x56}, 0, 3));
  EXPECT_EQ(in_cksum(packet_of({{}, {0x12}, {}, {}, {0x34, 0x56}, {}}), 1, 2), flat({0x34, 0x56}, 0, 2));
}

TEST_F(InCksumTest, RandomPacketsAreAsIfTheyWereFlat) {
  RandomWords random;
  for (int i = 0; i < 2000; i++) {
    std::vector<Bytes> parts(1 + random.below(12));
    Bytes all;
    for (Bytes &part : parts) {
      part.resize(random.below(200));
      for (uint8_t &byte : part) byte = static_cast<uint8_t>(random());
      all = joined(all, part);
    }
    const uint32_t offset = random.below(static_cast<uint32_t>(all.size()) + 1);
    const uint32_t length = random.below(static_cast<uint32_t>(all.size()) - offset + 1);
    EXPECT_EQ(in_cksum(packet_of(parts), static_cast<int32_t>(offset), static_cast<int32_t>(length)),
              flat(all, offset, length));
    if (i % 50 == 0) platform().memory.reset();
  }
}

TEST_F(InCksumTest, NoPacketAndNoLengthAreTheChecksumOfNothing) {
  EXPECT_EQ(in_cksum(nullptr, 0, 20), 0xffff);
  EXPECT_EQ(in_cksum(packet_of({nine}), 0, 0), 0xffff);
  EXPECT_EQ(in_cksum(packet_of({nine}), 20, 0), 0xffff);
}

TEST_F(InCksumTest, BelowZeroCountsAsZero) {
  EXPECT_EQ(in_cksum(packet_of({nine}), 0, -1), 0xffff);
  EXPECT_EQ(in_cksum(packet_of({nine}), -3, 9), flat(nine, 0, 9));
}

TEST_F(InCksumTest, AShortPacketGivesTheChecksumOfWhatIsThere) {
  EXPECT_EQ(in_cksum(packet_of(cut(nine, {3})), 2, 100), flat(nine, 2, 7));
  EXPECT_EQ(in_cksum(packet_of(cut(nine, {3})), 9, 1), 0xffff);
  EXPECT_EQ(in_cksum(packet_of(cut(nine, {3})), 10, 1), 0xffff);
}

TEST_F(InCksumTest, NothingIsShownUnlessItsFlagIsSet) {
  dbg_ip_api_misc = 1;
  in_cksum(packet_of({nine}), 0, 100);
  in_cksum(packet_of({nine}), 100, 1);
  EXPECT_EQ(calls(), Calls{});
  EXPECT_STREQ(dbg_str, "");
}

// ------------------------------------------------------------ what it shows

class InCksumDebugTest : public InCksumTest {
 protected:
  InCksumDebugTest() {
    dbg_in_cksum = 1;
    platform().scripts.answer("sdwrap_chk_int", 1);
  }
  static std::string call_line(const struct mbuf *chain, int length) {
    char text[64];
    snprintf(text, sizeof text, "in_cksum(0x%x %d)\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(chain)),
             length);
    return text;
  }
  static const Calls &lines() { return platform().debug_lines; }
};

TEST_F(InCksumDebugTest, TheCallAndThePacketAreShownFirst) {
  struct mbuf *packet = packet_of({nine});
  EXPECT_EQ(in_cksum(packet, 2, 7), flat(nine, 2, 7)) << "the result is the same";
  EXPECT_EQ(lines(), (Calls{call_line(packet, 7)}));
  EXPECT_EQ(without(calls(), {"sdwrap_chk_int", "buginf_func"}), (Calls{"mbuf_dump(\"in_cksum\", packet, 0, 0)"}));
  EXPECT_EQ(calls().back(), "mbuf_dump(\"in_cksum\", packet, 0, 0)") << "behind the line";
}

TEST_F(InCksumDebugTest, TheLineGoesThroughTheLibrarysDebugLines) {
  platform().scripts.succeed("sdwrap_chk_int");
  struct mbuf *packet = packet_of({nine});
  in_cksum(packet, 0, 9);
  EXPECT_EQ(calls(), (Calls{"sdwrap_chk_int(150, 0, 0, 1)", "mbuf_dump(\"in_cksum\", packet, 0, 0)"}));
  EXPECT_EQ(dbg_str, call_line(packet, 9));
}

TEST_F(InCksumDebugTest, NoPacketIsShownAsNone) {
  EXPECT_EQ(in_cksum(nullptr, 0, 5), 0xffff);
  EXPECT_EQ(lines(), (Calls{"in_cksum(0x0 5)\n"}));
  EXPECT_EQ(platform().log.count("mbuf_dump"), 1u);
}

TEST_F(InCksumDebugTest, MissingBytesAreCounted) {
  struct mbuf *packet = packet_of(cut(nine, {4}));
  EXPECT_EQ(in_cksum(packet, 2, 100), flat(nine, 2, 7));
  EXPECT_EQ(lines(), (Calls{call_line(packet, 100), "cksum: out of data 93\n"}));
}

TEST_F(InCksumDebugTest, AnOffsetAtTheEndIsMissingBytes) {
  struct mbuf *packet = packet_of(cut(nine, {4}));
  in_cksum(packet, 9, 5);
  EXPECT_EQ(lines(), (Calls{call_line(packet, 5), "cksum: out of data 5\n"}));
}

TEST_F(InCksumDebugTest, AnOffsetBeyondTheEndIsShownAlone) {
  struct mbuf *packet = packet_of(cut(nine, {4}));
  EXPECT_EQ(in_cksum(packet, 12, 5), 0xffff);
  EXPECT_EQ(lines(), (Calls{call_line(packet, 5), "cksum: offset is 3 greater than data len\n"}));
}

TEST_F(InCksumDebugTest, NoLengthHasNothingMissing) {
  struct mbuf *packet = packet_of({nine});
  in_cksum(packet, 20, 0);
  EXPECT_EQ(lines(), (Calls{call_line(packet, 0)}));
}

}  // namespace
}  // namespace unit
