// SPDX-License-Identifier: Apache-2.0
// Memory that a receiver does not get: what has come is received once there is some, or its sender is told. This
// program has an operator new of its own, which fails on demand.
#include <errno.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "platform/mts_rig.h"
#include "support/run_directory.h"

namespace {

thread_local int allocations_until_failure = -1;  // negative: none fails

void *allocate(size_t size) noexcept {
  if (allocations_until_failure >= 0 && allocations_until_failure-- == 0) return nullptr;
  return malloc(size != 0 ? size : 1);
}

void *allocated(size_t size) {
  if (void *block = allocate(size)) return block;
  throw std::bad_alloc();
}

}  // namespace

void *operator new(size_t size) {
  return allocated(size);
}
void *operator new[](size_t size) {
  return allocated(size);
}
void *operator new(size_t size, const std::nothrow_t &) noexcept {
  return allocate(size);
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
  return allocate(size);
}
void operator delete(void *block) noexcept {
  free(block);
}
void operator delete[](void *block) noexcept {
  free(block);
}
void operator delete(void *block, size_t) noexcept {
  free(block);
}
void operator delete[](void *block, size_t) noexcept {
  free(block);
}

namespace {

using namespace mts_rig;

constexpr int most_allocations = 12;  // of one receive

struct MtsMemory : testing::Test {
  test_support::RunDirectory directory;
};

// While it lives, one allocation of this thread fails: that which comes after `before` others.
class OneMissing {
 public:
  explicit OneMissing(int before) { allocations_until_failure = before; }
  ~OneMissing() { allocations_until_failure = -1; }
  OneMissing(const OneMissing &) = delete;
  OneMissing &operator=(const OneMissing &) = delete;
  [[nodiscard]] bool happened() const { return allocations_until_failure < 0; }
};

struct Outcome {
  int error = 0;
  bool missed = false;  // memory was
  mts_msg_ref_t msg = nullptr;
};

Outcome receive_without_memory(uint32_t queue, int before, uint32_t token = 0) {
  Outcome outcome;
  const OneMissing missing(before);
  const int32_t status =
      token != 0 ? receive_reference(queue, &outcome.msg, 1, token) : mts_recv_now(queue, &outcome.msg);
  outcome.error = status == 0 ? 0 : errno;
  outcome.missed = missing.happened();
  return outcome;
}

TEST_F(MtsMemory, AMessageIsReceivedOnceThereIsMemoryForIt) {
  const Queue server(263);
  // References are held, so that the table of references grows meanwhile.
  int missed = 0;
  for (int i = 0; i < 40 * most_allocations; ++i) {
    const std::string text = std::to_string(i);
    const Queue client;
    ASSERT_EQ(send(client, 263, 1, text), 0);
    Outcome outcome = receive_without_memory(server, i % most_allocations);
    missed += outcome.missed ? 1 : 0;
    if (outcome.error != 0) {
      EXPECT_TRUE(outcome.missed);
      EXPECT_EQ(outcome.error, ENOMEM);
      EXPECT_TRUE(readable(server)) << "an event loop is to come again";
      ASSERT_EQ(receive_reference(server, &outcome.msg), 0);
    }
    ASSERT_EQ(text_of(outcome.msg), text);
  }
  EXPECT_GT(missed, 40);
}

TEST_F(MtsMemory, AResponseIsReceivedOnceThereIsMemoryForIt) {
  const Queue server(263);
  const Queue client;
  int missed = 0;
  for (int i = 0; i < 10 * most_allocations; ++i) {
    const uint32_t token = request(client, 263, 1, "?");
    ASSERT_NE(token, 0u);
    mts_msg_ref_t asked = nullptr;
    ASSERT_EQ(receive_reference(server, &asked), 0);
    ASSERT_EQ(rsw::mts_reply(server, asked, 2, "yes", 3), 0);
    mts_drop(server, asked);
    Outcome outcome = receive_without_memory(client, i % most_allocations, token);
    missed += outcome.missed ? 1 : 0;
    if (outcome.error != 0) {
      EXPECT_EQ(outcome.error, ENOMEM);
      ASSERT_EQ(receive_reference(client, &outcome.msg, long_wait_seconds, token), 0);
    }
    EXPECT_EQ(text_of(outcome.msg), "yes");
    mts_drop(client, outcome.msg);
  }
  EXPECT_GT(missed, 10);
}

TEST_F(MtsMemory, APeersEndIsToldOnceThereIsMemoryForIt) {
  const Queue server(263);
  ASSERT_EQ(rsw::mts_watch_peers(server, true), 0);
  for (int i = 0; i < 10 * most_allocations; ++i) {
    {
      const Queue client;
      ASSERT_EQ(send(client, 263, 1, "last words"), 0);
    }
    Outcome outcome = receive_without_memory(server, i % most_allocations);
    if (outcome.error != 0) {
      ASSERT_EQ(receive_reference(server, &outcome.msg), 0);
    }
    ASSERT_EQ(text_of(outcome.msg), "last words");
    mts_drop(server, outcome.msg);
    outcome = receive_without_memory(server, i % most_allocations);
    if (outcome.error != 0) {
      ASSERT_EQ(receive_reference(server, &outcome.msg), 0);
    }
    EXPECT_TRUE(rsw::mts_is_gone(outcome.msg));
    mts_drop(server, outcome.msg);
  }
}

TEST_F(MtsMemory, WhoIsHungUpOnWithoutMemoryIsTold) {
  const Queue server(263);
  ASSERT_EQ(rsw::mts_watch_peers(server, true), 0);
  const Queue client;
  ASSERT_EQ(send(client, 263, 1, "register"), 0);
  mts_msg_ref_t msg = nullptr;
  ASSERT_EQ(receive_reference(server, &msg), 0);
  {
    const OneMissing missing(0);
    EXPECT_EQ(rsw::mts_hang_up(server, msg), 0);
  }
  mts_drop(server, msg);
  EXPECT_EQ(receive(client, long_wait_seconds).error, ECONNRESET);
  ASSERT_EQ(receive_reference(server, &msg), 0);
  EXPECT_TRUE(rsw::mts_is_gone(msg));
}

TEST_F(MtsMemory, ASendWithoutMemorySaysSoAndTheNextOneGoesThrough) {
  const Queue server(263);
  for (int before = 0; before < most_allocations; ++before) {
    const Queue client;
    uint32_t token = 0;
    {
      const OneMissing missing(before);
      token = request(client, 263, 1, "");
      const int error = errno;
      EXPECT_TRUE(token != 0 || (error == ENOMEM && missing.happened())) << error;
    }
    if (token == 0) token = request(client, 263, 1, "");
    EXPECT_NE(token, 0u);
    EXPECT_EQ(receive(server).error, 0);
  }
}

}  // namespace
