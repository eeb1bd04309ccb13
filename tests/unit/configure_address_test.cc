// SPDX-License-Identifier: Apache-2.0
// Configuring an address, and what the IP process says about it.
#include <cerrno>

#include "unit/messages.h"

namespace unit {
namespace {

constexpr uint32_t control_q = 30;
constexpr uint32_t untouched = 0xabcdef01;

class ConfigureAddressTest : public MessagingTest {
 protected:
  ConfigureAddressTest() { ip_client.ctrl_q = control_q; }
  void TearDown() override {
    EXPECT_EQ(platform().received.size(), undropped) << "messages that were received and not dropped";
    MessagingTest::TearDown();
  }

  uint32_t configure(uint32_t flags, uint32_t wait = 7) {
    return ip_configure_address(5, 0x0a010203, 24, &result, flags, wait);
  }

  static Bytes reply(uint8_t status, uint32_t value) { return Image(232).word(44, value).byte(52, status).bytes(); }

  size_t undropped = 0;
  uint32_t result = untouched;
};

TEST_F(ConfigureAddressTest, TheMessageSaysWhatIsToBeConfigured) {
  arrive(configure_opcode, reply(0, 0));
  EXPECT_EQ(configure(0x80000000), 0u);
  EXPECT_EQ(sent_bytes(), message(7).word(32, 5).word(36, 0x0a010203).byte(40, 24).word(48, 0x80000000).bytes());
  std::array<uint32_t, 17> fresh{1};
  EXPECT_EQ(sent().options, fresh);
}

TEST_F(ConfigureAddressTest, EveryStepIsTakenInItsOrder) {
  arrive(configure_opcode, reply(0, 0));
  EXPECT_EQ(configure(0, 7), 0u);
  EXPECT_EQ(calls(), (Calls{epid_call(), "trel_sys_mclock_get()", "sysmgr_uuid_get()", "sysmgr_uuid_get()",
                            send_call(control_q, 232, configure_opcode), "mts_recv(30, 7, 0)", "mts_opc_get()",
                            "mts_payload_get()", "mts_payload_size()", "mts_drop(30)"}));
  EXPECT_EQ(platform().recv_options, (std::array<uint32_t, 10>{1, 0, 7}));
}

TEST_F(ConfigureAddressTest, BadArgumentsAreRefusedWithoutASend) {
  EXPECT_EQ(ip_configure_address(0, 0x0a010203, 24, &result, 0, 0), 4u);
  EXPECT_EQ(ip_configure_address(5, 0x0a010203, 0, &result, 1, 0), 4u);
  for (const uint32_t martian : {0u, 0x00000001u, 0x7f000001u, 0xffffffffu}) {
    EXPECT_EQ(ip_configure_address(5, martian, 24, &result, 0, 0), 4u) << martian;
  }
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(result, untouched);
}

TEST_F(ConfigureAddressTest, TheStatusIsTheIpProcesss) {
  for (const uint8_t status : {uint8_t{0}, uint8_t{1}, uint8_t{17}, uint8_t{255}}) {
    arrive(configure_opcode, reply(status, 0x01020304));
    result = untouched;
    EXPECT_EQ(configure(0), status);
    EXPECT_EQ(result, 0x01020304u);
  }
}

TEST_F(ConfigureAddressTest, AValueOfZeroLeavesTheResultAlone) {
  arrive(configure_opcode, reply(17, 0));
  EXPECT_EQ(configure(0), 17u);
  EXPECT_EQ(result, untouched);
}

TEST_F(ConfigureAddressTest, TheResultNeedNotBeWanted) {
  arrive(configure_opcode, reply(17, 9));
  EXPECT_EQ(ip_configure_address(5, 0x0a010203, 24, nullptr, 0, 0), 17u);
}

TEST_F(ConfigureAddressTest, WhoDoesNotWaitLearnsWhetherItWasSent) {
  for (const uint32_t flags : {1u, 3u}) {
    platform().scripts.succeed("mts_send");
    errno = 0;
    EXPECT_EQ(configure(flags), 1u);
    EXPECT_EQ(errno, 0);
    platform().scripts.fail("mts_send");
    EXPECT_EQ(configure(flags), 0u);
  }
  EXPECT_EQ(platform().log.count("mts_recv"), 0u);
}

TEST_F(ConfigureAddressTest, WhoCollectsTheReplyIsToldToComeAgain) {
  errno = 0;
  EXPECT_EQ(configure(2), 0u);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(sent_count(), 1u);
  EXPECT_EQ(platform().log.count("mts_recv"), 0u);
}

TEST_F(ConfigureAddressTest, ARequestThatIsNotSentHasItsOwnStatus) {
  platform().scripts.fail("mts_send");
  errno = 0;
  EXPECT_EQ(configure(0), 5u);
  EXPECT_EQ(configure(2), 5u);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(platform().log.count("mts_recv"), 0u);
  platform().scripts.succeed("mts_send");
  ip_client.ctrl_q = no_queue;
  EXPECT_EQ(configure(0), 5u);
}

TEST_F(ConfigureAddressTest, AnInterruptedReceiveGoesOn) {
  arrive(configure_opcode, reply(17, 0));
  platform().scripts.fail_call("mts_recv", 1);
  platform().scripts.fail_call("mts_recv", 2);
  errno = EINTR;
  EXPECT_EQ(configure(0), 17u);
  EXPECT_EQ(platform().log.count("mts_recv"), 3u);
}

TEST_F(ConfigureAddressTest, AReceiveThatFailsOtherwiseEndsTheWait) {
  platform().scripts.fail("mts_recv");
  for (const int reason : {ETIMEDOUT, EPIPE, EAGAIN, 0}) {
    errno = reason;
    EXPECT_EQ(configure(0), 1u) << reason;
  }
  EXPECT_EQ(platform().log.count("mts_recv"), 4u);
  EXPECT_EQ(result, untouched);
}

TEST_F(ConfigureAddressTest, OtherMessagesArePassedOverAndNotDropped) {
  arrive(control_opcode, reply(99, 98));
  arrive(0x14c04, {});
  arrive(configure_opcode, reply(17, 6));
  EXPECT_EQ(configure(0), 17u);
  EXPECT_EQ(result, 6u);
  EXPECT_EQ(platform().log.count("mts_drop"), 1u);
  undropped = 2;
}

TEST_F(ConfigureAddressTest, AReplyWithoutAPayloadIsNone) {
  arrive(configure_opcode, {});
  EXPECT_EQ(configure(0), 1u);
  EXPECT_EQ(calls().back(), "mts_drop(30)");
  EXPECT_EQ(result, untouched);
}

TEST_F(ConfigureAddressTest, ATruncatedReplyIsNone) {
  const Bytes whole = reply(17, 6);
  for (size_t size = 1; size < 53; size++) {
    arrive(configure_opcode, Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    EXPECT_EQ(configure(0), 1u) << size;
    EXPECT_EQ(result, untouched) << size;
  }
  arrive(configure_opcode, Bytes(whole.begin(), whole.begin() + 53));
  EXPECT_EQ(configure(0), 17u) << "this has the status";
}

TEST_F(ConfigureAddressTest, WithoutSizesAReplyIsAsLongAsItsRecord) {
  platform().scripts.fail("mts_payload_size");
  arrive(configure_opcode, reply(17, 6));
  EXPECT_EQ(configure(0), 17u);
  EXPECT_EQ(result, 6u);
}

TEST_F(ConfigureAddressTest, AReplyThatTheCallerReceivedIsReadAndDropped) {
  arrive(configure_opcode, reply(17, 6));
  mts_msg_ref_t received = nullptr;
  mts_recv_opts options = {.w = {1}};
  ASSERT_EQ(mts_recv(control_q, &received, &options), 0);
  platform().log.clear();
  platform().scripts.fail("mts_drop");
  EXPECT_EQ(ip_parse_config_response(received, 77, 88, 99, &result), 17u);
  EXPECT_EQ(result, 6u);
  EXPECT_EQ(calls(), (Calls{"mts_payload_get()", "mts_payload_size()", "mts_drop(30)"}));
}

}  // namespace
}  // namespace unit
