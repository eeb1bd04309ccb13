// SPDX-License-Identifier: Apache-2.0
// When a writer that takes over has to make room, and what it leaves to readers that are inside a question.
#include "sm/make_room.h"

#include <gtest/gtest.h>

#include "platform/simulated_epochs.h"
#include "support/run_directory.h"

namespace {

using namespace std::chrono_literals;
using rsw::RecordType;

constexpr RecordType first_type = 1;
constexpr RecordType other_type = 2;
constexpr uint32_t mebibyte = 1u << 20;
constexpr rsw::RecordTypeInfo types[] = {{first_type, mebibyte, 64, 0, "first"},
                                         {other_type, mebibyte, 64, 0, "other"}};
// As many records of either type as fit, all in all.
constexpr uint32_t most = 47;

class MakeRoom : public testing::Test {
 protected:
  MakeRoom() { take_over(); }
  void take_over() {
    arena_.reset();
    segment_.reset();
    std::string reason;
    segment_ = rsw::SegmentMap::create(rsw::segment_im, &reason);
    if (segment_ == nullptr) throw std::runtime_error(reason);
    arena_ = rsw::Arena::open(segment_, epochs_, rsw::Domain::database, 4096, types, limits, &reason);
    if (arena_ == nullptr || !segment_->publish_name(&reason)) throw std::runtime_error(reason);
  }
  // How many more there were.
  uint32_t allocate(RecordType type, uint32_t wanted = most) {
    uint32_t count = 0;
    while (count < wanted && arena_->allocate(type) != nullptr) ++count;
    return count;
  }
  bool make_room() {
    return rsw::make_room(*segment_, *arena_, limits, "nothing is served", [this] { ++withdrawn_; });
  }

  static constexpr rsw::ArenaLimits limits{.quarantine = 0ms, .retired_bytes_cap = UINT64_MAX};
  test_support::RunDirectory run_;
  test_support::SimulatedEpochs epochs_{1};
  std::shared_ptr<rsw::SegmentMap> segment_;
  std::unique_ptr<rsw::Arena> arena_;
  int withdrawn_ = 0;
};

TEST_F(MakeRoom, WhereAsMuchAgainHasRoomAllStays) {
  ASSERT_EQ(allocate(first_type, most / 2), most / 2);
  take_over();
  EXPECT_FALSE(make_room());
  EXPECT_EQ(withdrawn_, 0);
  EXPECT_EQ(allocate(first_type), most - most / 2) << "something was freed";
}

TEST_F(MakeRoom, WhatWasLeftIsFreeOnceReadersWereLedAway) {
  ASSERT_EQ(allocate(first_type), most);
  take_over();
  EXPECT_TRUE(make_room());
  EXPECT_EQ(withdrawn_, 1);
  EXPECT_EQ(allocate(first_type), most);
}

TEST_F(MakeRoom, WhatIsFreeOfOneTypeIsNoRoomForAnother) {
  ASSERT_EQ(allocate(first_type, 20), 20u);
  take_over();
  arena_->retire_unadopted();
  arena_->tick(std::chrono::steady_clock::now());
  ASSERT_EQ(allocate(other_type, 14), 14u);
  take_over();
  EXPECT_TRUE(make_room()) << "20 are free and 13 fresh, but the 20 are of another type";
  EXPECT_EQ(allocate(other_type, 27), 27u);
}

TEST_F(MakeRoom, WhatIsFreeOfItsTypeIsRoom) {
  ASSERT_EQ(allocate(first_type, 40), 40u);
  take_over();
  arena_->retire_unadopted();
  arena_->tick(std::chrono::steady_clock::now());
  ASSERT_EQ(allocate(first_type, 20), 20u);
  take_over();
  EXPECT_FALSE(make_room());
}

TEST_F(MakeRoom, AdoptedRecordsStay) {
  void *kept = arena_->allocate(first_type);
  ASSERT_EQ(allocate(first_type), most - 1);
  take_over();
  ASSERT_TRUE(arena_->adopt(first_type, kept));
  EXPECT_TRUE(make_room());
  EXPECT_EQ(allocate(first_type), most - 1);
}

TEST_F(MakeRoom, AReaderInsideAQuestionKeepsWhatItMaySee) {
  ASSERT_EQ(allocate(first_type), most);
  take_over();
  epochs_.enter(0);
  EXPECT_TRUE(make_room());
  EXPECT_EQ(allocate(first_type), 0u);
  epochs_.leave(0);
  arena_->tick(std::chrono::steady_clock::now());
  EXPECT_EQ(allocate(first_type), most);
}

}  // namespace
