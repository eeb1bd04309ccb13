// SPDX-License-Identifier: Apache-2.0
// Threads on one queue, many clients, and fork.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "platform/mts_rig.h"
#include "support/descriptors.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using namespace mts_rig;
using test_support::Process;
using test_support::wait_until;

struct MtsThreads : testing::Test {
  test_support::RunDirectory directory;
};

TEST_F(MtsThreads, ThreadsThatSendAtOnceLoseNothing) {
  constexpr int threads = 4;
  constexpr int each = 300;
  const Queue server(263);
  const Queue client;
  std::vector<std::thread> senders;
  std::atomic<int> failures = 0;
  for (int number = 0; number < threads; ++number) {
    senders.emplace_back([&, number] {
      for (int i = 0; i < each; ++i) {
        while (send(client, 263, static_cast<uint32_t>(number), std::to_string(i)) != 0) {
          if (errno != EAGAIN) ++failures;
        }
      }
    });
  }
  std::map<uint32_t, int> next;
  for (int i = 0; i < threads * each; ++i) {
    const Received received = receive(server);
    ASSERT_EQ(received.error, 0);
    ASSERT_EQ(received.text, std::to_string(next[received.opcode]++));
  }
  for (std::thread &sender : senders) sender.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(use_of(263).connections, 1u);
  EXPECT_EQ(use_of(client.sap()).sent, static_cast<uint32_t>(threads * each));
}

TEST_F(MtsThreads, SendersAndAReceiverShareAQueue) {
  const Queue server(263);
  const Queue client;
  std::thread echo([&] {
    for (int i = 0; i < 500; ++i) {
      const Received received = receive(server);
      while (send(server, client.sap(), 2, received.text) != 0) {
      }
    }
  });
  std::thread sender([&] {
    for (int i = 0; i < 500; ++i) {
      while (send(client, 263, 1, std::to_string(i)) != 0) {
      }
    }
  });
  for (int i = 0; i < 500; ++i) ASSERT_EQ(receive(client).text, std::to_string(i));
  sender.join();
  echo.join();
}

TEST_F(MtsThreads, UnbindWakesWhoWaitsForAnything) {
  const uint32_t queue = bind(-1);
  std::atomic<bool> started = false;
  int error = 0;
  std::thread receiver([&] {
    started = true;
    error = receive(queue, 0).error;
  });
  ASSERT_TRUE(wait_until([&] { return started.load(); }));
  EXPECT_EQ(mts_unbind(queue, 0), 0);
  receiver.join();
  EXPECT_EQ(error, EBADF);
}

TEST_F(MtsThreads, UnbindWakesWhoWaitsForAResponse) {
  const Queue server(263);
  const uint32_t queue = bind(-1);
  const uint32_t token = request(queue, 263, 1, "?");
  ASSERT_NE(token, 0u);
  std::atomic<bool> started = false;
  int error = 0;
  std::thread receiver([&] {
    started = true;
    error = receive(queue, 0, token).error;
  });
  ASSERT_TRUE(wait_until([&] { return started.load(); }));
  EXPECT_EQ(mts_unbind(queue, 0), 0);
  receiver.join();
  EXPECT_EQ(error, EBADF);
}

TEST_F(MtsThreads, AHundredClientsAreServed) {
  // Or as many as this process may have descriptors for.
  const auto count = static_cast<size_t>(std::min<uint64_t>(100, test_support::allow_descriptors(1000) / 10));
  ASSERT_GT(count, 0u) << "ulimit -n is too low for any";
  const Queue server(263);
  std::vector<std::unique_ptr<Queue>> clients;
  std::vector<uint32_t> tokens;
  for (size_t i = 0; i < count; ++i) {
    clients.push_back(std::make_unique<Queue>());
    tokens.push_back(request(*clients.back(), 263, 1, std::to_string(i)));
    ASSERT_NE(tokens.back(), 0u);
  }
  std::set<uint32_t> saps;
  for (size_t i = 0; i < count; ++i) {
    mts_msg_ref_t msg = nullptr;
    ASSERT_EQ(receive_reference(server, &msg), 0);
    rsw::MtsSender sender{};
    ASSERT_TRUE(rsw::mts_sender(msg, &sender));
    saps.insert(sender.sap);
    const std::string answer = "to " + text_of(msg);
    ASSERT_EQ(rsw::mts_reply(server, msg, 1, answer.data(), static_cast<uint32_t>(answer.size())), 0);
    ASSERT_EQ(mts_drop(server, msg), 0);
  }
  EXPECT_EQ(saps.size(), count);
  for (size_t i = 0; i < count; ++i) {
    EXPECT_EQ(receive(*clients[i], long_wait_seconds, tokens[i]).text, "to " + std::to_string(i));
  }
}

TEST_F(MtsThreads, AChildIsRefusedItsParentsQueues) {
  const Queue server(263);
  const Queue client;
  ASSERT_EQ(send(client, 263, 1, "before"), 0);
  Process child([&] {
    if (send(client, 263, 1, "x") != -1 || errno != ECHILD) return 1;
    mts_msg_ref_t msg = nullptr;
    if (mts_recv_now(server, &msg) != -1 || errno != ECHILD) return 2;
    if (mts_unbind(server, 0) != -1 || errno != ECHILD) return 3;
    if (mts_sap_get(server) != 0 || mts_queue_fd(server) != -1) return 4;
    const Queue own;
    return send(own, 263, 1, "from the child") == 0 ? 0 : 5;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(receive(server).text, "before");
  EXPECT_EQ(receive(server).text, "from the child");
}

TEST_F(MtsThreads, AChildThatLivesOnDoesNotHideItsParentsDeath) {
  const Queue server(263);
  ASSERT_EQ(rsw::mts_watch_peers(server, true), 0);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  Process parent([&] {
    const Queue queue(300);
    if (send(queue, 263, 1, "x") != 0) return 1;
    if (fork() == 0) {  // it lives until the test closes its end of the pipe
      char byte = 0;
      close(ends[1]);
      _exit(static_cast<int>(read(ends[0], &byte, 1)));
    }
    raise(SIGKILL);
    return 2;
  });
  EXPECT_EQ(receive(server).text, "x");
  mts_msg_ref_t msg = nullptr;
  ASSERT_EQ(receive_reference(server, &msg), 0);
  EXPECT_TRUE(rsw::mts_is_gone(msg));
  mts_drop(server, msg);
  // The kernel closes a dead process's files one after the other.
  uint32_t successor = no_queue;
  EXPECT_TRUE(wait_until([&] { return (successor = bind(300)) != no_queue; }));
  EXPECT_EQ(mts_unbind(successor, 0), 0);
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
