// SPDX-License-Identifier: Apache-2.0
// The writer's side of the route tables, segment "/rsw/shm/urib".
#ifndef RSW_URIB_URIB_WRITER_H
#define RSW_URIB_URIB_WRITER_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "sm/arena.h"
#include "urib/urib_routes.h"

namespace rsw {

struct UribUse {
  uint32_t tables;
  uint64_t routes;         // of both views of all tables
  uint64_t lookup_bytes;   // of the longest-match structures in use
  uint64_t route_bytes;    // of route and next-hop records in use
  uint64_t segment_bytes;  // of the segment that is in use at all
};

class RSW_EXPORT UribWriter {
 public:
  // Makes or takes over the segment. After a take-over readers keep seeing what the previous writer left until the
  // first commit(); but where as much again has no room beside it (sm/make_room.h), they find no routes until then, and
  // this waits for the quarantine. One per process, with the process's one Epochs, which
  // outlives it. Null: *reason says why.
  static std::unique_ptr<UribWriter> open(Epochs &epochs, std::string *reason, ArenaLimits limits = {});
  virtual ~UribWriter() = default;

  // Adds the route, or puts it in the place of the one of that prefix, in the view that its kind says. Visible at once
  // after the first commit(). Results: true: done, also when nothing changes. False: refused, nothing has changed, and
  // last_error() says why: a bad prefix or next hop, or no room.
  virtual bool set(uint32_t table, const Route &route) = 0;
  // True also when there is none. False: no room for the record that replaces the one it stood in; nothing has changed.
  virtual bool remove(uint32_t table, RouteView view, uint32_t addr, uint8_t len) = 0;
  // Puts these routes in the place of all that the table has, both views; much faster than set() for many. Sorted by
  // (addr, len) is faster still; no prefix twice in one view. Readers see the old table or the new one. False as for
  // set(); the table is unchanged.
  virtual bool load(uint32_t table, std::span<const Route> routes) = 0;
  virtual bool remove_table(uint32_t table) = 0;

  // The first one makes the tables visible and lets go of what a previous writer left: call it when they are whole.
  // Each tells readers that wait for a change.
  virtual bool commit() = 0;
  // Reclaims; after each batch of changes and at least once a second.
  virtual void tick(std::chrono::steady_clock::time_point now) = 0;

  [[nodiscard]] virtual const std::string &last_error() const = 0;
  [[nodiscard]] virtual UribUse use() const = 0;
};

}  // namespace rsw

#endif
