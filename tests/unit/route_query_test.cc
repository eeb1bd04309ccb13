// SPDX-License-Identifier: Apache-2.0
// Which route answers each unicast question, and what it answers: direct, attached, local, exact.
#include "unit/route_test.h"

namespace unit {
namespace {

constexpr uint32_t own = address(10, 0, 0, 1);
constexpr uint32_t neighbour = address(10, 0, 0, 9);
constexpr uint32_t far_away = address(192, 0, 2, 1);

// An interface 10.0.0.1/24 as URIB sees it: its subnet, its own address, and a default route through a neighbour.
class UnicastRouteTest : public RouteTest {
 protected:
  UnicastRouteTest() {
    add_route("default", {.addr = 0, .length = 0, .first_iod = 7});
    add_route("subnet", {.addr = address(10, 0, 0, 0), .length = 24, .attached = true, .direct = true, .first_iod = 5});
    add_route("host", {.addr = own, .local = true, .direct = true, .first_iod = 6});
  }
};

// ------------------------------------------------------------ direct

struct DirectQuestion {
  const char *name;
  uint32_t (*ask)(const char *context, uint32_t addr);
};

class DirectRoute : public UnicastRouteTest, public testing::WithParamInterface<DirectQuestion> {
 protected:
  static uint32_t ask(uint32_t addr) { return GetParam().ask("red", addr); }
};

TEST_P(DirectRoute, OfAnyKindGivesItsInterface) {
  attach();
  EXPECT_EQ(ask(neighbour), 5u) << "attached";
  EXPECT_EQ(ask(own), 6u) << "local";
  add_route("other", {.addr = far_away, .direct = true, .first_iod = 8});
  EXPECT_EQ(ask(far_away), 8u) << "neither";
}

TEST_P(DirectRoute, IsLookedUpAndItsFirstNextHopTaken) {
  attach();
  ask(neighbour);
  EXPECT_EQ(calls(),
            context_then_urib({"urib_get_best_direct_route(20, 10.0.0.9)", "urib_route_first_bnh_iod_get(subnet)"}));
}

TEST_P(DirectRoute, ThatIsNotThereIsHandedOnUnchecked) {
  attach();
  EXPECT_EQ(ask(far_away), 0u);
  EXPECT_EQ(calls(),
            context_then_urib({"urib_get_best_direct_route(20, 192.0.2.1)", "urib_route_first_bnh_iod_get(null)"}));
}

TEST_P(DirectRoute, IsNoneWhenTheLookupOrTheNextHopFails) {
  attach();
  for (const char *function : {"urib_get_best_direct_route", "urib_route_first_bnh_iod_get"}) {
    platform().scripts.fail_call(function, 1);
    EXPECT_EQ(ask(neighbour), 0u) << function;
    EXPECT_EQ(calls().back(), "urib_release_rdlock()");
  }
}

INSTANTIATE_TEST_SUITE_P(Names, DirectRoute,
                         testing::Values(DirectQuestion{"IsRouteDirect", ip_is_route_direct},
                                         DirectQuestion{"GetIodFromAddr", ip_get_iod_from_addr}),
                         [](const auto &of) { return std::string(of.param.name); });

// ------------------------------------------------------------ attached

using AttachedAddress = UnicastRouteTest;

TEST_F(AttachedAddress, IsOnTheSubnetOfAnInterface) {
  attach();
  EXPECT_EQ(ip_is_addr_attached("red", neighbour), 5u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_best_direct_route(20, 10.0.0.9)", "urib_is_route_attached(subnet)",
                                        "urib_route_first_bnh_iod_get(subnet)"}));
}

TEST_F(AttachedAddress, IsNotTheSystemsOwn) {
  attach();
  EXPECT_EQ(ip_is_addr_attached("red", own), 0u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_best_direct_route(20, 10.0.0.1)", "urib_is_route_attached(host)"}));
}

TEST_F(AttachedAddress, IsNotOneWithoutADirectRoute) {
  attach();
  EXPECT_EQ(ip_is_addr_attached("red", far_away), 0u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_best_direct_route(20, 192.0.2.1)"}));
}

TEST_F(AttachedAddress, IsNoneWhicheverCallFails) {
  attach();
  for (const char *function :
       {"urib_get_best_direct_route", "urib_is_route_attached", "urib_route_first_bnh_iod_get"}) {
    platform().scripts.fail_call(function, 1);
    EXPECT_EQ(ip_is_addr_attached("red", neighbour), 0u) << function;
    EXPECT_EQ(calls().back(), "urib_release_rdlock()");
  }
}

TEST_F(AttachedAddress, WithoutAContextNameIsReportedBeforeAnythingElse) {
  EXPECT_EQ(ip_is_addr_attached(nullptr, neighbour), 0u) << "not attached either";
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "context name not specified")});
}

TEST_F(AttachedAddress, WithoutTheDatabaseIsReportedBeforeTheContextIsLookedFor) {
  EXPECT_EQ(ip_is_addr_attached("none", neighbour), 0u);
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "IP API not initialized")});
}

TEST_F(AttachedAddress, InAnUnknownContextIsReportedWithItsName) {
  attach();
  EXPECT_EQ(ip_is_addr_attached("green", neighbour), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            limited("IP_INTERNAL_ERROR", "Failed to get ctxt_type for context green")}));
}

TEST_F(AttachedAddress, InAContextWithoutATableIsReportedWithItsName) {
  attach();
  EXPECT_EQ(ip_is_addr_attached("tableless", neighbour), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            limited("IP_INTERNAL_ERROR", "Bad table_id for context tableless")}));
}

TEST_F(AttachedAddress, AReportIsCutAtAHundredAndNineteenCharacters) {
  attach();
  const std::string name(200, 'n');
  EXPECT_EQ(ip_is_addr_attached(name.c_str(), neighbour), 0u);
  const std::string whole = "Failed to get ctxt_type for context " + name;
  EXPECT_EQ(calls().back(), limited("IP_INTERNAL_ERROR", whole.substr(0, 119)));
}

TEST_F(AttachedAddress, AReportReachesTheOperator) {
  attach();
  platform().set_facility("RIP", 7);
  ip_is_addr_attached("tableless", neighbour);
  ASSERT_EQ(platform().syslog.size(), 1u);
  EXPECT_NE(platform().syslog[0].text.find("Bad table_id for context tableless"), std::string::npos)
      << platform().syslog[0].text;
}

// ------------------------------------------------------------ on an interface

using AddressOnInterface = UnicastRouteTest;

TEST_F(AddressOnInterface, IsYesWhenTheDirectRouteLeavesByIt) {
  platform().interfaces[5].table_id = red_table;
  EXPECT_EQ(ip_is_addr_on_iod(nullptr, neighbour, 5), 1u);
  Calls expected = {"l3vm_if_get_table_id(5, 1, \"base\")"};
  for (const std::string &call :
       locked_urib({"urib_get_best_direct_route(20, 10.0.0.9)", "urib_route_first_bnh_iod_get(subnet)"})) {
    expected.push_back(call);
  }
  EXPECT_EQ(calls(), expected);
}

TEST_F(AddressOnInterface, IsNoWhenItLeavesByAnother) {
  platform().interfaces[9].table_id = red_table;
  EXPECT_EQ(ip_is_addr_on_iod(nullptr, neighbour, 9), 0u);
  EXPECT_EQ(calls().back(), "urib_release_rdlock()");
}

TEST_F(AddressOnInterface, IsNoWithoutADirectRoute) {
  platform().interfaces[7].table_id = red_table;
  EXPECT_EQ(ip_is_addr_on_iod(nullptr, far_away, 7), 0u) << "the default route leaves by it, but is not direct";
}

TEST_F(AddressOnInterface, IsTheInterfaceItselfWhenItHasNoTable) {
  platform().interfaces[9].table_id = 0;
  for (const uint32_t iod : {9u, 0xffffffffu, 0u}) {
    platform().log.clear();
    EXPECT_EQ(ip_is_addr_on_iod(nullptr, neighbour, iod), iod);
    EXPECT_EQ(calls(), Calls{"l3vm_if_get_table_id(" + std::to_string(iod) + ", 1, \"base\")"});
  }
}

TEST_F(AddressOnInterface, IsTheInterfaceItselfWhenTheContextManagerFails) {
  platform().interfaces[9].table_id = red_table;
  platform().scripts.fail("l3vm_if_get_table_id");
  EXPECT_EQ(ip_is_addr_on_iod(nullptr, neighbour, 9), 9u);
  EXPECT_FALSE(called("urib_acquire_rdlock"));
}

TEST_F(AddressOnInterface, IsNoWhicheverCallOfUribFails) {
  platform().interfaces[5].table_id = red_table;
  for (const char *function : {"urib_get_best_direct_route", "urib_route_first_bnh_iod_get"}) {
    platform().scripts.fail_call(function, 1);
    EXPECT_EQ(ip_is_addr_on_iod(nullptr, neighbour, 5), 0u) << function;
    EXPECT_EQ(calls().back(), "urib_release_rdlock()");
  }
}

TEST_F(AddressOnInterface, DoesNotLookAtItsFirstArgument) {
  platform().interfaces[5].table_id = red_table;
  EXPECT_EQ(ip_is_addr_on_iod(reinterpret_cast<const void *>(1), neighbour, 5), 1u) << "an address nobody may read";
  EXPECT_EQ(ip_is_addr_on_iod("blue", neighbour, 5), 1u) << "the context is the interface's";
}

TEST_F(AddressOnInterface, NeedsNeitherTheDatabaseNorItsLock) {
  platform().interfaces[5].table_id = red_table;
  EXPECT_EQ(ip_is_addr_on_iod("none", neighbour, 5), 1u) << "not attached";
  EXPECT_FALSE(called("tsp_lock_acquire_rdlock"));
}

TEST_F(AddressOnInterface, StartsUribBeforeAnythingElse) {
  ip_api_dep_modules_init_done = 0;
  platform().scripts.fail_call("urib_api_init", 1);
  EXPECT_EQ(ip_is_addr_on_iod(nullptr, neighbour, 9), 9u);
  EXPECT_EQ(calls(), (Calls{"urib_api_init()", limited("IP_FAILURE", "Failed call urib_api_init()"),
                            "l3vm_if_get_table_id(9, 1, \"base\")"}));
  ip_is_addr_on_iod(nullptr, neighbour, 9);
  ip_is_addr_on_iod(nullptr, neighbour, 9);
  EXPECT_EQ(platform().log.count("urib_api_init"), 2u);
}

// ------------------------------------------------------------ local

using LocalRoute = UnicastRouteTest;

TEST_F(LocalRoute, IsTheBestRouteOfALocalAddress) {
  attach();
  EXPECT_EQ(ip_is_addr_local_in_urib("red", own), 6u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_best_route(20, 10.0.0.1, 0, 0)", "urib_is_route_local(host)",
                                        "urib_route_first_bnh_iod_get(host)"}));
}

TEST_F(LocalRoute, IsNotABestRouteOfAnotherKind) {
  attach();
  EXPECT_EQ(ip_is_addr_local_in_urib("red", neighbour), 0u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_best_route(20, 10.0.0.9, 0, 0)", "urib_is_route_local(subnet)"}));
}

TEST_F(LocalRoute, BehindALongerRouteDoesNotCount) {
  add_route("short", {.addr = address(172, 16, 0, 0), .length = 12, .local = true, .first_iod = 6});
  add_route("long", {.addr = address(172, 16, 0, 0), .length = 16, .first_iod = 7});
  attach();
  EXPECT_EQ(ip_is_addr_local_in_urib("red", address(172, 16, 0, 1)), 0u);
  EXPECT_EQ(ip_is_addr_local_in_urib("red", address(172, 17, 0, 1)), 6u);
}

TEST_F(LocalRoute, ThatIsNotThereIsNotLookedAt) {
  attach();
  EXPECT_EQ(ip_is_addr_local_in_urib("blue", own), 0u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_best_route(30, 10.0.0.1, 0, 0)"}));
}

TEST_F(LocalRoute, IsNoneWhicheverCallFails) {
  attach();
  for (const char *function : {"urib_get_best_route", "urib_is_route_local", "urib_route_first_bnh_iod_get"}) {
    platform().scripts.fail_call(function, 1);
    EXPECT_EQ(ip_is_addr_local_in_urib("red", own), 0u) << function;
  }
}

// ------------------------------------------------------------ exact

using ExactRoute = UnicastRouteTest;

TEST_F(ExactRoute, OfAnAddressIsItsLocalHostRoute) {
  attach();
  EXPECT_EQ(ip_get_iod_for_address("red", own), 6u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_route(20, 10.0.0.1, 32)", "urib_is_route_local(host)",
                                        "urib_route_first_bnh_iod_get(host)"}));
}

TEST_F(ExactRoute, OfAnAddressIsNoShorterOne) {
  add_route("short", {.addr = address(172, 16, 0, 0), .length = 12, .local = true, .first_iod = 6});
  attach();
  EXPECT_EQ(ip_get_iod_for_address("red", address(172, 16, 0, 0)), 0u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_route(20, 172.16.0.0, 32)"}));
}

TEST_F(ExactRoute, OfAnAddressMustBeLocal) {
  add_route("foreign host", {.addr = far_away, .attached = true, .direct = true, .first_iod = 8});
  attach();
  EXPECT_EQ(ip_get_iod_for_address("red", far_away), 0u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_route(20, 192.0.2.1, 32)", "urib_is_route_local(foreign host)"}));
}

TEST_F(ExactRoute, OfAnAddressIsNoneWhicheverCallFails) {
  attach();
  for (const char *function : {"urib_get_route", "urib_is_route_local", "urib_route_first_bnh_iod_get"}) {
    platform().scripts.fail_call(function, 1);
    EXPECT_EQ(ip_get_iod_for_address("red", own), 0u) << function;
  }
}

TEST_F(ExactRoute, OfASubnetIsTheAttachedOne) {
  attach();
  EXPECT_EQ(ip_get_iod_for_subnet("red", address(10, 0, 0, 0), 24), 5u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_route(20, 10.0.0.0, 24)", "urib_is_route_attached(subnet)",
                                        "urib_route_first_bnh_iod_get(subnet)"}));
}

TEST_F(ExactRoute, OfASubnetHasExactlyItsLength) {
  attach();
  EXPECT_EQ(ip_get_iod_for_subnet("red", address(10, 0, 0, 0), 25), 0u);
  EXPECT_EQ(ip_get_iod_for_subnet("red", address(10, 0, 0, 0), 23), 0u);
  EXPECT_EQ(ip_get_iod_for_subnet("red", address(10, 0, 0, 0), 0), 0u);
}

TEST_F(ExactRoute, OfASubnetIsAskedForWithTheAddressUnmasked) {
  attach();
  EXPECT_EQ(ip_get_iod_for_subnet("red", neighbour, 24), 0u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_route(20, 10.0.0.9, 24)"}));
}

TEST_F(ExactRoute, OfASubnetMayHaveAnyLengthOfEightBits) {
  attach();
  EXPECT_EQ(ip_get_iod_for_subnet("red", 0, 255), 0u);
  EXPECT_EQ(calls(), context_then_urib({"urib_get_route(20, 0.0.0.0, 255)"}));
}

TEST_F(ExactRoute, OfASubnetMustBeAttached) {
  attach();
  EXPECT_EQ(ip_get_iod_for_subnet("red", own, 32), 0u) << "local";
  EXPECT_EQ(ip_get_iod_for_subnet("red", 0, 0), 0u) << "the default route";
}

TEST_F(ExactRoute, OfASubnetIsNoneWhicheverCallFails) {
  attach();
  for (const char *function : {"urib_get_route", "urib_is_route_attached", "urib_route_first_bnh_iod_get"}) {
    platform().scripts.fail_call(function, 1);
    EXPECT_EQ(ip_get_iod_for_subnet("red", address(10, 0, 0, 0), 24), 0u) << function;
  }
}

// One address, all questions.
TEST_F(UnicastRouteTest, AnAddressWithOnlyALocalHostRouteIsLocalAndDirectButNotAttached) {
  attach();
  EXPECT_EQ(ip_is_addr_local_in_urib("red", own), 6u);
  EXPECT_EQ(ip_get_iod_for_address("red", own), 6u);
  EXPECT_EQ(ip_is_route_direct("red", own), 6u);
  EXPECT_EQ(ip_is_addr_attached("red", own), 0u);
}

}  // namespace
}  // namespace unit
