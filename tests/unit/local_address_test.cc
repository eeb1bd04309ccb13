// SPDX-License-Identifier: Apache-2.0
// Questions to a context: which interface holds an address, an interface's virtual address, and the URIB's view.
#include <cstring>

#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t local = address(10, 0, 0, 1);
constexpr uint32_t shared = address(10, 0, 0, 2);
constexpr uint32_t bare = address(10, 0, 0, 3);    // a node without information
constexpr uint32_t nobody = address(10, 0, 0, 4);  // a node that no interface holds

// Both names of the same question.
struct Holder {
  const char *name;
  uint32_t (*ask)(const char *context, uint32_t addr);
};

class HolderOfAddress : public LibraryTest, public testing::WithParamInterface<Holder> {
 protected:
  HolderOfAddress() {
    auto *red = database.context(2, "red", 20);
    database.node(red, local, {5});
    database.node(red, shared, {7, 5, 6});
    database.node(red, bare, {}, {.with_info = false});
    database.node(red, nobody, {});
    database.node(red, address(10, 0, 0, 0), {9}, {.length = 24});
    database.node(database.context(3, "blue", 30), local, {8});
    database.context_without_tree(4, "treeless");
  }
  static uint32_t ask(const char *context, uint32_t addr) { return GetParam().ask(context, addr); }
};

TEST_P(HolderOfAddress, IsTheIodInThatContext) {
  attach();
  EXPECT_EQ(ask("red", local), 5u);
  EXPECT_EQ(ask("blue", local), 8u);
  EXPECT_STREQ(ip_api_get_error(), "");
}

TEST_P(HolderOfAddress, LeavesNothingOfAnEarlierErrorText) {
  attach();
  memset(ip_api_err_log, 'y', sizeof ip_api_err_log - 1);
  EXPECT_EQ(ask("red", local), 5u);
  for (size_t i = 0; i < sizeof ip_api_err_log; ++i) ASSERT_EQ(ip_api_err_log[i], '\0') << i;
}

TEST_P(HolderOfAddress, IsTheFirstOfSeveral) {
  attach();
  EXPECT_EQ(ask("red", shared), 7u);
}

TEST_P(HolderOfAddress, LooksTheContextUpUnderTheLockAndThenTheAddress) {
  attach();
  ask("red", local);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            "pt_lookup(tree of red, 10.0.0.1, 32, 1)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(HolderOfAddress, TakesNoLockInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ask("red", local), 5u);
  EXPECT_EQ(calls(), Calls{"pt_lookup(tree of red, 10.0.0.1, 32, 1)"});
}

TEST_P(HolderOfAddress, IsNoneWithoutAReasonWhenNobodyHoldsIt) {
  attach();
  for (uint32_t addr : {address(10, 0, 0, 9), bare, nobody, 0u}) {
    EXPECT_EQ(ask("red", addr), 0u) << fake_platform::dotted(addr);
    EXPECT_STREQ(ip_api_get_error(), "");
  }
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 0u);
}

TEST_P(HolderOfAddress, IsNoneWhenTheTreeLibraryFails) {
  attach();
  platform().scripts.fail("pt_lookup");
  EXPECT_EQ(ask("red", local), 0u);
  EXPECT_STREQ(ip_api_get_error(), "");
}

TEST_P(HolderOfAddress, InAnUnknownContextLeavesItsReason) {
  attach();
  EXPECT_EQ(ask("Red", local), 0u);
  EXPECT_STREQ(ip_api_get_error(), "Failed to get ctxt_type for context Red");
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            "tsp_lock_release_rdlock(7)"}));
}

TEST_P(HolderOfAddress, InAContextWithoutATreeLeavesItsReason) {
  attach();
  EXPECT_EQ(ask("treeless", local), 0u);
  EXPECT_STREQ(ip_api_get_error(), "Local PT not found for context treeless");
  EXPECT_EQ(platform().log.count("pt_lookup"), 0u);
}

TEST_P(HolderOfAddress, WithoutAContextNameIsReportedFirst) {
  memset(ip_api_err_log, 'x', 20);
  EXPECT_EQ(ask(nullptr, local), 0u);
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "context name not specified")});
  EXPECT_STREQ(ip_api_get_error(), "") << "cleared on entry";
}

TEST_P(HolderOfAddress, WithoutAttachmentIsReported) {
  memset(ip_api_err_log, 'x', 20);
  EXPECT_EQ(ask("red", local), 0u);
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "client not attached")});
  EXPECT_STREQ(ip_api_get_error(), "");
}

TEST_P(HolderOfAddress, WithQueuesOnlyFindsNoContext) {
  ip_api_init_mts_q();
  EXPECT_EQ(ask("red", local), 0u);
  EXPECT_STREQ(ip_api_get_error(), "Failed to get ctxt_type for context red");
}

TEST_P(HolderOfAddress, ASuccessClearsTheReasonOfAnEarlierFailure) {
  attach();
  ask("none", local);
  EXPECT_EQ(ask("red", local), 5u);
  EXPECT_STREQ(ip_api_get_error(), "");
}

INSTANTIATE_TEST_SUITE_P(Names, HolderOfAddress,
                         testing::Values(Holder{"IodForLocalAddress", ip_get_iod_for_local_address},
                                         Holder{"AlliodForAddress", ip_get_alliod_for_address}),
                         [](const auto &of) { return std::string(of.param.name); });

// ------------------------------------------------------------ an interface's virtual address

class BestVipTest : public LibraryTest {
 protected:
  static constexpr uint32_t untouched = 0xabcdef01;

  BestVipTest() {
    red = database.context(2, "red", 20);
    database.node(red, address(10, 0, 0, 1), {5});
    database.node(red, address(10, 0, 0, 7), {6, 5}, {.vip = true});
    database.node(red, address(10, 0, 0, 8), {5}, {.vip = true});
    database.node(red, address(10, 0, 0, 9), {5}, {.vip = true});
    database.node(red, address(10, 0, 1, 0), {}, {.with_info = false});
    database.interface(5, {{address(10, 0, 0, 1), 24}});
    database.context_without_tree(4, "treeless");
  }

  ip_api_context_type *red;
  uint32_t out = untouched;
};

TEST_F(BestVipTest, IsTheFirstVirtualAddressWhoseFirstHolderItIs) {
  attach();
  EXPECT_EQ(ip_get_best_intf_vip(2, address(10, 0, 0, 1), 5, &out), 1u);
  EXPECT_EQ(out, address(10, 0, 0, 8));
}

TEST_F(BestVipTest, OnlyTheFirstHolderOfAnAddressCounts) {
  attach();
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 6, &out), 1u);
  EXPECT_EQ(out, address(10, 0, 0, 7));
}

TEST_F(BestVipTest, WalksTheTreeFromTheAddressAndItsMaskLength) {
  attach();
  ip_get_best_intf_vip(2, address(10, 0, 0, 1), 5, &out);
  EXPECT_EQ(calls(), (Calls{
                         "tsp_lock_acquire_rdlock(7)",
                         "tsp_lock_acquire_rdlock(7)",  // the context
                         "tsp_lock_release_rdlock(7)",
                         "tsp_lock_acquire_rdlock(7)",  // the mask length
                         "lcache_im_get_extension1(5, 267)",
                         "tsp_lock_release_rdlock(7)",
                         "pt_get_first_node(tree of red, 10.0.0.1/24, 0)",
                         "pt_get_next_node(tree of red, 10.0.0.1/32, 0)",
                         "pt_get_next_node(tree of red, 10.0.0.7/32, 0)",
                         "tsp_lock_release_rdlock(7)",
                     }));
}

TEST_F(BestVipTest, TakesNoLockInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 5, &out), 1u);
  EXPECT_EQ(platform().log.count("tsp_lock_acquire_rdlock"), 0u);
  EXPECT_EQ(platform().log.count("tsp_lock_release_rdlock"), 0u);
}

TEST_F(BestVipTest, AMissLeavesTheLastVirtualAddressSeen) {
  attach();
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 77, &out), 0u);
  EXPECT_EQ(out, address(10, 0, 0, 9));
}

TEST_F(BestVipTest, AVirtualAddressThatNobodyHoldsBelongsToNoInterface) {
  database.node(red, address(10, 0, 0, 2), {}, {.vip = true});
  attach();
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 0, &out), 1u) << "no interface is 0";
  EXPECT_EQ(out, address(10, 0, 0, 2));
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 5, &out), 1u);
  EXPECT_EQ(out, address(10, 0, 0, 8));
}

TEST_F(BestVipTest, AVirtualSubnetCountsAsWell) {
  database.node(red, address(10, 0, 0, 0), {5}, {.length = 24, .vip = true});
  attach();
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 5, &out), 1u);
  EXPECT_EQ(out, address(10, 0, 0, 0));
}

TEST_F(BestVipTest, WithoutVirtualAddressesOutIsNotWritten) {
  database.node(database.context(3, "blue"), address(10, 0, 0, 1), {5});
  attach();
  EXPECT_EQ(ip_get_best_intf_vip(3, 0, 5, &out), 0u);
  EXPECT_EQ(out, untouched);
}

TEST_F(BestVipTest, AnEmptyTreeHasNone) {
  database.context(3, "blue");
  attach();
  EXPECT_EQ(ip_get_best_intf_vip(3, 0, 5, &out), 0u);
  EXPECT_EQ(out, untouched);
}

TEST_F(BestVipTest, ANullOutIsNoAndAsksNobody) {
  attach();
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 5, nullptr), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(BestVipTest, AnUnknownContextIsNo) {
  attach();
  EXPECT_EQ(ip_get_best_intf_vip(99, 0, 5, &out), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            "tsp_lock_release_rdlock(7)"}));
  EXPECT_EQ(out, untouched);
}

TEST_F(BestVipTest, ContextZeroIsReportedByTheContextLookup) {
  attach();
  EXPECT_EQ(ip_get_best_intf_vip(0, 0, 5, &out), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", limited("INVALID_NOTIFY", "Failed to get IP API VRF 0"),
                            "tsp_lock_release_rdlock(7)"}));
}

TEST_F(BestVipTest, AContextWithoutATreeIsNo) {
  attach();
  EXPECT_EQ(ip_get_best_intf_vip(4, 0, 5, &out), 0u);
  EXPECT_EQ(platform().log.count("pt_get_first_node"), 0u);
}

TEST_F(BestVipTest, DetachedIsNoUnderTheLock) {
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 5, &out), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(0)", "tsp_lock_release_rdlock(0)"}));
}

TEST_F(BestVipTest, FailingTreeCallsEndTheWalk) {
  attach();
  platform().scripts.fail_call("pt_get_first_node", 1);
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 5, &out), 0u);
  EXPECT_EQ(out, untouched);
  platform().scripts.fail_call("pt_get_next_node", 2);
  EXPECT_EQ(ip_get_best_intf_vip(2, 0, 5, &out), 0u);
  EXPECT_EQ(out, address(10, 0, 0, 7));
}

// ------------------------------------------------------------ the URIB's view

class ActiveLocalTest : public LibraryTest {
 protected:
  static constexpr uint32_t table = 20;
  static constexpr uint32_t addr = address(10, 0, 0, 1);

  ActiveLocalTest() {
    platform().routes.push_back({.table = table, .addr = addr, .local = true, .first_iod = 5});
    platform().log.name(&platform().routes.back(), "route");
  }
  fake_platform::Route &route() { return platform().routes.front(); }
};

TEST_F(ActiveLocalTest, IsYesForALocalRouteWithALiveNextHop) {
  EXPECT_EQ(ip_urib_is_addr_active_local(table, addr), 1u);
  EXPECT_EQ(calls(),
            (Calls{"urib_acquire_rdlock()", "urib_get_best_route(20, 10.0.0.1, 0, 0)", "urib_is_route_local(route)",
                   "urib_route_first_bnh_nib_data_get(route)", "urib_release_rdlock()"}));
}

TEST_F(ActiveLocalTest, IsNoForADeadNextHop) {
  route().first_data = 0xdeadbeef;
  EXPECT_EQ(ip_urib_is_addr_active_local(table, addr), 0u);
  route().first_data = 0xdeadbeee;
  EXPECT_EQ(ip_urib_is_addr_active_local(table, addr), 1u);
}

TEST_F(ActiveLocalTest, IsNoForARouteThatIsNotLocal) {
  route().local = false;
  EXPECT_EQ(ip_urib_is_addr_active_local(table, addr), 0u);
  EXPECT_EQ(calls().back(), "urib_release_rdlock()");
}

TEST_F(ActiveLocalTest, IsNoWithoutARoute) {
  EXPECT_EQ(ip_urib_is_addr_active_local(table + 1, addr), 0u);
  EXPECT_EQ(calls(),
            (Calls{"urib_acquire_rdlock()", "urib_get_best_route(21, 10.0.0.1, 0, 0)", "urib_release_rdlock()"}));
}

TEST_F(ActiveLocalTest, TakesTheBestRouteOnly) {
  platform().routes.push_back({.table = table, .addr = address(10, 0, 0, 0), .length = 8, .local = true});
  route().local = false;
  EXPECT_EQ(ip_urib_is_addr_active_local(table, addr), 0u);
}

TEST_F(ActiveLocalTest, TableZeroReleasesALockItDidNotTake) {
  EXPECT_EQ(ip_urib_is_addr_active_local(0, addr), 0u);
  EXPECT_EQ(calls(), Calls{"urib_release_rdlock()"});
  expect_urib_depth(-1);
}

struct UribFailure {
  const char *function;
};

class FailedUrib : public ActiveLocalTest, public testing::WithParamInterface<UribFailure> {};

TEST_P(FailedUrib, IsNoAndReleasesTheLock) {
  platform().scripts.fail(GetParam().function);
  EXPECT_EQ(ip_urib_is_addr_active_local(table, addr), 0u);
  EXPECT_EQ(calls().back(), "urib_release_rdlock()");
}

INSTANTIATE_TEST_SUITE_P(Calls, FailedUrib,
                         testing::Values(UribFailure{"urib_get_best_route"}, UribFailure{"urib_is_route_local"},
                                         UribFailure{"urib_route_first_bnh_nib_data_get"}),
                         [](const auto &of) { return std::string(of.param.function); });

}  // namespace
}  // namespace unit
