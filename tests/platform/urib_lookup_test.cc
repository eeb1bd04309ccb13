// SPDX-License-Identifier: Apache-2.0
// The lookups of the route tables beside their naive twin.
#include <gtest/gtest.h>

#include <algorithm>

#include "route_rig.h"

namespace {

using namespace route_rig;

constexpr uint32_t table = 254;

// Prefixes that nest a lot: few distinct bits, all lengths.
class Prefixes {
 public:
  Prefixes(uint32_t seed, bool dense) : random_(seed), dense_(dense) {}
  Route any() {
    const auto len = static_cast<uint8_t>(number(33));
    return make(some_addr() & mask_of(len), len);
  }
  Route make(uint32_t addr, uint8_t len) {
    static constexpr RouteKind kinds[] = {RouteKind::local,   RouteKind::attached,         RouteKind::direct,
                                          RouteKind::static_, RouteKind::multicast_static, RouteKind::other};
    Route made = route(addr, len, kinds[random_() % 6], ++mark_);
    made.metric = number(3);
    if (number(8) == 0) {
      made.action = rsw::RouteAction::pass_on;
      made.next_hops.clear();
    }
    return made;
  }
  uint32_t some_addr() {
    if (!dense_) return static_cast<uint32_t>(random_());
    // A few values in each six bits, so that many prefixes meet in one node and below one another.
    uint32_t addr = 0;
    for (uint32_t i = 0; i < 8; ++i) addr = addr << 4 | (number(3) == 0 ? 0xfu : number(2));
    return addr;
  }
  uint32_t number(uint32_t below) { return static_cast<uint32_t>(random_() % below); }

 private:
  std::mt19937 random_;
  bool dense_;
  uint32_t mark_ = 0;
};

void expect_same_answers(const Twin &twin, uint32_t addr) {
  const Lock lock;
  EXPECT_EQ(mark_of(urib_get_best_route(table, addr, 0, 0)), mark_of(twin.best(addr))) << std::hex << addr;
  EXPECT_EQ(mark_of(urib_get_best_direct_route(table, addr)), mark_of(twin.best_direct(addr))) << std::hex << addr;
  EXPECT_EQ(mark_of(rsw::urib_best(table, RouteView::unicast, addr)), mark_of(twin.best(addr))) << std::hex << addr;
  for (int len = 0; len <= 32; ++len) {
    const auto asked = static_cast<uint8_t>(len);
    const uint32_t prefix = addr & mask_of(asked);
    EXPECT_EQ(mark_of(urib_get_route(table, prefix, asked)), mark_of(twin.exact(RouteView::unicast, prefix, asked)))
        << std::hex << prefix << "/" << std::dec << len;
    EXPECT_EQ(mark_of(urib_get_mbest_route_for_prefix(table, addr, asked, 0, 0)), mark_of(twin.best_rpf(addr, len)))
        << std::hex << addr << "/" << std::dec << len;
  }
}

struct Interleaving {
  const char *name;
  bool dense;
  int changes;
  uint32_t removals_in_ten;
};

class RouteLookups : public testing::TestWithParam<Interleaving> {};

TEST_P(RouteLookups, AnswerAsTheTwinAfterAnyChanges) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Prefixes prefixes(seed, GetParam().dense);
  RouteRig rig;
  Twin twin;
  std::vector<Route> known;
  for (int change = 0; change < GetParam().changes; ++change) {
    uint32_t about = 0;
    if (change % 1000 == 500) {
      std::vector<Route> loaded = twin.all(RouteView::unicast);
      std::erase_if(loaded, [&](const Route &) { return prefixes.number(2) == 0; });
      for (Route &kept : loaded) {
        for (rsw::RouteNextHop &hop : kept.next_hops) hop.iod += 1u << 20;
      }
      for (const Route &kept : twin.all(RouteView::multicast)) loaded.push_back(kept);
      std::reverse(loaded.begin(), loaded.end());
      ASSERT_TRUE(rig.writer->load(table, loaded)) << rig.writer->last_error();
      twin.load(loaded);
    } else if (!known.empty() && prefixes.number(10) < GetParam().removals_in_ten) {
      const size_t which = prefixes.number(static_cast<uint32_t>(known.size()));
      const Route gone = known[which];
      known[which] = known.back();
      known.pop_back();
      rig.remove(view_of(gone), gone.addr, gone.len);
      twin.remove(view_of(gone), gone.addr, gone.len);
      about = gone.addr;
    } else {
      const Route added = known.empty() || prefixes.number(4) != 0
                              ? prefixes.any()
                              : prefixes.make(known.back().addr, known.back().len);  // another in its place
      rig.set(added);
      twin.set(added);
      known.push_back(added);
      about = added.addr | (prefixes.some_addr() & ~mask_of(added.len));
    }
    expect_same_answers(twin, about);
    if (change % 50 == 0) {
      for (int i = 0; i < 20; ++i) expect_same_answers(twin, prefixes.some_addr());
      rig.tick();
    }
    if (change % 500 == 0) {
      EXPECT_EQ(rsw::urib_routes(table, RouteView::unicast), twin.all(RouteView::unicast));
      EXPECT_EQ(rsw::urib_routes(table, RouteView::multicast), twin.all(RouteView::multicast));
      EXPECT_EQ(rig.writer->use().routes, twin.size());
    }
    if (HasFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(All, RouteLookups,
                         testing::Values(Interleaving{"SmallAndNested", true, 3000, 5},
                                         Interleaving{"GrowingAndNested", true, 4000, 2},
                                         Interleaving{"GrowingAndSpread", false, 4000, 2}),
                         [](const auto &of) { return of.param.name; });

}  // namespace
