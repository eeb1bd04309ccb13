// SPDX-License-Identifier: Apache-2.0
// The pool under threads and processes that are killed anywhere, without storage, and with words that damage wrote: the
// others go on, and at the end every buffer is free.
#include <gtest/gtest.h>
#include <pthread.h>

#include <deque>
#include <random>
#include <set>
#include <thread>

#include "pool_rig.h"

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kills = 150;
constexpr int rounds = 20000;
#else
constexpr int kills = 1000;
constexpr int rounds = 200000;
#endif

namespace {

using namespace pool_rig;

class PoolStress : public PoolTest {
 protected:
  // Everything is free: each buffer can be taken once.
  static void expect_everything_free() {
    EXPECT_EQ(in_use(), 0u);
    std::set<struct mbuf *> all;
    for (struct mbuf *m; (m = rsw::take_buffer()) != nullptr;) ASSERT_TRUE(all.insert(m).second);
    EXPECT_EQ(all.size(), rsw::pool::buffer_limit);
    for (struct mbuf *m : all) m_freem(m);
  }

  static void reclaim_everything() {
    rsw::reclaim_buffers_of_the_dead();
    rsw::reclaim_buffers_of_the_dead();
  }
};

// Takes and gives back in turns, up to 200 at once. False: a buffer was somebody else's, too.
bool take_and_give(uint32_t seed, int count) {
  std::mt19937 random(seed);
  std::deque<struct mbuf *> held;
  for (int i = 0; i < count; i++) {
    if (held.size() < 200 && random() % 2 == 0) {
      struct mbuf *m = rsw::take_buffer();
      if (m == nullptr) return false;
      *m->data.get() = static_cast<uint8_t>(seed);
      held.push_back(m);
    } else if (!held.empty()) {
      struct mbuf *m = random() % 2 == 0 ? held.front() : held.back();
      m == held.front() ? held.pop_front() : held.pop_back();
      if (*m->data.get() != static_cast<uint8_t>(seed) || m->owner != getpid()) return false;
      m_freem(m);
    }
  }
  for (struct mbuf *m : held) m_freem(m);
  return true;
}

TEST_F(PoolStress, ThreadsOfManyProcessesShareItAndLoseNothing) {
  const uint32_t seed = std::random_device()();
  SCOPED_TRACE(seed);
  const auto work = [seed](uint32_t process) {
    std::atomic<bool> good{true};
    std::vector<std::thread> threads;
    for (uint32_t thread = 0; thread < 3; thread++) {
      threads.emplace_back([&, thread] {
        if (!take_and_give(seed + process * 8 + thread, rounds)) good = false;
      });
    }
    for (std::thread &thread : threads) thread.join();
    return good.load();
  };
  std::vector<Process> children;
  for (uint32_t process = 1; process < 4; process++) {
    children.emplace_back([&work, process] { return work(process) ? 0 : 1; });
  }
  EXPECT_TRUE(work(0));
  for (Process &child : children) EXPECT_EQ(child.wait(std::chrono::seconds(120)), 0) << child.output();
  reclaim_everything();
  const rsw::PoolReport now = report();
  EXPECT_EQ(now.damaged, 0u);
  EXPECT_EQ(now.free, now.total);
  expect_everything_free();
}

// One thread takes, another one gives back: buffers flow one way.
TEST_F(PoolStress, BuffersThatFlowFromThreadToThreadComeBack) {
  std::atomic<uint32_t> handed{0};
  std::thread other([&] {
    for (int i = 0; i < rounds; i++) {
      uint32_t reference = 0;
      while ((reference = handed.exchange(0, std::memory_order_acquire)) == 0) std::this_thread::yield();
      m_freem(reinterpret_cast<struct mbuf *>(static_cast<uintptr_t>(reference)));
    }
  });
  for (int i = 0; i < rounds; i++) {
    struct mbuf *m = rsw::take_buffer();
    ASSERT_NE(m, nullptr);
    uint32_t nothing = 0;
    while (!handed.compare_exchange_weak(nothing, reference_of(m), std::memory_order_release)) {
      nothing = 0;
      std::this_thread::yield();
    }
  }
  other.join();
  EXPECT_EQ(in_use(), 0u);
  EXPECT_LE(report().high_water, 256u) << "they are found again";
  EXPECT_EQ(report().damaged, 0u);
}

TEST_F(PoolStress, AProcessKilledAnywhereLosesNothing) {
  const uint32_t seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const SharedWords words;
  for (int kill_number = 0; kill_number < kills; kill_number++) {
    words[0].store(0);
    const auto child_seed = static_cast<uint32_t>(random());
    Process child([&] {
      words[0].store(1);
      while (take_and_give(child_seed, 1000)) {
      }
      return 1;
    });
    ASSERT_NE(words.wait(0), 0u);
    for (auto spins = random() % 20000; spins > 0; spins--) words[1].fetch_add(1);
    child.kill_now();
    rsw::reclaim_buffers_of(child.pid());
    ASSERT_EQ(in_use(), 0u) << kill_number;
  }
  const rsw::PoolReport now = report();
  EXPECT_EQ(now.damaged, 0u);
  EXPECT_EQ(now.cached, 0u);
  EXPECT_LE(now.high_water, 512u) << "what was taken back is used again";
  expect_everything_free();
}

// Its words may say anything: nobody faults, loops or takes a buffer that is in use; ipd's next start finds it usable.
TEST_F(PoolStress, DamagedWordsStopNobody) {
  const uint32_t seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  std::set<struct mbuf *> mine;
  for (int i = 0; i < 300; i++) mine.insert(rsw::take_buffer());
  for (int round = 0; round < 300; round++) {
    const uint32_t number = rsw::pool::first_group + static_cast<uint32_t>(random()) % 12;
    rsw::pool::Group &group = rsw::pool::group_at(number);
    const auto value = static_cast<uint32_t>(random() % 3 == 0 ? 0xffffffffu : random());
    switch (random() % 6) {
      case 0:
        group.holder = value;
        break;
      case 1:
        group.free = value;
        break;
      case 2:
        group.returned = value;
        break;
      case 3:
        rsw::pool::control().groups_in_use = random() % 2 == 0 ? value : rsw::pool::first_group + 12;
        break;
      case 4:
        rsw::pool::process_entry(static_cast<uint32_t>(random()) % 32).pid = value;
        break;
      default:
        rsw::pool::process_entry(1).start_time = value;
    }
    std::vector<struct mbuf *> taken;
    for (int i = 0; i < 50; i++) {
      struct mbuf *m = rsw::take_buffer();
      if (m == nullptr) continue;
      ASSERT_FALSE(mine.contains(m)) << "it is in use";
      taken.push_back(m);
    }
    for (struct mbuf *m : taken) rsw::give_buffer_back(m);
    rsw::PoolReport now;
    std::string reason;
    ASSERT_TRUE(rsw::report_pool(&now, &reason));
    ASSERT_LE(now.in_use + now.cached, now.total);
    rsw::reclaim_buffers_of_the_dead();
    rsw::reclaim_buffers_of(static_cast<int32_t>(value & 0x3fffff));
  }
  for (struct mbuf *m : mine) rsw::give_buffer_back(m);
  open();
  struct mbuf *packet = rsw::make_packet(numbered(5000));
  ASSERT_NE(packet, nullptr);
  EXPECT_EQ(bytes_of(packet), numbered(5000));
  m_freem(packet);
}

TEST_F(PoolStress, AGroupWithADamagedHolderIsLostUntilTheNextStart) {
  rsw::pool::group_at(rsw::pool::first_group + 5).holder = 0xfffffc01;
  std::vector<struct mbuf *> all;
  for (struct mbuf *m; (m = rsw::take_buffer()) != nullptr;) all.push_back(m);
  EXPECT_EQ(all.size(), rsw::pool::buffer_limit - rsw::pool::group_buffers);
  for (struct mbuf *m : all) m_freem(m);
  open();
  expect_everything_free();
}

struct Crowd {
  std::atomic<uint32_t> ready{0}, failed{0}, over{0};
};

void *one_of_many(void *crowd) {
  auto &all = *static_cast<Crowd *>(crowd);
  struct mbuf *m = rsw::take_buffer();
  if (m == nullptr) all.failed++;
  all.ready++;
  all.over.wait(0);
  if (m != nullptr) m_freem(m);
  return nullptr;
}

TEST_F(PoolStress, MoreThreadsThanMayCacheGetBuffersToo) {
  constexpr uint32_t count = rsw::pool::threads_with_cache + 20;
  Crowd crowd;
  pthread_attr_t small{};
  ASSERT_EQ(pthread_attr_init(&small), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&small, 128 * 1024), 0);
  std::vector<pthread_t> threads;
  for (uint32_t i = 0; i < count; i++) {
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, &small, one_of_many, &crowd), 0) << i;
    threads.push_back(thread);
  }
  EXPECT_TRUE(test_support::wait_until([&] { return crowd.ready == count; }, std::chrono::seconds(60)));
  EXPECT_EQ(crowd.failed, 0u);
  EXPECT_EQ(in_use(), count);
  crowd.over = 1;
  crowd.over.notify_all();
  for (const pthread_t thread : threads) pthread_join(thread, nullptr);
  pthread_attr_destroy(&small);
  EXPECT_EQ(report().cached, 0u);
  EXPECT_EQ(in_use(), 0u);
}

}  // namespace
