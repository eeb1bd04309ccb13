// SPDX-License-Identifier: Apache-2.0
// Taking leave of the IP process.
#include "fake_platform/console.h"
#include "unit/library_data.h"
#include "unit/registration.h"

namespace unit {
namespace {

class DeregistrationTest : public RegistrationTest {
 protected:
  DeregistrationTest() {
    ip_client.ctrl_q = control_q;
    ip_client.data_q = data_q;
    ip_register_done = 1;
  }
  void TearDown() override {
    EXPECT_TRUE(platform().allocations.empty());
    RegistrationTest::TearDown();
  }
};

TEST_F(DeregistrationTest, TheMessageSaysWhoLeaves) {
  ip_client.reg_aux8 = 0xfe;
  ip_client.reg_aux32 = 0x0a0b0c0d;
  EXPECT_EQ(ip_deregister("ospf", 0x59, &ip_client), 1);
  EXPECT_EQ(
      sent_bytes(),
      message(2).byte(24, 0x59).text(32, "ospf").word(108, own_pid()).word(124, 0xfe).word(128, 0x0a0b0c0d).bytes());
  std::array<uint32_t, 17> fresh{1};
  EXPECT_EQ(sent().options, fresh);
  EXPECT_EQ(ip_register_done, 0);
}

TEST_F(DeregistrationTest, EveryStepIsTakenInItsOrder) {
  EXPECT_EQ(ip_deregister("ospf", 0x59, &ip_client), 1);
  EXPECT_EQ(calls(), (Calls{"mtrack_alloc(267, 1, 232)", epid_call(), "trel_sys_mclock_get()", "sysmgr_supstate_get()",
                            "sysmgr_uuid_get()", send_call(control_q), "mtrack_free(block)"}));
}

TEST_F(DeregistrationTest, ANameIsCutInsideItsFieldOrMissing) {
  EXPECT_EQ(ip_deregister(std::string(500, 'n').c_str(), 1, &ip_client), 1);
  EXPECT_EQ(sent_bytes(), message(2).byte(24, 1).text(32, std::string(67, 'n')).word(108, own_pid()).bytes());
  platform().sent.clear();
  EXPECT_EQ(ip_deregister(nullptr, 1, &ip_client), 1);
  EXPECT_EQ(sent_bytes(), message(2).byte(24, 1).word(108, own_pid()).bytes());
}

TEST_F(DeregistrationTest, WithoutAControlQueueItLeavesByTheDataQueue) {
  ip_client.ctrl_q = no_queue;
  EXPECT_EQ(ip_deregister("ospf", 1, &ip_client), 1);
  EXPECT_EQ(sent().queue, data_q);
  EXPECT_EQ(platform().log.count("mts_bind"), 0u);
}

TEST_F(DeregistrationTest, WithoutQueuesItBindsOneAndUnbindsIt) {
  ip_client.ctrl_q = ip_client.data_q = no_queue;
  EXPECT_EQ(ip_deregister("ospf", 1, &ip_client), 1);
  EXPECT_EQ(calls(), (Calls{"mtrack_alloc(267, 1, 232)", epid_call(), "trel_sys_mclock_get()",
                            "mts_bind(1, -1, 0, \"IP MTS queue\")", "mts_recv_q_unblock(100)", "sysmgr_supstate_get()",
                            "sysmgr_uuid_get()", send_call(100), "mtrack_free(block)", "mts_unbind(100, 0)"}));
  EXPECT_EQ(ip_client.ctrl_q, no_queue);
}

TEST_F(DeregistrationTest, AQueueThatCannotBeBoundIsAFailure) {
  ip_client.ctrl_q = ip_client.data_q = no_queue;
  platform().scripts.fail("mts_bind");
  EXPECT_EQ(ip_deregister("ospf", 1, &ip_client), 0);
  EXPECT_EQ(calls().back(), "mtrack_free(block)");
  EXPECT_EQ(platform().log.count("mts_unbind"), 0u);
  EXPECT_EQ(ip_register_done, 1);
}

TEST_F(DeregistrationTest, TheRecordThatIsGivenNamesTheQueue) {
  struct ip_client own {};
  own.ctrl_q = 77;
  own.reg_aux8 = 3;
  EXPECT_EQ(ip_deregister("ospf", 1, &own), 1);
  EXPECT_EQ(sent().queue, 77u);
  EXPECT_EQ(sent_bytes(), message(2).byte(24, 1).text(32, "ospf").word(108, own_pid()).word(124, 3).bytes());
}

TEST_F(DeregistrationTest, AMessageThatIsNotSentLeavesTheStateAlone) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  ip_client.ctrl_q = ip_client.data_q = no_queue;
  platform().scripts.fail("mts_send");
  EXPECT_EQ(ip_deregister("ospf", 1, &ip_client), 0);
  EXPECT_EQ(ip_register_done, 1);
  EXPECT_EQ(debug_lines(), Calls{"ip_deregister: bad send\n"});
  const Calls all = calls();
  EXPECT_EQ(Calls(all.end() - 2, all.end()), (Calls{"mtrack_free(block)", "mts_unbind(100, 0)"}));
}

TEST_F(DeregistrationTest, ALeaveThatWasSentForgetsTheLastResult) {
  const uint32_t result = 0x7e57c0de;
  arrive(control_opcode, reply(result));
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_TRUE(library_data_holds({reinterpret_cast<const char *>(&result), 4}));
  platform().scripts.fail_call("mts_send", 1);
  EXPECT_EQ(ip_deregister("ospf", 1, &ip_client), 0);
  EXPECT_TRUE(library_data_holds({reinterpret_cast<const char *>(&result), 4}));
  EXPECT_EQ(ip_deregister("ospf", 1, &ip_client), 1);
  EXPECT_FALSE(library_data_holds({reinterpret_cast<const char *>(&result), 4}));
}

TEST_F(DeregistrationTest, OnAStandbyNothingIsSentAndTheStateStays) {
  for (const uint32_t state : {0u, 2u}) {
    platform().supervisor_state = state;
    EXPECT_EQ(ip_deregister("ospf", 1, &ip_client), 1);
    EXPECT_EQ(sent_count(), 0u);
    EXPECT_EQ(ip_register_done, 1);
  }
}

TEST_F(DeregistrationTest, OnAStandbyAQueueIsMadeAndGivenBackAllTheSame) {
  platform().supervisor_state = 2;
  ip_client.ctrl_q = ip_client.data_q = no_queue;
  EXPECT_EQ(ip_deregister("ospf", 1, &ip_client), 1);
  EXPECT_EQ(platform().log.count("mts_bind"), 1u);
  EXPECT_EQ(calls().back(), "mts_unbind(100, 0)");
}

TEST_F(DeregistrationTest, ItsDebugLinesSayWhoLeavesAndThatItWasSent) {
  show_debug_lines();
  dbg_ip_deregister = 1;
  char first[64];
  std::snprintf(first, sizeof first, "ip_deregister (ospf 89 0x%x)\n",
                static_cast<uint32_t>(reinterpret_cast<uintptr_t>(&ip_client)));
  EXPECT_EQ(ip_deregister("ospf", 89, &ip_client), 1);
  EXPECT_EQ(debug_lines(), (Calls{first, "ip_deregister: good send\n"}));
  platform().scripts.fail("mts_send");
  EXPECT_EQ(ip_deregister("ospf", 89, &ip_client), 0);
  EXPECT_EQ(debug_lines().size(), 3u) << "a bad send is under the other flag";
}

TEST_F(DeregistrationTest, WithoutAClientNothingIsDone) {
  show_debug_lines();
  dbg_ip_deregister = dbg_ip_api_misc = 1;
  EXPECT_EQ(ip_deregister(nullptr, 7, nullptr), 0);
  EXPECT_EQ(debug_lines(), (Calls{"ip_deregister ((null) 7 0x0)\n", "ip_deregister: bad client\n"}));
  EXPECT_EQ(without(calls(), {"sdwrap_chk_int", "buginf_func"}), Calls{});
}

TEST_F(DeregistrationTest, WithoutMemoryTheConsoleAndADebugLineSaySo) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  platform().scripts.fail("mtrack_alloc");
  fake_platform::ConsoleCapture console;
  EXPECT_EQ(ip_deregister("ospf", 1, &ip_client), 0);
  const std::string text = console.text();
  EXPECT_TRUE(text.starts_with("Warning! Malloc Failure in routing/ip/ip_register.cc[")) << text;
  EXPECT_TRUE(text.ends_with("] for size 232\n")) << text;
  EXPECT_EQ(debug_lines(), Calls{"ip_deregister: no memory\n"});
  EXPECT_EQ(ip_register_done, 1);
}

}  // namespace
}  // namespace unit
