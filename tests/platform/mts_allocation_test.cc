// SPDX-License-Identifier: Apache-2.0
// A sender with a connection takes nothing from the heap, whatever it sends. What the count sees is tested too.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/counting_allocator.h"
#include "platform/mts_rig.h"
#include "support/run_directory.h"

namespace {

using namespace mts_rig;
using counting_allocator::allocations;

struct MtsAllocation : testing::Test {
  test_support::RunDirectory directory;
};

TEST_F(MtsAllocation, TheCountSeesTheMallocFamily) {
  const uint64_t before = allocations();
  free(strdup("in the C library"));
  EXPECT_GT(allocations(), before);
  const uint64_t between = allocations();
  free(realloc(calloc(1, 1), 4096));
  EXPECT_GE(allocations(), between + 2);
}

TEST_F(MtsAllocation, TheCountSeesOperatorNew) {
  const uint64_t before = allocations();
  std::unique_ptr<std::vector<int>> made(new std::vector<int>(10));
  EXPECT_GE(allocations(), before + 2);
}

TEST_F(MtsAllocation, TheCountSeesAReceiver) {
  const Queue server(263);
  const Queue client;
  ASSERT_EQ(send(client, 263, 1, "x"), 0);
  const uint64_t before = allocations();
  mts_msg_ref_t msg = nullptr;
  ASSERT_EQ(mts_recv_now(server, &msg), 0);
  EXPECT_GT(allocations(), before);
  EXPECT_EQ(mts_drop(server, msg), 0);
}

// How many allocations a hundred sends make once there is a connection. Between them the receiver takes everything, so
// that there is always room.
uint64_t allocations_of_sends(uint32_t size, mts_iovec *vector, uint32_t pieces) {
  const Queue server(263);
  const Queue client;
  EXPECT_EQ(send(client, 263, 1, "connect"), 0);
  EXPECT_EQ(receive(server).text, "connect");
  std::vector<uint8_t> payload(size);
  mts_send_opts opts{};
  opts.w[0] = 1;
  opts.w[1] = pieces;
  mts_send_opts_set_vector(&opts, vector);
  uint64_t counted = 0;
  for (int i = 0; i < 100; ++i) {
    const uint64_t before = allocations();
    const int32_t sent = mts_send(client, local_node, 263, 1, payload.data(), size, nullptr, 0, &opts);
    counted += allocations() - before;
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(receive(server).error, 0);
  }
  return counted;
}

TEST_F(MtsAllocation, AMessageTakesNothing) {
  EXPECT_EQ(allocations_of_sends(232, nullptr, 0), 0u);
}

TEST_F(MtsAllocation, TheLargestMessageTakesNothing) {
  EXPECT_EQ(allocations_of_sends(120832, nullptr, 0), 0u);
}

TEST_F(MtsAllocation, APacketInPiecesTakesNothing) {
  char piece[64] = {};
  mts_iovec vector[2] = {{piece, sizeof piece}, {piece, 1}};
  EXPECT_EQ(allocations_of_sends(232, vector, 2), 0u);
}

TEST_F(MtsAllocation, AMessageThatFindsNoRoomTakesNothing) {
  const Queue server(263);
  const Queue client;
  ASSERT_EQ(rsw::mts_set_patience(client, 0), 0);
  std::vector<uint8_t> payload(60000);
  mts_send_opts opts{};
  opts.w[0] = 1;
  const auto send_one = [&] {
    return mts_send(client, local_node, 263, 1, payload.data(), static_cast<uint32_t>(payload.size()), nullptr, 0,
                    &opts);
  };
  while (send_one() == 0) {
  }
  ASSERT_EQ(errno, EAGAIN);
  const uint64_t before = allocations();
  const int32_t refused = send_one();
  EXPECT_EQ(allocations(), before);
  EXPECT_EQ(refused, -1);
}

}  // namespace
