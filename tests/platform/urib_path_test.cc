// SPDX-License-Identifier: Apache-2.0
// The way of a destination through routes and tables, and choices among next hops.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "route_rig.h"

namespace {

using namespace route_rig;

constexpr uint32_t table = 254;
constexpr uint32_t other = 100;
constexpr uint32_t net10 = 0x0a000000;
constexpr uint32_t dest = 0xc0000201;
constexpr uint32_t gateway = net10 + 1;

rsw::RouteNextHop hop(uint32_t iod, uint32_t addr = 0, uint32_t to_table = 0, uint32_t data = 0, uint16_t weight = 1) {
  return {.iod = iod, .addr = addr, .data = data, .table = to_table, .weight = weight, .via_ipv6 = false};
}
Route via(uint32_t addr, uint8_t len, std::vector<rsw::RouteNextHop> hops, RouteKind kind = RouteKind::static_) {
  Route made = route(addr, len, kind, 1);
  made.next_hops = std::move(hops);
  return made;
}

struct Answer {
  uint32_t found, iod, table_id, next_hop;
  bool operator==(const Answer &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Answer &answer) {
  return out << answer.found << " iod " << answer.iod << " table " << answer.table_id << " via " << std::hex
             << answer.next_hop << std::dec;
}
constexpr Answer nowhere{0, 0, 0, 0};

Answer path(uint32_t addr, uint32_t asked_table = table) {
  urib_path filled{};
  uint32_t words[2] = {};
  const uint32_t found = urib_get_path_v2(asked_table, addr, 0, 0, 0, &filled, &words[0], &words[1], 1);
  return {found, filled.iod, filled.table_id, filled.next_hop};
}

class UribPath : public testing::Test {
 protected:
  RouteRig rig_;
};

TEST_F(UribPath, OfAConnectedDestinationEndsAtTheDestinationItself) {
  rig_.set(route(net10, 8, RouteKind::attached, 3));
  EXPECT_EQ(path(net10 + 5), (Answer{1, 3, table, 0}));
}

TEST_F(UribPath, OverARouteWithInterfaceAndNeighbourNeedsNoSecondLookup) {
  rig_.set(via(0, 0, {hop(3, gateway)}));
  EXPECT_EQ(path(dest), (Answer{1, 3, table, gateway}));
}

TEST_F(UribPath, OverANeighbourWithoutInterfaceIsResolvedAndNamesTheNeighbour) {
  rig_.set(route(net10, 8, RouteKind::attached, 3));
  rig_.set(via(0xc0000200, 24, {hop(0, gateway)}));
  EXPECT_EQ(path(dest), (Answer{1, 3, table, gateway}));
}

TEST_F(UribPath, OverSeveralNeighboursNamesTheLastOne) {
  rig_.set(via(net10, 8, {hop(4, 0xac100001)}));
  rig_.set(via(dest, 32, {hop(0, gateway)}));
  EXPECT_EQ(path(dest), (Answer{1, 4, table, 0xac100001}));
}

TEST_F(UribPath, OfALeakedRouteEndsInTheOtherTable) {
  rig_.set(via(0xc0000200, 24, {hop(0, 0, other)}));
  rig_.set(route(0xc0000200, 24, RouteKind::attached, 9), other);
  EXPECT_EQ(path(dest), (Answer{1, 9, other, 0}));
  EXPECT_EQ(rsw::urib_path(table, dest).size(), 2u);
}

TEST_F(UribPath, IntoATableThatIsNotThereEndsNowhere) {
  rig_.set(via(0xc0000200, 24, {hop(0, 0, other)}));
  EXPECT_EQ(path(dest), nowhere);
}

TEST_F(UribPath, OfNoTableAndOfNoRouteIsNone) {
  rig_.set(route(net10, 8, RouteKind::attached, 3));
  EXPECT_EQ(path(dest), nowhere);
  EXPECT_EQ(path(dest, 0), nowhere);
  EXPECT_EQ(path(dest, 77), nowhere);
}

TEST_F(UribPath, ThroughALoopEndsNowhere) {
  rig_.set(via(dest, 32, {hop(0, 0, other)}));
  rig_.set(via(dest, 32, {hop(0, 0, table)}), other);
  EXPECT_EQ(path(dest), nowhere);
  rig_.set(via(0, 0, {hop(0, gateway)}), 5);
  EXPECT_EQ(path(dest, 5), nowhere);
  EXPECT_EQ(rsw::urib_path(5, dest).size(), 16u);
}

TEST_F(UribPath, OfSixteenStepsIsFoundAndOfSeventeenIsNot) {
  for (uint32_t id = 1; id < 17; ++id) rig_.set(via(dest, 32, {hop(0, 0, id + 1)}), id);
  rig_.set(route(dest, 32, RouteKind::local, 6), 17);
  EXPECT_EQ(path(dest, 2), (Answer{1, 6, 17, 0}));
  EXPECT_EQ(path(dest, 1), nowhere);
}

TEST_F(UribPath, EndsInABlackHoleAndDoesNotTryTheShorterRoute) {
  rig_.set(via(0, 0, {hop(3)}));
  for (const RouteAction action :
       {RouteAction::blackhole, RouteAction::unreachable, RouteAction::prohibit, RouteAction::pass_on}) {
    Route hole = via(0xc0000200, 24, {});
    hole.action = action;
    rig_.set(hole);
    EXPECT_EQ(path(dest), nowhere);
  }
}

TEST_F(UribPath, GoesOnToTheShorterRouteWhereAllNextHopsAreInactive) {
  rig_.set(via(0, 0, {hop(3, gateway)}));
  rig_.set(via(dest, 32, {hop(8, 0, 0, rsw::inactive_next_hop)}, RouteKind::local));
  EXPECT_EQ(path(dest), (Answer{1, 3, table, gateway}));
}

TEST_F(UribPath, LeavesInactiveNextHopsOut) {
  rig_.set(via(0xc0000200, 24, {hop(8, 0, 0, rsw::inactive_next_hop), hop(9)}));
  for (uint32_t host = 0; host < 32; ++host) EXPECT_EQ(path(0xc0000200 + host).iod, 9u);
}

TEST_F(UribPath, SpreadsDestinationsByWeightAndKeepsEachOnItsWay) {
  rig_.set(via(0, 0, {hop(1, 0, 0, 0, 3), hop(2, 0, 0, 0, 1)}));
  std::map<uint32_t, uint32_t> destinations;
  for (uint32_t host = 0; host < 4000; ++host) {
    const uint32_t iod = path(dest + host).iod;
    EXPECT_EQ(path(dest + host).iod, iod);
    ++destinations[iod];
  }
  EXPECT_NEAR(destinations[1], 3000, 200);
  EXPECT_NEAR(destinations[2], 1000, 200);
}

TEST_F(UribPath, OverANeighbourOfAnotherFamilyNamesNone) {
  rsw::RouteNextHop six = hop(4);
  six.via_ipv6 = true;
  rig_.set(via(0xc0000200, 24, {six}));
  EXPECT_EQ(path(dest), (Answer{1, 4, table, 0}));
}

TEST_F(UribPath, ASelectorPicksANextHopByWeightAndTheSameOneEachTime) {
  rig_.set(via(net10, 8, {hop(1, 11, 0, 0, 2), hop(2, 12), hop(3, 13)}, RouteKind::multicast_static));
  const Lock lock;
  void *found = urib_get_mbest_route_for_prefix(table, net10, 32, 0, 0);
  ASSERT_NE(urib_is_route_mstatic(found), 0u);
  std::map<uint32_t, uint32_t> times;
  for (uint32_t selector = 0; selector < 400; ++selector) {
    const uint32_t iod = urib_route_mbnh_iod_get(found, selector);
    EXPECT_EQ(urib_route_mbnh_iod_get(found, selector), iod);
    EXPECT_EQ(urib_route_mbnh_addr_get(found, selector), 10 + iod);
    ++times[iod];
  }
  EXPECT_EQ(times, (std::map<uint32_t, uint32_t>{{1, 200}, {2, 100}, {3, 100}}));
}

TEST_F(UribPath, TheFirstNextHopIsTheOneThatWasNamedFirst) {
  rig_.set(via(net10, 8, {hop(5, 0, 0, rsw::inactive_next_hop), hop(2)}, RouteKind::local));
  const Lock lock;
  void *found = urib_get_best_route(table, net10, 0, 0);
  EXPECT_EQ(urib_route_first_bnh_iod_get(found), 5u);
  EXPECT_EQ(urib_route_first_bnh_nib_data_get(found), rsw::inactive_next_hop);
  EXPECT_NE(urib_is_route_local(found), 0u);
  EXPECT_EQ(urib_is_route_attached(found), 0u);
}

}  // namespace
