// SPDX-License-Identifier: Apache-2.0
// Routes as a full table of the Internet has them: blocks of /14 to /22 spread over the unicast space, and most
// prefixes a /24 or little shorter inside such a block; about three in five are /24.
#ifndef TESTS_PLATFORM_BGP_ROUTES_H
#define TESTS_PLATFORM_BGP_ROUTES_H

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "urib/urib_routes.h"

namespace bgp_routes {

// `count` of them with different prefixes, ascending, with one of 64 next hops each.
inline std::vector<rsw::Route> make(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  const auto below = [&random](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  static constexpr uint8_t blocks[] = {14, 15, 16, 16, 17, 18, 18, 19, 19, 19, 20, 20, 20, 21, 22, 22};
  std::vector<uint64_t> prefixes;  // addr << 8 | len: in the order of routes
  while (prefixes.size() < count) {
    while (prefixes.size() < count + count / 8) {
      const uint8_t block_len = blocks[below(16)];
      const uint32_t block = (0x01000000u + below(0xde000000u)) & (~0u << (32 - block_len));
      if (below(3) != 0) prefixes.push_back(uint64_t{block} << 8 | block_len);
      const uint32_t more = below(2) == 0 ? 0 : below(1u << (25 - block_len)) + 1;
      for (uint32_t i = 0; i < more; ++i) {
        const uint32_t kind = below(10);
        const uint32_t wanted = kind < 7 ? 24 : kind < 8 ? 23 : kind < 9 ? 22 : 21;
        const uint32_t len = std::max<uint32_t>(wanted, block_len);
        const uint32_t addr = (block | below(1u << (32 - block_len))) & (~0u << (32 - len));
        prefixes.push_back(uint64_t{addr} << 8 | len);
      }
    }
    std::ranges::sort(prefixes);
    const auto rest = std::ranges::unique(prefixes);
    prefixes.erase(rest.begin(), rest.end());
  }
  std::ranges::shuffle(prefixes, random);
  prefixes.resize(count);
  std::ranges::sort(prefixes);
  std::vector<rsw::Route> routes;
  routes.reserve(count);
  for (const uint64_t prefix : prefixes) {
    rsw::Route route;
    route.addr = static_cast<uint32_t>(prefix >> 8);
    route.len = static_cast<uint8_t>(prefix & 0xff);
    const uint32_t neighbour = below(64);
    rsw::RouteNextHop hop;
    hop.iod = 1 + neighbour % 4;
    hop.addr = 0x0a000001u + neighbour;
    route.next_hops.push_back(hop);
    routes.push_back(std::move(route));
  }
  return routes;
}

}  // namespace bgp_routes

#endif
