// SPDX-License-Identifier: Apache-2.0
// The queues of ipd, with real ones at the other end.
#include "ipd/control/mts_transport.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ip_api.h"
#include "ipd/control_sap.h"
#include "platform/mts_rig.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using ipd::control::MtsTransport;
using ipd::control::Request;
using ipd::control::Sender;
using mts_rig::Queue;
using test_support::Process;
using test_support::wait_until;
using Reading = MtsTransport::Reading;

std::span<const std::byte> bytes_of(const std::string &text) {
  return std::as_bytes(std::span(text));
}

class MtsTransportTest : public testing::Test {
 protected:
  std::unique_ptr<MtsTransport> open() { return MtsTransport::open(&handle_, IP_SAP_CONTROL, &reason_); }
  Reading read(MtsTransport &transport, size_t most) {
    return transport.read(
        most,
        [this](const Request &request) {
          story_.emplace_back(reinterpret_cast<const char *>(request.bytes.data()), request.bytes.size());
          last_ = request.sender;
        },
        [this](const Sender &sender) { story_.push_back("end of " + std::to_string(sender.pid)); }, &reason_);
  }
  void expect_arrival(MtsTransport &transport, const std::string &text) {
    EXPECT_TRUE(
        wait_until([&] { return read(transport, 1) != Reading::broken && !story_.empty(); }, std::chrono::seconds(60)));
    EXPECT_EQ(story_, std::vector{text});
  }

  test_support::RunDirectory directory_;
  uint32_t handle_ = mts_rig::no_queue;
  std::string reason_;
  std::vector<std::string> story_;  // what was read
  Sender last_;
};

TEST_F(MtsTransportTest, ASapThatIsTakenIsAReason) {
  const Queue other(IP_SAP_CONTROL);
  EXPECT_EQ(open(), nullptr);
  EXPECT_EQ(reason_, "SAP 263 cannot be bound: Address already in use");
}

TEST_F(MtsTransportTest, TheHandleIsThereAsLongAsTheTransport) {
  auto transport = open();
  ASSERT_NE(transport, nullptr) << reason_;
  EXPECT_EQ(mts_sap_get(handle_), IP_SAP_CONTROL);
  transport.reset();
  EXPECT_EQ(handle_, mts_rig::no_queue);
  EXPECT_NE(open(), nullptr) << reason_;
}

TEST_F(MtsTransportTest, NoMoreIsReadThanWanted) {
  const auto transport = open();
  ASSERT_NE(transport, nullptr) << reason_;
  const Queue client;
  for (const char *text : {"one", "two", "three"}) ASSERT_EQ(mts_rig::send(client, IP_SAP_CONTROL, 1, text), 0);
  EXPECT_EQ(read(*transport, 2), Reading::more);
  EXPECT_EQ(story_, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(read(*transport, 2), Reading::empty);
  EXPECT_EQ(story_, (std::vector<std::string>{"one", "two", "three"}));
  EXPECT_EQ(last_.pid, getpid());
  EXPECT_EQ(last_.sap, client.sap());
}

TEST_F(MtsTransportTest, TheEndOfASenderIsToldBehindWhatItSent) {
  const auto transport = open();
  ASSERT_NE(transport, nullptr) << reason_;
  Process client([] { return mts_rig::send(Queue(), IP_SAP_CONTROL, 1, "farewell"); });
  ASSERT_EQ(client.wait(), 0);
  EXPECT_EQ(read(*transport, 8), Reading::empty);
  EXPECT_EQ(story_, (std::vector<std::string>{"farewell", "end of " + std::to_string(client.pid())}));
}

TEST_F(MtsTransportTest, AQueueThatIsNoneAnyMoreIsBrokenAndSaysWhy) {
  const auto transport = open();
  ASSERT_NE(transport, nullptr) << reason_;
  ASSERT_EQ(mts_unbind(handle_, 0), 0);
  EXPECT_EQ(read(*transport, 8), Reading::broken);
  EXPECT_EQ(reason_, "messages cannot be received: Bad file descriptor");
}

TEST_F(MtsTransportTest, AnAnswerToASenderThatDiedReachesNobody) {
  const auto transport = open();
  ASSERT_NE(transport, nullptr) << reason_;
  Process asker([] {
    const Queue queue;
    if (mts_rig::send(queue, IP_SAP_CONTROL, 1, "question") != 0) return 1;
    return pause();
  });
  expect_arrival(*transport, "question");
  const Sender asked_by = last_;
  ASSERT_EQ(asked_by.pid, asker.pid());
  ASSERT_NE(asked_by.sap, 0u) << "it lived when it was looked at";
  asker.kill_now();
  Process next([sap = asked_by.sap] {
    const Queue queue;
    if (queue.sap() != sap) return 1;
    return mts_rig::receive(queue).text == "end" ? 0 : 2;
  });
  int error = 0;
  ASSERT_TRUE(wait_until(
      [&] {
        error = transport->send(asked_by, 1, bytes_of("secret"));
        return transport->send({.pid = next.pid(), .uid = 0, .sap = asked_by.sap}, 1, bytes_of("end")) == 0;
      },
      std::chrono::seconds(60)));
  EXPECT_EQ(error, ECONNREFUSED) << "before the next one could be reached, or with it";
  EXPECT_EQ(transport->send(asked_by, 1, bytes_of("secret")), ECONNREFUSED);
  EXPECT_EQ(next.wait(std::chrono::seconds(60)), 0);
}

TEST_F(MtsTransportTest, ASenderWithoutASapGetsNothing) {
  const auto transport = open();
  ASSERT_NE(transport, nullptr) << reason_;
  EXPECT_EQ(transport->send(Sender{.pid = getpid(), .uid = 0, .sap = 0}, 1, bytes_of("x")), EINVAL);
}

TEST_F(MtsTransportTest, ASendDoesNotWaitForRoom) {
  const auto transport = open();
  ASSERT_NE(transport, nullptr) << reason_;
  const Queue client;
  const Sender to{.pid = getpid(), .uid = geteuid(), .sap = client.sap()};
  int error = 0;
  for (int sent = 0; error == 0 && sent < 10000; ++sent)
    error = transport->send(to, 1, bytes_of(std::string(60000, 'x')));
  EXPECT_EQ(error, EAGAIN);
}

TEST_F(MtsTransportTest, WhatIsNoRequestCannotBeAnswered) {
  const auto transport = open();
  ASSERT_NE(transport, nullptr) << reason_;
  const Queue client;
  ASSERT_EQ(mts_rig::send(client, IP_SAP_CONTROL, 1, "no request"), 0);
  std::vector<int> errors;
  transport->read(
      1,
      [&](const Request &request) {
        EXPECT_FALSE(request.wants_answer);
        errors = {transport->answer(request, bytes_of("x")), transport->reject(request)};
      },
      [](const Sender &) {}, &reason_);
  EXPECT_EQ(errors, (std::vector{EINVAL, EINVAL}));
}

class ControlSapTest : public testing::Test {
 protected:
  test_support::RunDirectory directory_;
  std::string reason_;
  ipd::Configuration configuration_;
  std::unique_ptr<ipd::EventLoop> loop_ = ipd::EventLoop::open(&reason_);
};

TEST_F(ControlSapTest, ThereIsNoServiceOnASapThatIsTaken) {
  const Queue other(IP_SAP_CONTROL);
  EXPECT_EQ(ipd::ControlSap::open(*loop_, configuration_, &reason_), nullptr);
  EXPECT_NE(reason_.find("SAP 263 cannot be bound"), std::string::npos) << reason_;
}

TEST_F(ControlSapTest, AQueueThatBreaksIsSaidOnceAndReadNoMore) {
  const auto sap = ipd::ControlSap::open(*loop_, configuration_, &reason_);
  ASSERT_NE(sap, nullptr) << reason_;
  ASSERT_EQ(mts_unbind(ip_server_ctrl_mts_q, 0), 0);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) sap->tick();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ipd: clients are served no more: messages cannot be received: Bad file descriptor\n");
}

}  // namespace
