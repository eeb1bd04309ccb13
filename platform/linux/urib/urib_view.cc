// SPDX-License-Identifier: Apache-2.0
// The route tables as ipsh and tests see them.
//
// A listing goes over a table in steps, each under the lock for itself: first all routes of up to 12 bits, then what
// lies below each 12 bits. So a long listing holds no memory up, and a damaged tree ends: a step looks at so many nodes
// and not more.
#include "urib/urib_view.h"

#include <algorithm>
#include <span>

#include "urib.h"
#include "urib/attachment.h"
#include "urib/hops.h"

namespace rsw {
namespace {

using namespace urib;

constexpr uint32_t most_tables = 1u << 20;
constexpr size_t most_routes = 1u << 23;
// More than lie below 12 bits.
constexpr uint32_t most_nodes_of_step = 64 + 64 * 64 + 64 * 64 * 64;

class ReadLock {
 public:
  ReadLock() { urib_acquire_rdlock(); }
  ~ReadLock() { urib_release_rdlock(); }
  ReadLock(const ReadLock &) = delete;
  ReadLock &operator=(const ReadLock &) = delete;
};

const Trie &trie_of(const Body &body, RouteView view) {
  return view == RouteView::multicast ? body.multicast : body.unicast;
}

// The route, copied out. Nothing: its records are damaged.
std::optional<Route> read_route(const Attributes *attributes, uint32_t addr, uint32_t len) {
  if (attributes == nullptr) return std::nullopt;
  Route route;
  route.addr = addr & mask_of(len);
  route.len = static_cast<uint8_t>(len);
  route.kind = load_kind(*attributes);
  route.action = load_action(*attributes);
  if (route.kind < RouteKind::local || route.kind > RouteKind::other) return std::nullopt;
  if (route.action > RouteAction::pass_on) return std::nullopt;
  route.protocol = __atomic_load_n(&attributes->protocol, __ATOMIC_RELAXED);
  route.metric = load_word(attributes->metric);
  route.origin = load_word(attributes->origin);
  route.pref_src = load_word(attributes->pref_src);
  const NextHops *hops = next_hops_of(*attributes);
  const uint32_t count = hops == nullptr ? 0 : load_count(*hops);
  for (uint32_t i = 0; i < count; ++i) {
    const NextHop &hop = hops->hop[i];
    route.next_hops.push_back({.iod = load_word(hop.iod),
                               .addr = load_word(hop.addr),
                               .data = load_word(hop.data),
                               .table = load_word(hop.table),
                               .weight = static_cast<uint16_t>(load_weight(hop)),
                               .via_ipv6 = (__atomic_load_n(&hop.flags, __ATOMIC_RELAXED) & next_hop_via_ipv6) != 0});
  }
  return route;
}

std::optional<Route> read_match(const Match &match, uint32_t addr) {
  return read_route(attributes_at(match.word), addr, match.len);
}

// Collects the routes of nodes.
class Listing {
 public:
  explicit Listing(std::vector<Route> *routes) : routes_(routes) {}

  // Nodes of levels up to last_level_wanted, from the node of this prefix down.
  void add_nodes(const Node *node, uint32_t addr, uint32_t level, uint32_t last_level_wanted) {
    if (node == nullptr || nodes_left_ == 0) return;
    --nodes_left_;
    add_routes(*node, addr, level);
    if (level >= last_level_wanted) return;
    for (uint32_t bits = 0; bits < 64; ++bits) {
      const uint32_t *child = child_word(*node, bits);
      if (child == nullptr) continue;
      const uint32_t below = level + node_bits;
      add_nodes(node_at(observe_word(*child)), addr | bits << (32 - below), below, last_level_wanted);
    }
  }
  void add(const std::optional<Route> &route) {
    if (route.has_value() && routes_->size() < most_routes) routes_->push_back(*route);
  }

 private:
  void add_routes(const Node &node, uint32_t addr, uint32_t level) {
    for (uint32_t longer = 1; longer <= node_bits && level + longer <= 32; ++longer) {
      for (uint32_t value = 0; value < 1u << longer; ++value) {
        const Place place = exactly_in(node, value << (node_bits - longer), longer);
        if (place.longer == 0) continue;
        const uint32_t len = level + longer;
        const uint32_t prefix = addr | value << (32 - len);
        add(read_route(attributes_at(route_word(node, level, place.index)), prefix, len));
      }
    }
  }

  std::vector<Route> *routes_;
  uint32_t nodes_left_ = most_nodes_of_step;
};

const Node *node_of(const Trie &trie, uint32_t addr, uint32_t level) {
  const Node *node = node_at(observe_word(trie.root));
  for (uint32_t above = 0; node != nullptr && above < level; above += node_bits) {
    const uint32_t *child = child_word(*node, bits_at(addr, above));
    node = child == nullptr ? nullptr : node_at(observe_word(*child));
  }
  return node;
}

}  // namespace

std::vector<uint32_t> urib_tables() {
  std::vector<uint32_t> ids;
  const ReadLock lock;
  const Directory *all = directory();
  if (all == nullptr) return ids;
  // Ascending, so that a damaged list ends.
  const Table *table = follow<Table, 8>(observe_word(all->first));
  while (table != nullptr && ids.size() < most_tables) {
    const uint32_t id = load_word(table->id);
    if (!ids.empty() && id <= ids.back()) break;
    ids.push_back(id);
    table = follow<Table, 8>(observe_word(table->next));
  }
  return ids;
}

std::vector<Route> urib_routes(uint32_t table, RouteView view) {
  std::vector<Route> routes;
  {
    const ReadLock lock;
    const Body *body = body_of(table);
    if (body == nullptr) return routes;
    const Trie &trie = trie_of(*body, view);
    Listing listing(&routes);
    const uint32_t whole = observe_word(trie.whole);
    if (whole != 0) listing.add(read_route(attributes_at(whole), 0, 0));
    listing.add_nodes(node_at(observe_word(trie.root)), 0, 0, node_bits);
  }
  for (uint32_t region = 0; region < region_count && routes.size() < most_routes; ++region) {
    const ReadLock lock;
    const Body *body = body_of(table);
    if (body == nullptr) break;
    const uint32_t addr = region << (32 - region_bits);
    Listing(&routes).add_nodes(node_of(trie_of(*body, view), addr, region_bits), addr, region_bits, last_level);
  }
  std::ranges::sort(routes,
                    [](const Route &a, const Route &b) { return a.addr != b.addr ? a.addr < b.addr : a.len < b.len; });
  return routes;
}

std::optional<Route> urib_best(uint32_t table, RouteView view, uint32_t addr) {
  const ReadLock lock;
  const Body *body = body_of(table);
  if (body == nullptr) return std::nullopt;
  return read_match(best_match(*body, trie_of(*body, view), addr, 32), addr);
}

std::optional<Route> urib_exact(uint32_t table, RouteView view, uint32_t addr, uint8_t len) {
  if (len > 32 || (addr & ~mask_of(len)) != 0) return std::nullopt;
  const ReadLock lock;
  const Body *body = body_of(table);
  if (body == nullptr) return std::nullopt;
  return read_match({exact_word(trie_of(*body, view), addr, len), len}, addr);
}

std::vector<PathStep> urib_path(uint32_t table, uint32_t addr) {
  std::vector<PathStep> path;
  const ReadLock lock;
  Step steps[most_path_steps];
  const uint32_t count = resolve(table, addr, steps);
  for (const Step &step : std::span(steps, count)) {
    std::optional<Route> route = read_match(step.match, step.addr);
    if (!route.has_value()) break;
    const auto all = static_cast<uint32_t>(route->next_hops.size());
    const uint32_t taken = step.hop == nullptr ? all : static_cast<uint32_t>(step.hop - step.hops->hop);
    path.push_back({step.table, step.addr, std::move(*route), std::min(taken, all)});
  }
  return path;
}

}  // namespace rsw
