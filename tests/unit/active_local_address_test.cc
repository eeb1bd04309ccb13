// SPDX-License-Identifier: Apache-2.0
// The lowest active local address of a context.
#include "unit/call_lines.h"
#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t table = 20;
const Calls context_lookup = {"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"};

class ActiveLocalAddressTest : public LibraryTest {
 protected:
  ActiveLocalAddressTest() : red(database.context(2, "red", table)) {
    for (uint32_t iod : {5u, 6u, 7u}) database.interface(iod);
  }
  static void down(uint32_t iod) { platform().interfaces[iod].up = false; }
  static void local_route(uint32_t addr, uint32_t data) {
    platform().routes.push_back({.table = table, .addr = addr, .local = true, .first_data = data});
  }
  ip_api_context_type *red;
};

TEST_F(ActiveLocalAddressTest, IsTheLowestWithoutASign) {
  database.node(red, address(200, 0, 0, 1), {5});
  database.node(red, address(10, 0, 0, 2), {6});
  database.node(red, address(10, 0, 0, 3), {6});
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 2));
}

TEST_F(ActiveLocalAddressTest, PassesSubnetsOver) {
  database.node(red, address(10, 0, 0, 0), {5}, {.length = 8});
  database.node(red, address(10, 0, 0, 0), {5}, {.length = 31});
  database.node(red, address(10, 0, 0, 1), {6});
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 1));
}

TEST_F(ActiveLocalAddressTest, PassesAddressesOverThatNobodyHolds) {
  database.node(red, address(10, 0, 0, 1), {}, {.with_info = false});
  database.node(red, address(10, 0, 0, 2), {});
  database.node(red, address(10, 0, 0, 3), {0, 5});
  database.node(red, address(10, 0, 0, 4), {6});
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 4));
  EXPECT_EQ(platform().log.count("im_is_if_up"), 1u);
}

TEST_F(ActiveLocalAddressTest, PassesAddressesOverWhoseFirstHolderIsDown) {
  database.node(red, address(10, 0, 0, 1), {5, 6});
  database.node(red, address(10, 0, 0, 2), {6, 5});
  down(5);
  platform().interfaces[6].admin_up = false;
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 2)) << "the carrier counts, not the administrator";
}

TEST_F(ActiveLocalAddressTest, PassesInactiveVirtualAddressesOver) {
  for (uint32_t host = 1; host <= 3; host++) database.node(red, address(10, 0, 0, host), {5}, {.vip = true});
  local_route(address(10, 0, 0, 1), 0xdeadbeef);
  local_route(address(10, 0, 0, 3), 0);
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 3));
}

TEST_F(ActiveLocalAddressTest, AnActiveVirtualAddressOfAnInterfaceThatIsDownIsPassedOver) {
  database.node(red, address(10, 0, 0, 1), {5}, {.vip = true});
  local_route(address(10, 0, 0, 1), 0);
  down(5);
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
}

TEST_F(ActiveLocalAddressTest, ResolvesTheContextBeforeItTakesTheLock) {
  database.node(red, address(10, 0, 0, 1), {5}, {.vip = true});
  database.node(red, address(10, 0, 0, 2), {6});
  attach();
  ip_get_active_local_address(2);
  Calls names;
  for (const std::string &line : calls()) names.emplace_back(function_of(line));
  EXPECT_EQ(names, (Calls{"tsp_lock_acquire_rdlock", "tsp_lock_release_rdlock", "tsp_lock_acquire_rdlock",
                          "pt_get_first_node", "im_is_if_up", "urib_acquire_rdlock", "urib_get_best_route",
                          "urib_release_rdlock", "pt_get_next_node", "im_is_if_up", "tsp_lock_release_rdlock"}));
  EXPECT_EQ(only(calls(), {"pt_get_next_node", "im_is_if_up", "urib_get_best_route"}),
            (Calls{"im_is_if_up(5)", "urib_get_best_route(20, 10.0.0.1, 0, 0)",
                   "pt_get_next_node(tree of red, 10.0.0.1/32, 0)", "im_is_if_up(6)"}));
}

TEST_F(ActiveLocalAddressTest, TakesNoLockInTheIpProcess) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 1));
  EXPECT_EQ(only(calls(), {"tsp_lock_acquire_rdlock", "tsp_lock_release_rdlock"}), Calls{});
}

TEST_F(ActiveLocalAddressTest, IsNoneInAnEmptyTree) {
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
}

TEST_F(ActiveLocalAddressTest, IsNoneInNoContextWithoutAReport) {
  attach();
  EXPECT_EQ(ip_get_active_local_address(0), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(ActiveLocalAddressTest, IsNoneInAnUnknownContextOrOneWithoutATree) {
  database.context_without_tree(4, "treeless");
  attach();
  EXPECT_EQ(ip_get_active_local_address(99), 0u);
  EXPECT_EQ(calls(), context_lookup) << "no second lock";
  EXPECT_EQ(ip_get_active_local_address(4), 0u);
  EXPECT_EQ(platform().log.count("pt_get_first_node"), 0u);
}

TEST_F(ActiveLocalAddressTest, IsNoneWhenDetached) {
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(ActiveLocalAddressTest, IsNoneWhenAttachmentIsLostWhileItWaitsForTheLock) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
  EXPECT_EQ(platform().log.count("tsp_lock_acquire_rdlock"), 2u) << "of the context, and of the walk";
  EXPECT_EQ(platform().log.count("pt_get_first_node"), 0u);
}

TEST_F(ActiveLocalAddressTest, FailingTreeCallsEndTheWalk) {
  database.node(red, address(10, 0, 0, 1), {7});
  database.node(red, address(10, 0, 0, 2), {5});
  down(7);
  attach();
  platform().scripts.fail_call("pt_get_first_node", 1);
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
  platform().scripts.fail_call("pt_get_next_node", 1);
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 2));
}

TEST_F(ActiveLocalAddressTest, IsNoneWhenTheInterfaceManagerFails) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  platform().scripts.fail("im_is_if_up");
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
}

TEST_F(ActiveLocalAddressTest, ATreeThatNeverEndsIsLeft) {
  auto *node = database.node(red, address(10, 0, 0, 1), {});
  attach();
  platform().scripts.answer("pt_get_next_node", reinterpret_cast<uintptr_t>(node));
  platform().log.record(false);
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
}

}  // namespace
}  // namespace unit
