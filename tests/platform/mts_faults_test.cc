// SPDX-License-Identifier: Apache-2.0
// Peers that die, that do not read, that forge, and files that dead processes left.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <functional>
#include <memory>

#include "mts/mts_server.h"
#include "platform/mts_raw_sender.h"
#include "platform/mts_rig.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using namespace mts_rig;
using test_support::Process;
using test_support::wait_until;

struct MtsFaults : testing::Test {
  test_support::RunDirectory directory;
};

// A process that serves SAP 263: each request is received and never answered.
Process silent_server() {
  Process server([] {
    const Queue queue(263);
    while (receive(queue, 3600).error == 0) {
    }
    return 0;
  });
  if (!wait_until([] { return use_of(263).pid != 0; })) throw std::runtime_error("the server does not start");
  // Bound is not yet listening.
  const Queue probe;
  if (!wait_until([&] { return send(probe, 263, 0, "probe") == 0; })) throw std::runtime_error("it does not listen");
  return server;
}

TEST_F(MtsFaults, AWaitForAResponseEndsWithItsServer) {
  Process server = silent_server();
  const Queue client;
  const uint32_t token = request(client, 263, 1, "?");
  ASSERT_NE(token, 0u);
  ASSERT_TRUE(wait_until([] { return use_of(263).received >= 2; }));
  Process killer([pid = server.pid()] { return kill(pid, SIGKILL); });
  EXPECT_EQ(receive(client, 0, token).error, ECONNRESET);
}

TEST_F(MtsFaults, AWaitForAnythingEndsOnceWithWhoWasSentTo) {
  Process server = silent_server();
  const Queue client;
  ASSERT_EQ(send(client, 263, 1, "register"), 0);
  Process killer([pid = server.pid()] { return kill(pid, SIGKILL); });
  EXPECT_EQ(receive(client, 0).error, ECONNRESET);
  EXPECT_EQ(receive(client, 1).error, ETIMEDOUT);
}

TEST_F(MtsFaults, AHangUpEndsTheWaitOfWhoSentTheMessageAndOfNobodyElse) {
  const Queue server(263);
  const Queue client;
  const Queue other;
  ASSERT_EQ(send(client, 263, 1, "register"), 0);
  ASSERT_EQ(send(other, 263, 1, "register"), 0);
  mts_msg_ref_t msg = nullptr;
  ASSERT_EQ(mts_recv_now(server, &msg), 0);
  EXPECT_EQ(rsw::mts_hang_up(other, msg), -1) << "it was not received there";
  EXPECT_EQ(errno, EINVAL);
  ASSERT_EQ(rsw::mts_hang_up(server, msg), 0);
  EXPECT_EQ(mts_drop(server, msg), 0);
  EXPECT_EQ(receive(client, 0).error, ECONNRESET);
  EXPECT_EQ(receive(other, 1).error, ETIMEDOUT);
  ASSERT_EQ(send(client, 263, 1, "again"), 0);
  EXPECT_EQ(receive(server).text, "register");
  EXPECT_EQ(receive(server).text, "again");
}

TEST_F(MtsFaults, WhatADeadServerSaidIsReceivedBeforeItsDeathIsTold) {
  const Queue client;
  Process server([sap = client.sap()] {
    const Queue queue(263);
    if (receive(queue).error != 0) return 1;
    return send(queue, sap, 17, "reply") == 0 ? 0 : 2;
  });
  ASSERT_TRUE(wait_until([&] { return send(client, 263, 1, "register") == 0; }));
  ASSERT_EQ(server.wait(), 0);
  EXPECT_EQ(receive(client).text, "reply");
  EXPECT_EQ(receive(client).error, ECONNRESET);
}

TEST_F(MtsFaults, AnAnswerOfAServerThatThenDiedArrives) {
  const Queue client;
  Process server([] {
    const Queue queue(263);
    mts_msg_ref_t msg = nullptr;
    if (receive_reference(queue, &msg) != 0) return 1;
    return rsw::mts_reply(queue, msg, 2, "ok", 2);
  });
  uint32_t token = 0;
  ASSERT_TRUE(wait_until([&] { return (token = request(client, 263, 1, "?")) != 0; }));
  ASSERT_EQ(server.wait(), 0);
  EXPECT_EQ(receive(client, long_wait_seconds, token).text, "ok");
}

TEST_F(MtsFaults, TheSapOfAKilledProcessIsTakenOver) {
  Process server = silent_server();
  server.kill_now();
  ASSERT_EQ(access((directory.path() + "/mts/263").c_str(), F_OK), 0) << "a stale socket is what this test is about";
  const Queue client;
  EXPECT_EQ(send(client, 263, 1, "x"), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  const Queue successor(263);
  EXPECT_EQ(send(client, 263, 1, "again"), 0);
  EXPECT_EQ(receive(successor).text, "again");
}

TEST_F(MtsFaults, ASenderIsConnectedToTheSuccessorByItself) {
  const Queue client;
  auto server = std::make_unique<Queue>(263);
  ASSERT_EQ(send(client, 263, 1, "old"), 0);
  ASSERT_EQ(receive(*server).text, "old");
  server.reset();
  server = std::make_unique<Queue>(263);
  EXPECT_EQ(send(client, 263, 1, "new"), 0);
  EXPECT_EQ(receive(*server).text, "new");
}

TEST_F(MtsFaults, AReaderOfASapsFileDoesNotHoldTheSap) {
  { Process server = silent_server(); }
  const std::string file = directory.path() + "/mts/263.queue";
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  struct flock range {};
  range.l_type = F_RDLCK;
  range.l_whence = SEEK_SET;
  ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &range), 0);
  const Queue successor(263);
  EXPECT_EQ(successor.sap(), 263u);
  close(fd);
}

TEST_F(MtsFaults, AFullReceiverHoldsTheSenderForABoundedTime) {
  const Queue server(263);
  const Queue client;
  const std::string large(100000, 'x');
  const auto begin = std::chrono::steady_clock::now();
  int sent = 0;
  while (send(client, 263, 1, large) == 0 && sent < 1000) ++sent;
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_GT(sent, 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
  EXPECT_EQ(use_of(client.sap()).send_failures, 1u);
  // Room again: what was refused is lost, what comes next arrives.
  for (int i = 0; i < sent; ++i) ASSERT_EQ(receive(server).text, large);
  EXPECT_EQ(send(client, 263, 1, "next"), 0);
  EXPECT_EQ(receive(server).text, "next");
}

TEST_F(MtsFaults, WithoutPatienceAFullReceiverIsAnErrorAtOnce) {
  const Queue server(263);
  const Queue client;
  ASSERT_EQ(rsw::mts_set_patience(client, 0), 0);
  int sent = 0;
  while (send(client, 263, 1, std::string(100000, 'x')) == 0 && sent < 1000) ++sent;
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_LT(sent, 100);
}

TEST_F(MtsFaults, AQueueHoldsNoMoreThanItsBound) {
  const Queue server(263);
  ASSERT_EQ(mts_options_set(server, 9, 0x10), 0);  // a receive then takes in all that it may
  const Process sender([] {
    const Queue client;
    for (int i = 0; i < 3000; ++i) {
      while (send(client, 263, 1, std::string(3000, 'x')) != 0) {
      }
    }
    return receive(client).error;
  });
  for (int i = 0; i < 3000; ++i) ASSERT_EQ(receive(server).text.size(), 3000u);
  EXPECT_LE(use_of(263).high_water, 1024u);
}

TEST_F(MtsFaults, AServerIsToldBehindTheLastMessageWhoIsGone) {
  const Queue server(263);
  ASSERT_EQ(rsw::mts_watch_peers(server, true), 0);
  Process client([] {
    const Queue queue;
    return send(queue, 263, 1, "one") + send(queue, 263, 1, "two");
  });
  EXPECT_EQ(receive(server).text, "one");
  EXPECT_EQ(receive(server).text, "two");
  mts_msg_ref_t msg = nullptr;
  ASSERT_EQ(receive_reference(server, &msg), 0);
  EXPECT_TRUE(rsw::mts_is_gone(msg));
  EXPECT_EQ(mts_payload_get(msg), nullptr);
  rsw::MtsSender sender{};
  ASSERT_TRUE(rsw::mts_sender(msg, &sender));
  EXPECT_EQ(sender.pid, client.pid());
  EXPECT_EQ(sender.sap, 2048u);
  EXPECT_EQ(mts_drop(server, msg), 0);
}

struct Forgery {
  const char *name;
  std::function<void(rsw::mts::WireHeader &)> change;
  size_t extra;
};

TEST_F(MtsFaults, ForgedMessagesAreRefusedCountedAndTheirConnectionClosed) {
  const Queue server(263);
  const Queue other;
  const std::vector<Forgery> forgeries = {
      {"magic", [](auto &header) { header.magic ^= 1; }, 8},
      {"kind 0", [](auto &header) { header.kind = 0; }, 8},
      {"kind 5", [](auto &header) { header.kind = 5; }, 8},
      {"a response to nobody", [](auto &header) { header.kind = 3, header.token = 1; }, 8},
      {"a message with a token", [](auto &header) { header.token = 1; }, 8},
      {"a request without", [](auto &header) { header.kind = 2; }, 8},
      {"SAP 0", [](auto &header) { header.sap = 0; }, 8},
      {"SAP 65536", [](auto &header) { header.sap = 65536; }, 8},
      {"longer than it says", [](auto &) {}, 9},
      {"shorter than it says", [](auto &) {}, 7},
      {"too many pieces", [](auto &header) { header.pieces = 63; }, 8},
      {"reserved word", [](auto &header) { header.reserved = 1; }, 8},
      {"too large", [](auto &header) { header.size = 120833; }, 120833},
  };
  uint32_t refused = 0;
  for (const Forgery &forgery : forgeries) {
    const RawSender raw(directory.path() + "/mts/263");
    rsw::mts::WireHeader header = good_header();
    forgery.change(header);
    raw.write(header, forgery.extra);
    mts_msg_ref_t msg = nullptr;
    EXPECT_EQ(mts_recv_now(server, &msg), -1) << forgery.name;
    EXPECT_EQ(use_of(263).refused, ++refused) << forgery.name;
    EXPECT_TRUE(raw.was_closed()) << forgery.name;
  }
  const RawSender raw(directory.path() + "/mts/263");
  raw.write(std::string("short"));
  mts_msg_ref_t msg = nullptr;
  EXPECT_EQ(mts_recv_now(server, &msg), -1);
  EXPECT_EQ(use_of(263).refused, refused + 1);
  // The others do not suffer.
  ASSERT_EQ(send(other, 263, 1, "honest"), 0);
  EXPECT_EQ(receive(server).text, "honest");
}

TEST_F(MtsFaults, AWellFormedRawMessageIsTaken) {
  const Queue server(263);
  const RawSender raw(directory.path() + "/mts/263");
  raw.write(good_header(), 8);
  EXPECT_EQ(receive(server).text, "rrrrrrrr");
  // The SAP of a connection stays what it was.
  rsw::mts::WireHeader other = good_header();
  other.sap = 3001;
  raw.write(other, 8);
  mts_msg_ref_t msg = nullptr;
  EXPECT_EQ(mts_recv_now(server, &msg), -1);
  EXPECT_EQ(use_of(263).refused, 1u);
}

}  // namespace
