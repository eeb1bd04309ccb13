// SPDX-License-Identifier: Apache-2.0
// Registration: what a client prepares, what it sends, and what it makes of the reply.
#include "unit/registration.h"
#include "fake_platform/console.h"
#include "unit/library_data.h"

namespace unit {
namespace {

// ------------------------------------------------------------ before it

TEST_F(RegistrationTest, NothingIsPreparedBeforeTheLibraryIsStarted) {
  struct ip_client before;
  std::memcpy(&before, &ip_client, sizeof before);
  EXPECT_EQ(ip_client_set_flags(8), 0u);
  EXPECT_EQ(ip_client_set_ctrl_q(8), 0u);
  EXPECT_EQ(ip_client_set_recv_fn("receive"), 0u);
  EXPECT_EQ(ip_client_set_recv_fn_with_tx_mts("receive"), 0u);
  EXPECT_EQ(std::memcmp(&before, &ip_client, sizeof before), 0);
}

TEST_F(RegistrationTest, BothReceiveFlagsAreSetWithAnyFlags) {
  ip_api_init_mts_q();
  EXPECT_EQ(ip_client_set_flags(0), 1u);
  EXPECT_EQ(ip_client.flags, 3u);
  EXPECT_EQ(ip_client_set_flags(4), 1u);
  EXPECT_EQ(ip_client.flags, 7u);
  EXPECT_EQ(ip_client_set_flags(-4), 1u);
  EXPECT_EQ(ip_client.flags, 0xffffffffu);
}

TEST_F(RegistrationTest, TheControlQueueIsTheClients) {
  ip_api_init_mts_q();
  EXPECT_EQ(ip_client_set_ctrl_q(0xfedcba98), 1u);
  EXPECT_EQ(ip_client.ctrl_q, 0xfedcba98u);
  EXPECT_EQ(ip_client.data_q, no_queue);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(RegistrationTest, AReceiveFunctionClearsBothReceiveFlags) {
  ip_api_init_mts_q();
  ip_client.flags = 0xffffffff;
  EXPECT_EQ(ip_client_set_recv_fn("receive"), 1u);
  EXPECT_EQ(ip_client.flags, 0xfffffffcu);
  EXPECT_STREQ(ip_client.recv_fn, "receive");
}

TEST_F(RegistrationTest, AReceiveFunctionOfMessagesSetsOneAndClearsTheOther) {
  ip_api_init_mts_q();
  ip_client.flags = 0xfffffffe;
  EXPECT_EQ(ip_client_set_recv_fn_with_tx_mts("receive"), 1u);
  EXPECT_EQ(ip_client.flags, 0xfffffffdu);
  EXPECT_STREQ(ip_client.recv_fn, "receive");
}

TEST_F(RegistrationTest, TheNameOfAReceiveFunctionIsCutAt33Characters) {
  ip_api_init_mts_q();
  const std::string longest(33, 'x');
  ip_client.reserved233[0] = 0x77;
  for (auto *set : {&ip_client_set_recv_fn, &ip_client_set_recv_fn_with_tx_mts}) {
    EXPECT_EQ(set((longest + "yz").c_str()), 1u);
    EXPECT_EQ(std::string(ip_client.recv_fn, 33), longest);
    EXPECT_EQ(ip_client.reserved233[0], 0x77);
    EXPECT_EQ(set(ip_client.recv_fn), 1u) << "itself";
    EXPECT_EQ(std::string(ip_client.recv_fn, 33), longest);
    EXPECT_EQ(set("a"), 1u);
    EXPECT_EQ(std::string(ip_client.recv_fn, 33), std::string("a") + std::string(32, '\0')) << "the rest is zeros";
  }
}

// ------------------------------------------------------------ the message

TEST_F(RegistrationTest, TheMessageSaysWhoRegistersAndWhereToReply) {
  ip_client.flags = 0x80000003;
  std::strcpy(ip_client.recv_fn, "receive");
  arrive(control_opcode, reply(1));
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_EQ(sent_bytes(), registration("ospf").word(100, data_sap).word(132, 0x80000003).text(136, "receive").bytes());
  EXPECT_EQ(sent().queue, 100u) << "from the queue on which the reply is awaited";
  std::array<uint32_t, 17> fresh{1};
  EXPECT_EQ(sent().options, fresh);
}

TEST_F(RegistrationTest, EveryStepIsTakenInItsOrder) {
  arrive(control_opcode, reply(1));
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_EQ(calls(), (Calls{"mtrack_alloc(267, 1, 232)",
                            epid_call(),
                            "trel_sys_mclock_get()",
                            epid_call(0),
                            "mts_sap_get(31)",
                            "mts_options_get(30, 84993)",
                            "mts_options_set(30, 84993, 16)",
                            "sysmgr_supstate_get()",
                            "mts_bind(1, -1, 0, \"IP MTS queue\")",
                            "mts_recv_q_unblock(100)",
                            "mts_sap_get(100)",
                            "sysmgr_uuid_get()",
                            send_call(100),
                            "tsp_before_yield()",
                            "mts_recv(100, 0, 0)",
                            "tsp_after_yield()",
                            "mts_payload_get()",
                            "mts_payload_size()",
                            "mts_drop(100)",
                            "mts_unbind(100, 0)",
                            "mtrack_free(block)"}));
  EXPECT_EQ(platform().recv_options, (std::array<uint32_t, 10>{1}));
  EXPECT_TRUE(everything_is_dropped());
  EXPECT_TRUE(platform().allocations.empty());
}

TEST_F(RegistrationTest, NeitherNameNorQueuesAreNeeded) {
  arrive(control_opcode, reply(1));
  EXPECT_EQ(ip_register(nullptr, no_queue, no_queue, 0, 1, &ip_client, 0, 0), 1u);
  EXPECT_EQ(sent_bytes(), message(1).word(28, 1).word(104, 0xffffffff).word(108, own_pid()).word(112, 1000).bytes());
  EXPECT_EQ(platform().log.count("mts_options_set"), 0u);
  EXPECT_EQ(ip_client.ctrl_q, no_queue);
  EXPECT_EQ(ip_client.data_q, no_queue);
}

TEST_F(RegistrationTest, ANameMayHave67Characters) {
  arrive(control_opcode, reply(1));
  const std::string longest(67, 'n');
  EXPECT_EQ(register_client(longest.c_str()), 1u);
  EXPECT_EQ(sent_bytes(), registration(longest).word(100, data_sap).bytes());
}

TEST_F(RegistrationTest, ALongerNameIsCutInsideItsField) {
  arrive(control_opcode, reply(1));
  EXPECT_EQ(register_client(std::string(500, 'n').c_str()), 1u);
  EXPECT_EQ(sent_bytes(), registration(std::string(67, 'n')).word(100, data_sap).bytes());
}

TEST_F(RegistrationTest, TheReceiveFunctionIsCutAt32CharactersInTheMessage) {
  std::memset(ip_client.recv_fn, 'r', 33);
  arrive(control_opcode, reply(1));
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_EQ(sent_bytes(), registration("ospf").word(100, data_sap).text(136, std::string(32, 'r')).bytes());
}

TEST_F(RegistrationTest, TheClientTakesTheNewQueues) {
  ip_client.reg_aux8 = 7;
  ip_client.reg_aux32 = 8;
  ip_client.ctrl_q = ip_client.data_q = 9;
  arrive(control_opcode, reply(0));
  EXPECT_EQ(register_client("ospf"), 0u);
  EXPECT_EQ(ip_client.ctrl_q, control_q) << "also after a refusal";
  EXPECT_EQ(ip_client.data_q, data_q);
  EXPECT_EQ(ip_client.reg_aux8, 0u);
  EXPECT_EQ(ip_client.reg_aux32, 0u);
}

TEST_F(RegistrationTest, AClientsOwnRecordKeepsItsQueuesButFlagsAreTheProcesss) {
  struct ip_client own {};
  own.flags = 4;
  std::strcpy(own.recv_fn, "own");
  ip_client.flags = 3;
  arrive(control_opcode, reply(1));
  EXPECT_EQ(ip_register("ospf", data_q, control_q, 0x59, 0x01020304, &own, 5, 6), 1u);
  EXPECT_EQ(own.ctrl_q, control_q);
  EXPECT_EQ(own.data_q, data_q);
  EXPECT_EQ(ip_client.ctrl_q, no_queue);
  EXPECT_EQ(sent_bytes(), registration("ospf").word(100, data_sap).word(132, 3).bytes());
}

TEST_F(RegistrationTest, RequestsPassOthersOnTheControlQueueAndTheUpperHalfOfItsOptionsGoes) {
  platform().queue_options[control_q] = 0xabcdffef;
  arrive(control_opcode, reply(1));
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_EQ(platform().queue_options[control_q], 0xffffu);
}

TEST_F(RegistrationTest, TheOptionsOfTheControlQueueMayBeKept) {
  ip_client.flags = 16;
  arrive(control_opcode, reply(1));
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_EQ(platform().log.count("mts_options_get"), 0u);
  EXPECT_EQ(platform().log.count("mts_options_set"), 0u);
  EXPECT_EQ(ip_client.ctrl_q, control_q);
}

// ------------------------------------------------------------ the reply

TEST_F(RegistrationTest, AnyResultButZeroRegisters) {
  for (const uint32_t result : {1u, 0x80000000u, 0x5eed1234u}) {
    ip_register_done = 0;
    arrive(control_opcode, reply(result));
    EXPECT_EQ(register_client("ospf"), 1u);
    EXPECT_EQ(ip_register_done, 1);
  }
  const uint32_t last = 0x5eed1234;
  EXPECT_TRUE(library_data_holds({reinterpret_cast<const char *>(&last), 4})) << "for who looks at a core dump";
}

TEST_F(RegistrationTest, AResultOfZeroIsARefusal) {
  ip_register_done = 1;
  arrive(control_opcode, reply(0));
  EXPECT_EQ(register_client("ospf"), 0u);
  EXPECT_EQ(ip_register_done, 0);
  EXPECT_TRUE(everything_is_dropped());
}

TEST_F(RegistrationTest, ARefusalReplacesTheLastResultToo) {
  const uint32_t kept = 0x7e57ab1e;
  arrive(control_opcode, reply(kept));
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_TRUE(library_data_holds({reinterpret_cast<const char *>(&kept), 4}));
  arrive(control_opcode, reply(0));
  EXPECT_EQ(register_client("ospf"), 0u);
  EXPECT_FALSE(library_data_holds({reinterpret_cast<const char *>(&kept), 4}));
}

TEST_F(RegistrationTest, AClientThatWantsNoReplyIsRegisteredOnceItIsSent) {
  ip_client.flags = 4;
  arrive(control_opcode, reply(0));
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_EQ(ip_register_done, 1);
  EXPECT_EQ(platform().log.count("mts_recv"), 0u);
  EXPECT_EQ(platform().log.count("tsp_before_yield"), 0u);
  EXPECT_EQ(calls().back(), "mtrack_free(block)");
  EXPECT_EQ(platform().queues.count(100), 0u) << "the queue was unbound";
}

TEST_F(RegistrationTest, AReplyWithoutAPayloadCountsAsSent) {
  for (const int32_t before : {0, 1}) {
    ip_register_done = before;
    arrive(control_opcode, {});
    EXPECT_EQ(register_client("ospf"), 1u);
    EXPECT_EQ(ip_register_done, before);
    EXPECT_TRUE(everything_is_dropped());
  }
}

// ------------------------------------------------------------ on a standby supervisor

class StandbyTest : public RegistrationTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(StandbyTest, NobodyWithFixedSapsRegisters) {
  platform().supervisor_state = GetParam();
  platform().queues[control_q] = 2047;
  platform().queues[data_q] = 65536;
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_EQ(sent_count(), 0u);
  EXPECT_EQ(ip_register_done, 0);
  const Calls all = calls();
  EXPECT_EQ(Calls(all.end() - 3, all.end()), (Calls{"sysmgr_supstate_get()", "mts_sap_get(30)", "mtrack_free(block)"}));
  EXPECT_EQ(ip_client.ctrl_q, control_q) << "the queues are the client's all the same";
}

TEST_P(StandbyTest, NobodyWithoutQueuesRegisters) {
  platform().supervisor_state = GetParam();
  EXPECT_EQ(ip_register("ospf", no_queue, no_queue, 1, 2, &ip_client, 3, 4), 1u);
  EXPECT_EQ(sent_count(), 0u);
  EXPECT_EQ(platform().log.count("mts_sap_get"), 1u) << "the control queue is asked about even when there is none";
}

TEST_P(StandbyTest, ADynamicSapOfEitherQueueRegistersWithAWordInTheLog) {
  platform().supervisor_state = GetParam();
  for (const auto &[control, data] : std::vector<std::pair<int32_t, int32_t>>{
           {3000, 500}, {2048, 500}, {65535, 500}, {500, 2048}, {500, 65535}, {3000, 3000}}) {
    platform().queues[control_q] = control;
    platform().queues[data_q] = data;
    platform().log.clear();
    platform().sent.clear();
    arrive(control_opcode, reply(1));
    EXPECT_EQ(register_client("ospf"), 1u);
    EXPECT_EQ(sent_count(), 1u) << control << ' ' << data;
    EXPECT_EQ(only(calls(), {"syslog_perror"}),
              Calls{R"(syslog_perror("error: ip_register on standby with dynamic saps"))"});
  }
}

INSTANTIATE_TEST_SUITE_P(IsAnythingButTheActiveOne, StandbyTest, testing::Values(0u, 2u, 3u, 0xffffffffu),
                         testing::PrintToStringParamName());

TEST_F(RegistrationTest, DynamicSapsAreNothingSpecialOnTheActiveSupervisor) {
  platform().queues[control_q] = 3000;
  arrive(control_opcode, reply(1));
  EXPECT_EQ(register_client("ospf"), 1u);
  EXPECT_EQ(platform().log.count("syslog_perror"), 0u);
}

}  // namespace
}  // namespace unit
