// SPDX-License-Identifier: Apache-2.0
// A context's lowest active address, and whether each of its addresses is active, against a twin that knows no tree and
// no longest match: a map of holdings and a set of the virtual addresses that are live.
#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "unit/library_test.h"
#include "unit/random_words.h"

namespace unit {
namespace {

constexpr uint32_t interfaces = 6;
constexpr uint32_t table = 20;

struct Twin {
  struct Holding {
    uint32_t iod;  // of the first holder; 0: none
    bool known;    // the node has information
    bool vip;
  };
  std::map<uint32_t, Holding> hosts = {};
  std::set<uint32_t> up = {};
  std::set<uint32_t> live = {};

  [[nodiscard]] uint32_t lowest_active() const {
    for (const auto &[addr, holding] : hosts) {
      const bool counts = holding.known && holding.iod != 0 && up.contains(holding.iod);
      if (counts && (!holding.vip || live.contains(addr))) return addr;
    }
    return 0;
  }

  [[nodiscard]] uint32_t active_holder(uint32_t addr) const {
    const auto found = hosts.find(addr);
    if (found == hosts.end() || !found->second.known) return 0;
    return found->second.vip && !live.contains(addr) ? 0 : found->second.iod;
  }
};

class ActiveAddressTwinTest : public LibraryTest {
 protected:
  uint32_t random_address() { return 0x0a000000 | (random() & 0x80000303); }

  Twin random_context(ip_api_context_type *context) {
    Twin twin;
    for (uint32_t iod = 1; iod <= interfaces; iod++) {
      const bool up = random.below(3) == 0;
      platform().interfaces[iod].up = up;
      if (up) twin.up.insert(iod);
    }
    std::set<std::tuple<uint32_t, uint32_t>> known;
    for (uint32_t n = random.below(16); n != 0; n--) {
      const uint32_t length = random.below(4) == 0 ? 24 + random.below(8) : 32;
      const uint32_t addr = random_address() & ~uint32_t{0} << (32 - length);
      if (!known.emplace(addr, length).second) continue;
      const Twin::Holding held{random.below(interfaces + 1), random.below(6) != 0, random.below(2) == 0};
      std::vector<uint32_t> iods;
      // Iod 0 in a list, and no list at all, are the same to whoever asks.
      if (held.iod != 0 || random.below(2) == 0) iods = {held.iod, 1 + random.below(interfaces)};
      database.node(context, addr, iods, {.length = length, .vip = held.vip, .with_info = held.known});
      if (length == 32) twin.hosts.emplace(addr, held);
    }
    random_routes(twin);
    return twin;
  }

  // Each kind of route for an address; only one makes a virtual address active.
  void random_routes(Twin &twin) {
    platform().routes.clear();
    for (const auto &[addr, holding] : twin.hosts) {
      fake_platform::Route route{.table = table, .addr = addr};
      switch (random.below(6)) {
        case 0:
          continue;
        case 1:
          route.first_data = 1;  // of another kind
          break;
        case 2:
          route.local = true;
          route.first_data = 0xdeadbeef;
          break;
        case 3:
          route.local = true;
          route.table = table + 1;
          break;
        default:
          route.local = true;
          route.first_data = random() & 0xff;
          twin.live.insert(addr);
      }
      platform().routes.push_back(route);
    }
    // Shorter, and local like the others: it covers every address, but is the best route only of those without one.
    if (random.below(4) == 0) {
      platform().routes.push_back({.table = table, .addr = 0, .length = 0, .local = true, .first_data = 1});
      for (const auto &[addr, holding] : twin.hosts) {
        const bool own = std::ranges::any_of(platform().routes, [&](const fake_platform::Route &route) {
          return route.table == table && route.length == 32 && route.addr == addr;
        });
        if (!own) twin.live.insert(addr);
      }
    }
  }

  RandomWords random;
};

TEST_F(ActiveAddressTwinTest, TheLowestActiveAddressIsTheTwins) {
  attach();
  platform().log.record(false);
  constexpr uint32_t contexts = 600;
  uint32_t found = 0;
  for (uint32_t i = 1; i <= contexts; i++) {
    auto *context = database.context_without_tree(i, "random" + std::to_string(i), table);
    void *handle = platform().memory.allocate(16);
    platform().trees[handle] = {};
    context->local_pt = handle;
    const Twin twin = random_context(context);
    SCOPED_TRACE(i);
    ASSERT_EQ(ip_get_active_local_address(i), twin.lowest_active());
    found += twin.lowest_active() != 0 ? 1 : 0;
    const std::string name = "random" + std::to_string(i);
    for (const auto &[addr, holding] : twin.hosts) {
      ASSERT_EQ(ip_is_addr_local_active(name.c_str(), addr), twin.active_holder(addr)) << fake_platform::dotted(addr);
    }
    const uint32_t elsewhere = random_address();
    ASSERT_EQ(ip_is_addr_local(name.c_str(), elsewhere), twin.active_holder(elsewhere));
    platform().trees.erase(handle);
  }
  EXPECT_GT(found, contexts / 20) << "some must have an active address";
  EXPECT_LT(found, contexts * 19 / 20) << "and some none";
}

}  // namespace
}  // namespace unit
