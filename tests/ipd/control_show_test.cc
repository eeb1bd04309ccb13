// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <array>

#include "ip_show.h"
#include "ipd/control/show.h"
#include "ipd/control_rig.h"
#include "ipd/process/log.h"

namespace {

using namespace control_rig;

class HoldingHandler final : public Handler {
 public:
  Refusal handle(const Request &) override { return Refusal::none; }
  void add_holdings(int32_t pid, Holdings &held) const override {
    held.memberships += static_cast<uint32_t>(pid);
    held.loans += 2;
    held.downloads += 3;
    held.link_local_reports += 4;
    held.link_local_ref = 5;
    held.link_local_value = 6;
  }
};

class ControlShowTest : public testing::Test {
 protected:
  static constexpr Sender one{.pid = 10, .uid = 1000, .sap = 2048};

  ControlShowTest() {
    ipd::set_log_limit(LOG_CRIT);
    system.service.add(show, {IP_MSG_SHOW_CLIENTS, IP_MSG_SHOW_REGISTRATIONS, IP_MSG_SHOW_MESSAGES});
    system.service.add(holder, {IP_MSG_JOIN_GROUP});
  }
  ~ControlShowTest() override { ipd::set_log_limit(LOG_NOTICE); }

  void send(const Sender &sender, uint16_t minor, uint32_t after, bool wants_answer = true) {
    if (!system.watch.starts.contains(sender.pid)) system.watch.begin(sender.pid);
    auto question = begin_message<ip_msg_show>(minor);
    question.after = after;
    system.receive(sender, IP_OPCODE_CLIENT, bytes_of(question), wants_answer);
  }
  // One page.
  template <class Entry>
  std::vector<Entry> page(uint16_t minor, uint32_t after, bool *more = nullptr) {
    system.transport.answers.clear();
    send(one, minor, after);
    std::vector<Entry> entries;
    EXPECT_EQ(system.transport.answers.size(), 1u);
    if (system.transport.answers.empty()) return entries;
    const Bytes bytes = system.transport.answers[0];
    EXPECT_LE(bytes.size(), IP_MAX_IPC_PAYLOAD);
    ip_msg_show_reply reply{};
    std::memcpy(&reply, bytes.data(), std::min(bytes.size(), sizeof reply));
    EXPECT_EQ(reply.header.minor_type, minor);
    EXPECT_EQ(reply.entry_size, sizeof(Entry));
    EXPECT_EQ(bytes.size(), sizeof reply + reply.count * sizeof(Entry));
    entries.resize(reply.count);
    if (reply.count != 0) std::memcpy(entries.data(), bytes.data() + sizeof reply, reply.count * sizeof(Entry));
    if (more != nullptr) *more = reply.more == 1;
    return entries;
  }
  void register_as(const Sender &sender, const std::string &name) {
    if (!system.watch.starts.contains(sender.pid)) system.watch.begin(sender.pid);
    auto message = begin_message<ip_msg_register>(IP_MSG_REGISTER);
    std::memcpy(message.name, name.data(), name.size());
    std::memcpy(message.recv_fn, "on_packet", 9);
    message.reg_key = 89;
    message.reg_mode = 1;
    message.reg_arg1 = 2;
    message.reg_arg2 = 3;
    message.data_sap = 2100;
    message.flags = IP_CLIENT_RECV_MTS;
    system.receive(sender, message);
  }

  System system;
  Show show{system.transport, system.service, system.clients};
  HoldingHandler holder;
};

TEST_F(ControlShowTest, AClientIsShownWithWhatItHolds) {
  register_as(one, "ospf");
  system.receive(one, IP_OPCODE_CONFIGURE, bytes_of(begin_message<ip_msg_group>(IP_MSG_JOIN_GROUP)));
  const auto clients = page<ip_show_client>(IP_MSG_SHOW_CLIENTS, 0);
  ASSERT_EQ(clients.size(), 1u);
  EXPECT_EQ(clients[0].pid, 10u);
  EXPECT_EQ(clients[0].uid, 1000u);
  EXPECT_EQ(clients[0].received, 2u) << "the question itself is counted when it is answered";
  EXPECT_EQ(clients[0].refused, 1u);
  EXPECT_EQ(clients[0].registrations, 1u);
  EXPECT_EQ(clients[0].memberships, 10u);
  EXPECT_EQ(clients[0].loans, 2u);
  EXPECT_EQ(clients[0].downloads, 3u);
  EXPECT_EQ(clients[0].link_local_reports, 4u);
  EXPECT_EQ(clients[0].link_local_ref, 5u);
  EXPECT_EQ(clients[0].link_local_value, 6u);
}

TEST_F(ControlShowTest, ADeadClientIsNotShown) {
  register_as({.pid = 11, .uid = 1000, .sap = 2049}, "bgp");
  system.kill(11);
  EXPECT_TRUE(page<ip_show_client>(IP_MSG_SHOW_CLIENTS, 0).empty());
}

TEST_F(ControlShowTest, ManyClientsComeInPages) {
  constexpr int32_t many = 6000;
  for (int32_t pid = 1; pid <= many; ++pid) {
    const Sender sender{.pid = pid, .uid = 0, .sap = 2048};
    register_as(sender, "client " + std::to_string(pid));
  }
  std::vector<uint32_t> pids;
  bool more = true;
  int pages = 0;
  while (more && pages < 100) {
    for (const auto &client : page<ip_show_client>(IP_MSG_SHOW_CLIENTS, pids.empty() ? 0 : pids.back(), &more)) {
      pids.push_back(client.pid);
    }
    ++pages;
  }
  EXPECT_EQ(pages, 3);
  ASSERT_EQ(pids.size(), static_cast<size_t>(many));
  EXPECT_TRUE(std::ranges::is_sorted(pids));
}

TEST_F(ControlShowTest, ARegistrationIsShownAsItWasMade) {
  register_as(one, "ospf");
  const auto registrations = page<ip_show_registration>(IP_MSG_SHOW_REGISTRATIONS, 0);
  ASSERT_EQ(registrations.size(), 1u);
  const auto &entry = registrations[0];
  EXPECT_EQ(entry.serial, 1u);
  EXPECT_EQ(entry.pid, 10u);
  EXPECT_EQ(entry.uid, 1000u);
  EXPECT_EQ(entry.reg_mode, 1u);
  EXPECT_EQ(entry.reg_arg1, 2u);
  EXPECT_EQ(entry.reg_arg2, 3u);
  EXPECT_EQ(entry.data_sap, 2100u);
  EXPECT_EQ(entry.flags, IP_CLIENT_RECV_MTS);
  EXPECT_EQ(entry.reg_key, 89u);
  EXPECT_STREQ(entry.name, "ospf");
  EXPECT_STREQ(entry.recv_fn, "on_packet");
}

TEST_F(ControlShowTest, ManyRegistrationsComeInPages) {
  constexpr int32_t many = 2000;
  for (int32_t pid = 1; pid <= many; ++pid) register_as({.pid = pid, .uid = 0, .sap = 2048}, std::to_string(pid));
  std::set<std::string> names;
  uint32_t last = 0;
  bool more = true;
  int pages = 0;
  while (more && pages < 100) {
    for (const auto &entry : page<ip_show_registration>(IP_MSG_SHOW_REGISTRATIONS, last, &more)) {
      names.insert(entry.name);
      last = entry.serial;
    }
    ++pages;
  }
  EXPECT_EQ(pages, 3);
  EXPECT_EQ(names.size(), static_cast<size_t>(many));
}

TEST_F(ControlShowTest, EachKindOfMessageIsShownWithItsOutcomes) {
  register_as(one, "ospf");
  register_as({.pid = 11, .uid = 1000, .sap = 2049}, "ospf");
  bool more = true;
  const auto messages = page<ip_show_message>(IP_MSG_SHOW_MESSAGES, 0, &more);
  EXPECT_FALSE(more);
  ASSERT_EQ(messages.size(), message_kinds().size() + 1);
  EXPECT_EQ(messages[0].minor, 0u);
  EXPECT_STREQ(messages[0].name, "others");
  EXPECT_EQ(messages[1].minor, IP_MSG_REGISTER);
  EXPECT_STREQ(messages[1].name, "register");
  EXPECT_EQ(messages[1].counts[IP_SHOW_DONE][0], 1u);
  EXPECT_EQ(messages[1].counts[IP_SHOW_NAME_TAKEN][0], 1u);
  EXPECT_EQ(messages[1].counts[IP_SHOW_NAME_TAKEN][1], 0u);
  const auto rest = page<ip_show_message>(IP_MSG_SHOW_MESSAGES, messages[1].order);
  EXPECT_EQ(rest.size(), messages.size() - 2);
}

TEST_F(ControlShowTest, TheWholeNameOfEachMessageFits) {
  for (const MessageKind &kind : message_kinds()) EXPECT_LT(strlen(kind.name), sizeof(ip_show_message::name));
}

TEST_F(ControlShowTest, AQuestionThatNobodyWaitsForIsRefused) {
  send(one, IP_MSG_SHOW_CLIENTS, 0, false);
  EXPECT_TRUE(system.transport.answers.empty());
  EXPECT_EQ(system.count(IP_MSG_SHOW_CLIENTS, Refusal::bad_field), 1u);
}

TEST_F(ControlShowTest, AnAnswerThatCannotBeDeliveredIsCounted) {
  system.transport.error = ECONNRESET;
  for (const uint16_t minor :
       std::array<uint16_t, 3>{IP_MSG_SHOW_CLIENTS, IP_MSG_SHOW_REGISTRATIONS, IP_MSG_SHOW_MESSAGES}) {
    send(one, minor, 0);
    EXPECT_EQ(system.count(minor, Refusal::no_answer), 1u);
  }
}

TEST_F(ControlShowTest, AnyBeginningIsAnswered) {
  for (const uint32_t after : {0x7fffffffu, 0x80000000u, 0xffffffffu}) {
    EXPECT_TRUE(page<ip_show_client>(IP_MSG_SHOW_CLIENTS, after).empty());
    EXPECT_TRUE(page<ip_show_registration>(IP_MSG_SHOW_REGISTRATIONS, after).empty());
    EXPECT_TRUE(page<ip_show_message>(IP_MSG_SHOW_MESSAGES, after).empty());
  }
}

}  // namespace
