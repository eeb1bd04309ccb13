// SPDX-License-Identifier: Apache-2.0
// The kernel refuses to watch a descriptor, which it does when a user has too many watches. This program has an epoll
// of its own, which does that on demand.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/mts_rig.h"
#include "support/run_directory.h"

namespace {

int additions_until_failure = -1;  // negative: none fails
bool all_fail = false;             // from then on
bool no_instances = false;

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int epoll_ctl(int epoll, int operation, int fd, epoll_event *event) noexcept {
  if (operation == EPOLL_CTL_ADD && additions_until_failure >= 0 && additions_until_failure-- == 0) {
    if (all_fail) additions_until_failure = 0;
    errno = ENOSPC;
    return -1;
  }
  return static_cast<int>(syscall(SYS_epoll_ctl, epoll, operation, fd, event));
}

__attribute__((visibility("default"))) int epoll_create1(int flags) noexcept {
  if (no_instances) {
    errno = ENOMEM;
    return -1;
  }
  return static_cast<int>(syscall(SYS_epoll_create1, flags));
}

}  // extern "C"

namespace {

using namespace mts_rig;

struct MtsEpoll : testing::Test {
  ~MtsEpoll() override {
    additions_until_failure = -1;
    all_fail = false;
    no_instances = false;
  }
  test_support::RunDirectory directory;
};

TEST_F(MtsEpoll, ABindWithoutAnInstanceSaysSo) {
  no_instances = true;
  EXPECT_EQ(bind(263), no_queue);
  EXPECT_EQ(errno, ENOMEM);
  no_instances = false;
  EXPECT_EQ(Queue(263).sap(), 263u);
}

TEST_F(MtsEpoll, ABindThatCannotWatchItsOwnDescriptorsSaysSo) {
  for (int before = 0; before < 2; ++before) {
    additions_until_failure = before;
    EXPECT_EQ(bind(263), no_queue);
    EXPECT_EQ(errno, ENOSPC);
  }
  EXPECT_EQ(Queue(263).sap(), 263u);
}

TEST_F(MtsEpoll, AQueueThatCannotWatchItsSocketReceivesOnceItCan) {
  const uint32_t queue = bind(263);
  ASSERT_NE(queue, no_queue);
  // Senders can connect from then on, so the queue is open; it hears of them once it looks again.
  additions_until_failure = 0;
  EXPECT_EQ(mts_recv_q_unblock(queue), 0);
  EXPECT_EQ(additions_until_failure, -1) << "the socket was to be watched, and that failed";
  const Queue client;
  EXPECT_EQ(send(client, 263, 1, "hello"), 0);
  EXPECT_EQ(receive(queue).text, "hello");
  EXPECT_EQ(mts_unbind(queue, 0), 0);
}

TEST_F(MtsEpoll, ASenderThatCannotWatchItsConnectionSendsNothing) {
  const Queue server(263);
  const Queue client;
  additions_until_failure = 0;
  EXPECT_EQ(send(client, 263, 1, "x"), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(use_of(client.sap()).connections, 0u);
  EXPECT_EQ(send(client, 263, 1, "again"), 0);
  EXPECT_EQ(receive(server).text, "again");
}

TEST_F(MtsEpoll, WhatCameByAConnectionThatCannotBeWatchedAtFirstIsReceived) {
  const Queue server(263);
  const Queue client;
  ASSERT_EQ(send(client, 263, 1, "first"), 0);
  additions_until_failure = 0;
  EXPECT_EQ(receive(server).text, "first");
  EXPECT_EQ(additions_until_failure, -1) << "the connection was to be watched, and that failed";
  EXPECT_EQ(send(client, 263, 1, "second"), 0);
  EXPECT_EQ(receive(server).text, "second");
}

TEST_F(MtsEpoll, ASenderWhoseConnectionCannotBeWatchedIsTold) {
  const Queue server(263);
  const Queue client;
  ASSERT_EQ(send(client, 263, 1, "taken"), 0);
  additions_until_failure = 0;
  all_fail = true;
  EXPECT_EQ(receive(server).text, "taken");
  additions_until_failure = -1;
  EXPECT_EQ(receive(client).error, ECONNRESET);
  EXPECT_EQ(send(client, 263, 1, "again"), 0);
  EXPECT_EQ(receive(server).text, "again");
}

}  // namespace
