// SPDX-License-Identifier: Apache-2.0
// Questions of multicast routing: by which interface, or from which neighbour, does the traffic of a source have to
// come (reverse-path forwarding).
//
// A source on a connected subnet has to come in from there. For any other, an operator may have said where, with a
// multicast static route, which is looked up for the source's host prefix in the URIB's multicast view. A selector
// picks one of its next hops; the same selector picks the same one while the route stays as it is.
//
//   query                         a direct route covers the source               none does
//   ip_is_addr_mattached          its interface, if it is attached or multicast  the static route's interface
//                                 static, or is the static route's as well
//   ip_get_mstatic_rpf            0: a connected neighbour needs no static one   the static route's neighbour
//   ip_get_mstatic_rpf_no_mpath   not looked at                                  the static route's neighbour
//
// None of them starts the URIB client: multicast routing did so.
#include "ip_api.h"
#include "routes.h"

namespace libip {
namespace {

// The multicast static route of a source; null: none. Under the URIB's lock, as the others.
void *mstatic_route(uint32_t table, uint32_t addr) {
  void *route = urib_get_mbest_route_for_prefix(table, addr, host_route, 0, 0);
  return route != nullptr && urib_is_route_mstatic(route) != 0 ? route : nullptr;
}

uint32_t mstatic_iod(uint32_t table, uint32_t addr, uint32_t selector) {
  void *route = mstatic_route(table, addr);
  return route == nullptr ? 0 : urib_route_mbnh_iod_get(route, selector);
}

uint32_t mstatic_neighbour(uint32_t table, uint32_t addr, uint32_t selector) {
  void *route = mstatic_route(table, addr);
  return route == nullptr ? 0 : urib_route_mbnh_addr_get(route, selector);
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_is_addr_mattached(const char *name, uint32_t addr, uint32_t selector) {
  using namespace libip;
  return ask_table(table_of(name), [addr, selector](uint32_t table) -> uint32_t {
    void *direct = urib_get_best_direct_route(table, addr);
    if (direct == nullptr) return mstatic_iod(table, addr, selector);
    const uint32_t iod = urib_route_first_bnh_iod_get(direct);
    if (urib_is_route_attached(direct) != 0 || urib_is_route_mstatic(direct) != 0) return iod;
    return mstatic_iod(table, addr, selector) == iod ? iod : 0;
  });
}

uint32_t ip_get_mstatic_rpf(const char *name, uint32_t addr, uint32_t selector) {
  using namespace libip;
  return ask_table(table_of(name), [addr, selector](uint32_t table) -> uint32_t {
    if (urib_get_best_direct_route(table, addr) != nullptr) return 0;
    return mstatic_neighbour(table, addr, selector);
  });
}

uint32_t ip_get_mstatic_rpf_no_mpath(const char *name, uint32_t addr, uint32_t selector) {
  using namespace libip;
  return ask_table(table_of(name),
                   [addr, selector](uint32_t table) { return mstatic_neighbour(table, addr, selector); });
}

}  // extern "C"
