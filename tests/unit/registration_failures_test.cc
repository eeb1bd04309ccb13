// SPDX-License-Identifier: Apache-2.0
// Registration that fails: at every call to the platform, and at every reply that is none. Nothing is left behind.
#include "fake_platform/console.h"
#include "unit/registration.h"

namespace unit {
namespace {

class RegistrationFailures : public RegistrationTest {
 protected:
  void TearDown() override {
    EXPECT_TRUE(platform().allocations.empty());
    EXPECT_TRUE(everything_is_dropped());
    EXPECT_EQ(platform().queues.size(), 2u) << "only the client's own queues are bound";
    RegistrationTest::TearDown();
  }

  // "Warning! ... [line] ...", with the line taken out.
  static std::string without_line(std::string text) {
    const size_t open = text.find('[');
    const size_t close = text.find(']');
    if (open == std::string::npos || close == std::string::npos) return text;
    EXPECT_GT(std::atoi(text.c_str() + open + 1), 0) << "the line that asked";
    return text.erase(open + 1, close - open - 1);
  }

  static constexpr char warning[] = "Warning! Malloc Failure in routing/ip/ip_register.cc[] for size 232\n";
};

TEST_F(RegistrationFailures, WithoutAClientNothingIsDone) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  EXPECT_EQ(ip_register("ospf", data_q, control_q, 1, 2, nullptr, 3, 4), 0u);
  EXPECT_EQ(debug_lines(), Calls{"ip_register: bad client\n"});
  EXPECT_EQ(without(calls(), {"sdwrap_chk_int", "buginf_func"}), Calls{});
}

TEST_F(RegistrationFailures, WithoutMemoryTheConsoleAndADebugLineSaySo) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  platform().scripts.fail("mtrack_alloc");
  fake_platform::ConsoleCapture console;
  EXPECT_EQ(register_client("ospf"), 0u);
  EXPECT_EQ(without_line(console.text()), warning);
  EXPECT_EQ(debug_lines(), Calls{"ip_register: no memory\n"});
  EXPECT_EQ(without(calls(), {"sdwrap_chk_int", "buginf_func"}), Calls{"mtrack_alloc(267, 1, 232)"});
  EXPECT_EQ(ip_client.ctrl_q, no_queue) << "the client is as it was";
}

TEST_F(RegistrationFailures, TheDebugLinesNeedTheirFlag) {
  dbg_ip_register = 1;
  EXPECT_EQ(ip_register("ospf", data_q, control_q, 1, 2, nullptr, 3, 4), 0u);
  platform().scripts.fail("mtrack_alloc");
  const fake_platform::ConsoleCapture console;
  EXPECT_EQ(register_client("ospf"), 0u);
  EXPECT_STREQ(dbg_str, "");
}

TEST_F(RegistrationFailures, WithoutAReplyQueueNothingIsSent) {
  platform().scripts.fail("mts_bind");
  EXPECT_EQ(register_client("ospf"), 0u);
  EXPECT_EQ(sent_count(), 0u);
  const Calls all = calls();
  EXPECT_EQ(Calls(all.end() - 2, all.end()), (Calls{"mts_bind(1, -1, 0, \"IP MTS queue\")", "mtrack_free(block)"}));
  EXPECT_EQ(platform().log.count("syslog_perror"), 0u);
}

TEST_F(RegistrationFailures, AMessageThatIsNotSentIsLogged) {
  ip_register_done = 1;
  platform().scripts.fail("mts_send");
  EXPECT_EQ(register_client("ospf"), 0u);
  const Calls all = calls();
  EXPECT_EQ(Calls(all.end() - 4, all.end()),
            (Calls{send_call(100), "syslog_perror(\"ip_register: bad ip_cl_mts_send.\n\")", "mts_unbind(100, 0)",
                   "mtrack_free(block)"}));
  EXPECT_EQ(ip_register_done, 1) << "nobody said otherwise";
}

TEST_F(RegistrationFailures, AMessageThatWantsNoReplyMayFailLikewise) {
  ip_client.flags = 4;
  platform().scripts.fail("mts_send");
  EXPECT_EQ(register_client("ospf"), 0u);
  EXPECT_EQ(ip_register_done, 0);
}

TEST_F(RegistrationFailures, AReceiveThatFailsIsLoggedAndNotTriedAgain) {
  ip_register_done = 1;
  platform().scripts.answer("mts_recv", static_cast<uintptr_t>(-1));
  EXPECT_EQ(register_client("ospf"), 0u);
  const Calls all = calls();
  EXPECT_EQ(Calls(all.end() - 6, all.end()),
            (Calls{"tsp_before_yield()", "mts_recv(100, 0, 0)", "tsp_after_yield()",
                   "syslog_perror(\"ip_register_wait_for_ack: error in recv ack from IP\n\")", "mts_unbind(100, 0)",
                   "mtrack_free(block)"}));
  EXPECT_EQ(ip_register_done, 1);
}

TEST_F(RegistrationFailures, AReceiveThatAnswersAPositiveNumberHasAReply) {
  arrive(control_opcode, reply(1));
  platform().scripts.answer("mts_recv", 24);
  EXPECT_EQ(register_client("ospf"), 1u);
}

struct Wrong {
  const char *name;
  uint16_t major, minor;
  const char *text;
};
class WrongReply : public RegistrationFailures, public testing::WithParamInterface<Wrong> {};

TEST_P(WrongReply, IsReportedWithItsTypesAndLeavesTheStateAlone) {
  for (const int32_t before : {0, 1}) {
    platform().log.clear();
    platform().next_queue = 100;
    ip_register_done = before;
    arrive(control_opcode, reply(1, GetParam().major, GetParam().minor));
    EXPECT_EQ(register_client("ospf"), 0u);
    EXPECT_EQ(ip_register_done, before);
    EXPECT_EQ(only(calls(), {"syslog_msg_rate_limit", "mts_drop"}),
              (Calls{limited("IP_CLNT_FAILURE", GetParam().text), "mts_drop(100)"}));
  }
}

TEST_P(WrongReply, ReachesTheOperatorInTheCataloguesWords) {
  platform().set_facility("ospf", 3);
  arrive(control_opcode, reply(1, GetParam().major, GetParam().minor));
  EXPECT_EQ(register_client("ospf"), 0u);
  ASSERT_EQ(platform().syslog.size(), 1u);
  EXPECT_EQ(platform().syslog[0].format, syslog_msg_IP_IP_CLNT_FAILURE.format);
  EXPECT_EQ(platform().syslog[0].text, std::string("<<%OSPF-3-IP_CLNT_FAILURE>> ") + GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    OfAnotherKind, WrongReply,
    testing::Values(Wrong{"Minor16", 5, 16, "Invalid IP registration reply. Message major type 5, minor type 16"},
                    Wrong{"Major4", 4, 17, "Invalid IP registration reply. Message major type 4, minor type 17"},
                    Wrong{"Swapped", 17, 5, "Invalid IP registration reply. Message major type 17, minor type 5"},
                    Wrong{"Largest", 65535, 65535,
                          "Invalid IP registration reply. Message major type 65535, minor type 65535"}),
    [](const auto &row) { return row.param.name; });

TEST_F(RegistrationFailures, ATruncatedReplyIsNone) {
  const Bytes whole = reply(1);
  for (size_t size = 1; size < whole.size(); size++) {
    arrive(control_opcode, Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    EXPECT_EQ(register_client("ospf"), 0u) << size;
    EXPECT_EQ(ip_register_done, 0) << size;
  }
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), whole.size() - 1);
}

TEST_F(RegistrationFailures, AReplyMayBeLongerThanItsRecord) {
  Bytes longer = reply(1);
  longer.resize(232);
  arrive(control_opcode, longer);
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_EQ(ip_register_done, 1);
}

TEST_F(RegistrationFailures, WithoutSizesAReplyIsAsLongAsItsRecord) {
  platform().scripts.fail("mts_payload_size");
  arrive(control_opcode, reply(1));
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_EQ(ip_register_done, 1);
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 0u);
  arrive(control_opcode, reply(0));
  EXPECT_EQ(register_client("ospf"), 0u);
}

TEST_F(RegistrationFailures, CleanUpThatFailsDoesNotChangeTheResult) {
  for (const char *function : {"mts_drop", "mts_unbind", "mts_options_set", "mts_recv_q_unblock"}) {
    platform().scripts.fail(function);
  }
  arrive(control_opcode, reply(1));
  EXPECT_EQ(register_client("ospf"), 1u);
  platform().queues.erase(100);
}

TEST_F(RegistrationFailures, NoReplyQueueIsRefusedWithoutASend) {
  ip_msgtype msg{};
  EXPECT_EQ(ip_register_with_ack(263, &msg, no_queue), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(RegistrationFailures, TheSapOfTheSecondHalfIsNotLookedAt) {
  Image image(232);
  ip_msgtype msg;
  std::memcpy(&msg, image.word(132, 4).bytes().data(), sizeof msg);
  EXPECT_EQ(ip_register_with_ack(9999, &msg, 30), 1u);
  EXPECT_EQ(sent().sap, 263u);
  EXPECT_EQ(sent().queue, 30u);
  EXPECT_EQ(ip_register_done, 1);
}

}  // namespace
}  // namespace unit
