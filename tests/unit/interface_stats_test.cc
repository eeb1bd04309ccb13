// SPDX-License-Identifier: Apache-2.0
// Statistics of an interface, asked of the IP process.
#include <cstdlib>

#include "unit/messages.h"

namespace unit {
namespace {

class InterfaceStatsTest : public MessagingTest {
 protected:
  InterfaceStatsTest() : request(300, 0x5a), reply(&untouched) {}
  void TearDown() override {
    EXPECT_TRUE(everything_is_dropped());
    MessagingTest::TearDown();
  }

  uint32_t ask(uint32_t size = 300) { return ip_get_interface_stats(42, request.data(), size, &reply); }

  Bytes request;
  int untouched = 0;
  void *reply;
};

TEST_F(InterfaceStatsTest, TheRequestIsTheCallersButForItsHeader) {
  arrive(control_opcode, {1, 2, 3});
  Image image(300);
  image.text(0, std::string(300, '\x5a'));
  image.half(0, 5).half(2, 31).word(4, own_pid()).word(8, own_pid() + 1000);
  image.word(12, 0x01020304).word(16, 0x05060708);
  ASSERT_EQ(ask(), 1u);
  EXPECT_EQ(sent_bytes(), image.bytes()) << "the word at 20 is the caller's as well";
  EXPECT_EQ(request, image.bytes());
  EXPECT_FALSE(sent().with_options);
  std::free(reply);
}

TEST_F(InterfaceStatsTest, TheReplyIsACopyThatTheCallerFrees) {
  const Bytes answer = {9, 8, 7, 6, 5, 4, 3, 2, 1};
  arrive(control_opcode, answer);
  ASSERT_EQ(ask(), 1u);
  EXPECT_EQ(Bytes(static_cast<uint8_t *>(reply), static_cast<uint8_t *>(reply) + answer.size()), answer);
  std::free(reply);
}

TEST_F(InterfaceStatsTest, EveryStepIsTakenInItsOrder) {
  platform().next_token = 0x51;
  arrive(control_opcode, {1});
  ASSERT_EQ(ask(36), 1u);
  EXPECT_EQ(calls(), (Calls{epid_call(), "trel_sys_mclock_get()", send_call(42, 36), "mts_rr_token_get()",
                            "mts_drop(42)", "mts_recv(42, 10, 81)", "mts_is_reject()", "mts_payload_size()",
                            "mts_payload_get()", "mts_drop(42)"}));
  EXPECT_EQ(platform().recv_options, (std::array<uint32_t, 10>{1, 0, 10, 0x51}));
  std::free(reply);
}

TEST_F(InterfaceStatsTest, AnEmptyReplyIsOne) {
  arrive(control_opcode, {});
  ASSERT_EQ(ask(), 1u);
  EXPECT_NE(reply, &untouched);
  std::free(reply);
}

TEST_F(InterfaceStatsTest, WithoutARequestOrAPlaceForTheReplyNothingIsDone) {
  EXPECT_EQ(ip_get_interface_stats(42, nullptr, 36, &reply), 0u);
  EXPECT_EQ(ip_get_interface_stats(42, request.data(), 36, nullptr), 0u);
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(request, Bytes(300, 0x5a));
}

TEST_F(InterfaceStatsTest, ARequestWithoutRoomForItsHeaderIsNotWrittenTo) {
  for (const uint32_t size : {0u, 1u, 19u}) EXPECT_EQ(ask(size), 0u) << size;
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(request, Bytes(300, 0x5a));
}

TEST_F(InterfaceStatsTest, ASendThatReportsAnythingButZeroHasFailed) {
  for (const uintptr_t status : {uintptr_t{1}, static_cast<uintptr_t>(-1)}) {
    platform().scripts.answer("mts_send", status);
    platform().log.clear();
    EXPECT_EQ(ask(), 0u);
    EXPECT_EQ(calls().back(), send_call(42, 300));
    EXPECT_EQ(reply, &untouched);
    platform().received.clear();
  }
}

TEST_F(InterfaceStatsTest, AReceiveThatReportsAnythingButZeroHasFailed) {
  platform().scripts.fail("mts_recv");
  EXPECT_EQ(ask(), 0u);
  EXPECT_EQ(calls().back(), "mts_recv(42, 10, 1)");
  platform().scripts.answer("mts_recv", 1);
  EXPECT_EQ(ask(), 0u);
  EXPECT_EQ(calls().back(), "mts_recv(42, 10, 2)");
  EXPECT_EQ(reply, &untouched);
}

TEST_F(InterfaceStatsTest, ARejectIsDropped) {
  platform().replies.push_back({.opcode = control_opcode, .payload = {1, 2, 3}, .reject = true, .token = 1});
  EXPECT_EQ(ask(), 0u);
  const Calls all = calls();
  EXPECT_EQ(Calls(all.end() - 2, all.end()), (Calls{"mts_is_reject()", "mts_drop(42)"}));
  EXPECT_EQ(reply, &untouched);
}

TEST_F(InterfaceStatsTest, APayloadThatIsMissingIsNoReply) {
  arrive(control_opcode, {1, 2, 3});
  platform().scripts.fail("mts_payload_get");
  EXPECT_EQ(ask(), 0u);
  EXPECT_EQ(reply, &untouched);
}

TEST_F(InterfaceStatsTest, DropsThatFailDoNotChangeTheResult) {
  arrive(control_opcode, {1});
  platform().scripts.fail("mts_drop");
  ASSERT_EQ(ask(), 1u);
  std::free(reply);
}

}  // namespace
}  // namespace unit
