// SPDX-License-Identifier: Apache-2.0
// The interface that owns a local address of a context that the caller holds: from the shared database alone.
#include "unit/route_test.h"

namespace unit {
namespace {

constexpr uint32_t local = address(10, 0, 0, 1);
constexpr uint32_t shared = address(10, 0, 0, 2);
constexpr uint32_t bare = address(10, 0, 0, 3);    // a node without information
constexpr uint32_t nobody = address(10, 0, 0, 4);  // a node that no interface holds

class LocalIodTest : public RouteTest {
 protected:
  LocalIodTest() {
    database.node(red, local, {5});
    database.node(red, shared, {7, 5});
    database.node(red, bare, {}, {.with_info = false});
    database.node(red, nobody, {});
    database.node(red, address(10, 0, 0, 0), {9}, {.length = 24});
    treeless = database.context_without_tree(5, "treeless", 50);
    add_route("host", {.addr = local, .local = true, .direct = true, .first_iod = 66});
  }
  ip_api_context_type *treeless;
};

TEST_F(LocalIodTest, IsTheFirstHolderOfTheAddress) {
  attach();
  EXPECT_EQ(ip_get_iod_for_local(red, local), 5u);
  EXPECT_EQ(ip_get_iod_for_local(red, shared), 7u);
  EXPECT_EQ(ip_get_iod_for_local(blue, local), 0u);
}

TEST_F(LocalIodTest, IsLookedUpUnderTheDatabaseLockAndUribIsNotAsked) {
  attach();
  ip_get_iod_for_local(red, local);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "pt_lookup(tree of red, 10.0.0.1, 32, 1)",
                            "tsp_lock_release_rdlock(7)"}));
}

TEST_F(LocalIodTest, TakesNoLockInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ip_get_iod_for_local(red, local), 5u);
  EXPECT_EQ(calls(), Calls{"pt_lookup(tree of red, 10.0.0.1, 32, 1)"});
}

TEST_F(LocalIodTest, IsNoneForAnAddressThatNobodyHolds) {
  attach();
  for (const uint32_t addr : {bare, nobody, address(10, 0, 0, 0), address(10, 0, 0, 9), 0u, ~0u}) {
    EXPECT_EQ(ip_get_iod_for_local(red, addr), 0u) << fake_platform::dotted(addr);
    EXPECT_EQ(calls().back(), "tsp_lock_release_rdlock(7)");
  }
}

TEST_F(LocalIodTest, IsNoneWithoutAContextOrItsTreeUnderTheLock) {
  attach();
  for (ip_api_context_type *context : {static_cast<ip_api_context_type *>(nullptr), treeless}) {
    platform().log.clear();
    EXPECT_EQ(ip_get_iod_for_local(context, local), 0u);
    EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
  }
}

TEST_F(LocalIodTest, IsNoneWithoutTheDatabaseAndTakesNoLock) {
  EXPECT_EQ(ip_get_iod_for_local(red, local), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(LocalIodTest, IsNoneWhenAttachmentIsLostWhileItWaitsForTheLock) {
  attach();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  EXPECT_EQ(ip_get_iod_for_local(red, local), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(LocalIodTest, IsNoneWhenTheTreeLibraryFails) {
  attach();
  platform().scripts.fail("pt_lookup");
  EXPECT_EQ(ip_get_iod_for_local(red, local), 0u);
  EXPECT_EQ(calls().back(), "tsp_lock_release_rdlock(7)");
}

TEST_F(LocalIodTest, NeedsNoTable) {
  red->table_id = 0;
  attach();
  EXPECT_EQ(ip_get_iod_for_local(red, local), 5u);
}

TEST_F(LocalIodTest, StartsUribBeforeItLooksWhetherItIsAttached) {
  ip_api_dep_modules_init_done = 0;
  platform().scripts.fail_call("urib_api_init", 1);
  EXPECT_EQ(ip_get_iod_for_local(red, local), 0u);
  EXPECT_EQ(calls(), (Calls{"urib_api_init()", limited("IP_FAILURE", "Failed call urib_api_init()")}));
  EXPECT_EQ(ip_api_dep_modules_init_done, 0u);
  attach();
  EXPECT_EQ(ip_get_iod_for_local(red, local), 5u);
  EXPECT_EQ(ip_get_iod_for_local(red, local), 5u);
  EXPECT_EQ(platform().log.count("urib_api_init"), 1u);
  EXPECT_EQ(ip_api_dep_modules_init_done, 1u);
}

TEST_F(LocalIodTest, FollowsNoWordThatLeadsOutOfTheDatabase) {
  auto *node = database.node(red, address(10, 0, 0, 20), {5});
  auto *holders = database.node(red, address(10, 0, 0, 21), {5});
  attach();
  for (const uint32_t word :
       {platform().memory.top(), platform().memory.bottom() - 4, platform().memory.bottom() + 2}) {
    node->info.word = word;
    holders->info.get()->iod_list.word = word;
    EXPECT_EQ(ip_get_iod_for_local(red, address(10, 0, 0, 20)), 0u);
    EXPECT_EQ(ip_get_iod_for_local(red, address(10, 0, 0, 21)), 0u);
  }
}

}  // namespace
}  // namespace unit
