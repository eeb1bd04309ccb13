// SPDX-License-Identifier: Apache-2.0
// Multicast reverse-path questions: by which interface an address is attached, directly or by a static route, and which
// neighbour a static route names.
#include "unit/route_test.h"

namespace unit {
namespace {

constexpr uint32_t source = address(10, 0, 0, 9);
constexpr uint32_t next_hop = address(10, 7, 7, 7);
constexpr uint32_t other_next_hop = address(10, 8, 8, 8);
constexpr uint32_t selector = 77;
constexpr uint32_t other_selector = 0xfffffffe;

class RpfTest : public RouteTest {
 protected:
  // A direct route that covers the source.
  static fake_platform::Route &add_direct(uint32_t iod, bool attached = false, bool multicast_static = false) {
    return add_route("direct", {.addr = address(10, 0, 0, 0),
                                .length = 24,
                                .attached = attached,
                                .direct = true,
                                .multicast_static = multicast_static,
                                .first_iod = iod});
  }
  // A route of the multicast view that covers the source, with two next hops.
  static fake_platform::Route &add_multicast(bool is_static = true) {
    return add_route("rpf", {.addr = address(10, 0, 0, 0),
                             .length = 8,
                             .multicast = true,
                             .multicast_static = is_static,
                             .first_iod = 99,
                             .multicast_next_hops = {{selector, {.iod = 7, .addr = next_hop}},
                                                     {other_selector, {.iod = 8, .addr = other_next_hop}}}});
  }

  const std::string direct_lookup = "urib_get_best_direct_route(20, 10.0.0.9)";
  const std::string rpf_lookup = "urib_get_mbest_route_for_prefix(20, 10.0.0.9, 32, 0, 0)";
};

// ------------------------------------------------------------ attached, or reached by a static route

using MulticastAttached = RpfTest;

TEST_F(MulticastAttached, IsTheInterfaceOfAnAttachedRoute) {
  add_direct(5, true);
  add_multicast();
  attach();
  EXPECT_EQ(ip_is_addr_mattached("red", source, selector), 5u);
  EXPECT_EQ(calls(), context_then_urib(
                         {direct_lookup, "urib_route_first_bnh_iod_get(direct)", "urib_is_route_attached(direct)"}));
}

TEST_F(MulticastAttached, IsTheInterfaceOfADirectRouteThatIsAStaticOneItself) {
  add_direct(5, false, true);
  add_multicast();
  attach();
  EXPECT_EQ(ip_is_addr_mattached("red", source, selector), 5u);
  EXPECT_EQ(calls(), context_then_urib({direct_lookup, "urib_route_first_bnh_iod_get(direct)",
                                        "urib_is_route_attached(direct)", "urib_is_route_mstatic(direct)"}));
}

TEST_F(MulticastAttached, IsTheInterfaceOfAnotherDirectRouteWhenTheStaticOneAgrees) {
  add_direct(7);
  add_multicast();
  attach();
  EXPECT_EQ(ip_is_addr_mattached("red", source, selector), 7u);
  EXPECT_EQ(calls(), context_then_urib({direct_lookup, "urib_route_first_bnh_iod_get(direct)",
                                        "urib_is_route_attached(direct)", "urib_is_route_mstatic(direct)", rpf_lookup,
                                        "urib_is_route_mstatic(rpf)", "urib_route_mbnh_iod_get(rpf, 77)"}));
}

TEST_F(MulticastAttached, IsNoneWhenTheStaticRouteLeavesByAnotherInterface) {
  add_direct(7);
  add_multicast();
  attach();
  EXPECT_EQ(ip_is_addr_mattached("red", source, other_selector), 0u);
  EXPECT_EQ(ip_is_addr_mattached("red", source, 1), 0u) << "a selector that picks nothing";
}

TEST_F(MulticastAttached, IsNoneForAnotherDirectRouteWithoutAStaticOne) {
  add_direct(7);
  attach();
  EXPECT_EQ(ip_is_addr_mattached("red", source, selector), 0u);
  add_multicast(false);
  platform().log.clear();
  EXPECT_EQ(ip_is_addr_mattached("red", source, selector), 0u) << "the best of the view is not static";
  EXPECT_EQ(calls(),
            context_then_urib({direct_lookup, "urib_route_first_bnh_iod_get(direct)", "urib_is_route_attached(direct)",
                               "urib_is_route_mstatic(direct)", rpf_lookup, "urib_is_route_mstatic(rpf)"}));
}

TEST_F(MulticastAttached, IsTheInterfaceOfTheStaticRouteWhenNoDirectOneCovers) {
  add_multicast();
  attach();
  EXPECT_EQ(ip_is_addr_mattached("red", source, selector), 7u);
  EXPECT_EQ(calls(), context_then_urib({direct_lookup, rpf_lookup, "urib_is_route_mstatic(rpf)",
                                        "urib_route_mbnh_iod_get(rpf, 77)"}));
  EXPECT_EQ(ip_is_addr_mattached("red", source, other_selector), 8u);
}

TEST_F(MulticastAttached, IsNoneWhenNothingCovers) {
  attach();
  EXPECT_EQ(ip_is_addr_mattached("red", source, selector), 0u);
  EXPECT_EQ(calls(), context_then_urib({direct_lookup, rpf_lookup}));
}

TEST_F(MulticastAttached, IsNoneWhenTheBestOfTheViewIsNotStatic) {
  add_multicast(false);
  attach();
  EXPECT_EQ(ip_is_addr_mattached("red", source, selector), 0u);
  EXPECT_EQ(calls(), context_then_urib({direct_lookup, rpf_lookup, "urib_is_route_mstatic(rpf)"}));
}

struct FailingCall {
  const char *function;
  unsigned number;
  uint32_t answer;
};

class MulticastAttachedFailures : public RpfTest, public testing::WithParamInterface<FailingCall> {};

// The longest way through the question: a direct route that is neither attached nor static, and a static one.
TEST_P(MulticastAttachedFailures, AreAnswersOfATableThatLacksWhatWasAskedFor) {
  add_direct(7);
  add_multicast();
  attach();
  platform().scripts.fail_call(GetParam().function, GetParam().number);
  EXPECT_EQ(ip_is_addr_mattached("red", source, selector), GetParam().answer);
  EXPECT_EQ(calls().back(), "urib_release_rdlock()");
}

INSTANTIATE_TEST_SUITE_P(
    Calls, MulticastAttachedFailures,
    testing::Values(FailingCall{"urib_get_best_direct_route", 1, 7}, FailingCall{"urib_route_first_bnh_iod_get", 1, 0},
                    FailingCall{"urib_is_route_attached", 1, 7}, FailingCall{"urib_is_route_mstatic", 1, 7},
                    FailingCall{"urib_is_route_mstatic", 2, 0}, FailingCall{"urib_get_mbest_route_for_prefix", 1, 0},
                    FailingCall{"urib_route_mbnh_iod_get", 1, 0}),
    [](const auto &of) { return of.param.function + std::to_string(of.param.number); });

// ------------------------------------------------------------ the neighbour of a static route

using StaticRpf = RpfTest;

TEST_F(StaticRpf, IsTheNextHopThatTheSelectorPicks) {
  add_multicast();
  attach();
  EXPECT_EQ(ip_get_mstatic_rpf("red", source, selector), next_hop);
  EXPECT_EQ(calls(), context_then_urib({direct_lookup, rpf_lookup, "urib_is_route_mstatic(rpf)",
                                        "urib_route_mbnh_addr_get(rpf, 77)"}));
  EXPECT_EQ(ip_get_mstatic_rpf("red", source, other_selector), other_next_hop);
  EXPECT_EQ(ip_get_mstatic_rpf("red", source, 1), 0u) << "a selector that picks nothing";
}

TEST_F(StaticRpf, IsNoneForASourceThatIsDirectlyConnected) {
  add_direct(5, true);
  add_multicast();
  attach();
  EXPECT_EQ(ip_get_mstatic_rpf("red", source, selector), 0u);
  EXPECT_EQ(calls(), context_then_urib({direct_lookup}));
}

TEST_F(StaticRpf, IsNoneUnderADirectRouteOfAnyKind) {
  add_direct(0, false, true);
  add_multicast();
  attach();
  EXPECT_EQ(ip_get_mstatic_rpf("red", source, selector), 0u) << "not even one without an interface";
}

TEST_F(StaticRpf, IsNoneWithoutAStaticRoute) {
  attach();
  EXPECT_EQ(ip_get_mstatic_rpf("red", source, selector), 0u);
  EXPECT_EQ(calls(), context_then_urib({direct_lookup, rpf_lookup}));
  add_multicast(false);
  platform().log.clear();
  EXPECT_EQ(ip_get_mstatic_rpf("red", source, selector), 0u);
  EXPECT_EQ(calls(), context_then_urib({direct_lookup, rpf_lookup, "urib_is_route_mstatic(rpf)"}));
}

TEST_F(StaticRpf, WithoutTheDirectTestIsGivenForAConnectedSourceToo) {
  add_direct(5, true);
  add_multicast();
  attach();
  EXPECT_EQ(ip_get_mstatic_rpf_no_mpath("red", source, selector), next_hop);
  EXPECT_EQ(calls(),
            context_then_urib({rpf_lookup, "urib_is_route_mstatic(rpf)", "urib_route_mbnh_addr_get(rpf, 77)"}));
  EXPECT_EQ(ip_get_mstatic_rpf_no_mpath("red", source, other_selector), other_next_hop);
}

TEST_F(StaticRpf, WithoutTheDirectTestIsNoneWithoutAStaticRoute) {
  attach();
  EXPECT_EQ(ip_get_mstatic_rpf_no_mpath("red", source, selector), 0u);
  EXPECT_EQ(calls(), context_then_urib({rpf_lookup}));
  add_multicast(false);
  platform().log.clear();
  EXPECT_EQ(ip_get_mstatic_rpf_no_mpath("red", source, selector), 0u);
  EXPECT_EQ(calls(), context_then_urib({rpf_lookup, "urib_is_route_mstatic(rpf)"}));
}

TEST_F(StaticRpf, IsNoneWhicheverCallFails) {
  add_multicast();
  attach();
  for (const char *function :
       {"urib_get_mbest_route_for_prefix", "urib_is_route_mstatic", "urib_route_mbnh_addr_get"}) {
    platform().scripts.fail_call(function, 1);
    EXPECT_EQ(ip_get_mstatic_rpf("red", source, selector), 0u) << function;
    EXPECT_EQ(calls().back(), "urib_release_rdlock()");
    platform().scripts.fail_call(function, 1);
    EXPECT_EQ(ip_get_mstatic_rpf_no_mpath("red", source, selector), 0u) << function;
    EXPECT_EQ(calls().back(), "urib_release_rdlock()");
  }
}

TEST_F(StaticRpf, IsAskedForWhenTheDirectLookupFails) {
  add_direct(5, true);
  add_multicast();
  attach();
  platform().scripts.fail("urib_get_best_direct_route");
  EXPECT_EQ(ip_get_mstatic_rpf("red", source, selector), next_hop);
}

}  // namespace
}  // namespace unit
