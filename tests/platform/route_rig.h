// SPDX-License-Identifier: Apache-2.0
// Route tables in a run directory of their own, with their naive twin: a map of prefixes that is searched by trying
// every length.
#ifndef TESTS_PLATFORM_ROUTE_RIG_H
#define TESTS_PLATFORM_ROUTE_RIG_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/run_directory.h"
#include "tsp/epochs.h"
#include "urib.h"
#include "urib/urib_view.h"
#include "urib/urib_writer.h"

namespace route_rig {

using rsw::Route;
using rsw::RouteAction;
using rsw::RouteKind;
using rsw::RouteView;

inline uint32_t mask_of(uint32_t len) {
  return len == 0 ? 0 : ~0u << (32 - len);
}

inline bool is_direct(RouteKind kind) {
  return kind == RouteKind::local || kind == RouteKind::attached || kind == RouteKind::direct;
}
inline RouteView view_of(const Route &route) {
  return route.kind == RouteKind::multicast_static ? RouteView::multicast : RouteView::unicast;
}

// A route with one next hop.
inline Route route(uint32_t addr, uint8_t len, RouteKind kind, uint32_t iod, uint32_t next_hop = 0) {
  Route made;
  made.addr = addr;
  made.len = len;
  made.kind = kind;
  made.next_hops.push_back({.iod = iod, .addr = next_hop, .data = 0, .table = 0, .weight = 1, .via_ipv6 = false});
  return made;
}

// What the twin and a lookup compare: the iod of the first next hop is each test route's mark. A route that passes on
// has none, as no route.
inline uint32_t mark_of(const std::optional<Route> &found) {
  return found.has_value() && !found->next_hops.empty() ? found->next_hops[0].iod : 0;
}
inline uint32_t mark_of(void *handle) {
  return urib_route_first_bnh_iod_get(handle);
}

class Twin {
 public:
  using Prefix = std::pair<uint32_t, uint8_t>;

  void set(const Route &added) { view(view_of(added))[{added.addr, added.len}] = added; }
  void remove(RouteView which, uint32_t addr, uint8_t len) { view(which).erase({addr, len}); }
  void load(const std::vector<Route> &routes) {
    unicast_.clear();
    multicast_.clear();
    for (const Route &added : routes) set(added);
  }

  [[nodiscard]] std::optional<Route> exact(RouteView which, uint32_t addr, uint8_t len) const {
    const auto found = view(which).find({addr, len});
    return found == view(which).end() ? std::nullopt : std::optional(found->second);
  }
  template <class Wanted>
  [[nodiscard]] std::optional<Route> longest(RouteView which, uint32_t addr, int most, Wanted wanted) const {
    for (int len = most; len >= 0; --len) {
      const auto shorter = static_cast<uint8_t>(len);
      const std::optional<Route> found = exact(which, addr & mask_of(shorter), shorter);
      if (found.has_value() && wanted(*found)) return found;
    }
    return std::nullopt;
  }
  [[nodiscard]] std::optional<Route> best(uint32_t addr) const {
    return longest(RouteView::unicast, addr, 32, [](const Route &) { return true; });
  }
  [[nodiscard]] std::optional<Route> best_direct(uint32_t addr) const {
    return longest(RouteView::unicast, addr, 32, [](const Route &found) { return is_direct(found.kind); });
  }
  [[nodiscard]] std::optional<Route> best_rpf(uint32_t addr, int most) const {
    const auto any = [](const Route &) { return true; };
    const std::optional<Route> unicast = longest(RouteView::unicast, addr, most, any);
    const std::optional<Route> multicast = longest(RouteView::multicast, addr, most, any);
    if (!unicast.has_value() || !multicast.has_value()) return unicast.has_value() ? unicast : multicast;
    return unicast->len > multicast->len ? unicast : multicast;
  }
  [[nodiscard]] std::vector<Route> all(RouteView which) const {
    std::vector<Route> routes;
    for (const auto &[prefix, found] : view(which)) routes.push_back(found);
    return routes;
  }
  [[nodiscard]] size_t size() const { return unicast_.size() + multicast_.size(); }

 private:
  std::map<Prefix, Route> &view(RouteView which) { return which == RouteView::unicast ? unicast_ : multicast_; }
  [[nodiscard]] const std::map<Prefix, Route> &view(RouteView which) const {
    return which == RouteView::unicast ? unicast_ : multicast_;
  }
  std::map<Prefix, Route> unicast_, multicast_;
};

class RouteRig {
 public:
  explicit RouteRig(rsw::ArenaLimits limits = {.quarantine = std::chrono::milliseconds(0),
                                               .retired_bytes_cap = 32u << 20}) {
    std::string reason;
    epochs = rsw::Epochs::open(&reason);
    if (epochs == nullptr) throw std::runtime_error(reason);
    writer = rsw::UribWriter::open(*epochs, &reason, limits);
    if (writer == nullptr) throw std::runtime_error(reason);
    if (!writer->commit()) throw std::runtime_error(writer->last_error());
    if (urib_api_init() == 0) throw std::runtime_error("URIB does not open");
  }
  ~RouteRig() { urib_api_close(); }
  RouteRig(const RouteRig &) = delete;
  RouteRig &operator=(const RouteRig &) = delete;

  void set(const Route &added, uint32_t table = 254) {
    if (!writer->set(table, added)) throw std::runtime_error(writer->last_error());
  }
  void remove(RouteView view, uint32_t addr, uint8_t len, uint32_t table = 254) {
    if (!writer->remove(table, view, addr, len)) throw std::runtime_error(writer->last_error());
  }
  void tick() { writer->tick(std::chrono::steady_clock::now()); }

  test_support::RunDirectory directory;
  std::unique_ptr<rsw::Epochs> epochs;
  std::unique_ptr<rsw::UribWriter> writer;
};

class Lock {
 public:
  Lock() { urib_acquire_rdlock(); }
  ~Lock() { urib_release_rdlock(); }
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;
};

}  // namespace route_rig

#endif
