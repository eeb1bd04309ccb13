// SPDX-License-Identifier: Apache-2.0
// What all packet calls have in common, for each of them: the message, the two ways of travelling, the order of calls
// to the platform, what each failure of the platform leads to, and who frees the packet.
#include <algorithm>
#include <cctype>

#include "mtrack.h"
#include "unit/packet_calls.h"

namespace unit {
namespace {

class CarriageTest : public PacketTest, public testing::WithParamInterface<PacketCallRow> {
 protected:
  static const PacketCallRow &row() { return GetParam(); }
  uint32_t call(mbuf *m) { return row().call(m, &client); }

  static Calls allocation() { return row().no_memory ? Calls{"mtrack_alloc(267, 1, 232)"} : Calls{}; }
  static Calls release_of_the_message() { return row().no_memory ? Calls{"mtrack_free(block)"} : Calls{}; }
  static Calls free_if(Fate fate) { return fate == Fate::freed ? Calls{"m_freem(packet)"} : Calls{}; }
  static Calls release_of(const Calls &pieces) {
    Calls lines;
    for (const std::string &piece : pieces) {
      lines.push_back((row().tracked_pieces ? "mtrack_free(" : "free(") + piece + ")");
    }
    return lines;
  }
  static Calls joined(const std::vector<Calls> &parts) {
    Calls lines;
    for (const Calls &part : parts) lines.insert(lines.end(), part.begin(), part.end());
    return lines;
  }
  static Calls header() { return {epid_call(), "trel_sys_mclock_get()"}; }
  // What a call lost on purpose; the leak checker goes on seeing what is lost by mistake.
  static void give_back_what_is_lost() {
    while (!platform().allocations.empty()) mtrack_free(platform().allocations.begin()->first);
  }
  static Calls conversion() { return {"m_convert_mbuf_to_iovec_limited(packet, 8)"}; }
  static Calls sending() { return {"m_length(packet)", "sysmgr_uuid_get()", packet_send_call()}; }
};

// ------------------------------------------------------------ the message

TEST_P(CarriageTest, ByReferenceTheMessageNamesThePacket) {
  by_reference();
  mbuf *m = packet();
  EXPECT_EQ(call(m), 1u);
  EXPECT_EQ(sent_bytes(), expected(row(), m).bytes());
  EXPECT_EQ(sent().pieces, std::vector<Bytes>{});
  std::array<uint32_t, 17> fresh{1};
  EXPECT_EQ(sent().options, fresh);
}

TEST_P(CarriageTest, BySegmentsTheBytesGoAlong) {
  by_segments();
  EXPECT_EQ(call(packet()), 1u);
  EXPECT_EQ(sent_bytes(), expected(row(), nullptr).bytes());
  EXPECT_EQ(sent().pieces, (std::vector<Bytes>{{1, 2, 3}, {4, 5}}));
  auto options = sent().options;
  EXPECT_EQ(options[1], 2u);
  options[2] = options[3] = 0;  // the address of the vector, which was followed above
  EXPECT_EQ(options, (std::array<uint32_t, 17>{1, 2}));
}

TEST_P(CarriageTest, BytesBeyondEightPiecesGoAlongInABlockOfTheirOwn) {
  by_segments();
  std::vector<Bytes> parts;
  for (uint8_t i = 0; i < 12; i++) parts.push_back({i, i});
  EXPECT_EQ(call(packet_of(parts)), 1u);
  ASSERT_EQ(sent().pieces.size(), 8u);
  EXPECT_EQ(sent().options[1], 8u);
  EXPECT_EQ(sent().pieces[7], (Bytes{7, 7, 8, 8, 9, 9, 10, 10, 11, 11}));
  EXPECT_EQ(sent_bytes(), expected(row(), nullptr, 24).bytes());
}

TEST_P(CarriageTest, OnlyTheLow16BitsOfALongPacketsLengthAreCarried) {
  by_reference();
  mbuf *m = packet_of(std::vector<Bytes>(33, Bytes(2000)));  // 66,000 bytes
  EXPECT_EQ(call(m), 1u);
  EXPECT_EQ(sent_bytes(), expected(row(), m, 66000 - 65536).bytes());
}

TEST_P(CarriageTest, TheProcessesOwnFlagsChooseHowAPacketTravels) {
  ip_client.flags = 0;
  client.flags = 1;
  mbuf *m = packet();
  EXPECT_EQ(call(m), 1u);
  EXPECT_EQ(sent_bytes(), expected(row(), m).bytes());
  platform().sent.clear();
  ip_client.flags = 1;
  client.flags = 0;
  EXPECT_EQ(call(packet()), 1u);
  EXPECT_EQ(sent_bytes(), expected(row(), nullptr).bytes());
}

TEST_P(CarriageTest, TheMessageLeavesFromTheDataQueueOfTheClientThatIsNamed) {
  ip_client.data_q = 77;
  client.data_q = 78;
  EXPECT_EQ(call(packet()), 1u);
  EXPECT_EQ(sent().queue, row().null_client ? 78u : 77u);
  EXPECT_EQ(sent().opcode, packet_opcode);
}

TEST_P(CarriageTest, AttachmentIsNotAskedFor) {
  ASSERT_EQ(ip_api_attached, 0u);
  platform().supervisor_state = 2;
  EXPECT_EQ(call(packet()), 1u);
}

// ------------------------------------------------------------ order of calls, and who frees

TEST_P(CarriageTest, SentByReferenceThePacketIsTheIpProcesss) {
  by_reference();
  EXPECT_EQ(call(packet()), 1u);
  EXPECT_EQ(calls(), joined({allocation(), header(), sending(), release_of_the_message()}));
}

TEST_P(CarriageTest, NotSentByReferenceThePacketGoesAsTheCallSays) {
  by_reference();
  platform().scripts.fail("mts_send");
  mbuf *m = packet();
  EXPECT_EQ(call(m), 0u);
  EXPECT_EQ(calls(), joined({allocation(), header(), sending(), release_of_the_message(), free_if(row().unsent)}));
  EXPECT_EQ(fake_platform::packet_bytes(m).empty(), row().unsent == Fate::freed);
}

TEST_P(CarriageTest, SentBySegmentsThePacketGoesAsTheCallSays) {
  by_segments();
  mbuf *m = packet();
  EXPECT_EQ(call(m), 1u);
  EXPECT_EQ(calls(), joined({allocation(), header(), conversion(), sending(), release_of_the_message(),
                             free_if(row().sent), release_of({"vector"})}));
  EXPECT_EQ(fake_platform::packet_bytes(m).empty(), row().sent == Fate::freed);
}

TEST_P(CarriageTest, NotSentBySegmentsThePacketGoesAsTheCallSays) {
  by_segments();
  platform().scripts.fail("mts_send");
  mbuf *m = packet();
  EXPECT_EQ(call(m), 0u);
  EXPECT_EQ(calls(), joined({allocation(), header(), conversion(), sending(), release_of_the_message(),
                             free_if(row().unsent), release_of({"vector"})}));
  EXPECT_EQ(fake_platform::packet_bytes(m).empty(), row().unsent == Fate::freed);
}

TEST_P(CarriageTest, TheBlockOfManyPiecesIsReleasedAfterTheVectorSentOrNot) {
  by_segments();
  for (const bool good : {true, false}) {
    if (!good) platform().scripts.fail("mts_send");
    platform().log.clear();
    EXPECT_EQ(call(packet_of(std::vector<Bytes>(12, Bytes{1}))), good ? 1u : 0u);
    EXPECT_EQ(only(calls(), {"mtrack_free", "free"}),
              joined({release_of_the_message(), release_of({"vector", "overflow"})}));
  }
}

TEST_P(CarriageTest, AVectorThatWasNotAllocatedIsReleasedOnlyByThoseWhoDoNotAsk) {
  by_segments();
  platform().vector_allocated = false;
  EXPECT_EQ(call(packet_of(std::vector<Bytes>(12, Bytes{1}))), 1u);
  if (row().tracked_pieces) {
    EXPECT_EQ(only(calls(), {"mtrack_free", "free"}), Calls{"mtrack_free(overflow)"});
    expect_unreleased({"vector"});
  } else {
    // Whatever the flag says: such a conversion does not exist, and these calls never asked.
    EXPECT_EQ(only(calls(), {"free"}), (Calls{"free(vector)", "free(overflow)"}));
  }
}

// ------------------------------------------------------------ what is refused, and what fails

TEST_P(CarriageTest, AFailedConversionIsToldUnderTheCallsName) {
  by_segments();
  show_debug_lines();
  platform().scripts.fail("m_convert_mbuf_to_iovec_limited");
  mbuf *m = packet();
  EXPECT_EQ(call(m), 0u);
  EXPECT_EQ(debug_lines(),
            Calls{std::string(row().conversion_name) + ": no memory for m_convert_mbuf_to_iovec_limited\n"});
  EXPECT_STREQ(dbg_str, "") << "the platform formats this line";
  EXPECT_EQ(without(calls(), {"sdwrap_chk_int", "buginf_func"}),
            joined({allocation(), header(), conversion(), free_if(row().unconverted)}));
  EXPECT_TRUE(only(calls(), {"buginf_func", "m_freem"}).front().starts_with("buginf_func")) << "told, and then freed";
  EXPECT_EQ(fake_platform::packet_bytes(m).empty(), row().unconverted == Fate::freed);
  give_back_what_is_lost();
}

// A message from the heap stays allocated there: callers know these calls so.
TEST_P(CarriageTest, AFailedConversionLosesAMessageFromTheHeap) {
  by_segments();
  platform().scripts.fail("m_convert_mbuf_to_iovec_limited");
  EXPECT_EQ(call(packet()), 0u);
  EXPECT_EQ(platform().allocations.size(), row().no_memory ? 1u : 0u);
  give_back_what_is_lost();
}

TEST_P(CarriageTest, AFailedConversionIsNotToldBelowTheDebugLevel) {
  by_segments();
  dbg_ip_api_misc = 0;
  platform().scripts.fail("m_convert_mbuf_to_iovec_limited");
  EXPECT_EQ(call(packet()), 0u);
  EXPECT_EQ(only(calls(), {"sdwrap_chk_int"}), Calls{"sdwrap_chk_int(150, 0, 0, 1)"});
  EXPECT_EQ(debug_lines(), Calls{});
  give_back_what_is_lost();
}

TEST_P(CarriageTest, ANullPacketIsRefused) {
  EXPECT_EQ(call(nullptr), 0u);
  EXPECT_EQ(without(calls(), {"m_freem"}), Calls{});
}

TEST_P(CarriageTest, ANullClientIsRefusedAndThePacketGoesAsTheCallSays) {
  mbuf *m = packet();
  if (!row().null_client) {
    EXPECT_EQ(row().call(m, nullptr), 1u) << "the call takes no client";
    return;
  }
  EXPECT_EQ(row().call(m, nullptr), 0u);
  EXPECT_EQ(calls(), free_if(*row().null_client));
  EXPECT_EQ(fake_platform::packet_bytes(m).empty(), row().null_client == Fate::freed);
}

TEST_P(CarriageTest, WithoutADataQueueNothingIsSent) {
  by_segments();
  client.data_q = ip_client.data_q = no_queue;
  EXPECT_EQ(call(packet()), 0u);
  EXPECT_EQ(sent_count(), 0u);
  EXPECT_EQ(times_freed(), row().unsent == Fate::freed ? 1u : 0u);
}

TEST_P(CarriageTest, WordsOfThePlatformAreCarriedAsTheyAre) {
  by_reference();
  platform().scripts.fail("ksink_get_epid");
  platform().scripts.fail("m_length");
  platform().scripts.answer("sysmgr_uuid_get", 0xa0b0c0d0);
  mbuf *m = packet();
  EXPECT_EQ(call(m), 1u);
  EXPECT_EQ(sent_bytes(), expected(row(), m, 0).word(8, 0).word(20, 0xa0b0c0d0).bytes());
}

TEST_P(CarriageTest, NothingIsFormattedWithoutAFlag) {
  by_segments();
  EXPECT_EQ(call(packet()), 1u);
  EXPECT_EQ(call(nullptr), 0u);
  EXPECT_EQ(row().call(packet(), nullptr), row().null_client ? 0u : 1u);
  platform().scripts.fail("mts_send");
  EXPECT_EQ(call(packet()), 0u);
  EXPECT_STREQ(dbg_str, "");
  EXPECT_EQ(platform().log.count("sdwrap_chk_int"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Packet, CarriageTest, testing::ValuesIn(packet_calls()),
                         [](const testing::TestParamInfo<PacketCallRow> &row) { return std::string(row.param.name); });

}  // namespace
}  // namespace unit
