// SPDX-License-Identifier: Apache-2.0
#include <grp.h>
#include <gtest/gtest.h>

#include <ostream>

#include "ipd/control_rig.h"
#include "ipd/process/log.h"

namespace ipd::control {

void PrintTo(const MessageKind &kind, std::ostream *out) {
  *out << kind.name;
}

}  // namespace ipd::control

namespace {

using namespace control_rig;

// Takes every message; says what it is told to say.
class RecordingHandler final : public Handler {
 public:
  Refusal handle(const Request &request) override {
    handled.push_back({request.minor, request.bytes.size()});
    if (answers) transport->answer(request, request.bytes);
    return says;
  }
  void refused(const Request &request, Refusal refusal) override { told.emplace_back(request.minor, refusal); }
  void process_gone(int32_t pid) override { gone.push_back(pid); }
  void queue_gone(const Sender &sender) override { queues_gone.push_back(sender.sap); }
  void interfaces_changed(const std::set<uint32_t> &ifindexes) override { changed.push_back(ifindexes); }
  void tick(Clock::time_point) override { ++ticks; }

  Refusal says = Refusal::none;
  bool answers = false;
  Transport *transport = nullptr;
  std::vector<std::pair<uint16_t, size_t>> handled;
  std::vector<std::pair<uint16_t, Refusal>> told;
  std::vector<int32_t> gone;
  std::vector<uint32_t> queues_gone;
  std::vector<std::set<uint32_t>> changed;
  int ticks = 0;
};

Bytes message_of(uint16_t minor, size_t size, uint32_t count = 0, uint16_t major = IP_MAJOR_CLIENT) {
  Bytes bytes(size);
  const auto put = [&bytes](size_t offset, const void *value, size_t length) {
    for (size_t i = 0; i < length && offset + i < bytes.size(); ++i) {
      bytes[offset + i] = static_cast<const std::byte *>(value)[i];
    }
  };
  put(0, &major, sizeof major);
  put(2, &minor, sizeof minor);
  put(32, &count, sizeof count);
  return bytes;
}

class ControlServiceTest : public testing::Test {
 protected:
  static constexpr Sender root{.pid = 10, .uid = 0, .sap = 2048};
  static constexpr Sender user{.pid = 20, .uid = 1000, .sap = 2049};

  ControlServiceTest() {
    for (const MessageKind &kind : message_kinds()) system.service.add(handler, {kind.minor});
    handler.transport = &system.transport;
    system.watch.begin(root.pid);
    system.watch.begin(user.pid);
    ipd::set_log_limit(LOG_CRIT);
  }
  ~ControlServiceTest() override { ipd::set_log_limit(LOG_NOTICE); }

  // What became of a message.
  Refusal verdict(const Sender &sender, uint32_t opcode, const Bytes &bytes, bool wants_answer = false) {
    const auto before = system.service.counts();
    const size_t handled = handler.handled.size();
    system.receive(sender, opcode, bytes, wants_answer);
    std::vector<Refusal> verdicts;
    for (const auto &[minor, counts] : system.service.counts()) {
      for (size_t i = 0; i < refusal_count; ++i) {
        const uint64_t by = counts.by_outcome[i] - before.at(minor).by_outcome[i];
        if (by != 0) verdicts.insert(verdicts.end(), static_cast<size_t>(by), static_cast<Refusal>(i));
        if (by != 0) counted_for = minor;
      }
    }
    EXPECT_EQ(verdicts.size(), 1u) << "each message is counted once";
    if (verdicts.empty()) return Refusal::limit;
    EXPECT_EQ(handler.handled.size() - handled, verdicts[0] == Refusal::none ? 1u : 0u);
    return verdicts[0];
  }

  System system;
  RecordingHandler handler;
  uint16_t counted_for = 999;
};

class ControlMessageTest : public ControlServiceTest, public testing::WithParamInterface<MessageKind> {};

INSTANTIATE_TEST_SUITE_P(Messages, ControlMessageTest, testing::ValuesIn(message_kinds()),
                         [](const auto &row) { return "Minor" + std::to_string(row.param.minor); });

TEST_P(ControlMessageTest, IsTakenInItsLeastSize) {
  const MessageKind kind = GetParam();
  EXPECT_EQ(verdict(root, kind.opcode, message_of(kind.minor, kind.least_size)), Refusal::none);
  EXPECT_EQ(counted_for, kind.minor);
  EXPECT_EQ(handler.handled[0], std::make_pair(kind.minor, size_t{kind.least_size}));
}

TEST_P(ControlMessageTest, IsRefusedShorter) {
  const MessageKind kind = GetParam();
  EXPECT_EQ(verdict(root, kind.opcode, message_of(kind.minor, kind.least_size - 1)), Refusal::too_short);
  EXPECT_EQ(counted_for, kind.minor);
  EXPECT_EQ(verdict(root, kind.opcode, message_of(kind.minor, sizeof(ip_msg_header))), Refusal::too_short);
}

TEST_P(ControlMessageTest, IsTakenInItsLargestSizeAndNotBeyond) {
  const MessageKind kind = GetParam();
  const uint32_t count = kind.is_list ? (kind.most_size - IP_MSG_SIZE) / 4 : 0;
  EXPECT_EQ(verdict(root, kind.opcode, message_of(kind.minor, kind.most_size, count)), Refusal::none);
  EXPECT_EQ(verdict(root, kind.opcode, message_of(kind.minor, kind.most_size + 1, count)), Refusal::too_long);
}

TEST_P(ControlMessageTest, IsRefusedWithAnotherOpcode) {
  const MessageKind kind = GetParam();
  for (const uint32_t opcode : {IP_OPCODE_CLIENT, IP_OPCODE_CONFIGURE, IP_OPCODE_PACKET, IP_OPCODE_IF_INFO, 0u}) {
    const Refusal expected = opcode == kind.opcode ? Refusal::none : Refusal::wrong_opcode;
    EXPECT_EQ(verdict(root, opcode, message_of(kind.minor, kind.least_size)), expected) << opcode;
  }
}

TEST_P(ControlMessageTest, IsRefusedWithAnotherMajorType) {
  const MessageKind kind = GetParam();
  for (const int major : {0, 4, 6, 0x0500, 0xffff}) {
    const auto number = static_cast<uint16_t>(major);
    EXPECT_EQ(verdict(root, kind.opcode, message_of(kind.minor, kind.least_size, 0, number)), Refusal::wrong_major);
    EXPECT_EQ(counted_for, 0) << "what it claims to be counts for nothing";
  }
}

TEST_P(ControlMessageTest, ComesFromWhoMaySendIt) {
  const MessageKind kind = GetParam();
  const Bytes bytes = message_of(kind.minor, kind.least_size);
  const Sender own{.pid = 10, .uid = System::own_uid, .sap = 2050};
  EXPECT_EQ(verdict(root, kind.opcode, bytes), Refusal::none);
  EXPECT_EQ(verdict(own, kind.opcode, bytes), Refusal::none);
  const Refusal expected = kind.right == Right::read ? Refusal::none : Refusal::not_allowed;
  EXPECT_EQ(verdict(user, kind.opcode, bytes), expected);
}

TEST_P(ControlMessageTest, IsLeftToTheGroupsThatAreConfigured) {
  const MessageKind kind = GetParam();
  const Bytes bytes = message_of(kind.minor, kind.least_size);
  system.rights.configure("500", "600");
  EXPECT_EQ(verdict(user, kind.opcode, bytes), Refusal::not_allowed);
  system.members = {{user.uid, 500}};
  const Refusal of_reader = kind.right == Right::read ? Refusal::none : Refusal::not_allowed;
  EXPECT_EQ(verdict(user, kind.opcode, bytes), of_reader);
  system.members = {{user.uid, 600}};
  EXPECT_EQ(verdict(user, kind.opcode, bytes), Refusal::none);
  EXPECT_EQ(verdict(root, kind.opcode, bytes), Refusal::none);
}

TEST_P(ControlMessageTest, IsUnknownWhileNobodyHandlesIt) {
  const MessageKind kind = GetParam();
  System bare;
  bare.watch.begin(root.pid);
  if (kind.minor == IP_MSG_REGISTER || kind.minor == IP_MSG_DEREGISTER) return;  // there, somebody does
  bare.receive(root, kind.opcode, message_of(kind.minor, kind.least_size));
  EXPECT_EQ(bare.count(kind.minor, Refusal::unknown_minor), 1u);
}

TEST_P(ControlMessageTest, TellsItsHandlerWhenItIsRefused) {
  const MessageKind kind = GetParam();
  verdict(root, kind.opcode, message_of(kind.minor, kind.least_size - 1));
  ASSERT_EQ(handler.told.size(), 1u);
  EXPECT_EQ(handler.told[0], std::make_pair(kind.minor, Refusal::too_short));
}

TEST_F(ControlServiceTest, EveryMessageOfTheLibraryHasARow) {
  std::vector<uint16_t> minors;
  for (const MessageKind &kind : message_kinds()) {
    if (kind.minor < 64) minors.push_back(kind.minor);
  }
  EXPECT_EQ(minors, (std::vector<uint16_t>{1, 2, 7, 9, 10, 19, 23, 24, 27, 28, 29, 31, 32}));
}

TEST_F(ControlServiceTest, AMessageWithoutAHeaderIsTooShort) {
  for (const size_t size : {size_t{0}, size_t{1}, size_t{4}, sizeof(ip_msg_header) - 1}) {
    EXPECT_EQ(verdict(root, IP_OPCODE_CLIENT, message_of(IP_MSG_REGISTER, size)), Refusal::too_short) << size;
    EXPECT_EQ(counted_for, 0);
  }
}

TEST_F(ControlServiceTest, EveryOtherMinorTypeIsUnknown) {
  for (uint32_t minor = 0; minor <= 0xffff; ++minor) {
    if (find_message(static_cast<uint16_t>(minor)) != nullptr) continue;
    const Bytes bytes = message_of(static_cast<uint16_t>(minor), IP_MSG_SIZE);
    const MessageKind *kind = nullptr;
    ASSERT_EQ(check_form(bytes, IP_OPCODE_CLIENT, &kind), Refusal::unknown_minor) << minor;
  }
  EXPECT_EQ(verdict(root, IP_OPCODE_PACKET, message_of(IP_MSG_OUTPUT, IP_MSG_SIZE)), Refusal::unknown_minor)
      << "packets go to another queue";
}

TEST_F(ControlServiceTest, AListIsAsLongAsItsCountSays) {
  const auto list = [this](uint32_t count, size_t size) {
    return verdict(root, IP_OPCODE_CLIENT, message_of(IP_MSG_REDIRECT_DISABLE, size, count));
  };
  EXPECT_EQ(list(3, 232 + 12), Refusal::none);
  EXPECT_EQ(list(3, 232 + 11), Refusal::too_short);
  EXPECT_EQ(list(3, 232 + 13), Refusal::too_long);
  EXPECT_EQ(list(0, 232 + 4), Refusal::too_long);
  EXPECT_EQ(list(0xffffffff, 232), Refusal::too_short);
  EXPECT_EQ(list(0x40000000, 232), Refusal::too_short) << "four times as much is more than 32 bits hold";
}

TEST_F(ControlServiceTest, WhatAHandlerRefusesIsCountedAsItSays) {
  for (size_t i = 1; i < refusal_count; ++i) {
    handler.says = static_cast<Refusal>(i);
    system.receive(root, IP_OPCODE_CLIENT, message_of(IP_MSG_JOIN_GROUP, IP_MSG_SIZE));
    EXPECT_EQ(system.count(IP_MSG_JOIN_GROUP, handler.says), 1u);
  }
  EXPECT_EQ(system.service.counts().at(IP_MSG_JOIN_GROUP).received, refusal_count - 1);
}

TEST_F(ControlServiceTest, ARequestThatCannotBeDoneIsRejected) {
  verdict(root, IP_OPCODE_CLIENT, message_of(IP_MSG_GET_IF_STATS, 10), true);
  EXPECT_EQ(system.transport.rejects, 1);
  verdict(root, IP_OPCODE_CLIENT, message_of(99, IP_MSG_SIZE), true);
  EXPECT_EQ(system.transport.rejects, 2);
  verdict(root, IP_OPCODE_CLIENT, message_of(IP_MSG_GET_IF_STATS, 10), false);
  EXPECT_EQ(system.transport.rejects, 2) << "nobody waits";
}

TEST_F(ControlServiceTest, ARequestThatIsNotMadeForAnAnswerIsRejectedAfterItIsDone) {
  verdict(root, IP_OPCODE_CLIENT, message_of(IP_MSG_JOIN_GROUP, IP_MSG_SIZE), true);
  EXPECT_EQ(handler.handled.size(), 1u);
  EXPECT_EQ(system.transport.rejects, 1);
}

TEST_F(ControlServiceTest, ASenderWhomTheKernelDoesNotNameIsRefused) {
  const Sender hidden{.pid = 0, .uid = 0, .sap = 2048};
  EXPECT_EQ(verdict(hidden, IP_OPCODE_CLIENT, message_of(IP_MSG_REGISTER, IP_MSG_SIZE)), Refusal::not_allowed);
  EXPECT_EQ(system.processes.noted(), 0u);
}

TEST_F(ControlServiceTest, AGroupThatTheSystemDoesNotHaveGivesNobodyARight) {
  system.rights.configure("no-such-group-here", "no-such-group-here");
  system.members = {{user.uid, 0}};
  EXPECT_EQ(verdict(user, IP_OPCODE_CLIENT, message_of(IP_MSG_REGISTER, IP_MSG_SIZE)), Refusal::not_allowed);
  EXPECT_EQ(verdict(root, IP_OPCODE_CLIENT, message_of(IP_MSG_REGISTER, IP_MSG_SIZE)), Refusal::none);
}

TEST_F(ControlServiceTest, AGroupIsFoundByItsName) {
  const group *some = getgrent();
  ASSERT_NE(some, nullptr);
  const std::string name = some->gr_name;
  system.members = {{user.uid, some->gr_gid}};
  endgrent();
  system.rights.configure("", name);
  EXPECT_EQ(verdict(user, IP_OPCODE_CLIENT, message_of(IP_MSG_JOIN_GROUP, IP_MSG_SIZE)), Refusal::none);
}

TEST_F(ControlServiceTest, HandlersHearOfDeadProcessesGoneQueuesAndChangedInterfacesOnce) {
  verdict(user, IP_OPCODE_CLIENT, message_of(IP_MSG_REGISTER, IP_MSG_SIZE));
  system.kill(user.pid);
  system.service.queue_gone(user);
  system.service.interfaces_changed({1, 2});
  system.service.tick({});
  EXPECT_EQ(handler.gone, std::vector<int32_t>{user.pid});
  EXPECT_EQ(handler.queues_gone, std::vector<uint32_t>{user.sap});
  EXPECT_EQ(handler.changed, (std::vector<std::set<uint32_t>>{{1, 2}}));
  EXPECT_EQ(handler.ticks, 1);
}

TEST_F(ControlServiceTest, ARefusalIsLoggedOncePerProcessAndReason) {
  ipd::set_log_limit(LOG_WARNING);
  const auto lines = [](const std::string &text) { return std::ranges::count(text, '\n'); };
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) system.receive(user, IP_OPCODE_CLIENT, message_of(IP_MSG_JOIN_GROUP, IP_MSG_SIZE));
  system.receive(user, IP_OPCODE_CLIENT, message_of(IP_MSG_LEAVE_GROUP, IP_MSG_SIZE));
  const std::string first = testing::internal::GetCapturedStderr();
  EXPECT_EQ(lines(first), 1);
  EXPECT_NE(first.find("process 20 (user 1000, SAP 2049): join group, 232 bytes: not allowed"), std::string::npos)
      << first;
  testing::internal::CaptureStderr();
  system.receive(user, IP_OPCODE_CLIENT, message_of(IP_MSG_REGISTER, 30));
  system.receive(root, IP_OPCODE_CLIENT, message_of(IP_MSG_REGISTER, 30));
  EXPECT_EQ(lines(testing::internal::GetCapturedStderr()), 2) << "another reason, and another process";
  system.kill(user.pid);
  system.watch.begin(user.pid);
  testing::internal::CaptureStderr();
  system.receive(user, IP_OPCODE_CLIENT, message_of(IP_MSG_REGISTER, 30));
  EXPECT_EQ(lines(testing::internal::GetCapturedStderr()), 1) << "another process of the same number";
}

TEST_F(ControlServiceTest, EveryRefusalHasAText) {
  std::set<std::string> texts;
  for (size_t i = 0; i < refusal_count; ++i) texts.insert(refusal_text(static_cast<Refusal>(i)));
  EXPECT_EQ(texts.size(), refusal_count);
  EXPECT_FALSE(texts.contains("unknown"));
}

}  // namespace
