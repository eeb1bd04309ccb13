// SPDX-License-Identifier: Apache-2.0
// The route tables as a reader beyond the contract sees them: for ipsh and tests.
//
// Each call takes URIB's read lock by itself and copies out; urib_api_init() was called before. Threads: any.
#ifndef RSW_URIB_URIB_VIEW_H
#define RSW_URIB_URIB_VIEW_H

#include <cstdint>
#include <optional>
#include <vector>

#include "sm/run_dir.h"
#include "sm/segment.h"
#include "urib/urib_routes.h"

namespace rsw {

// The tables that exist, ascending.
RSW_EXPORT std::vector<uint32_t> urib_tables();

// All routes of one view, ascending by (addr, len). Read in short steps: each route is of one moment, the whole list is
// not. Damaged records are left out.
RSW_EXPORT std::vector<Route> urib_routes(uint32_t table, RouteView view);

// One route: the longest match, or exactly this prefix. Nothing: no route.
RSW_EXPORT std::optional<Route> urib_best(uint32_t table, RouteView view, uint32_t addr);
RSW_EXPORT std::optional<Route> urib_exact(uint32_t table, RouteView view, uint32_t addr, uint8_t len);

// One step of the resolution that urib_get_path_v2 makes.
struct PathStep {
  uint32_t table;     // where it was looked up
  uint32_t addr;      // what was looked up
  Route route;        // what matched
  uint32_t next_hop;  // which of its next hops was taken; as many as there are: none
};
// All steps for a destination, the last one last; empty: the first lookup matched nothing.
RSW_EXPORT std::vector<PathStep> urib_path(uint32_t table, uint32_t addr);

// The segment's header, for wait_for_generation; null when it cannot be attached.
RSW_EXPORT const SegmentHeader *urib_header();

}  // namespace rsw

#endif
