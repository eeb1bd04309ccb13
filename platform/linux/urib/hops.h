// SPDX-License-Identifier: Apache-2.0
// Choices among the next hops of a route, and the way from route to route that they lead.
#ifndef RSW_URIB_HOPS_H
#define RSW_URIB_HOPS_H

#include <cstdint>

#include "urib/urib_lookup.h"
#include "urib/urib_routes.h"

namespace rsw::urib {

[[nodiscard]] inline RouteKind load_kind(const Attributes &attributes) {
  return static_cast<RouteKind>(__atomic_load_n(&attributes.kind, __ATOMIC_RELAXED));
}
[[nodiscard]] inline RouteAction load_action(const Attributes &attributes) {
  return static_cast<RouteAction>(__atomic_load_n(&attributes.action, __ATOMIC_RELAXED));
}
[[nodiscard]] inline uint32_t load_count(const NextHops &hops) {
  const uint32_t count = load_word(hops.count);
  return count <= most_next_hops ? count : 0;
}
[[nodiscard]] inline uint32_t load_weight(const NextHop &hop) {
  return __atomic_load_n(&hop.weight, __ATOMIC_RELAXED);
}
[[nodiscard]] inline bool is_live(const NextHop &hop) {
  return load_word(hop.data) != inactive_next_hop;
}

// The next hop that a selector picks: any word, spread over the next hops by their weights. Of the live ones only, or
// of all. Null: there is none.
[[nodiscard]] const NextHop *pick(const NextHops &hops, uint32_t selector, bool only_live);

// One step on the way of a destination.
struct Step {
  uint32_t table;
  uint32_t addr;
  Match match;
  const Attributes *attributes;
  const NextHops *hops;  // null: the route has none
  const NextHop *hop;    // the one taken; null: the way ends here
};

inline constexpr uint32_t most_path_steps = 16;

// The steps of the way, at most most_path_steps of them, to steps[]; how many. The destination is reached when the last
// step's hop has an interface. Under the lock.
[[nodiscard]] uint32_t resolve(uint32_t table, uint32_t addr, Step (&steps)[most_path_steps]);

}  // namespace rsw::urib

#endif
