// SPDX-License-Identifier: Apache-2.0
// The source address towards a destination: where the path ends decides which of the context's addresses it is.
#include "unit/route_test.h"

namespace unit {
namespace {

constexpr uint32_t untouched = 0xabcdef01;
constexpr uint32_t loopback = address(1, 1, 1, 1);
constexpr uint32_t destination = address(10, 0, 1, 9);

// Red: a loopback, which has the lowest address, and an interface with two subnets; blue: one of its own.
class RouteSourceTest : public RouteTest {
 protected:
  RouteSourceTest() {
    database.interface(7, {{loopback, 32}});
    database.interface(5, {{address(10, 0, 0, 1), 24}, {address(10, 0, 1, 1), 24}});
    database.interface(8, {{address(172, 16, 0, 1), 24}});
    database.interface(9);  // without an address
    database.node(red, loopback, {7});
    database.node(red, address(10, 0, 0, 1), {5});
    database.node(red, address(10, 0, 1, 1), {5});
    database.node(blue, address(172, 16, 0, 1), {8});
  }
  uint32_t source_for(uint32_t addr) { return ip_get_route(2, in_network_order(addr), &iod); }

  uint32_t iod = untouched;
};

TEST_F(RouteSourceTest, IsTheBestAddressOfTheInterfaceThatThePathLeavesBy) {
  add_route("default", {.length = 0, .first_iod = 5});
  attach();
  EXPECT_EQ(source_for(destination), address(10, 0, 1, 1)) << "the secondary's subnet";
  EXPECT_EQ(iod, 5u);
  EXPECT_EQ(source_for(address(192, 0, 2, 1)), address(10, 0, 0, 1)) << "no subnet: the primary";
}

TEST_F(RouteSourceTest, AsksForThePathInHostOrderWithoutAnyLock) {
  add_route("default", {.length = 0, .first_iod = 5});
  attach();
  source_for(destination);
  const Calls made = calls();
  ASSERT_GE(made.size(), 3u);
  EXPECT_EQ((Calls{made.begin(), made.begin() + 3}), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                                                            "urib_get_path_v2(20, 10.0.1.9, 0, 0, 0, 1)"}));
  EXPECT_FALSE(called("urib_acquire_rdlock"));
  EXPECT_FALSE(called("urib_release_rdlock"));
}

TEST_F(RouteSourceTest, HandsInAClearedPath) {
  add_route("default", {.length = 0, .first_iod = 5});
  attach();
  source_for(destination);
  source_for(destination);
  ASSERT_EQ(platform().paths_handed_in.size(), 2u);
  for (const urib_path &path : platform().paths_handed_in) {
    EXPECT_EQ(path.iod, 0u);
    EXPECT_EQ(path.table_id, 0u);
    EXPECT_EQ(path.next_hop, 0u);
    for (const uint32_t word : path.reserved) EXPECT_EQ(word, 0u);
  }
}

TEST_F(RouteSourceTest, OfAnInterfaceWithoutAddressIsTheContextsActiveAddress) {
  add_route("default", {.length = 0, .first_iod = 9});
  attach();
  EXPECT_EQ(source_for(destination), loopback);
  EXPECT_EQ(iod, 9u) << "stored, though the address does not lie on it";
}

TEST_F(RouteSourceTest, OfAPathWithoutAnInterfaceIsTheContextsActiveAddress) {
  add_route("default", {.length = 0, .first_iod = 0});
  attach();
  EXPECT_EQ(source_for(destination), loopback);
  EXPECT_EQ(iod, 0u);
}

TEST_F(RouteSourceTest, OfALeakedRouteIsTheOwnContextsActiveAddress) {
  add_route("leaked", {.length = 0, .first_iod = 8, .path_table = blue_table});
  attach();
  EXPECT_EQ(source_for(destination), loopback) << "not the address of the other context's interface";
  EXPECT_EQ(iod, 8u) << "the path's";
}

TEST_F(RouteSourceTest, OfALeakedRouteIgnoresTheInterfacesAddresses) {
  add_route("leaked", {.length = 0, .first_iod = 5, .path_table = blue_table});
  attach();
  EXPECT_EQ(source_for(destination), loopback);
  EXPECT_FALSE(called("lcache_im_get_extension1"));
}

TEST_F(RouteSourceTest, IsNoneWhenNeitherInterfaceNorContextHasOne) {
  add_route("default", {.table = blue_table, .length = 0, .first_iod = 9});
  platform().interfaces[8].up = false;
  attach();
  EXPECT_EQ(ip_get_route(3, in_network_order(destination), &iod), 0u);
  EXPECT_EQ(iod, 9u) << "stored all the same";
}

TEST_F(RouteSourceTest, WithoutAPathIsNoneAndWritesNothing) {
  attach();
  EXPECT_EQ(source_for(destination), 0u);
  EXPECT_EQ(iod, untouched);
  add_route("default", {.length = 0, .first_iod = 5});
  platform().scripts.fail("urib_get_path_v2");
  EXPECT_EQ(source_for(destination), 0u);
  EXPECT_EQ(iod, untouched);
}

TEST_F(RouteSourceTest, OfAMulticastDestinationIsNoneAndWritesNothing) {
  add_route("default", {.length = 0, .first_iod = 5});
  attach();
  for (const uint32_t addr : {address(224, 0, 0, 0), address(224, 0, 0, 5), address(239, 255, 255, 255)}) {
    EXPECT_EQ(source_for(addr), 0u) << fake_platform::dotted(addr);
    EXPECT_EQ(iod, untouched);
  }
  EXPECT_FALSE(called("urib_get_path_v2"));
}

TEST_F(RouteSourceTest, KnowsWhereMulticastBeginsAndEnds) {
  add_route("default", {.length = 0, .first_iod = 5});
  attach();
  for (const uint32_t addr : {address(223, 255, 255, 255), address(240, 0, 0, 0), address(0, 0, 0, 224), 0u, ~0u}) {
    iod = untouched;
    EXPECT_EQ(source_for(addr), address(10, 0, 0, 1)) << fake_platform::dotted(addr);
    EXPECT_EQ(iod, 5u);
  }
}

TEST_F(RouteSourceTest, WithoutSomewhereToPutTheInterfaceIsNone) {
  add_route("default", {.length = 0, .first_iod = 5});
  attach();
  EXPECT_EQ(ip_get_route(2, in_network_order(destination), nullptr), 0u);
  EXPECT_FALSE(called("urib_get_path_v2"));
}

TEST_F(RouteSourceTest, InAnUnknownContextIsNone) {
  add_route("default", {.length = 0, .first_iod = 5});
  attach();
  EXPECT_EQ(ip_get_route(99, in_network_order(destination), &iod), 0u);
  EXPECT_EQ(iod, untouched);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_F(RouteSourceTest, InContextZeroIsReportedByTheLookup) {
  attach();
  EXPECT_EQ(ip_get_route(0, in_network_order(destination), &iod), 0u);
  EXPECT_EQ(iod, untouched);
  EXPECT_EQ(calls(), Calls{limited("INVALID_NOTIFY", "Failed to get IP API VRF 0")});
}

TEST_F(RouteSourceTest, LooksForTheContextBeforeItLooksAtTheDestination) {
  attach();
  EXPECT_EQ(ip_get_route(0, in_network_order(address(224, 0, 0, 5)), nullptr), 0u);
  EXPECT_EQ(calls(), Calls{limited("INVALID_NOTIFY", "Failed to get IP API VRF 0")});
}

TEST_F(RouteSourceTest, InAContextWithoutATableIsNoneBeforeUribIsAsked) {
  add_route("default", {.length = 0, .first_iod = 5});
  attach();
  EXPECT_EQ(ip_get_route(4, in_network_order(destination), &iod), 0u);
  EXPECT_EQ(iod, untouched);
  EXPECT_FALSE(called("urib_get_path_v2"));
}

TEST_F(RouteSourceTest, WithoutTheDatabaseIsNone) {
  add_route("default", {.length = 0, .first_iod = 5});
  EXPECT_EQ(source_for(destination), 0u);
  EXPECT_EQ(iod, untouched);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(RouteSourceTest, TakesNoLockInTheIpProcess) {
  add_route("default", {.length = 0, .first_iod = 5});
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(source_for(destination), address(10, 0, 1, 1));
  EXPECT_FALSE(called("tsp_lock_acquire_rdlock"));
  EXPECT_FALSE(called("tsp_lock_release_rdlock"));
}

TEST_F(RouteSourceTest, StartsUribBeforeItLooksAtItsArguments) {
  attach();
  ip_api_dep_modules_init_done = 0;
  platform().scripts.fail_call("urib_api_init", 1);
  EXPECT_EQ(ip_get_route(2, in_network_order(destination), nullptr), 0u);
  EXPECT_EQ((Calls{calls()[0], calls()[1]}),
            (Calls{"urib_api_init()", limited("IP_FAILURE", "Failed call urib_api_init()")}));
  EXPECT_EQ(ip_api_dep_modules_init_done, 0u);
}

TEST_F(RouteSourceTest, GoesOnWhenUribDoesNotStartAndTheNextOneTriesAgain) {
  add_route("default", {.length = 0, .first_iod = 5});
  attach();
  ip_api_dep_modules_init_done = 0;
  platform().scripts.fail_call("urib_api_init", 1);
  EXPECT_EQ(source_for(destination), address(10, 0, 1, 1));
  EXPECT_EQ(source_for(destination), address(10, 0, 1, 1));
  EXPECT_EQ(source_for(destination), address(10, 0, 1, 1));
  EXPECT_EQ(platform().log.count("urib_api_init"), 2u);
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 1u);
}

}  // namespace
}  // namespace unit
