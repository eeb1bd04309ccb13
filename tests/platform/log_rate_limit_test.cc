// SPDX-License-Identifier: Apache-2.0
// The rate limiter with the test's own clock, beside a twin that keeps every message's time.
#include "log/rate_limit.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace {

msg_error_rec record_with_rate(uint32_t rate) {
  msg_error_rec record{};
  record.name = "NAME";
  record.rate = rate;
  return record;
}

bool allowed(rsw::RateLimiter &limiter, const msg_error_rec &record, uint64_t now_ms) {
  rsw::RateLimiter::Answer answer;
  limiter.count(&record, now_ms, &answer);
  return answer.allowed;
}

// The same rule, told by a list of windows per record: nothing is ever forgotten and there is room for all.
class Twin {
 public:
  bool count(const msg_error_rec *record, uint64_t now_ms) {
    if (record->rate == 0) return true;
    std::vector<uint64_t> &times = passed_[record];
    if (times.empty() || now_ms - times.front() >= rsw::RateLimiter::window_ms) times.clear();
    if (times.size() >= record->rate) return false;
    times.push_back(now_ms);
    return true;
  }

 private:
  std::map<const msg_error_rec *, std::vector<uint64_t>> passed_;
};

TEST(RateLimit, RateZeroPutsNoLimit) {
  rsw::RateLimiter limiter;
  const msg_error_rec record = record_with_rate(0);
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(allowed(limiter, record, 5));
}

TEST(RateLimit, TheMessageAfterTheTenthOfAWindowIsHeldBack) {
  rsw::RateLimiter limiter;
  const msg_error_rec record = record_with_rate(10);
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(allowed(limiter, record, 100));
  EXPECT_FALSE(allowed(limiter, record, 100));
  EXPECT_FALSE(allowed(limiter, record, 10099));
}

TEST(RateLimit, AWindowEndsTenSecondsAfterItsFirstMessage) {
  rsw::RateLimiter limiter;
  const msg_error_rec record = record_with_rate(1);
  EXPECT_TRUE(allowed(limiter, record, 100));
  EXPECT_FALSE(allowed(limiter, record, 10099));
  EXPECT_TRUE(allowed(limiter, record, 10100));
}

TEST(RateLimit, TheNextMessageOfAnyRecordTellsHowManyWereHeldBack) {
  rsw::RateLimiter limiter;
  const msg_error_rec storm = record_with_rate(2);
  const msg_error_rec other = record_with_rate(0);
  for (int i = 0; i < 7; ++i) allowed(limiter, storm, 0);
  rsw::RateLimiter::Answer answer;
  limiter.count(&other, 9999, &answer);
  EXPECT_EQ(answer.ended, 0u);
  limiter.count(&other, 10000, &answer);
  ASSERT_EQ(answer.ended, 1u);
  EXPECT_EQ(answer.turned[0].record, &storm);
  EXPECT_EQ(answer.turned[0].count, 5u);
  limiter.count(&other, 10001, &answer);
  EXPECT_EQ(answer.ended, 0u);
}

TEST(RateLimit, RecordsDoNotCountForEachOther) {
  rsw::RateLimiter limiter;
  const msg_error_rec first = record_with_rate(1);
  const msg_error_rec second = record_with_rate(1);
  EXPECT_TRUE(allowed(limiter, first, 0));
  EXPECT_TRUE(allowed(limiter, second, 0));
  EXPECT_FALSE(allowed(limiter, first, 0));
  EXPECT_FALSE(allowed(limiter, second, 0));
}

TEST(RateLimit, ARecordThatFindsTheTableFullIsAllowed) {
  rsw::RateLimiter limiter;
  const std::vector<msg_error_rec> records(rsw::RateLimiter::records + 1, record_with_rate(1));
  for (const msg_error_rec &record : records) EXPECT_TRUE(allowed(limiter, record, 0));
  EXPECT_TRUE(allowed(limiter, records.back(), 1));
  EXPECT_FALSE(allowed(limiter, records.front(), 1));
}

TEST(RateLimit, AgreesWithATwinThatForgetsNothing) {
  rsw::RateLimiter limiter;
  Twin twin;
  std::vector<msg_error_rec> records;
  for (uint32_t i = 0; i < 40; ++i) records.push_back(record_with_rate(i % 12));
  std::mt19937 random(7);
  uint64_t now_ms = 1;
  for (int i = 0; i < 200000; ++i) {
    now_ms += random() % 40;
    const msg_error_rec &record = records[random() % records.size()];
    ASSERT_EQ(allowed(limiter, record, now_ms), twin.count(&record, now_ms)) << "message " << i;
  }
}

TEST(RateLimit, ThreadsTogetherGetNoMoreThanTheRate) {
  rsw::RateLimiter limiter;
  const msg_error_rec record = record_with_rate(100);
  std::atomic<int> passed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) passed.fetch_add(allowed(limiter, record, 0) ? 1 : 0, std::memory_order_relaxed);
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(passed.load(), 100);
}

}  // namespace
