// SPDX-License-Identifier: Apache-2.0
// The mirror of routes: its cycle, and the look that it takes again after what the kernel does silently.
#include <gtest/gtest.h>
#include <net/if.h>

#include "ipd/kernel/mirror.h"
#include "ipd/route_messages.h"

namespace {

using namespace ipd::kernel;
namespace nl = netlink_messages;
using namespace std::chrono_literals;

constexpr uint32_t our_port = 4711, ten = 0x0a000000;

class MirrorRoutesTest : public testing::Test, protected Requests {
 protected:
  MirrorRoutesTest() { mirror.set_port(our_port); }
  bool request_dump(DumpOf what, uint32_t sequence) override {
    asked.emplace_back(what, sequence);
    return true;
  }
  bool request_system_settings(uint32_t) override {
    ++polls;
    return true;
  }
  void feed(const nl::Bytes &bytes) { parse(bytes, mirror); }
  [[nodiscard]] nl::Header answer(uint16_t flags = NLM_F_MULTI) const {
    return {.flags = flags, .sequence = asked.back().second, .port = our_port};
  }
  void answer_cycle(const std::vector<nl::RouteFields> &list) {
    feed(nl::link({.ifindex = 2}, answer()));
    for (int i = 0; i < 3; ++i) feed(nl::done(answer()));
    for (const auto &route : list) feed(nl::route(route, answer()));
    feed(nl::done(answer()));
  }
  [[nodiscard]] size_t count() {
    routes.take_changes();
    return routes.route_count();
  }

  RoutePicture routes;
  std::vector<std::pair<DumpOf, uint32_t>> asked;
  int polls = 0;
  Mirror mirror{routes, *this};
  Mirror::Clock::time_point now{};
};

TEST_F(MirrorRoutesTest, AsksForLinksAddressesNexthopObjectsAndRoutes) {
  mirror.start(now);
  answer_cycle({{.addr = ten}});
  ASSERT_EQ(asked.size(), 4u);
  const std::vector<DumpOf> cycle{DumpOf::links, DumpOf::addresses, DumpOf::nexthops, DumpOf::routes};
  for (size_t i = 0; i < cycle.size(); ++i) EXPECT_EQ(asked[i].first, cycle[i]);
  EXPECT_TRUE(mirror.settled());
  EXPECT_EQ(count(), 1u);
  mirror.tick(now + 10s);
  EXPECT_EQ(polls, 0) << "settings are another mirror's";
}

TEST_F(MirrorRoutesTest, AKernelWithoutNexthopObjectsHasRoutesAllTheSame) {
  mirror.start(now);
  feed(nl::done(answer()));
  feed(nl::done(answer()));
  feed(nl::error(answer(0), 95));
  ASSERT_EQ(asked.size(), 4u);
  EXPECT_EQ(asked[3].first, DumpOf::routes);
  feed(nl::done(answer()));
  EXPECT_TRUE(mirror.settled());
}

TEST_F(MirrorRoutesTest, ALostRouteIsFoundByTheNextDump) {
  mirror.start(now);
  answer_cycle({{.addr = ten}});
  mirror.overrun();
  mirror.drained(now);
  answer_cycle({{.addr = 0x0b000000}, {.addr = 0x0c000000}});
  EXPECT_EQ(count(), 2u);
  EXPECT_EQ(routes.table(254)->begin()->first.addr, 0x0b000000u);
}

TEST_F(MirrorRoutesTest, WhatWasConcludedIsVerifiedALittleLaterAndOnce) {
  mirror.start(now);
  answer_cycle({{.addr = ten}});
  feed(nl::link({.ifindex = 2, .flags = 0}));
  EXPECT_EQ(count(), 0u);
  mirror.drained(now);
  mirror.tick(now + 100ms);
  EXPECT_EQ(asked.size(), 4u);
  mirror.tick(now + 250ms);
  ASSERT_EQ(asked.size(), 5u);
  now += 250ms;
  answer_cycle({{.addr = ten}});
  EXPECT_EQ(count(), 1u) << "the kernel knows better";
  mirror.drained(now);
  mirror.tick(now + 10s);
  EXPECT_EQ(asked.size(), 8u);
}

TEST_F(MirrorRoutesTest, ASeriesOfConclusionsPutsTheLookOffByASecondAtMost) {
  mirror.start(now);
  answer_cycle({{.addr = ten}});
  for (int i = 0; i < 8; ++i) {
    feed(nl::link({.ifindex = 2, .flags = i % 2 == 0 ? 0u : unsigned{IFF_UP}}));
    mirror.drained(now + i * 130ms);
    mirror.tick(now + i * 130ms);
    EXPECT_EQ(asked.size(), 4u) << i;
  }
  mirror.tick(now + 1001ms);
  EXPECT_EQ(asked.size(), 5u);
}

TEST_F(MirrorRoutesTest, AfterALongDumpTheNextOneWaits) {
  mirror.start(now);
  mirror.tick(now + 1s);  // the clock of a dump that takes a second
  answer_cycle({{.addr = ten}});
  feed(nl::link({.ifindex = 2, .flags = 0}));
  mirror.drained(now + 1s);
  mirror.tick(now + 3s);
  EXPECT_EQ(asked.size(), 4u);
  mirror.tick(now + 5s);
  EXPECT_EQ(asked.size(), 5u);
}

}  // namespace
