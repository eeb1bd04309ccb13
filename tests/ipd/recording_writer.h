// SPDX-License-Identifier: Apache-2.0
// A writer of route tables that keeps what it was given in plain maps and refuses what it was told to.
#ifndef TESTS_IPD_RECORDING_WRITER_H
#define TESTS_IPD_RECORDING_WRITER_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "urib/urib_writer.h"

namespace test_support {

class RecordingWriter final : public rsw::UribWriter {
 public:
  using Prefix = std::pair<uint32_t, uint8_t>;
  using Table = std::map<Prefix, rsw::Route>;

  bool set(uint32_t table, const rsw::Route &route) override {
    ++calls;
    if (refusing) return false;
    if (!good(route)) return false;
    view(table, route.kind == rsw::RouteKind::multicast_static)[{route.addr, route.len}] = route;
    return true;
  }
  bool remove(uint32_t table, rsw::RouteView which, uint32_t addr, uint8_t len) override {
    ++calls;
    if (refusing) return false;
    auto &tables = which == rsw::RouteView::multicast ? multicast : unicast;
    if (const auto found = tables.find(table); found != tables.end()) found->second.erase({addr, len});
    return true;
  }
  bool load(uint32_t table, std::span<const rsw::Route> routes) override {
    ++loads;
    if (refusing) return false;
    unicast[table].clear();
    multicast[table].clear();
    for (const rsw::Route &route : routes) {
      if (!good(route)) return false;
      Table &there = view(table, route.kind == rsw::RouteKind::multicast_static);
      if (!there.emplace(Prefix{route.addr, route.len}, route).second) repeated = true;
    }
    return true;
  }
  bool remove_table(uint32_t table) override {
    ++calls;
    if (refusing) return false;
    unicast.erase(table);
    multicast.erase(table);
    return true;
  }
  bool commit() override {
    ++commits;
    return !uncommitting;
  }
  void tick(std::chrono::steady_clock::time_point) override {}
  [[nodiscard]] const std::string &last_error() const override { return error_; }
  [[nodiscard]] rsw::UribUse use() const override { return {}; }

  std::map<uint32_t, Table> unicast, multicast;
  bool refusing = false;
  bool uncommitting = false;  // refuses commits only
  bool bad = false;           // it was given a route that is none
  bool repeated = false;      // a load named a prefix twice
  uint32_t calls = 0, loads = 0, commits = 0;

 private:
  bool good(const rsw::Route &route) {
    const uint32_t host_bits = route.len >= 32 ? 0 : 0xffffffffu >> route.len;
    bool fine = route.len <= 32 && (route.addr & host_bits) == 0 && route.next_hops.size() <= 256;
    const bool leads = route.action == rsw::RouteAction::forward || route.action == rsw::RouteAction::broadcast;
    fine = fine && leads == !route.next_hops.empty();
    for (const rsw::RouteNextHop &hop : route.next_hops) fine = fine && hop.weight >= 1 && hop.weight <= 256;
    bad |= !fine;
    return fine;
  }
  Table &view(uint32_t table, bool of_multicast) {
    unicast.try_emplace(table);
    multicast.try_emplace(table);
    return of_multicast ? multicast[table] : unicast[table];
  }
  std::string error_ = "no room";
};

}  // namespace test_support

#endif
