// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/neighbor_output.h"

#include <gtest/gtest.h>

#include "packet_kernel_fakes.h"

namespace {

using namespace ipd::packet;
using ipd::kernel::Neighbor;
using ipd::kernel::NeighborId;
using ipd::kernel::NeighborState;
using std::chrono::milliseconds;
using std::chrono::seconds;
using test_support::Packet;

constexpr NeighborId next{.ifindex = 2, .addr = 0x0a000002}, other{.ifindex = 2, .addr = 0x0a000003};
constexpr MacAddress address_of_next = {2, 0, 0, 0, 0, 1};

class NeighborOutputTest : public ::testing::Test {
 protected:
  Outcome send(const NeighborId &id, uint8_t mark = 0) {
    Packet frame(20);
    ipv4::write8(frame, 19, mark);
    return output.send(id, frame, now);
  }
  [[nodiscard]] Neighbor news(NeighborState state) const {
    return {.id = next, .state = state, .address = address_of_next};
  }
  [[nodiscard]] std::vector<int> marks() const {
    std::vector<int> list;
    for (const auto &[ifindex, frame] : frames.sent) list.push_back(ipv4::read8(frame, 19));
    return list;
  }

  NeighborOutput::Clock::time_point now{};
  test_support::FakeNeighbors neighbors;
  test_support::FakeFrames frames;
  NeighborOutput output{neighbors, frames};
};

TEST_F(NeighborOutputTest, AKnownNeighborGetsTheFrameAtOnce) {
  neighbors.set(next, NeighborState::usable);
  EXPECT_EQ(send(next), Outcome::done);
  ASSERT_EQ(frames.sent.size(), 1u);
  EXPECT_EQ(frames.sent[0].first, next.ifindex);
  EXPECT_EQ(test_support::frame_destination(frames.sent[0].second), address_of_next);
  EXPECT_TRUE(neighbors.resolved.empty());
}

TEST_F(NeighborOutputTest, AStaleNeighborGetsTheFrameAndIsAskedAgain) {
  neighbors.set(next, NeighborState::stale);
  EXPECT_EQ(send(next), Outcome::done);
  EXPECT_EQ(frames.sent.size(), 1u);
  EXPECT_EQ(neighbors.resolved, std::vector{next});
  neighbors.resolve_error = EPERM;
  EXPECT_EQ(send(next), Outcome::done) << "its address is good enough";
}

TEST_F(NeighborOutputTest, AnUnknownNeighborIsAskedOnceWhileFramesWait) {
  EXPECT_EQ(send(next), Outcome::done);
  EXPECT_EQ(send(next), Outcome::done);
  EXPECT_TRUE(frames.sent.empty());
  EXPECT_EQ(output.waiting(), 2u);
  EXPECT_EQ(neighbors.resolved, std::vector{next});
}

TEST_F(NeighborOutputTest, WhatWaitedGoesInItsOrderWhenTheNeighborAnswers) {
  for (uint8_t i = 0; i < 5; ++i) EXPECT_EQ(send(next, i), Outcome::done);
  output.changed(news(NeighborState::usable));
  EXPECT_EQ(marks(), (std::vector{0, 1, 2, 3, 4}));
  for (const auto &[ifindex, frame] : frames.sent) {
    EXPECT_EQ(test_support::frame_destination(frame), address_of_next);
  }
  EXPECT_EQ(output.waiting(), 0u);
  EXPECT_EQ(output.counts(), (WaitingCounts{.waited = 5, .sent = 5}));
}

TEST_F(NeighborOutputTest, NewsOfOthersMoveNothing) {
  EXPECT_EQ(send(other), Outcome::done);
  output.changed(news(NeighborState::usable));
  output.changed({.id = other, .state = NeighborState::resolving});
  EXPECT_EQ(output.waiting(), 1u);
  EXPECT_TRUE(frames.sent.empty());
}

TEST_F(NeighborOutputTest, WhatWaitsForANeighborThatDoesNotAnswerIsDropped) {
  EXPECT_EQ(send(next), Outcome::done);
  output.changed(news(NeighborState::failed));
  EXPECT_EQ(output.waiting(), 0u);
  EXPECT_TRUE(frames.sent.empty());
  EXPECT_EQ(output.counts(), (WaitingCounts{.waited = 1, .dropped = 1}));
}

TEST_F(NeighborOutputTest, ANeighborThatDidNotAnswerIsAskedAgain) {
  neighbors.set(next, NeighborState::failed);
  EXPECT_EQ(send(next), Outcome::done);
  EXPECT_EQ(neighbors.resolved, std::vector{next});
  EXPECT_EQ(output.waiting(), 1u);
}

TEST_F(NeighborOutputTest, NobodyWaitsLongerThanPatienceLasts) {
  EXPECT_EQ(send(next), Outcome::done);
  now += seconds(2);
  EXPECT_EQ(send(next), Outcome::done);
  output.tick(now + milliseconds(999));
  EXPECT_EQ(output.waiting(), 2u);
  output.tick(now + milliseconds(1000));
  EXPECT_EQ(output.waiting(), 1u);
  output.tick(now + seconds(3));
  EXPECT_EQ(output.waiting(), 0u);
  EXPECT_EQ(output.counts(), (WaitingCounts{.waited = 2, .dropped = 2}));
}

TEST_F(NeighborOutputTest, LostNewsAreFoundByTheClock) {
  EXPECT_EQ(send(next), Outcome::done);
  neighbors.set(next, NeighborState::usable);
  output.tick(now);
  EXPECT_EQ(frames.sent.size(), 1u);
  EXPECT_EQ(output.waiting(), 0u);
}

TEST_F(NeighborOutputTest, ANeighborHasRoomForSoManyFrames) {
  for (size_t i = 0; i < NeighborOutput::most_per_neighbor; ++i) EXPECT_EQ(send(next), Outcome::done);
  EXPECT_EQ(send(next), Outcome::queue_full);
  EXPECT_EQ(send(other), Outcome::done);
  output.changed(news(NeighborState::usable));
  EXPECT_EQ(send(next), Outcome::done);
}

TEST_F(NeighborOutputTest, AllTogetherHaveRoomForSoManyFrames) {
  for (uint32_t i = 0; i < NeighborOutput::most; ++i) {
    EXPECT_EQ(send({.ifindex = 2, .addr = 0x0b000000 + i}), Outcome::done);
  }
  EXPECT_EQ(send(next), Outcome::queue_full);
  output.tick(now + seconds(3));
  EXPECT_EQ(output.waiting(), 0u);
  EXPECT_EQ(send(next), Outcome::done);
}

TEST_F(NeighborOutputTest, WhatTheInterfaceDoesNotTakeLaterIsCounted) {
  EXPECT_EQ(send(next), Outcome::done);
  frames.refuses_from = 0;
  output.changed(news(NeighborState::usable));
  EXPECT_EQ(output.counts(), (WaitingCounts{.waited = 1, .not_sent = 1}));
  neighbors.set(next, NeighborState::usable);
  EXPECT_EQ(send(next), Outcome::queue_full) << "and told, when it happens at once";
}

TEST_F(NeighborOutputTest, ErrorsOfTheKernelAreTold) {
  const std::pair<int, Outcome> pairs[] = {{EPERM, Outcome::no_privilege},      {ENODEV, Outcome::no_interface},
                                           {ENETDOWN, Outcome::interface_down}, {ENOBUFS, Outcome::no_memory},
                                           {ENOMEM, Outcome::no_memory},        {ETIMEDOUT, Outcome::kernel}};
  for (const auto &[error, outcome] : pairs) {
    neighbors.find_error = error;
    EXPECT_EQ(send(next), outcome) << error;
    neighbors.find_error = 0;
    neighbors.resolve_error = error;
    EXPECT_EQ(send(next), outcome) << error;
  }
  EXPECT_EQ(output.waiting(), 0u);
}

}  // namespace
