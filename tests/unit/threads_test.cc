// SPDX-License-Identifier: Apache-2.0
// Queries from several threads at once: each thread gets its own right answers, and the lock is given back as often as
// it was taken. The race detector looks on.
#include <atomic>
#include <thread>

#include "unit/library_test.h"

namespace unit {
namespace {

class ThreadsTest : public LibraryTest {
 protected:
  static constexpr int threads = 4;
  static constexpr int rounds = 500;

  // Runs the body, which answers how many of its expectations failed, in all threads.
  template <class Body>
  static int wrong_answers(Body body) {
    std::atomic<int> wrong = 0;
    std::vector<std::thread> running;
    for (int i = 0; i < threads; i++) {
      running.emplace_back([&, i] {
        // Relaxed: a count, read after the threads were joined.
        for (int round = 0; round < rounds; round++) wrong.fetch_add(body(i), std::memory_order_relaxed);
      });
    }
    for (std::thread &thread : running) thread.join();
    return wrong.load();
  }
};

TEST_F(ThreadsTest, EveryThreadGetsTheAnswersToItsOwnQuestions) {
  auto *context = database.context(2, "red");
  for (uint32_t i = 0; i < threads; i++) {
    database.interface(5 + i, {{address(10, 0, i, 1), 24}, {address(10, 0, i, 2), 25}}, 50 + i);
    database.node(context, address(10, 0, i, 1), {5 + i});
  }
  attach();
  platform().log.record(false);
  const int wrong = wrong_answers([](int number) {
    const auto i = static_cast<uint32_t>(number);
    const uint32_t iod = 5 + i;
    uint32_t addr = 0;
    uint8_t len = 0;
    ip_get_next_secondary(iod, &addr, &len);
    int bad = addr == address(10, 0, i, 2) && len == 25 ? 0 : 1;
    bad += ip_get_local_mask_len(address(10, 0, i, 1), iod) == 24 ? 0 : 1;
    bad += ip_is_address_on_interface(address(10, 0, i, 2), iod) == 1 ? 0 : 1;
    bad += ip_get_secondary_count(iod) == 1 ? 0 : 1;
    bad += ip_get_iod_for_local_address("red", address(10, 0, i, 1)) == iod ? 0 : 1;
    bad += ip_get_api_context_id("red") == 2 ? 0 : 1;
    return bad;
  });
  EXPECT_EQ(wrong, 0);
}

TEST_F(ThreadsTest, FailuresThatLeaveTheirReasonDoNotDisturbTheAnswers) {
  database.context(2, "red");
  attach();
  platform().log.record(false);
  const int wrong = wrong_answers([](int) {
    int bad = ip_get_api_context_name(77) == nullptr ? 0 : 1;
    bad += ip_get_iod_for_local_address("green", 1) == 0 ? 0 : 1;
    bad += ip_get_api_context_name(2) != nullptr ? 0 : 1;
    return bad;
  });
  EXPECT_EQ(wrong, 0);
}

TEST_F(ThreadsTest, TheFirstQuestionsToRoutesMayStartUribTogether) {
  database.context(2, "red", 20);
  platform().routes.push_back({.table = 20, .addr = 1, .local = true, .direct = true, .first_iod = 5});
  attach();
  platform().log.record(false);
  const int wrong = wrong_answers([](int) {
    int bad = ip_get_iod_for_address("red", 1) == 5 ? 0 : 1;
    bad += ip_get_iod_from_addr("red", 1) == 5 ? 0 : 1;
    bad += ip_is_addr_attached("red", 1) == 0 ? 0 : 1;
    return bad;
  });
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(ip_api_dep_modules_init_done, 1u);
}

TEST_F(ThreadsTest, CountersAndRouterIdsAreReadByAllAtOnce) {
  database.context(2, "red")->router_id = address(192, 0, 2, 1);
  ip_iftype *record = database.interface(5);
  record->stats = static_cast<uint8_t *>(platform().memory.allocate(1024));
  database.groups(record, {1, 2, 3});
  attach();
  platform().log.record(false);
  const int wrong = wrong_answers([](int) {
    int bad = ip_get_router_id(2) == address(192, 0, 2, 1) ? 0 : 1;
    uint64_t bytes = 1;
    bad += ip_get_mcast_byte_stats_orig(5, &bytes, nullptr) == 1 && bytes == 0 ? 0 : 1;
    ip_get_each_group(
        5, [](uint32_t, uint32_t, uint32_t) { return 0u; }, 0);
    return bad;
  });
  EXPECT_EQ(wrong, 0);
}

TEST_F(ThreadsTest, TheSpecialInterfaceIsTheSameForAll) {
  database.interface(5, {}, 50);
  platform().log.record(false);
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(wrong_answers([](int) { return is_fwd_enabled_spl_iod(5) == 1 && is_fwd_enabled_spl_iod(6) == 0 ? 0 : 1; }),
            0);
  EXPECT_EQ(g_ip_fwd_enabled_spl_iod, 5u);
}

}  // namespace
}  // namespace unit
