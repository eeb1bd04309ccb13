// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "ipd/control_rig.h"
#include "ipd/process/log.h"

namespace {

using namespace control_rig;

ip_msg_register registration(const std::string &name, uint8_t key = 6) {
  auto message = begin_message<ip_msg_register>(IP_MSG_REGISTER);
  std::memcpy(message.name, name.data(), std::min(name.size(), sizeof message.name));
  message.reg_key = key;
  return message;
}

ip_msg_deregister deregistration(const std::string &name, uint8_t key = 6) {
  auto message = begin_message<ip_msg_deregister>(IP_MSG_DEREGISTER);
  std::memcpy(message.name, name.data(), std::min(name.size(), sizeof message.name));
  message.reg_key = key;
  return message;
}

class ControlClientsTest : public testing::Test {
 protected:
  static constexpr Sender one{.pid = 10, .uid = 1000, .sap = 2048};
  static constexpr Sender two{.pid = 20, .uid = 2000, .sap = 2049};

  ControlClientsTest() {
    ipd::set_log_limit(LOG_CRIT);
    system.watch.begin(one.pid);
    system.watch.begin(two.pid);
  }
  ~ControlClientsTest() override { ipd::set_log_limit(LOG_NOTICE); }

  // Of the last reply; 99: none came since the last question.
  uint32_t result() {
    if (system.transport.sent.empty()) return 99;
    const auto sent = system.transport.sent.back();
    system.transport.sent.clear();
    ip_msg_register_reply reply{};
    EXPECT_EQ(sent.bytes.size(), sizeof reply);
    std::memcpy(&reply, sent.bytes.data(), std::min(sent.bytes.size(), sizeof reply));
    EXPECT_EQ(reply.major_type, IP_MAJOR_CLIENT);
    EXPECT_EQ(reply.minor_type, IP_MSG_REGISTER_REPLY);
    EXPECT_EQ(sent.opcode, IP_OPCODE_CLIENT);
    replied_to = sent.sap;
    return reply.result;
  }
  uint32_t register_as(const Sender &sender, const std::string &name, uint8_t key = 6) {
    system.receive(sender, registration(name, key));
    return result();
  }
  [[nodiscard]] uint64_t refused(Refusal refusal) const { return system.count(IP_MSG_REGISTER, refusal); }
  [[nodiscard]] std::vector<Registration> all() const { return system.clients.after(0, 1000); }

  System system;
  uint32_t replied_to = 0;
};

TEST_F(ControlClientsTest, ARegistrationIsAcceptedAndItsQueueIsTold) {
  EXPECT_EQ(register_as(one, "ospf"), 1u);
  EXPECT_EQ(replied_to, one.sap);
  EXPECT_EQ(system.count(IP_MSG_REGISTER, Refusal::none), 1u);
}

TEST_F(ControlClientsTest, WhatAClientSaysOfItselfIsKept) {
  auto message = registration("ospf", 89);
  message.reg_mode = 3;
  message.reg_arg1 = 4;
  message.reg_arg2 = 5;
  message.data_sap = 2100;
  message.reply_sap = one.sap;
  message.flags = IP_CLIENT_RECV_MTS;
  message.client_pid = 4711;  // the kernel knows better
  std::memset(message.recv_fn, 'f', sizeof message.recv_fn);
  system.receive(one, message);
  EXPECT_EQ(result(), 1u);
  ASSERT_EQ(all().size(), 1u);
  const Registration kept = all()[0];
  EXPECT_EQ(kept.pid, one.pid);
  EXPECT_EQ(kept.uid, one.uid);
  EXPECT_EQ(kept.name, "ospf");
  EXPECT_EQ(kept.key, 89);
  EXPECT_EQ(kept.mode, 3u);
  EXPECT_EQ(kept.arg1, 4u);
  EXPECT_EQ(kept.arg2, 5u);
  EXPECT_EQ(kept.data_sap, 2100u);
  EXPECT_EQ(kept.flags, IP_CLIENT_RECV_MTS);
  EXPECT_EQ(kept.receive_function, std::string(32, 'f'));
}

TEST_F(ControlClientsTest, ANameThatALiveProcessHasIsRefused) {
  EXPECT_EQ(register_as(one, "ospf"), 1u);
  EXPECT_EQ(register_as(two, "ospf"), 0u);
  EXPECT_EQ(replied_to, two.sap);
  EXPECT_EQ(refused(Refusal::name_taken), 1u);
  ASSERT_EQ(all().size(), 1u);
  EXPECT_EQ(all()[0].pid, one.pid);
}

TEST_F(ControlClientsTest, TheSameNameWithAnotherKeyIsAnotherRegistration) {
  EXPECT_EQ(register_as(one, "ospf", 1), 1u);
  EXPECT_EQ(register_as(two, "ospf", 2), 1u);
  EXPECT_EQ(all().size(), 2u);
}

TEST_F(ControlClientsTest, ANameThatADeadProcessHadIsFree) {
  EXPECT_EQ(register_as(one, "ospf"), 1u);
  system.watch.end(one.pid);  // and nobody has looked since
  EXPECT_EQ(register_as(two, "ospf"), 1u);
  ASSERT_EQ(all().size(), 1u);
  EXPECT_EQ(all()[0].pid, two.pid);
  system.processes.look();
  system.processes.settle();
  ASSERT_EQ(all().size(), 1u) << "the dead one's end takes nothing from the living";
}

TEST_F(ControlClientsTest, TheSameProcessMayRegisterAgainAndTheLastWordHolds) {
  EXPECT_EQ(register_as(one, "ospf"), 1u);
  auto again = registration("ospf");
  again.reg_mode = 9;
  system.receive(one, again);
  EXPECT_EQ(result(), 1u);
  ASSERT_EQ(all().size(), 1u);
  EXPECT_EQ(all()[0].mode, 9u);
}

TEST_F(ControlClientsTest, RegistrationsWithoutANameAreEachTheirProcesss) {
  EXPECT_EQ(register_as(one, "", 0), 1u);
  EXPECT_EQ(register_as(two, "", 0), 1u);
  EXPECT_EQ(all().size(), 2u);
}

TEST_F(ControlClientsTest, ADeadProcesssRegistrationsAreRemoved) {
  register_as(one, "ospf");
  register_as(one, "pim");
  register_as(two, "bgp");
  system.kill(one.pid);
  ASSERT_EQ(all().size(), 1u);
  EXPECT_EQ(all()[0].name, "bgp");
}

TEST_F(ControlClientsTest, ADeregistrationFreesTheName) {
  register_as(one, "ospf");
  system.receive(one, deregistration("ospf"));
  EXPECT_EQ(result(), 99u) << "nobody waits for an answer";
  EXPECT_TRUE(all().empty());
  EXPECT_EQ(register_as(two, "ospf"), 1u);
}

TEST_F(ControlClientsTest, NobodyDeregistersAnother) {
  register_as(one, "ospf");
  auto message = deregistration("ospf");
  message.client_pid = static_cast<uint32_t>(one.pid);
  message.header.pid = static_cast<uint32_t>(one.pid);
  system.receive(two, message);
  EXPECT_EQ(all().size(), 1u);
  EXPECT_EQ(system.count(IP_MSG_DEREGISTER, Refusal::not_allowed), 1u);
}

TEST_F(ControlClientsTest, ADeregistrationOfWhatWasNeverRegisteredIsRefused) {
  register_as(one, "ospf", 6);
  system.receive(one, deregistration("ospf", 7));
  EXPECT_EQ(system.count(IP_MSG_DEREGISTER, Refusal::not_registered), 1u);
  EXPECT_EQ(all().size(), 1u);
}

TEST_F(ControlClientsTest, WhoWantsNoReplyGetsNone) {
  auto message = registration("ospf");
  message.flags = IP_CLIENT_NO_ACK;
  system.receive(one, message);
  EXPECT_EQ(result(), 99u);
  EXPECT_EQ(all().size(), 1u);
  system.receive(two, message);
  EXPECT_EQ(result(), 99u) << "nor when it is refused";
}

TEST_F(ControlClientsTest, WhoWantsNoReplyIsRegisteredAfterItsQueueIsGone) {
  auto message = registration("ospf");
  message.flags = IP_CLIENT_NO_ACK;
  message.reply_sap = 2048;
  system.receive({.pid = one.pid, .uid = one.uid, .sap = 0}, message);
  EXPECT_EQ(result(), 99u);
  ASSERT_EQ(all().size(), 1u);
  EXPECT_EQ(all()[0].pid, one.pid);
}

TEST_F(ControlClientsTest, AnUnterminatedNameIsRefusedWithAReply) {
  EXPECT_EQ(register_as(one, std::string(68, 'x')), 0u);
  EXPECT_EQ(refused(Refusal::bad_field), 1u);
  EXPECT_EQ(register_as(one, std::string(67, 'x')), 1u);
}

TEST_F(ControlClientsTest, AnUnterminatedNameDoesNotDeregister) {
  system.receive(one, deregistration(std::string(68, 'x')));
  EXPECT_EQ(system.count(IP_MSG_DEREGISTER, Refusal::bad_field), 1u);
}

TEST_F(ControlClientsTest, ControlCharactersInANameAreRefused) {
  EXPECT_EQ(register_as(one, "os\npf"), 0u);
  EXPECT_EQ(register_as(one, "ospf\x7f"), 0u);
  EXPECT_EQ(register_as(one, "\xc3\xb6spf"), 1u) << "other letters are none";
  EXPECT_EQ(refused(Refusal::bad_field), 2u);
}

TEST_F(ControlClientsTest, ControlCharactersInTheReceiveFunctionAreRefused) {
  auto message = registration("ospf");
  message.recv_fn[0] = '\x1b';
  system.receive(one, message);
  EXPECT_EQ(result(), 0u);
}

TEST_F(ControlClientsTest, ADataSapThatIsNoSapIsRefused) {
  auto message = registration("ospf");
  message.data_sap = 65536;
  system.receive(one, message);
  EXPECT_EQ(result(), 0u);
  message.data_sap = 65535;
  system.receive(one, message);
  EXPECT_EQ(result(), 1u);
}

TEST_F(ControlClientsTest, NobodyElsesQueueIsAnswered) {
  auto message = registration("ospf");
  message.reply_sap = two.sap;
  system.receive(one, message);
  EXPECT_EQ(result(), 0u);
  EXPECT_EQ(replied_to, one.sap);
  EXPECT_EQ(refused(Refusal::bad_field), 1u);
}

TEST_F(ControlClientsTest, AMalformedRegistrationIsAnsweredSoThatItsSenderDoesNotWait) {
  const Bytes bytes = bytes_of(registration("ospf"));
  system.receive(one, IP_OPCODE_CLIENT, {bytes.begin(), bytes.begin() + 100});
  EXPECT_EQ(result(), 0u);
  EXPECT_EQ(refused(Refusal::too_short), 1u);
}

TEST_F(ControlClientsTest, AMalformedDeregistrationIsNotAnswered) {
  const Bytes bytes = bytes_of(deregistration("ospf"));
  system.receive(one, IP_OPCODE_CLIENT, {bytes.begin(), bytes.begin() + 100});
  EXPECT_EQ(result(), 99u);
}

TEST_F(ControlClientsTest, ARegistrationWhoseReplyCannotBeDeliveredIsNone) {
  for (const int error : {EAGAIN, ECONNREFUSED, ECONNRESET}) {
    system.transport.error = error;
    system.receive(one, registration("ospf"));
    EXPECT_TRUE(all().empty());
  }
  EXPECT_EQ(refused(Refusal::no_answer), 3u);
}

TEST_F(ControlClientsTest, AnEarlierRegistrationOutlivesALaterOnesLostReply) {
  register_as(one, "ospf");
  system.transport.error = EAGAIN;
  auto again = registration("ospf");
  again.reg_mode = 9;
  system.receive(one, again);
  ASSERT_EQ(all().size(), 1u);
  EXPECT_EQ(all()[0].mode, 0u);
}

TEST_F(ControlClientsTest, OneProcessHoldsOnlySoMany) {
  for (size_t i = 0; i < Clients::most_per_process; ++i) {
    ASSERT_EQ(register_as(one, "n" + std::to_string(i)), 1u);
  }
  EXPECT_EQ(register_as(one, "more"), 0u);
  EXPECT_EQ(refused(Refusal::limit), 1u);
  EXPECT_EQ(register_as(one, "n0"), 1u) << "what it holds already is no more";
  EXPECT_EQ(register_as(two, "more"), 1u);
  system.receive(one, deregistration("n0"));
  EXPECT_EQ(register_as(one, "again"), 1u);
}

TEST_F(ControlClientsTest, RegistrationsComeInPagesInTheOrderTheyWereMade) {
  for (const char *name : {"c", "a", "b"}) register_as(one, name);
  const auto first = system.clients.after(0, 2);
  ASSERT_EQ(first.size(), 2u);
  EXPECT_EQ(first[0].name, "c");
  EXPECT_EQ(first[1].name, "a");
  const auto rest = system.clients.after(first[1].serial, 2);
  ASSERT_EQ(rest.size(), 1u);
  EXPECT_EQ(rest[0].name, "b");
}

// What whoever watches is told.
class WatchedClientsTest : public ControlClientsTest {
 protected:
  WatchedClientsTest() {
    system.clients.on_change([this](const Registration &registration, const Request *request) {
      const int32_t sender = request == nullptr ? registration.pid : request->sender.pid;
      EXPECT_EQ(sender, registration.pid);
      told.emplace_back(registration.serial, request != nullptr);
    });
  }

  using Told = std::vector<std::pair<uint32_t, bool>>;  // serial, whether it came
  Told told;
};

TEST_F(WatchedClientsTest, ARegistrationIsToldWhenItComesAndWhenItGoes) {
  register_as(one, "ospf");
  EXPECT_EQ(told, (Told{{1, true}}));
  system.receive(one, deregistration("ospf"));
  EXPECT_EQ(told, (Told{{1, true}, {1, false}}));
}

TEST_F(WatchedClientsTest, ARefusedRegistrationIsNotTold) {
  system.transport.error = EAGAIN;
  system.receive(one, registration("ospf"));
  EXPECT_TRUE(told.empty());
}

TEST_F(WatchedClientsTest, WhatTakesAnOthersPlaceIsToldBeforeThatGoes) {
  register_as(one, "ospf");
  register_as(one, "ospf");
  EXPECT_EQ(told, (Told{{1, true}, {2, true}, {1, false}}));
}

TEST_F(WatchedClientsTest, AllOfADeadProcessGo) {
  register_as(one, "ospf");
  register_as(one, "pim");
  register_as(two, "igmp");
  told.clear();
  system.kill(one.pid);
  std::ranges::sort(told);
  EXPECT_EQ(told, (Told{{1, false}, {2, false}}));
}

TEST_F(ControlClientsTest, WhoCannotBeRepliedToForWantOfSomethingIsHungUpOn) {
  for (const int shortage : {EMFILE, ENOMEM, EAGAIN, ENOSPC, EINVAL}) {
    system.transport.error = shortage;
    system.transport.hang_ups = 0;
    system.receive(one, registration("ospf"));
    EXPECT_EQ(system.transport.hang_ups, 1) << shortage << ": it waits for the reply without end";
    EXPECT_TRUE(all().empty());
  }
}

TEST_F(ControlClientsTest, WhoIsGoneIsNotHungUpOn) {
  system.transport.error = ECONNREFUSED;
  system.receive(one, registration("ospf"));
  EXPECT_EQ(system.transport.hang_ups, 0);
}

}  // namespace
