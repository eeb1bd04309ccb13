// SPDX-License-Identifier: Apache-2.0
// From the kernel's routes to the URIB's tables.
#include "ipd/state/routes.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <random>

#include "ipd/process/log.h"
#include "ipd/recording_writer.h"

namespace {

using namespace ipd;
using namespace ipd::kernel;
using rsw::Route;
using rsw::RouteAction;
using rsw::RouteKind;
using rsw::RouteNextHop;

constexpr uint32_t ten = 0x0a000000, eleven = 0x0b000000, own = 0x0a000001, neighbour = 0x0a000002;

// iod = ifindex + 100, so that nothing passes by mistaking one for the other.
constexpr uint32_t iod_of(uint32_t ifindex) {
  return ifindex + 100;
}

class RoutesTest : public testing::Test {
 protected:
  RoutesTest() {
    set_log_limit(LOG_CRIT);
    around.context_tables["default"] = 254;
    for (uint32_t ifindex : {1u, 2u, 3u, 4u}) place(ifindex, 254);
    update();
  }
  ~RoutesTest() override { set_log_limit(LOG_NOTICE); }

  void place(uint32_t ifindex, uint32_t table, uint32_t vrf_table = 0) {
    around.interfaces[ifindex] = {.iod = iod_of(ifindex), .table = table, .vrf_table = vrf_table};
    around.interface_names["if" + std::to_string(ifindex)] = ifindex;
    routes.surround(around);
  }
  void displace(uint32_t ifindex) {
    around.interfaces.erase(ifindex);
    around.interface_names.erase("if" + std::to_string(ifindex));
    routes.surround(around);
  }
  void configure(const std::string &json) {
    std::string reason;
    const auto configuration = parse_configuration(json, "test", &reason);
    ASSERT_TRUE(configuration) << reason;
    routes.configure(*configuration);
  }
  bool update() {
    const bool done = routes.update(picture);
    EXPECT_FALSE(writer.bad);
    EXPECT_FALSE(writer.repeated);
    return done;
  }
  static RouteMessage forward(uint32_t addr, uint8_t len, uint32_t ifindex, uint32_t gateway) {
    RouteMessage message;
    message.place = RoutePlace::alone;
    message.table = 254;
    message.addr = addr;
    message.len = len;
    message.type = RTN_UNICAST;
    message.protocol = RTPROT_BOOT;
    message.hops = {{.ifindex = ifindex, .gateway = gateway}};
    message.dead = {false};
    return message;
  }
  static RouteMessage local(uint32_t addr, uint32_t ifindex, uint32_t table = 255) {
    RouteMessage message = forward(addr, 32, ifindex, 0);
    message.table = table;
    message.type = RTN_LOCAL;
    message.scope = RT_SCOPE_HOST;
    message.protocol = RTPROT_KERNEL;
    message.pref_src = addr;
    return message;
  }
  static RouteMessage connected(uint32_t addr, uint8_t len, uint32_t ifindex, uint32_t pref_src) {
    RouteMessage message = forward(addr, len, ifindex, 0);
    message.scope = RT_SCOPE_LINK;
    message.protocol = RTPROT_KERNEL;
    message.pref_src = pref_src;
    return message;
  }
  static RouteMessage gone(RouteMessage message) {
    message.removed = true;
    return message;
  }
  void tell(const RouteMessage &message) {
    picture.route(message);
    update();
  }
  [[nodiscard]] const Route *at(uint32_t table, uint32_t addr, uint8_t len) const {
    const auto found = writer.unicast.find(table);
    if (found == writer.unicast.end()) return nullptr;
    const auto route = found->second.find({addr, len});
    return route == found->second.end() ? nullptr : &route->second;
  }
  [[nodiscard]] RouteKind kind(uint32_t addr, uint8_t len) const {
    const Route *route = at(254, addr, len);
    EXPECT_NE(route, nullptr);
    return route == nullptr ? RouteKind{} : route->kind;
  }

  test_support::RecordingWriter writer;
  RoutePicture picture;
  RouteSurroundings around;
  Routes routes{writer};
};

using Hops = std::vector<RouteNextHop>;

TEST_F(RoutesTest, ARouteIsWrittenWithAllThatItSays) {
  RouteMessage message = forward(ten, 8, 2, neighbour);
  message.metric = 20;
  message.pref_src = own;
  message.protocol = RTPROT_OSPF;
  tell(message);
  ASSERT_NE(at(254, ten, 8), nullptr);
  EXPECT_EQ(*at(254, ten, 8), (Route{.addr = ten,
                                     .len = 8,
                                     .kind = RouteKind::other,
                                     .action = RouteAction::forward,
                                     .protocol = RTPROT_OSPF,
                                     .metric = 20,
                                     .origin = 254,
                                     .pref_src = own,
                                     .next_hops = {{.iod = iod_of(2), .addr = neighbour}}}));
  tell(gone(message));
  EXPECT_EQ(at(254, ten, 8), nullptr);
}

TEST_F(RoutesTest, KindsFollowTypeScopeAndProtocol) {
  picture.route(local(own, 2));
  picture.route(connected(ten, 24, 2, own));
  picture.route(connected(0x0a000100, 31, 2, 0x0a000101));
  picture.route(connected(eleven, 32, 2, own));  // a peer
  RouteMessage host_route = forward(0x0c000000, 32, 2, 0);
  host_route.scope = RT_SCOPE_LINK;
  picture.route(host_route);
  picture.route(forward(0x0d000000, 8, 2, neighbour));
  RouteMessage message = forward(0x0e000000, 8, 2, neighbour);
  message.protocol = RTPROT_STATIC;
  picture.route(message);
  message.addr = 0x0f000000;
  message.protocol = RTPROT_BGP;
  picture.route(message);
  update();
  EXPECT_EQ(kind(own, 32), RouteKind::local);
  EXPECT_EQ(kind(ten, 24), RouteKind::attached);
  EXPECT_EQ(kind(0x0a000100, 31), RouteKind::attached);
  EXPECT_EQ(kind(eleven, 32), RouteKind::direct);
  EXPECT_EQ(kind(0x0c000000, 32), RouteKind::direct);
  EXPECT_EQ(kind(0x0d000000, 8), RouteKind::static_);
  EXPECT_EQ(kind(0x0e000000, 8), RouteKind::static_);
  EXPECT_EQ(kind(0x0f000000, 8), RouteKind::other);
}

TEST_F(RoutesTest, RoutesThatDropKeepWhatTheyDo) {
  const std::vector<std::pair<uint8_t, RouteAction>> actions = {{RTN_BLACKHOLE, RouteAction::blackhole},
                                                                {RTN_UNREACHABLE, RouteAction::unreachable},
                                                                {RTN_PROHIBIT, RouteAction::prohibit},
                                                                {RTN_THROW, RouteAction::pass_on}};
  for (const auto &[type, action] : actions) {
    RouteMessage message = forward(uint32_t{type} << 24, 8, 0, 0);
    message.type = type;
    message.hops.clear();
    message.dead.clear();
    tell(message);
    const Route *route = at(254, message.addr, 8);
    ASSERT_NE(route, nullptr);
    EXPECT_EQ(route->action, action);
    EXPECT_EQ(route->kind, RouteKind::static_);
    EXPECT_TRUE(route->next_hops.empty());
  }
}

TEST_F(RoutesTest, ABroadcastAddressIsKeptAsOne) {
  RouteMessage message = local(0x0a0000ff, 2);
  message.type = RTN_BROADCAST;
  message.scope = RT_SCOPE_LINK;
  tell(message);
  const Route *route = at(254, 0x0a0000ff, 32);
  ASSERT_NE(route, nullptr);
  EXPECT_EQ(route->action, RouteAction::broadcast);
  EXPECT_EQ(route->kind, RouteKind::other);
  EXPECT_EQ(route->origin, 255u);
}

TEST_F(RoutesTest, TheLowestMetricThatCanBeUsedCounts) {
  RouteMessage worse = forward(ten, 8, 2, neighbour);
  worse.metric = 50;
  RouteMessage better = forward(ten, 8, 3, neighbour);
  better.metric = 10;
  tell(worse);
  tell(better);
  EXPECT_EQ(at(254, ten, 8)->metric, 10u);
  better.dead = {true};
  better.place = RoutePlace::unsaid;
  tell(better);
  EXPECT_EQ(at(254, ten, 8)->metric, 50u);
  RouteMessage of_service = forward(ten, 8, 4, neighbour);
  of_service.tos = 8;
  tell(of_service);
  EXPECT_EQ(at(254, ten, 8)->metric, 50u) << "a type of service has no place here";
  tell(gone(worse));
  EXPECT_EQ(at(254, ten, 8), nullptr);
}

TEST_F(RoutesTest, AMultipathRouteHasItsLiveHopsWithWeights) {
  RouteMessage message = forward(ten, 8, 2, neighbour);
  message.hops = {
      {.ifindex = 2, .gateway = 1, .weight = 3}, {.ifindex = 3, .gateway = 2}, {.ifindex = 4, .gateway = 3}};
  message.hops[2].via_ipv6 = true;
  message.hops[2].gateway = 0;
  message.dead = {false, true, false};
  tell(message);
  ASSERT_NE(at(254, ten, 8), nullptr);
  EXPECT_EQ(at(254, ten, 8)->next_hops,
            (Hops{{.iod = iod_of(2), .addr = 1, .weight = 3}, {.iod = iod_of(4), .via_ipv6 = true}}));
}

TEST_F(RoutesTest, AGroupsWeightsAreBroughtIntoRange) {
  picture.nexthop({.id = 1, .hop = {.ifindex = 2, .gateway = 1}, .members = {}});
  picture.nexthop({.id = 2, .hop = {.ifindex = 3, .gateway = 2}, .members = {}});
  picture.nexthop({.id = 9, .hop = {}, .members = {{1, 1024}, {2, 2}}});
  RouteMessage message = forward(ten, 8, 2, neighbour);
  message.nexthop_id = 9;
  message.hops.clear();
  message.dead.clear();
  tell(message);
  ASSERT_NE(at(254, ten, 8), nullptr);
  EXPECT_EQ(at(254, ten, 8)->next_hops,
            (Hops{{.iod = iod_of(2), .addr = 1, .weight = 256}, {.iod = iod_of(3), .addr = 2, .weight = 1}}));
  picture.nexthop({.removed = true, .id = 2, .hop = {}, .members = {}});
  update();
  EXPECT_EQ(at(254, ten, 8)->next_hops.size(), 1u);
  picture.nexthop({.id = 1, .blackhole = true, .hop = {}, .members = {}});
  update();
  EXPECT_EQ(at(254, ten, 8)->action, RouteAction::blackhole);
}

TEST_F(RoutesTest, ARouteWaitsForItsInterface) {
  tell(forward(ten, 8, 7, neighbour));
  EXPECT_EQ(at(254, ten, 8), nullptr);
  place(7, 254);
  update();
  ASSERT_NE(at(254, ten, 8), nullptr);
  EXPECT_EQ(at(254, ten, 8)->next_hops, (Hops{{.iod = iod_of(7), .addr = neighbour}}));
  displace(7);
  update();
  EXPECT_EQ(at(254, ten, 8), nullptr);
}

TEST_F(RoutesTest, ANewIodIsWritten) {
  tell(forward(ten, 8, 2, neighbour));
  around.interfaces[2].iod = 777;
  routes.surround(around);
  update();
  EXPECT_EQ(at(254, ten, 8)->next_hops[0].iod, 777u);
}

TEST_F(RoutesTest, TheLocalTableIsMergedByInterface) {
  around.context_tables["blue"] = 1001;
  place(5, 1001);
  tell(local(own, 2));
  tell(local(neighbour, 5));
  EXPECT_NE(at(254, own, 32), nullptr);
  EXPECT_EQ(at(1001, own, 32), nullptr);
  EXPECT_EQ(at(254, neighbour, 32), nullptr);
  ASSERT_NE(at(1001, neighbour, 32), nullptr);
  EXPECT_EQ(at(1001, neighbour, 32)->origin, 255u);
  EXPECT_FALSE(writer.unicast.contains(255));
}

TEST_F(RoutesTest, TheLocalTableWinsAtTheSamePrefix) {
  tell(forward(own, 32, 3, neighbour));
  EXPECT_EQ(at(254, own, 32)->kind, RouteKind::static_);
  tell(local(own, 2));
  EXPECT_EQ(at(254, own, 32)->kind, RouteKind::local);
  tell(gone(local(own, 2)));
  EXPECT_EQ(at(254, own, 32)->kind, RouteKind::static_);
}

TEST_F(RoutesTest, AnInterfaceThatMovesTakesItsLocalRoutesAlong) {
  around.context_tables["blue"] = 1001;
  tell(local(own, 2));
  place(2, 1001);
  update();
  EXPECT_EQ(at(254, own, 32), nullptr);
  EXPECT_NE(at(1001, own, 32), nullptr);
  place(2, 254);
  tell(gone(local(own, 2)));
  EXPECT_EQ(at(254, own, 32), nullptr);
  EXPECT_EQ(at(1001, own, 32), nullptr);
}

TEST_F(RoutesTest, APolicyTablesContextSeesItsConnectedRoutes) {
  around.context_tables["lab"] = 1000;
  around.policy_tables = {1000};
  place(6, 1000);
  tell(connected(ten, 24, 6, own));
  tell(forward(eleven, 8, 6, neighbour));
  ASSERT_NE(at(1000, ten, 24), nullptr);
  EXPECT_EQ(at(1000, ten, 24)->origin, 254u);
  EXPECT_EQ(at(1000, ten, 24)->kind, RouteKind::attached);
  EXPECT_NE(at(254, ten, 24), nullptr);
  EXPECT_EQ(at(1000, eleven, 8), nullptr) << "only what the kernel itself made for the interface";
  place(6, 254);
  update();
  EXPECT_EQ(at(1000, ten, 24), nullptr);
}

TEST_F(RoutesTest, OutOfAVrfDeviceMeansThatVrfsTable) {
  around.context_tables["blue"] = 1001;
  place(8, 1001, 1001);
  tell(forward(ten, 8, 8, 0));
  ASSERT_NE(at(254, ten, 8), nullptr);
  EXPECT_EQ(at(254, ten, 8)->next_hops, (Hops{{.table = 1001}}));
  RouteMessage loopback = local(0x7f000001, 8, 1001);
  tell(loopback);
  EXPECT_EQ(at(1001, 0x7f000001, 32)->next_hops, (Hops{{.iod = iod_of(8)}}));
}

TEST_F(RoutesTest, AVirtualAddressIsInactiveUntilTheKernelHasIt) {
  around.vips = {{2, own}};
  routes.surround(around);
  update();
  ASSERT_NE(at(254, own, 32), nullptr);
  EXPECT_EQ(*at(254, own, 32), (Route{.addr = own,
                                      .len = 32,
                                      .kind = RouteKind::local,
                                      .next_hops = {{.iod = iod_of(2), .data = rsw::inactive_next_hop}}}));
  tell(local(own, 3));
  EXPECT_EQ(at(254, own, 32)->next_hops, (Hops{{.iod = iod_of(3)}}));
  tell(gone(local(own, 3)));
  EXPECT_EQ(at(254, own, 32)->next_hops, (Hops{{.iod = iod_of(2), .data = rsw::inactive_next_hop}}));
  around.vips.clear();
  routes.surround(around);
  update();
  EXPECT_EQ(at(254, own, 32), nullptr);
}

TEST_F(RoutesTest, AVirtualAddressInAVrfLooksAtTheVrfsOwnTable) {
  around.context_tables["blue"] = 1001;
  around.vips = {{5, own}};
  place(5, 1001);
  tell(local(own, 2));
  EXPECT_EQ(at(1001, own, 32)->next_hops[0].data, rsw::inactive_next_hop) << "another context's does not count";
  tell(local(own, 5, 1001));
  EXPECT_EQ(at(1001, own, 32)->next_hops[0].data, 0u);
}

TEST_F(RoutesTest, ALeakLeadsIntoTheOtherTable) {
  configure(R"({"leaks": [{"prefix": "10.0.0.0/8", "from": "blue", "to": "default"},
                          {"prefix": "11.0.0.0/8", "from_table": 77, "to_table": 78}]})");
  update();
  EXPECT_EQ(at(254, ten, 8), nullptr) << "there is no such context yet";
  ASSERT_NE(at(78, eleven, 8), nullptr);
  EXPECT_EQ(at(78, eleven, 8)->next_hops, (Hops{{.table = 77}}));
  around.context_tables["blue"] = 1001;
  routes.surround(around);
  update();
  ASSERT_NE(at(254, ten, 8), nullptr);
  EXPECT_EQ(at(254, ten, 8)->next_hops, (Hops{{.table = 1001}}));
  tell(forward(ten, 8, 2, neighbour));
  EXPECT_EQ(at(254, ten, 8)->origin, 254u) << "the kernel forwards by its own route";
  configure("{}");
  tell(gone(forward(ten, 8, 2, neighbour)));
  EXPECT_EQ(at(254, ten, 8), nullptr);
  EXPECT_FALSE(writer.unicast.contains(78));
}

TEST_F(RoutesTest, MulticastStaticRoutesHaveAViewOfTheirOwn) {
  configure(R"({"multicast_routes": [{"prefix": "10.0.0.0/8", "metric": 5,
      "next_hops": [{"address": "10.0.0.2", "interface": "if2"}, {"address": "10.0.0.3"}, {"interface": "if9"}]}]})");
  tell(forward(ten, 8, 2, neighbour));
  ASSERT_TRUE(writer.multicast[254].contains({ten, 8}));
  const Route &route = writer.multicast[254].at({ten, 8});
  EXPECT_EQ(route.kind, RouteKind::multicast_static);
  EXPECT_EQ(route.metric, 5u);
  EXPECT_EQ(route.next_hops, (Hops{{.iod = iod_of(2), .addr = 0x0a000002}, {.addr = 0x0a000003}}));
  EXPECT_EQ(at(254, ten, 8)->kind, RouteKind::static_);
  place(9, 254);
  update();
  EXPECT_EQ(writer.multicast[254].at({ten, 8}).next_hops.size(), 3u);
  configure("{}");
  update();
  EXPECT_TRUE(writer.multicast[254].empty());
}

TEST_F(RoutesTest, ATableGoesWithItsLastRoute) {
  RouteMessage message = forward(ten, 8, 2, neighbour);
  message.table = 99;
  tell(message);
  EXPECT_TRUE(writer.unicast.contains(99));
  tell(gone(message));
  EXPECT_FALSE(writer.unicast.contains(99));
  EXPECT_TRUE(writer.unicast.contains(254)) << "a context's table stays";
}

TEST_F(RoutesTest, ManyChangesReplaceTheTable) {
  const uint32_t loads = writer.loads;
  for (uint32_t i = 0; i < 5000; ++i) picture.route(forward(0x0b000000 + (i << 8), 24, 2, neighbour));
  update();
  EXPECT_EQ(writer.loads, loads + 1);
  EXPECT_EQ(writer.unicast[254].size(), 5000u);
  tell(forward(ten, 8, 2, neighbour));
  EXPECT_EQ(writer.loads, loads + 1);
  EXPECT_EQ(writer.unicast[254].size(), 5001u);
}

TEST_F(RoutesTest, OneBatchIsOneCommit) {
  const uint32_t commits = writer.commits;
  for (uint32_t i = 0; i < 10; ++i) picture.route(forward(0x0b000000 + (i << 8), 24, 2, neighbour));
  update();
  EXPECT_EQ(writer.commits, commits + 1);
}

TEST_F(RoutesTest, WhatWasRefusedIsTriedAgain) {
  writer.refusing = true;
  picture.route(forward(ten, 8, 2, neighbour));
  EXPECT_FALSE(update());
  EXPECT_TRUE(routes.retry_due());
  EXPECT_FALSE(routes.retry(picture));
  writer.refusing = false;
  EXPECT_TRUE(routes.retry(picture));
  EXPECT_FALSE(routes.retry_due());
  EXPECT_NE(at(254, ten, 8), nullptr);
}

TEST_F(RoutesTest, ACommitThatFailedIsTriedAgain) {
  writer.uncommitting = true;
  picture.route(forward(ten, 8, 2, neighbour));
  EXPECT_FALSE(update());
  EXPECT_TRUE(routes.retry_due());
  writer.uncommitting = false;
  EXPECT_TRUE(routes.retry(picture));
  EXPECT_FALSE(routes.retry_due());
}

// Whatever was told one by one in whatever batches: the tables are those that a fresh start writes as a whole.
TEST_F(RoutesTest, RandomChangesGiveWhatAFreshStartGives) {
  constexpr uint32_t seed = 20260703;
  std::mt19937 random(seed);
  const auto draw = [&random](uint32_t below) { return static_cast<uint32_t>(random() % below); };
  around.context_tables["blue"] = 1001;
  around.context_tables["lab"] = 1000;
  around.policy_tables = {1000};
  const std::vector<uint32_t> tables{254, 1000, 1001};
  for (int round = 0; round < 400; ++round) {
    SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
    for (uint32_t i = draw(12); i > 0; --i) {
      const uint32_t ifindex = 1 + draw(6);
      const uint32_t addr = 0x0a000000 + draw(6);
      RouteMessage message;
      switch (draw(4)) {
        case 0:
          message = local(addr, ifindex, draw(3) == 0 ? 1001 : 255);
          break;
        case 1:
          message = connected(addr, 32, ifindex, draw(2) == 0 ? addr : own);
          break;
        default:
          message = forward(addr, 32, ifindex, neighbour);
          message.table = tables[draw(3)];
          message.metric = draw(2);
      }
      message.place = draw(2) == 0 ? RoutePlace::last : RoutePlace::instead;
      message.removed = draw(3) == 0;
      picture.route(message);
    }
    if (draw(3) == 0) {
      const uint32_t ifindex = 1 + draw(6);
      draw(4) == 0 ? displace(ifindex) : place(ifindex, tables[draw(3)]);
    }
    if (draw(6) == 0) {
      around.vips = {{1 + draw(6), 0x0a000000 + draw(6)}};
      routes.surround(around);
    }
    if (draw(10) == 0) {
      configure(draw(2) == 0 ? "{}" : R"({"leaks": [{"prefix": "10.0.0.3/32", "from": "blue", "to": "default"}]})");
    }
    update();
    test_support::RecordingWriter fresh_writer;
    Routes fresh(fresh_writer);
    fresh.surround(around);
    RoutePicture copy = picture;
    fresh.update(copy);
    for (auto &[table, there] : writer.unicast) {
      for (const auto &[prefix, route] : there) {
        const bool leaked = route.origin == 0 && route.kind == RouteKind::static_;
        const auto found = fresh_writer.unicast[table].find(prefix);
        ASSERT_EQ(found == fresh_writer.unicast[table].end(), leaked) << table << " " << prefix.first;
        if (!leaked) {
          ASSERT_EQ(found->second, route) << table << " " << prefix.first;
        }
      }
    }
    for (const auto &[table, there] : fresh_writer.unicast) {
      for (const auto &[prefix, route] : there) ASSERT_NE(at(table, prefix.first, prefix.second), nullptr);
    }
  }
}

}  // namespace
