// SPDX-License-Identifier: Apache-2.0
// URIB's frame: its read lock as the writer of routes sees it, and the answer while nobody publishes routes.
#include "urib.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

#include "support/process.h"
#include "support/run_directory.h"
#include "tsp.h"
#include "tsp/epochs.h"

namespace {

using rsw::Domain;
using rsw::Epochs;
using test_support::RunDirectory;

class Urib : public testing::Test {
 protected:
  Urib() : epochs_(Epochs::open(&reason_)) {}
  ~Urib() override { urib_api_close(); }
  // Whether all readers of the domain have moved on from what they could see before now.
  bool moved_on(Domain domain) { return epochs_->passed(domain, epochs_->advance(domain)); }
  const RunDirectory directory_;
  std::string reason_;
  std::unique_ptr<Epochs> epochs_;
};

TEST_F(Urib, OpensOnceAndSaysSo) {
  ASSERT_NE(epochs_, nullptr) << reason_;
  EXPECT_EQ(urib_api_init(), 1u);
  EXPECT_EQ(urib_api_init(), 1u);
}

TEST(UribAlone, WithoutAReaderLockSegmentItDoesNotOpenAndStillAnswers) {
  test_support::Process alone([] {
    const RunDirectory empty;
    if (urib_api_init() != 0) return 1;
    urib_acquire_rdlock();
    const bool no_route = urib_get_best_route(1, 0x0a000001, 0, 0) == nullptr;
    urib_release_rdlock();
    urib_api_close();
    return no_route ? 0 : 2;
  });
  EXPECT_EQ(alone.wait(), 0);
}

TEST_F(Urib, AReaderInsideHoldsUpTheWriterOfRoutesAndNobodyElse) {
  ASSERT_EQ(urib_api_init(), 1u);
  urib_acquire_rdlock();
  EXPECT_FALSE(moved_on(Domain::urib));
  EXPECT_TRUE(moved_on(Domain::database));
  urib_release_rdlock();
  EXPECT_TRUE(moved_on(Domain::urib));
}

TEST_F(Urib, TheLockMayBeTakenAgainWhileItIsHeld) {
  ASSERT_EQ(urib_api_init(), 1u);
  urib_acquire_rdlock();
  urib_acquire_rdlock();
  urib_release_rdlock();
  EXPECT_FALSE(moved_on(Domain::urib));
  urib_release_rdlock();
  EXPECT_TRUE(moved_on(Domain::urib));
}

TEST_F(Urib, TheLockNestsInsideTheDatabaseLock) {
  const uint32_t database = tsp_create_rwsem_lock(0, 6);
  ASSERT_NE(database, 0u);
  ASSERT_EQ(urib_api_init(), 1u);
  tsp_lock_acquire_rdlock(database);
  urib_acquire_rdlock();
  urib_release_rdlock();
  EXPECT_TRUE(moved_on(Domain::urib));
  EXPECT_FALSE(moved_on(Domain::database));
  tsp_lock_release_rdlock(database);
  tsp_destroy_lock(database);
}

TEST_F(Urib, ReleasingWithoutHoldingIsNothing) {
  ASSERT_EQ(urib_api_init(), 1u);
  urib_release_rdlock();
  urib_acquire_rdlock();
  EXPECT_FALSE(moved_on(Domain::urib));
  urib_release_rdlock();
  EXPECT_TRUE(moved_on(Domain::urib));
}

TEST_F(Urib, AReleaseAfterACloseStillFindsItsLock) {
  ASSERT_EQ(urib_api_init(), 1u);
  urib_acquire_rdlock();
  urib_api_close();
  urib_api_close();
  urib_release_rdlock();
  EXPECT_TRUE(moved_on(Domain::urib));
}

TEST_F(Urib, ThreadsMayOpenTogether) {
  uint32_t opened[4] = {};
  std::thread threads[4];
  for (int t = 0; t < 4; ++t) threads[t] = std::thread([&opened, t] { opened[t] = urib_api_init(); });
  for (std::thread &thread : threads) thread.join();
  for (const uint32_t result : opened) EXPECT_EQ(result, 1u);
}

constexpr uint32_t some_tables[] = {0, 1, 254, 0xffffffff};
constexpr uint32_t some_addresses[] = {0, 0x7f000001, 0x0a000001, 0xffffffff};
constexpr uint32_t some_lengths[] = {0, 8, 24, 32, 0xffffffff};

TEST_F(Urib, NoKindOfLookupFindsARouteInAnyTableWhileNobodyPublishesRoutes) {
  ASSERT_EQ(urib_api_init(), 1u);
  urib_acquire_rdlock();
  for (const uint32_t table : some_tables) {
    for (const uint32_t addr : some_addresses) {
      EXPECT_EQ(urib_get_best_route(table, addr, 0, 0), nullptr);
      EXPECT_EQ(urib_get_best_direct_route(table, addr), nullptr);
      for (const uint32_t length : some_lengths) {
        EXPECT_EQ(urib_get_route(table, addr, length), nullptr);
        EXPECT_EQ(urib_get_mbest_route_for_prefix(table, addr, length, 0, 0), nullptr);
      }
    }
  }
  urib_release_rdlock();
}

TEST_F(Urib, NoDestinationIsReachableAndTheCallersPathStaysAsItWas) {
  ASSERT_EQ(urib_api_init(), 1u);
  for (const uint32_t table : some_tables) {
    for (const uint32_t addr : some_addresses) {
      urib_path path{.iod = 7, .table_id = 8, .next_hop = 9, .reserved = {}};
      uint32_t words[2] = {10, 11};
      EXPECT_EQ(urib_get_path_v2(table, addr, 0, 0, 0, &path, &words[0], &words[1], 1), 0u);
      EXPECT_EQ(path.iod, 7u);
      EXPECT_EQ(path.table_id, 8u);
      EXPECT_EQ(path.next_hop, 9u);
      EXPECT_EQ(words[0], 10u);
      EXPECT_EQ(words[1], 11u);
    }
  }
}

TEST_F(Urib, NoRouteIsOfNoKindAndHasNoNextHop) {
  EXPECT_EQ(urib_is_route_attached(nullptr), 0u);
  EXPECT_EQ(urib_is_route_local(nullptr), 0u);
  EXPECT_EQ(urib_is_route_mstatic(nullptr), 0u);
  EXPECT_EQ(urib_route_first_bnh_iod_get(nullptr), 0u);
  EXPECT_EQ(urib_route_first_bnh_nib_data_get(nullptr), 0u);
  for (const uint32_t selector : {0u, 1u, 0xffffffffu}) {
    EXPECT_EQ(urib_route_mbnh_iod_get(nullptr, selector), 0u);
    EXPECT_EQ(urib_route_mbnh_addr_get(nullptr, selector), 0u);
  }
}

}  // namespace
