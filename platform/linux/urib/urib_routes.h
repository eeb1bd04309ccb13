// SPDX-License-Identifier: Apache-2.0
// A route as the writer gives it and as ipsh and tests read it back.
#ifndef RSW_URIB_URIB_ROUTES_H
#define RSW_URIB_URIB_ROUTES_H

#include <cstdint>
#include <vector>

namespace rsw {

// Where a route comes from. `local` is a host route to an address of this system, `attached` the subnet of an
// interface, `direct` a host or subnet route out of an interface without being one of these (a peer's address).
enum class RouteKind : uint8_t { local = 1, attached, direct, static_, multicast_static, other };

// What becomes of a packet that a route matches. Only `forward` and `broadcast` routes have next hops. `pass_on` ends
// the search in its table as if no route had matched.
enum class RouteAction : uint8_t { forward = 0, broadcast, blackhole, unreachable, prohibit, pass_on };

// The data word of a next hop that is not live: a virtual address that another system holds now.
inline constexpr uint32_t inactive_next_hop = 0xdeadbeefu;

struct RouteNextHop {
  uint32_t iod = 0;       // outgoing interface; 0: found by resolving `addr` (or the destination, if 0) in `table`
  uint32_t addr = 0;      // host order; 0: the destination itself, or a next hop of another family
  uint32_t data = 0;      // inactive_next_hop, or the writer's word
  uint32_t table = 0;     // where to resolve; 0: the route's own table
  uint16_t weight = 1;    // share of the load among the route's next hops; 1 .. 256
  bool via_ipv6 = false;  // the neighbour has an IPv6 address, which is not kept
  bool operator==(const RouteNextHop &) const = default;
};

struct Route {
  uint32_t addr = 0;  // host order, no bits beyond the length
  uint8_t len = 0;    // 0 .. 32
  RouteKind kind = RouteKind::other;
  RouteAction action = RouteAction::forward;
  uint8_t protocol = 0;                 // the kernel's number of who made it; 0: unknown
  uint32_t metric = 0;                  // the kernel's priority
  uint32_t origin = 0;                  // the kernel's table that it stands in; 0: none, it is configured
  uint32_t pref_src = 0;                // the source address that the route asks for, host order; 0: none
  std::vector<RouteNextHop> next_hops;  // at most 256
  bool operator==(const Route &) const = default;
};

// A table's two views: unicast routes, and the multicast static routes that go before them in reverse-path checks.
enum class RouteView : uint8_t { unicast, multicast };

}  // namespace rsw

#endif
