// SPDX-License-Identifier: Apache-2.0
// How many ICMP errors may be sent, on a clock that the test turns.
#include "ipd/packet/icmp_limits.h"

#include <gtest/gtest.h>

namespace {

using ipd::IcmpErrorRule;
using ipd::packet::IcmpLimits;
using std::chrono::milliseconds;
using std::chrono::seconds;

class IcmpLimitsTest : public testing::Test {
 protected:
  bool take(uint32_t destination, uint32_t context = 1) { return limits.take(now, context, destination); }
  // How many of `count` get through at once.
  uint32_t taken(uint32_t count, uint32_t destination) {
    uint32_t good = 0;
    for (uint32_t i = 0; i < count; ++i) good += take(destination) ? 1 : 0;
    return good;
  }
  // The same, each to a destination of its own.
  uint32_t taken_by_many(uint32_t count) {
    uint32_t good = 0;
    for (uint32_t i = 0; i < count; ++i) good += take(++last_destination) ? 1 : 0;
    return good;
  }

  IcmpLimits::Moment now{seconds(1000)};
  IcmpLimits limits{IcmpErrorRule{}};
  uint32_t last_destination = 1000;
};

TEST_F(IcmpLimitsTest, ADestinationGetsSixAtOnce) {
  EXPECT_EQ(taken(20, 7), 6u);
}

TEST_F(IcmpLimitsTest, ADestinationGetsOneASecondAfterThat) {
  EXPECT_EQ(taken(20, 7), 6u);
  now += milliseconds(999);
  EXPECT_FALSE(take(7));
  now += milliseconds(1);
  EXPECT_EQ(taken(20, 7), 1u);
  now += seconds(3);
  EXPECT_EQ(taken(20, 7), 3u);
}

TEST_F(IcmpLimitsTest, ALongRestEarnsNoMoreThanSix) {
  EXPECT_EQ(taken(20, 7), 6u);
  now += seconds(3600);
  EXPECT_EQ(taken(20, 7), 6u);
}

TEST_F(IcmpLimitsTest, WhatIsRefusedCostsNothing) {
  EXPECT_EQ(taken(1000, 7), 6u);
  now += seconds(1);
  EXPECT_TRUE(take(7));
}

TEST_F(IcmpLimitsTest, DestinationsDoNotShare) {
  EXPECT_EQ(taken(20, 7), 6u);
  EXPECT_EQ(taken(20, 8), 6u);
}

TEST_F(IcmpLimitsTest, TheSameAddressInAnotherContextIsAnotherDestination) {
  EXPECT_EQ(taken(20, 7), 6u);
  EXPECT_TRUE(take(7, 2));
}

TEST_F(IcmpLimitsTest, AllTogetherGetFiftyAtOnce) {
  EXPECT_EQ(taken_by_many(200), 50u);
}

TEST_F(IcmpLimitsTest, AllTogetherGetAThousandASecondAfterThat) {
  EXPECT_EQ(taken_by_many(200), 50u);
  now += milliseconds(1);
  EXPECT_EQ(taken_by_many(200), 1u);
  now += milliseconds(20);
  EXPECT_EQ(taken_by_many(200), 20u);
  now += seconds(60);
  EXPECT_EQ(taken_by_many(200), 50u);
}

TEST_F(IcmpLimitsTest, WhatADestinationDoesNotGetIsLeftToOthers) {
  EXPECT_EQ(taken(1000, 7), 6u);
  EXPECT_EQ(taken_by_many(200), 44u);
}

TEST_F(IcmpLimitsTest, WhatAllDoNotGetIsNotCountedAgainstADestination) {
  EXPECT_EQ(taken_by_many(200), 50u);
  EXPECT_EQ(taken(20, 7), 0u);
  now += seconds(1);
  EXPECT_EQ(taken(20, 7), 6u);
}

TEST_F(IcmpLimitsTest, ARateOfZeroIsNoLimit) {
  limits.configure({.rate = 0, .burst = 1, .destination_rate = 0, .destination_burst = 1});
  EXPECT_EQ(taken(100000, 7), 100000u);
  EXPECT_EQ(limits.destinations(), 0u);
}

TEST_F(IcmpLimitsTest, OneLimitHoldsWithoutTheOther) {
  limits.configure({.rate = 0, .burst = 1, .destination_rate = 1, .destination_burst = 2});
  EXPECT_EQ(taken(100, 7), 2u);
  EXPECT_EQ(taken_by_many(1000), 1000u);
  limits.configure({.rate = 1, .burst = 3, .destination_rate = 0, .destination_burst = 1});
  EXPECT_EQ(taken(100, 7), 3u);
}

TEST_F(IcmpLimitsTest, ABurstOfOneKeepsThemApart) {
  limits.configure({.rate = 4, .burst = 1, .destination_rate = 0, .destination_burst = 1});
  EXPECT_EQ(taken(10, 7), 1u);
  now += milliseconds(249);
  EXPECT_EQ(taken(10, 7), 0u);
  now += milliseconds(1);
  EXPECT_EQ(taken(10, 7), 1u);
}

TEST_F(IcmpLimitsTest, TheLargestNumbersHold) {
  limits.configure({.rate = 1000000, .burst = 1000000, .destination_rate = 1, .destination_burst = 1000000});
  EXPECT_EQ(taken(1000010, 7), 1000000u);
}

TEST_F(IcmpLimitsTest, AnotherRuleBeginsAnew) {
  EXPECT_EQ(taken(20, 7), 6u);
  limits.configure({.rate = 1000, .burst = 50, .destination_rate = 1, .destination_burst = 2});
  EXPECT_EQ(taken(20, 7), 2u);
}

TEST_F(IcmpLimitsTest, TheSameRuleAgainChangesNothing) {
  EXPECT_EQ(taken(20, 7), 6u);
  limits.configure({});
  EXPECT_EQ(taken(20, 7), 0u);
}

TEST_F(IcmpLimitsTest, TheTableOfDestinationsIsBounded) {
  limits.configure({.rate = 0, .burst = 1, .destination_rate = 1, .destination_burst = 1});
  EXPECT_TRUE(take(7));
  EXPECT_EQ(taken_by_many(IcmpLimits::most_destinations - 1), IcmpLimits::most_destinations - 1);
  EXPECT_FALSE(take(7)) << "it is still known";
  EXPECT_EQ(taken_by_many(3 * IcmpLimits::most_destinations), 3 * IcmpLimits::most_destinations);
  EXPECT_EQ(limits.destinations(), IcmpLimits::most_destinations);
}

TEST_F(IcmpLimitsTest, WhatWasUsedLongestAgoIsForgottenFirst) {
  limits.configure({.rate = 0, .burst = 1, .destination_rate = 1, .destination_burst = 2});
  EXPECT_EQ(taken(1, 7), 1u);
  EXPECT_EQ(taken(2, 8), 2u);
  taken_by_many(IcmpLimits::most_destinations - 2);
  EXPECT_EQ(taken(2, 7), 1u) << "used again";
  taken_by_many(1);
  EXPECT_EQ(taken(2, 7), 0u);
  EXPECT_EQ(taken(3, 8), 2u) << "forgotten";
}

}  // namespace
