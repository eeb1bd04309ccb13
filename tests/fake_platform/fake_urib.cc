// SPDX-License-Identifier: Apache-2.0
// The unicast routing information base as a list of routes; the longest match is found by looking at all of them.
#include <algorithm>

#include "fake_platform/platform.h"
#include "urib.h"

using fake_platform::Address;
using fake_platform::platform;
using fake_platform::Route;

namespace {

bool covers(const Route &route, uint32_t table, uint32_t addr, uint32_t length) {
  const uint32_t mask = route.length == 0 ? 0 : ~uint32_t{0} << (32 - route.length);
  return route.table == table && route.length <= length && ((route.addr ^ addr) & mask) == 0;
}

template <class Wanted>
Route *longest(uint32_t table, uint32_t addr, uint32_t length, Wanted wanted) {
  Route *best = nullptr;
  for (Route &route : platform().routes) {
    if (!covers(route, table, addr, length) || !wanted(route)) continue;
    if (best == nullptr || route.length > best->length) best = &route;
  }
  return best;
}

// The route of a handle. Callers hand on the null of a lookup unchecked: that is a route of no kind without a next hop,
// for which every call answers 0.
const Route &route_of(const void *handle) {
  static const Route none;
  return handle == nullptr ? none : *static_cast<const Route *>(handle);
}

// Routes are looked up, and looked at, under the lock only.
void expect_lock() {
  const std::scoped_lock hold(platform().locks.mutex);
  if (platform().locks.urib_depth_of[std::this_thread::get_id()] == 0) platform().locks.route_used_unlocked = true;
}

template <class T>
void *handle_or_null(const char *function, T *route) {
  return platform().scripts.result<void *>(function, route, nullptr);
}

}  // namespace

uint32_t urib_api_init(void) {
  platform().log.call(__func__);
  return platform().scripts.result<uint32_t>(__func__, 1, 0);
}

void urib_api_close(void) {
  platform().log.call(__func__);
}

void urib_acquire_rdlock(void) {
  platform().log.call(__func__);
  const std::scoped_lock hold(platform().locks.mutex);
  platform().locks.urib_depth++;
  platform().locks.urib_depth_of[std::this_thread::get_id()]++;
}

void urib_release_rdlock(void) {
  platform().log.call(__func__);
  const std::scoped_lock hold(platform().locks.mutex);
  platform().locks.urib_depth--;
  int &depth = platform().locks.urib_depth_of[std::this_thread::get_id()];
  depth = std::max(depth - 1, 0);
}

void *urib_get_best_direct_route(uint32_t table, uint32_t addr) {
  platform().log.call(__func__, table, Address{addr});
  expect_lock();
  return handle_or_null(__func__, longest(table, addr, 32, [](const Route &route) { return route.direct; }));
}

void *urib_get_best_route(uint32_t table, uint32_t addr, uint32_t zero1, uint32_t zero2) {
  platform().log.call(__func__, table, Address{addr}, zero1, zero2);
  expect_lock();
  return handle_or_null(__func__, longest(table, addr, 32, [](const Route &route) { return !route.multicast; }));
}

void *urib_get_route(uint32_t table, uint32_t addr, uint32_t len) {
  platform().log.call(__func__, table, Address{addr}, len);
  expect_lock();
  return handle_or_null(__func__, longest(table, addr, len, [&](const Route &route) {
                          return !route.multicast && route.length == len && route.addr == addr;
                        }));
}

void *urib_get_mbest_route_for_prefix(uint32_t table, uint32_t addr, uint32_t len, uint32_t zero1, uint32_t zero2) {
  platform().log.call(__func__, table, Address{addr}, len, zero1, zero2);
  expect_lock();
  return handle_or_null(__func__, longest(table, addr, len, [](const Route &route) { return route.multicast; }));
}

uint32_t urib_is_route_attached(void *route) {
  platform().log.call(__func__, static_cast<const void *>(route));
  expect_lock();
  return platform().scripts.result<uint32_t>(__func__, route_of(route).attached ? 1 : 0, 0);
}

uint32_t urib_is_route_local(void *route) {
  platform().log.call(__func__, static_cast<const void *>(route));
  expect_lock();
  return platform().scripts.result<uint32_t>(__func__, route_of(route).local ? 1 : 0, 0);
}

uint32_t urib_is_route_mstatic(void *route) {
  platform().log.call(__func__, static_cast<const void *>(route));
  expect_lock();
  return platform().scripts.result<uint32_t>(__func__, route_of(route).multicast_static ? 1 : 0, 0);
}

uint32_t urib_route_first_bnh_iod_get(void *route) {
  platform().log.call(__func__, static_cast<const void *>(route));
  expect_lock();
  return platform().scripts.result<uint32_t>(__func__, route_of(route).first_iod, 0);
}

uint32_t urib_route_first_bnh_nib_data_get(void *route) {
  platform().log.call(__func__, static_cast<const void *>(route));
  expect_lock();
  return platform().scripts.result<uint32_t>(__func__, route_of(route).first_data, 0xdeadbeef);
}

uint32_t urib_route_mbnh_iod_get(void *route, uint32_t selector) {
  platform().log.call(__func__, static_cast<const void *>(route), selector);
  expect_lock();
  const auto &hops = route_of(route).multicast_next_hops;
  const auto hop = hops.find(selector);
  return platform().scripts.result<uint32_t>(__func__, hop == hops.end() ? 0 : hop->second.iod, 0);
}

uint32_t urib_route_mbnh_addr_get(void *route, uint32_t selector) {
  platform().log.call(__func__, static_cast<const void *>(route), selector);
  expect_lock();
  const auto &hops = route_of(route).multicast_next_hops;
  const auto hop = hops.find(selector);
  return platform().scripts.result<uint32_t>(__func__, hop == hops.end() ? 0 : hop->second.addr, 0);
}

uint32_t urib_get_path_v2(uint32_t table, uint32_t addr, uint32_t z1, uint32_t z2, uint32_t z3, struct urib_path *path,
                          uint32_t *r1, uint32_t *r2, uint32_t one) {
  platform().log.call(__func__, table, Address{addr}, z1, z2, z3, one);
  const Route *route = longest(table, addr, 32, [](const Route &candidate) { return !candidate.multicast; });
  {
    const std::scoped_lock hold(platform().locks.mutex);
    platform().paths_handed_in.push_back(*path);
  }
  *r1 = *r2 = 0;
  // Of a failure nothing may be used.
  *path = {.iod = 0xdddddddd, .table_id = 0xdddddddd, .next_hop = 0xdddddddd, .reserved = {}};
  if (route != nullptr) {
    path->iod = route->first_iod;
    path->table_id = route->path_table != 0 ? route->path_table : route->table;
  }
  return platform().scripts.result<uint32_t>(__func__, route != nullptr ? 1 : 0, 0);
}
