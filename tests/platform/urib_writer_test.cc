// SPDX-License-Identifier: Apache-2.0
// The writer of the route tables: what it refuses, what a take-over shows, and that nothing is left behind.
#include <gtest/gtest.h>

#include "bgp_routes.h"
#include "route_rig.h"

namespace {

using namespace route_rig;

constexpr uint32_t table = 254;
constexpr uint32_t net10 = 0x0a000000;

uint32_t best(uint32_t addr, uint32_t asked_table = table) {
  const Lock lock;
  return mark_of(urib_get_best_route(asked_table, addr, 0, 0));
}

TEST(UribWriter, AChangeIsVisibleAtOnceAfterTheFirstCommit) {
  RouteRig rig;
  rig.set(route(net10, 8, RouteKind::static_, 7));
  EXPECT_EQ(best(net10 + 1), 7u);
  rig.set(route(net10, 8, RouteKind::static_, 8));
  EXPECT_EQ(best(net10 + 1), 8u);
  rig.remove(RouteView::unicast, net10, 8);
  EXPECT_EQ(best(net10 + 1), 0u);
}

TEST(UribWriter, TablesAreApartAndAnyNumberFindsItsOwn) {
  RouteRig rig;
  const uint32_t ids[] = {1, 254, 1023, 1024, 100000, 0xfffffffe, 0xffffffff};
  uint32_t mark = 0;
  for (const uint32_t id : ids) rig.set(route(net10, 8, RouteKind::static_, ++mark), id);
  mark = 0;
  for (const uint32_t id : ids) EXPECT_EQ(best(net10, id), ++mark);
  EXPECT_EQ(best(net10, 2), 0u);
  EXPECT_EQ(best(net10, 1025), 0u);
  EXPECT_EQ(rsw::urib_tables(), std::vector<uint32_t>(std::begin(ids), std::end(ids)));
  for (const uint32_t id : {1u, 1024u, 0xffffffffu}) {
    ASSERT_TRUE(rig.writer->remove_table(id));
    EXPECT_EQ(best(net10, id), 0u);
  }
  EXPECT_EQ(rsw::urib_tables(), (std::vector<uint32_t>{254, 1023, 100000, 0xfffffffe}));
}

TEST(UribWriter, ATableGoesWithItsLastRoute) {
  RouteRig rig;
  rig.set(route(net10, 8, RouteKind::multicast_static, 7));
  EXPECT_EQ(rig.writer->use().tables, 1u);
  rig.remove(RouteView::multicast, net10, 8);
  EXPECT_EQ(rig.writer->use().tables, 0u);
}

struct Bad {
  const char *name;
  void (*spoil)(Route &route);
};

class UribWriterRefusal : public testing::TestWithParam<Bad> {};

TEST_P(UribWriterRefusal, SaysWhyAndChangesNothing) {
  RouteRig rig;
  rig.set(route(net10, 8, RouteKind::static_, 7));
  Route bad = route(net10, 8, RouteKind::static_, 8);
  GetParam().spoil(bad);
  EXPECT_FALSE(rig.writer->set(table, bad));
  EXPECT_FALSE(rig.writer->last_error().empty());
  const std::vector<Route> loaded = {route(net10, 16, RouteKind::static_, 9), bad};
  EXPECT_FALSE(rig.writer->load(table, loaded));
  EXPECT_EQ(best(net10 + 1), 7u);
  EXPECT_EQ(rig.writer->use().routes, 1u);
}

INSTANTIATE_TEST_SUITE_P(
    All, UribWriterRefusal,
    testing::Values(Bad{"BitsBeyondTheLength", [](Route &bad) { bad.addr |= 1; }},
                    Bad{"ALengthAbove32", [](Route &bad) { bad.len = 33; }},
                    Bad{"NoSuchKind", [](Route &bad) { bad.kind = static_cast<RouteKind>(0); }},
                    Bad{"NoSuchAction", [](Route &bad) { bad.action = static_cast<RouteAction>(6); }},
                    Bad{"ABlackHoleWithANextHop", [](Route &bad) { bad.action = RouteAction::blackhole; }},
                    Bad{"NoWeight", [](Route &bad) { bad.next_hops[0].weight = 0; }},
                    Bad{"TooMuchWeight", [](Route &bad) { bad.next_hops[0].weight = 257; }},
                    Bad{"ANextHopThatLeadsNowhere", [](Route &bad) { bad.next_hops[0].iod = 0; }},
                    Bad{"TooManyNextHops", [](Route &bad) { bad.next_hops.resize(257, bad.next_hops[0]); }}),
    [](const auto &of) { return of.param.name; });

TEST(UribWriter, ALoadWithAPrefixTwiceIsRefusedAndTheTableStays) {
  RouteRig rig;
  rig.set(route(net10, 8, RouteKind::static_, 7));
  const std::vector<Route> twice = {route(net10, 16, RouteKind::static_, 8), route(net10, 16, RouteKind::static_, 9)};
  EXPECT_FALSE(rig.writer->load(table, twice));
  EXPECT_EQ(best(net10), 7u);
}

TEST(UribWriter, ARouteThatPassesOnEndsTheSearchInItsTable) {
  RouteRig rig;
  rig.set(route(net10, 8, RouteKind::static_, 7));
  Route pass = route(net10, 16, RouteKind::static_, 1);
  pass.next_hops.clear();
  pass.action = RouteAction::pass_on;
  rig.set(pass);
  EXPECT_EQ(best(net10 + 1), 0u);
  EXPECT_EQ(best(net10 + 0x10000), 7u);
  {
    const Lock lock;
    EXPECT_EQ(urib_get_route(table, net10, 16), nullptr);
    EXPECT_EQ(urib_get_mbest_route_for_prefix(table, net10, 32, 0, 0), nullptr);
  }
  EXPECT_EQ(rsw::urib_exact(table, RouteView::unicast, net10, 16), pass);
  rig.remove(RouteView::unicast, net10, 16);
  EXPECT_EQ(best(net10 + 1), 7u);
}

TEST(UribWriter, ABlackHoleIsARouteWithoutANextHop) {
  RouteRig rig;
  Route hole = route(net10, 8, RouteKind::static_, 1);
  hole.next_hops.clear();
  hole.action = RouteAction::blackhole;
  rig.set(hole);
  const Lock lock;
  void *found = urib_get_best_route(table, net10, 0, 0);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(urib_route_first_bnh_iod_get(found), 0u);
  EXPECT_EQ(urib_route_mbnh_iod_get(found, 5), 0u);
}

TEST(UribWriter, TheViewGivesBackAllThatWasSaidOfARoute) {
  RouteRig rig;
  Route full = route(net10, 8, RouteKind::other, 7, 0x0a000001);
  full.protocol = 186;
  full.metric = 20;
  full.origin = 254;
  full.pref_src = 0x0a0000fe;
  full.next_hops.push_back({.iod = 8, .addr = 0, .data = 5, .table = 100, .weight = 256, .via_ipv6 = true});
  rig.set(full);
  EXPECT_EQ(rsw::urib_exact(table, RouteView::unicast, net10, 8), full);
}

TEST(UribWriter, ReadersSeeTheOldTablesUntilANewWritersFirstCommit) {
  RouteRig rig;
  rig.set(route(net10, 8, RouteKind::static_, 7));
  rig.set(route(net10, 16, RouteKind::static_, 8));
  rig.writer.reset();
  std::string reason;
  rig.writer = rsw::UribWriter::open(*rig.epochs, &reason, {.quarantine = std::chrono::milliseconds(0)});
  ASSERT_NE(rig.writer, nullptr) << reason;
  rig.set(route(net10, 8, RouteKind::static_, 9));
  EXPECT_EQ(best(net10), 8u);
  EXPECT_EQ(best(net10 + 0x10000), 7u);
  ASSERT_TRUE(rig.writer->commit());
  EXPECT_EQ(best(net10), 9u);
  EXPECT_EQ(best(net10 + 0x10000), 9u);
}

TEST(UribWriter, TakeOversLeaveNothingBehind) {
  RouteRig rig;
  const std::vector<Route> routes = bgp_routes::make(5000, 1);
  uint64_t used = 0;
  for (int time = 0; time < 6; ++time) {
    rig.writer.reset();
    std::string reason;
    rig.writer = rsw::UribWriter::open(*rig.epochs, &reason, {.quarantine = std::chrono::milliseconds(0)});
    ASSERT_NE(rig.writer, nullptr) << reason;
    ASSERT_TRUE(rig.writer->load(table, routes) && rig.writer->commit());
    rig.tick();
    // The second one builds beside the first; from then on there is room.
    if (time == 2) used = rig.writer->use().segment_bytes;
  }
  EXPECT_EQ(rig.writer->use().segment_bytes, used);
}

TEST(UribWriter, ChangesLeaveNothingBehind) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  RouteRig rig;
  rig.set(route(net10, 8, RouteKind::attached, 7), 1);
  rig.tick();
  const rsw::UribUse before = rig.writer->use();
  const std::vector<Route> routes = bgp_routes::make(3000, seed);
  for (const uint32_t kind : {2u, 4u}) {
    for (Route changed : routes) {
      changed.kind = static_cast<RouteKind>(kind);
      changed.metric = changed.addr >> 12;
      rig.set(changed);
    }
    rig.tick();
  }
  for (size_t i = 0; i < routes.size(); i += 2) rig.remove(RouteView::unicast, routes[i].addr, routes[i].len);
  ASSERT_TRUE(rig.writer->load(table, routes));
  for (const Route &gone : routes) rig.remove(RouteView::unicast, gone.addr, gone.len);
  rig.tick();
  const rsw::UribUse after = rig.writer->use();
  EXPECT_EQ(after.routes, before.routes);
  EXPECT_EQ(after.tables, before.tables);
  EXPECT_EQ(after.lookup_bytes, before.lookup_bytes);
  EXPECT_EQ(after.route_bytes, before.route_bytes);
}

// Routes with 256 next hops of their own each: some ten thousand of them fill the window.
Route heavy(uint32_t number) {
  Route made = route(net10 + number, 32, RouteKind::local, 1 + number);
  made.next_hops.resize(256, made.next_hops[0]);
  return made;
}

TEST(UribWriter, WithoutRoomARouteIsRefusedAndAllOthersStay) {
  RouteRig rig;
  uint32_t count = 0;
  while (count < 100000 && rig.writer->set(table, heavy(count))) ++count;
  ASSERT_LT(count, 100000u);
  EXPECT_FALSE(rig.writer->last_error().empty());
  EXPECT_EQ(rig.writer->use().routes, count);
  EXPECT_EQ(best(net10 + count), 0u);
  EXPECT_FALSE(rig.writer->load(table, std::vector<Route>{heavy(count), heavy(count + 1)}));
  for (uint32_t number = 0; number < count; number += 97) EXPECT_EQ(best(net10 + number), 1 + number);
  ASSERT_TRUE(rig.writer->remove_table(table));
  rig.tick();
  EXPECT_TRUE(rig.writer->set(table, heavy(count))) << rig.writer->last_error();
  EXPECT_EQ(best(net10 + count), 1 + count);
}

TEST(UribWriter, AnyNumberOfWritersThatEndAtOnceLeaveRoomForTheNext) {
  RouteRig rig;
  std::vector<Route> routes;
  for (uint32_t number = 0; number < 3000; ++number) routes.push_back(heavy(number));
  bool were_gone = false;
  // None of them lives until what it retired is free.
  for (int time = 0; time < 20; ++time) {
    SCOPED_TRACE(time);
    rig.writer.reset();
    std::string reason;
    rig.writer = rsw::UribWriter::open(*rig.epochs, &reason, {.quarantine = std::chrono::milliseconds(0)});
    ASSERT_NE(rig.writer, nullptr) << reason;
    if (time > 0) were_gone = were_gone || best(net10) == 0;
    ASSERT_TRUE(rig.writer->load(table, routes) && rig.writer->commit()) << rig.writer->last_error();
    for (uint32_t number = 0; number < routes.size(); number += 97) ASSERT_EQ(best(net10 + number), 1 + number);
  }
  EXPECT_TRUE(were_gone) << "they did not fill it, so nothing was seen";
}

TEST(UribWriter, AFullTableOfTheInternetTakesAtMostTenMegabytesToSearch) {
  RouteRig rig;
  const std::vector<Route> routes = bgp_routes::make(900000, 1);
  ASSERT_TRUE(rig.writer->load(table, routes)) << rig.writer->last_error();
  const rsw::UribUse use = rig.writer->use();
  EXPECT_EQ(use.routes, 900000u);
  EXPECT_LE(use.lookup_bytes, 10000000u);
  EXPECT_LE(use.route_bytes, 2000000u);
  RecordProperty("lookup_bytes", std::to_string(use.lookup_bytes));
  RecordProperty("route_bytes", std::to_string(use.route_bytes));
  for (size_t i = 0; i < routes.size(); i += 1009) {
    EXPECT_EQ(rsw::urib_exact(table, RouteView::unicast, routes[i].addr, routes[i].len), routes[i]);
  }
}

TEST(UribWriter, AFewRoutesTakeFewBytes) {
  RouteRig rig;
  for (uint32_t i = 0; i < 10; ++i) rig.set(route(net10 + (i << 16), 24, RouteKind::static_, 1 + i));
  rig.tick();
  EXPECT_LE(rig.writer->use().lookup_bytes, 4096u);
}

}  // namespace
