// SPDX-License-Identifier: Apache-2.0
// The kernel's routes as events and dumps tell of them, with what the kernel does silently.
#include "ipd/kernel/route_picture.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <random>

#include "ipd/route_messages.h"

namespace {

using namespace ipd::kernel;
namespace nl = netlink_messages;

constexpr uint32_t ten = 0x0a000000, eleven = 0x0b000000, gateway = 0x0a000001, other_gateway = 0x0a000002;

// Takes bytes as events or as a dump's.
class Taker final : public Sink {
 public:
  explicit Taker(RoutePicture &routes) : routes_(routes) {}
  void link(const Origin &, const LinkMessage &message) override { routes_.link(message); }
  void address(const Origin &, const AddressMessage &message) override { routes_.address(message); }
  void netconf(const Origin &, const NetconfMessage &) override {}
  void route(const Origin &, const RouteMessage &message) override {
    dump ? routes_.dump_route(message) : routes_.route(message);
  }
  void nexthop(const Origin &, const NexthopMessage &message) override {
    dump ? routes_.dump_nexthop(message) : routes_.nexthop(message);
  }
  void end_of_dump(const Origin &, int) override {}
  void request_failed(const Origin &, int) override {}
  void events_lost() override {}
  void refused(Refusal, uint16_t) override { ++refusals; }
  bool dump = false;
  int refusals = 0;

 private:
  RoutePicture &routes_;
};

class RoutePictureTest : public testing::Test {
 protected:
  void event(const nl::Bytes &bytes) {
    taker.dump = false;
    parse(bytes, taker);
    ASSERT_EQ(taker.refusals, 0);
  }
  void told(const nl::Bytes &bytes) {
    taker.dump = true;
    parse(bytes, taker);
    ASSERT_EQ(taker.refusals, 0);
  }
  void up(int ifindex) { event(nl::link({.ifindex = ifindex, .flags = IFF_UP | IFF_RUNNING})); }
  void down(int ifindex) { event(nl::link({.ifindex = ifindex, .flags = 0})); }
  // Gateways of all usable hops of the first route of the prefix, or nothing.
  [[nodiscard]] std::vector<uint32_t> gateways(uint32_t addr, uint8_t len, uint32_t table = 254) {
    routes.take_changes();
    const RouteTable *there = routes.table(table);
    if (there == nullptr) return {};
    const auto first = there->lower_bound({.addr = addr, .len = len, .tos = 0, .metric = 0});
    if (first == there->end() || first->first.addr != addr || first->first.len != len) return {};
    std::vector<uint32_t> list;
    for (const RouteHop &hop : routes.resolve(first->second.info).hops) list.push_back(hop.gateway);
    return list;
  }
  [[nodiscard]] size_t count(uint32_t table = 254) {
    routes.take_changes();
    const RouteTable *there = routes.table(table);
    return there == nullptr ? 0 : there->size();
  }

  RoutePicture routes;
  Taker taker{routes};
};

using List = std::vector<uint32_t>;

TEST_F(RoutePictureTest, ARouteComesAndGoes) {
  event(nl::route({.gateway = gateway}));
  EXPECT_EQ(gateways(ten, 8), List{gateway});
  event(nl::route_gone({.gateway = gateway}));
  EXPECT_EQ(count(), 0u);
  EXPECT_EQ(routes.info_count(), 0u);
  EXPECT_FALSE(routes.take_doubt());
}

TEST_F(RoutePictureTest, ChangesAreToldByPrefixWithTheInterface) {
  event(nl::route({.ifindex = 5, .gateway = gateway}));
  const RouteChanges changes = routes.take_changes();
  EXPECT_EQ(changes.routes, (std::vector<RouteChange>{{.table = 254, .addr = ten, .ifindex = 5, .len = 8}}));
  EXPECT_FALSE(routes.changed());
}

TEST_F(RoutePictureTest, MetricsAndTablesLieSideBySide) {
  event(nl::route({.gateway = gateway, .metric = 10}));
  event(nl::route({.gateway = other_gateway, .metric = 5}));
  event(nl::route({.table = 99, .gateway = gateway}));
  EXPECT_EQ(gateways(ten, 8), List{other_gateway});
  EXPECT_EQ(count(), 2u);
  EXPECT_EQ(count(99), 1u);
  EXPECT_EQ(routes.route_count(), 3u);
}

TEST_F(RoutePictureTest, AnAppendedRouteStandsBehindAndAPrependedOneBefore) {
  event(nl::route({.gateway = gateway}));
  event(nl::route({.gateway = other_gateway}, {.flags = nl::event_last}));
  EXPECT_EQ(gateways(ten, 8), List{gateway});
  event(nl::route({.gateway = 7}, {.flags = nl::event_first}));
  EXPECT_EQ(gateways(ten, 8), List{7});
  EXPECT_EQ(count(), 3u);
  event(nl::route_gone({.gateway = 7}));
  event(nl::route_gone({.gateway = gateway}));
  EXPECT_EQ(gateways(ten, 8), List{other_gateway});
}

TEST_F(RoutePictureTest, AReplacementTakesThePlaceOfTheFirst) {
  event(nl::route({.gateway = gateway}));
  event(nl::route({.gateway = 7}, {.flags = nl::event_instead}));
  EXPECT_EQ(gateways(ten, 8), List{7});
  EXPECT_EQ(count(), 1u);
  EXPECT_FALSE(routes.take_doubt());
  event(nl::route({.gateway = other_gateway}, {.flags = nl::event_last}));
  event(nl::route({.gateway = 9}, {.flags = nl::event_instead}));
  EXPECT_EQ(gateways(ten, 8), List{9});
  EXPECT_EQ(count(), 2u);
  EXPECT_TRUE(routes.take_doubt()) << "which of two it replaced is not said";
}

TEST_F(RoutePictureTest, TheSameRouteToldAgainIsOneRoute) {
  event(nl::route({.gateway = gateway}));
  event(nl::route({.gateway = gateway}, {.flags = nl::event_last}));
  event(nl::route({.gateway = gateway}, {.flags = 0}));
  EXPECT_EQ(count(), 1u);
}

TEST_F(RoutePictureTest, ADeathThatAMessageTellsHoldsForEveryRouteWithThatHop) {
  event(nl::route({.gateway = gateway}));
  event(nl::route({.addr = eleven, .gateway = gateway}));
  routes.take_changes();
  event(nl::route({.gateway = gateway, .flags = RTNH_F_DEAD}, {.flags = 0}));
  EXPECT_EQ(routes.take_changes().routes.size(), 2u);
  EXPECT_EQ(gateways(eleven, 8), List{});
}

TEST_F(RoutePictureTest, ADeviceThatGoesDownTakesItsRoutesAlongButNotItsAddresses) {
  up(2);
  event(nl::route({.gateway = gateway}));
  event(nl::route({.addr = eleven, .ifindex = 3, .gateway = gateway}));
  event(nl::route({.addr = gateway, .len = 32, .table = 255, .type = RTN_LOCAL, .scope = RT_SCOPE_HOST}));
  event(nl::route({.addr = 0x0c000000, .type = RTN_BLACKHOLE}));
  routes.take_changes();
  down(2);
  EXPECT_EQ(routes.take_changes().routes,
            (std::vector<RouteChange>{{.table = 254, .addr = ten, .ifindex = 2, .len = 8}}));
  EXPECT_EQ(count(), 2u);
  EXPECT_EQ(count(255), 1u);
  EXPECT_TRUE(routes.take_doubt());
}

TEST_F(RoutePictureTest, ADeviceThatGoesAwayTakesItsAddressesToo) {
  up(2);
  event(nl::route({.addr = gateway, .len = 32, .table = 255, .type = RTN_LOCAL, .scope = RT_SCOPE_HOST}));
  event(nl::link_gone(2));
  EXPECT_EQ(count(255), 0u);
  EXPECT_EQ(routes.info_count(), 0u);
}

TEST_F(RoutePictureTest, AMultipathRouteLosesHopsAndGetsThemBack) {
  up(2);
  up(3);
  const nl::RouteFields both{.multipath = {{.ifindex = 2, .gateway = gateway}, {.ifindex = 3, .gateway = 7}}};
  event(nl::route(both));
  down(2);
  EXPECT_EQ(gateways(ten, 8), List{7});
  up(2);
  EXPECT_EQ(gateways(ten, 8), (List{gateway, 7}));
  down(2);
  down(3);
  EXPECT_EQ(count(), 0u);
}

TEST_F(RoutePictureTest, ARouteThatComesRightAfterItsDeviceWentDownAndUpStays) {
  up(2);
  event(nl::route({.gateway = gateway}));
  event(nl::route({.addr = eleven, .gateway = gateway}));
  routes.take_changes();
  down(2);
  up(2);
  event(nl::route({.gateway = gateway}));
  EXPECT_EQ(gateways(ten, 8), List{gateway});
  EXPECT_EQ(gateways(eleven, 8), List{});
  EXPECT_EQ(count(), 1u);
}

TEST_F(RoutePictureTest, LostCarrierOnlyAsksForAnotherLook) {
  up(2);
  event(nl::route({.gateway = gateway}));
  routes.take_doubt();
  event(nl::link({.ifindex = 2, .flags = IFF_UP}));
  EXPECT_TRUE(routes.take_doubt());
  EXPECT_EQ(gateways(ten, 8), List{gateway});
}

TEST_F(RoutePictureTest, TheLastAddressOfADeviceTakesItsRoutesAlong) {
  up(2);
  event(nl::address({.ifindex = 2, .local = gateway}));
  event(nl::address({.ifindex = 2, .local = eleven}));
  event(nl::route({.addr = 0x0c000000, .gateway = other_gateway}));
  event(nl::address_gone({.ifindex = 2, .local = gateway}));
  EXPECT_EQ(count(), 1u);
  event(nl::address_gone({.ifindex = 2, .local = eleven}));
  EXPECT_EQ(count(), 0u);
  EXPECT_TRUE(routes.take_doubt());
}

TEST_F(RoutePictureTest, RoutesGoWithTheSourceAddressThatTheyName) {
  up(2);
  up(3);
  event(nl::address({.ifindex = 2, .local = gateway}));
  event(nl::address({.ifindex = 2, .local = gateway, .prefix_len = 32}));
  event(nl::address({.ifindex = 2, .local = eleven}));
  event(nl::route({.addr = 0x0c000000, .ifindex = 3, .pref_src = gateway}));
  event(nl::route({.addr = 0x0c000000, .table = 99, .ifindex = 3, .pref_src = gateway}));
  event(nl::address_gone({.ifindex = 2, .local = gateway}));
  EXPECT_EQ(count(), 1u) << "it is an address still";
  event(nl::address_gone({.ifindex = 2, .local = gateway, .prefix_len = 32}));
  EXPECT_EQ(count(), 0u);
  EXPECT_EQ(count(99), 1u) << "not the device's table";
}

TEST_F(RoutePictureTest, ANexthopObjectLeadsItsRoutesElsewhere) {
  event(nl::nexthop({.id = 5, .ifindex = 2, .gateway = gateway}));
  event(nl::route({.nexthop_id = 5}));
  event(nl::route({.addr = eleven, .nexthop_id = 5}));
  EXPECT_EQ(gateways(ten, 8), List{gateway});
  event(nl::nexthop({.id = 5, .ifindex = 3, .gateway = 7}));
  EXPECT_EQ(routes.take_changes().routes.size(), 2u);
  EXPECT_EQ(gateways(eleven, 8), List{7});
}

TEST_F(RoutePictureTest, AGroupLosesMembersAndGoesWithTheLast) {
  event(nl::nexthop({.id = 1, .ifindex = 2, .gateway = gateway}));
  event(nl::nexthop({.id = 2, .ifindex = 3, .gateway = 7}));
  event(nl::nexthop({.id = 9, .group = {{1, 10}, {2, 20}}}));
  event(nl::route({.nexthop_id = 9}));
  EXPECT_EQ(gateways(ten, 8), (List{gateway, 7}));
  event(nl::nexthop_gone({.id = 1}));
  EXPECT_EQ(gateways(ten, 8), List{7});
  event(nl::nexthop_gone({.id = 2}));
  EXPECT_EQ(count(), 0u);
  EXPECT_TRUE(routes.take_doubt());
}

TEST_F(RoutePictureTest, NexthopObjectsGoWithTheirDevice) {
  up(2);
  event(nl::nexthop({.id = 1, .ifindex = 2, .gateway = gateway}));
  event(nl::nexthop({.id = 3, .blackhole = true}));
  event(nl::route({.nexthop_id = 1}));
  event(nl::route({.addr = eleven, .nexthop_id = 3}));
  down(2);
  EXPECT_EQ(count(), 1u);
  const auto left = routes.table(254)->begin();
  EXPECT_TRUE(routes.resolve(left->second.info).blackhole);
}

TEST_F(RoutePictureTest, ARouteWhoseNexthopObjectIsNotKnownIsNotUsable) {
  event(nl::route({.nexthop_id = 5}));
  EXPECT_EQ(count(), 1u);
  EXPECT_FALSE(routes.resolve(routes.table(254)->begin()->second.info).usable);
  event(nl::nexthop({.id = 5, .ifindex = 2, .gateway = gateway}));
  EXPECT_EQ(gateways(ten, 8), List{gateway});
}

TEST_F(RoutePictureTest, TheFirstDumpChangesEverythingAndALaterOneWhatDiffers) {
  for (int i = 0; i < 2; ++i) {
    routes.begin_dump();
    told(nl::route({.gateway = gateway}));
    if (i == 0) told(nl::route({.addr = eleven, .gateway = gateway}));
    if (i == 1) told(nl::route({.addr = 0x0c000000, .gateway = gateway}));
    routes.end_dump(true);
    const RouteChanges changes = routes.take_changes();
    EXPECT_EQ(changes.everything, i == 0);
    EXPECT_EQ(changes.routes.size(), i == 0 ? 0u : 2u);
  }
  EXPECT_EQ(count(), 2u);
}

TEST_F(RoutePictureTest, AnEventDuringADumpBeatsTheDump) {
  event(nl::route({.gateway = gateway}));
  routes.begin_dump();
  event(nl::route_gone({.gateway = gateway}));
  event(nl::route({.addr = eleven, .gateway = 7}));
  told(nl::route({.gateway = gateway}));
  routes.end_dump(true);
  EXPECT_EQ(gateways(ten, 8), List{});
  EXPECT_EQ(gateways(eleven, 8), List{7});
}

TEST_F(RoutePictureTest, AnEntryThatADumpMissedBesideAChangeStaysAndIsAskedForAgain) {
  event(nl::route({.gateway = gateway}));
  event(nl::route({.len = 16, .gateway = gateway}));
  event(nl::route({.addr = eleven, .gateway = gateway}));
  routes.begin_dump();
  event(nl::route_gone({.len = 16, .gateway = gateway}));
  told(nl::route({.addr = 0x0c000000, .gateway = gateway}));
  routes.end_dump(true);
  EXPECT_EQ(gateways(ten, 8), List{gateway});
  EXPECT_EQ(gateways(eleven, 8), List{});
  EXPECT_TRUE(routes.take_doubt());
}

TEST_F(RoutePictureTest, AnInterruptedDumpTakesNothingAway) {
  event(nl::route({.gateway = gateway}));
  routes.begin_dump();
  told(nl::route({.addr = eleven, .gateway = gateway}));
  routes.end_dump(false);
  EXPECT_EQ(count(), 2u);
}

TEST_F(RoutePictureTest, ADumpBringsTheKernelsOrder) {
  event(nl::route({.gateway = 1}));
  event(nl::route({.gateway = 2}, {.flags = nl::event_last}));
  event(nl::route({.gateway = 3}, {.flags = nl::event_last}));
  routes.begin_dump();
  for (uint32_t each : {3u, 4u, 1u}) told(nl::route({.gateway = each}));
  routes.end_dump(true);
  EXPECT_EQ(gateways(ten, 8), List{3});
  EXPECT_EQ(count(), 3u);
  event(nl::route_gone({.gateway = 3}));
  EXPECT_EQ(gateways(ten, 8), List{4});
}

TEST_F(RoutePictureTest, ANexthopObjectThatADumpDoesNotTellOfIsGone) {
  routes.begin_dump();
  told(nl::nexthop({.id = 5, .ifindex = 2, .gateway = gateway}));
  told(nl::route({.nexthop_id = 5}));
  routes.end_dump(true);
  EXPECT_EQ(gateways(ten, 8), List{gateway});
  routes.begin_dump();
  told(nl::route({.nexthop_id = 5}));
  routes.end_dump(true);
  EXPECT_EQ(gateways(ten, 8), List{});
}

// A naive twin: a plain list of routes per key, in the kernel's order.
struct Twin {
  using Key = std::tuple<uint32_t, uint32_t, uint8_t, uint32_t>;
  std::map<Key, std::vector<uint32_t>> lists;  // gateways
};

TEST_F(RoutePictureTest, RandomChangesLossesAndDumpsConverge) {
  constexpr uint32_t seed = 20260702;
  std::mt19937 random(seed);
  const auto draw = [&random](uint32_t below) { return static_cast<uint32_t>(random() % below); };
  Twin twin;
  uint32_t lost = 0;
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
    const bool loses = draw(3) == 0;
    for (int i = 0; i < 60; ++i) {
      const nl::RouteFields fields{.addr = (draw(8) << 24) | 0x08000000,
                                   .len = static_cast<uint8_t>(8 + draw(2)),
                                   .table = 254 + draw(2) * 746,
                                   .gateway = 1 + draw(4),
                                   .metric = draw(2)};
      auto &list = twin.lists[{fields.table, fields.addr, fields.len, fields.metric}];
      const auto same = std::find(list.begin(), list.end(), fields.gateway);
      const auto tell = [&](const nl::Bytes &bytes) {
        const bool missed = loses && draw(4) == 0;
        lost += missed ? 1 : 0;
        if (!missed) event(bytes);
      };
      switch (draw(4)) {
        case 0:
          if (same != list.end()) break;
          list.push_back(fields.gateway);
          tell(nl::route(fields, {.flags = list.size() == 1 ? nl::event_alone : nl::event_last}));
          break;
        case 1:
          if (same != list.end()) break;
          list.insert(list.begin(), fields.gateway);
          tell(nl::route(fields, {.flags = list.size() == 1 ? nl::event_alone : nl::event_first}));
          break;
        case 2:
          if (same != list.end() || list.empty()) break;
          list[0] = fields.gateway;
          tell(nl::route(fields, {.flags = nl::event_instead}));
          break;
        default:
          if (same == list.end()) break;
          list.erase(same);
          tell(nl::route_gone(fields));
      }
    }
    if (loses || draw(4) == 0) {
      routes.begin_dump();
      for (const auto &[key, list] : twin.lists) {
        const auto &[table, addr, len, metric] = key;
        for (uint32_t each : list) {
          told(nl::route({.addr = addr, .len = len, .table = table, .gateway = each, .metric = metric}));
        }
      }
      routes.end_dump(true);
    }
    routes.take_changes();
    std::map<Twin::Key, std::vector<uint32_t>> there;
    size_t entries = 0;
    for (const auto &[id, table] : routes.tables()) {
      for (const auto &[key, entry] : table) {
        there[{id, key.addr, key.len, key.metric}].push_back(routes.info(entry.info).hops.at(0).gateway);
        ++entries;
      }
    }
    std::erase_if(twin.lists, [](const auto &each) { return each.second.empty(); });
    ASSERT_EQ(there, twin.lists);
    ASSERT_EQ(routes.route_count(), entries);
    ASSERT_LE(routes.info_count(), 4u);
  }
  EXPECT_GT(lost, 0u);
}

}  // namespace
