// SPDX-License-Identifier: Apache-2.0
// Messages between queues: who may bind what, what arrives of what was sent, in which order, and every refusal.
#include "mts.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/mts_rig.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using namespace mts_rig;
using test_support::RunDirectory;

struct Mts : testing::Test {
  RunDirectory directory;
};

TEST_F(Mts, ADynamicQueueGetsTheLowestFreeSap) {
  const Queue first;
  const Queue second;
  EXPECT_EQ(first.sap(), 2048u);
  EXPECT_EQ(second.sap(), 2049u);
}

TEST_F(Mts, AFixedSapIsBoundOnce) {
  const Queue first(263);
  EXPECT_EQ(first.sap(), 263u);
  EXPECT_EQ(bind(263), no_queue);
  EXPECT_EQ(errno, EADDRINUSE);
}

TEST_F(Mts, AnUnboundSapIsFreeAgain) {
  { const Queue first(263); }
  const Queue second(263);
  EXPECT_EQ(second.sap(), 263u);
}

TEST_F(Mts, AHandleIsNotUsedAgain) {
  const uint32_t first = bind(-1);
  ASSERT_EQ(mts_unbind(first, 0), 0);
  const Queue second;
  EXPECT_NE(first, second);
  EXPECT_EQ(mts_unbind(first, 0), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(Mts, SapsOutOfRangeAndMissingOptionsAreRefused) {
  for (const int32_t sap : {0, -2, 65536}) {
    EXPECT_EQ(bind(sap), no_queue) << sap;
    EXPECT_EQ(errno, EINVAL) << sap;
  }
  EXPECT_EQ(mts_bind(1, -1, nullptr, "x"), no_queue);
  EXPECT_EQ(errno, EINVAL);
  mts_bind_opts opts{1, 0, 1024, 267, 0, 15};
  EXPECT_EQ(mts_bind(2, -1, &opts, "x"), no_queue);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(Mts, WithoutARunDirectoryThereIsNoSystemToBindIn) {
  setenv("RSW_RUN_DIR", (directory.path() + "/missing").c_str(), 1);
  EXPECT_EQ(bind(-1), no_queue);
  EXPECT_EQ(errno, ENOENT);
  setenv("RSW_RUN_DIR", directory.path().c_str(), 1);
}

TEST_F(Mts, ALongRunDirectoryIsNoHindrance) {
  const std::string deep = directory.path() + "/" + std::string(200, 'd');
  ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
  setenv("RSW_RUN_DIR", deep.c_str(), 1);
  {
    const Queue server(263);
    const Queue client;
    EXPECT_EQ(send(client, 263, 1, "hello"), 0);
    EXPECT_EQ(receive(server).text, "hello");
  }
  setenv("RSW_RUN_DIR", directory.path().c_str(), 1);
}

TEST_F(Mts, TheSapOfNoQueueIsZero) {
  EXPECT_EQ(mts_sap_get(no_queue), 0u);
  EXPECT_EQ(mts_sap_get(0), 0u);
  EXPECT_EQ(mts_sap_get(4711), 0u);
}

TEST_F(Mts, AMessageArrivesAsItWasSent) {
  const Queue server(263);
  const Queue client;
  ASSERT_EQ(send(client, 263, 0x14C01, "register me"), 0);
  mts_msg_ref_t msg = nullptr;
  ASSERT_EQ(receive_reference(server, &msg), 0);
  EXPECT_EQ(mts_opc_get(msg), 0x14C01u);
  EXPECT_EQ(text_of(msg), "register me");
  EXPECT_EQ(mts_is_reject(msg), 0u);
  EXPECT_FALSE(rsw::mts_is_request(msg));
  rsw::MtsSender sender{};
  ASSERT_TRUE(rsw::mts_sender(msg, &sender));
  EXPECT_EQ(sender.pid, getpid());
  EXPECT_EQ(sender.uid, geteuid());
  EXPECT_EQ(sender.gid, getegid());
  EXPECT_EQ(sender.sap, client.sap());
  EXPECT_TRUE(rsw::mts_sender_in_group(msg, getegid()));
  EXPECT_FALSE(rsw::mts_sender_in_group(msg, 987654));
  EXPECT_EQ(mts_drop(server, msg), 0);
}

TEST_F(Mts, AReferenceIsGoodOnceAndOnItsQueueOnly) {
  const Queue server(263);
  const Queue client;
  ASSERT_EQ(send(client, 263, 1, "x"), 0);
  mts_msg_ref_t msg = nullptr;
  ASSERT_EQ(receive_reference(server, &msg), 0);
  EXPECT_EQ(mts_drop(client, msg), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(mts_drop(server, msg), 0);
  EXPECT_EQ(mts_drop(server, msg), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(mts_payload_get(msg), nullptr);
  EXPECT_EQ(mts_payload_size(msg), 0u);
  EXPECT_EQ(mts_opc_get(nullptr), 0u);
}

TEST_F(Mts, MessagesOfOneSenderStayInOrder) {
  const Queue server(263);
  const Queue client;
  for (int i = 0; i < 200; ++i) ASSERT_EQ(send(client, 263, 1, std::to_string(i)), 0);
  for (int i = 0; i < 200; ++i) ASSERT_EQ(receive(server).text, std::to_string(i));
}

TEST_F(Mts, AQueueCanSendToItself) {
  const Queue queue(263);
  ASSERT_EQ(send(queue, 263, 7, "to me"), 0);
  EXPECT_EQ(receive(queue).text, "to me");
}

TEST_F(Mts, MessagesSurviveASenderThatUnbindsAtOnce) {
  const Queue server(263);
  {
    const Queue client;
    ASSERT_EQ(send(client, 263, 1, "last words"), 0);
  }
  EXPECT_EQ(receive(server).text, "last words");
}

TEST_F(Mts, TheLargestMessageFitsAndOneByteMoreDoesNot) {
  const Queue server(263);
  const Queue client;
  std::string largest(120832, 'x');
  largest.back() = 'y';
  ASSERT_EQ(send(client, 263, 1, largest), 0);
  EXPECT_EQ(receive(server).text, largest);
  EXPECT_EQ(send(client, 263, 1, largest + "z"), -1);
  EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(Mts, PiecesAreGatheredBehindTheMessage) {
  const Queue server(263);
  const Queue client;
  std::string head = "head-";
  std::string one = "one-";
  std::string two = "two";
  mts_iovec vector[2] = {{one.data(), 4}, {two.data(), 3}};
  mts_send_opts opts{};
  opts.w[0] = 1;
  opts.w[1] = 2;
  mts_send_opts_set_vector(&opts, vector);
  ASSERT_EQ(mts_send(client, local_node, 263, 5, head.data(), 5, nullptr, 0, &opts), 0);
  EXPECT_EQ(receive(server).text, "head-one-two");
  opts.w[1] = 63;
  EXPECT_EQ(mts_send(client, local_node, 263, 5, head.data(), 5, nullptr, 0, &opts), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(Mts, PiecesCountTowardsTheLargestMessage) {
  const Queue server(263);
  const Queue client;
  std::string head(120000, 'h');
  std::string piece(833, 'p');
  mts_iovec vector[1] = {{piece.data(), 832}};
  mts_send_opts opts{};
  opts.w[0] = 1;
  opts.w[1] = 1;
  mts_send_opts_set_vector(&opts, vector);
  EXPECT_EQ(mts_send(client, local_node, 263, 5, head.data(), 120000, nullptr, 0, &opts), 0);
  vector[0].len = 833;
  EXPECT_EQ(mts_send(client, local_node, 263, 5, head.data(), 120000, nullptr, 0, &opts), -1);
  EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(Mts, WrongDestinationsAreRefused) {
  const Queue client;
  std::string text = "x";
  EXPECT_EQ(mts_send(client, 1, 263, 1, text.data(), 1, nullptr, 0, nullptr), -1);
  EXPECT_EQ(errno, EHOSTUNREACH);
  for (const uint32_t sap : {0u, 65536u}) {
    EXPECT_EQ(send(client, sap, 1, "x"), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(mts_send(client, local_node, 263, 1, nullptr, 1, nullptr, 0, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(send(no_queue, 263, 1, "x"), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(Mts, ASapThatNobodyServesFailsAtOnce) {
  const Queue client;
  EXPECT_EQ(send(client, 263, 1, "x"), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(Mts, AFreshQueueTakesNothingUntilItIsUnblocked) {
  const uint32_t server = bind(263);
  const Queue client;
  EXPECT_EQ(send(client, 263, 1, "early"), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(mts_recv_q_unblock(server), 0);
  EXPECT_EQ(mts_recv_q_unblock(server), 0);
  EXPECT_EQ(send(client, 263, 1, "now"), 0);
  EXPECT_EQ(receive(server).text, "now");
  EXPECT_EQ(mts_unbind(server, 0), 0);
}

TEST_F(Mts, OptionsAreKeptByOpcode) {
  const Queue queue;
  EXPECT_EQ(mts_options_get(queue, 0x14C01), 0u);
  EXPECT_EQ(mts_options_set(queue, 0x14C01, 0x10), 0);
  EXPECT_EQ(mts_options_get(queue, 0x14C01), 0x10u);
  EXPECT_EQ(mts_options_get(queue, 0x14C03), 0u);
  EXPECT_EQ(mts_options_get(no_queue, 0x14C01), 0u);
  EXPECT_EQ(mts_options_set(no_queue, 1, 1), -1);
  for (uint32_t opcode = 0; opcode < 63; ++opcode) ASSERT_EQ(mts_options_set(queue, opcode, 1), 0);
  EXPECT_EQ(mts_options_set(queue, 100, 1), -1);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(Mts, AnOpcodeWithBit4PassesOthers) {
  const Queue server(263);
  const Queue client;
  ASSERT_EQ(mts_options_set(server, 9, 0x10), 0);
  ASSERT_EQ(send(client, 263, 1, "first"), 0);
  ASSERT_EQ(send(client, 263, 9, "urgent"), 0);
  ASSERT_EQ(send(client, 263, 9, "urgent too"), 0);
  EXPECT_EQ(receive(server).text, "urgent");
  EXPECT_EQ(receive(server).text, "urgent too");
  EXPECT_EQ(receive(server).text, "first");
}

TEST_F(Mts, AWaitInSecondsEnds) {
  const Queue queue;
  EXPECT_EQ(receive(queue, 1).error, ETIMEDOUT);
  mts_msg_ref_t msg = nullptr;
  EXPECT_EQ(mts_recv_now(queue, &msg), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(mts_recv(queue, &msg, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(msg, nullptr);
}

TEST_F(Mts, TheDescriptorIsReadableUntilTheQueueIsEmpty) {
  const Queue server(263);
  const Queue client;
  EXPECT_FALSE(readable(server));
  ASSERT_EQ(send(client, 263, 1, "one"), 0);
  ASSERT_EQ(send(client, 263, 1, "two"), 0);
  EXPECT_TRUE(readable(server));
  mts_msg_ref_t msg = nullptr;
  ASSERT_EQ(mts_recv_now(server, &msg), 0);
  EXPECT_EQ(taken(server, msg).text, "one");
  EXPECT_TRUE(readable(server));
  ASSERT_EQ(mts_recv_now(server, &msg), 0);
  EXPECT_EQ(taken(server, msg).text, "two");
  EXPECT_FALSE(readable(server));
  EXPECT_EQ(mts_queue_fd(no_queue), -1);
}

TEST_F(Mts, QueuesOfAllProcessesAreShown) {
  const Queue server(263);
  const test_support::Process other([] {
    const Queue queue;
    for (int i = 0; i < 3; ++i) send(queue, 263, 1, "x");
    return receive(queue).error;
  });
  ASSERT_TRUE(test_support::wait_until([] { return use_of(2048).sent == 3; }));
  EXPECT_EQ(use_of(2048).pid, other.pid());
  EXPECT_EQ(use_of(2048).name, "test queue");
  EXPECT_EQ(use_of(2048).module, 267u);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(receive(server).error, 0);
  EXPECT_EQ(use_of(263).received, 2u);
  EXPECT_EQ(use_of(263).waiting, 1u);
  EXPECT_EQ(use_of(263).high_water, 3u);
}

}  // namespace
