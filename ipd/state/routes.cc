// SPDX-License-Identifier: Apache-2.0
// Which route a URIB table has for a prefix, and when it is written.
//
// A URIB table is the kernel's table of the same number, merged by prefix with others; the first of these has it:
//   1. the kernel's table 255, for interfaces whose context has this table: the system's own addresses, broadcast;
//   2. a virtual address of the configuration on an interface of such a context that the kernel has not as a local
//      route there: a local route whose next hop is marked inactive;
//   3. the kernel's own table of this number;
//   4. the kernel's main table, for connected routes of interfaces in a context with this table and no VRF device: the
//      kernel does not know of that context;
//   5. a leak of the configuration.
// Within a kernel table the lowest metric counts, of the routes that can be used now: one whose next hops are all dead,
// or on interfaces that are not published yet, is passed over as the kernel does. Routes for a type of service stay
// out.
//
// Nothing of what was written is remembered by prefix: what a prefix should have is computed from the picture, and the
// writer sees for itself whether that is news. What does need memory is where a route used to be when its interface
// moves to another context or goes: `before_`, the surroundings of the last update. A change names prefix and
// interface, and the prefix is looked at in the tables of the interface's contexts before and now.
//
// A batch that changes a large part of a table replaces the table as a whole (write() decides), and so does the first
// one. A refusal, for want of room, makes the table one to be replaced as a whole later.
#include "ipd/state/routes.h"

#include <linux/rtnetlink.h>

#include <algorithm>

#include "ipd/process/log.h"
#include "urib/urib_writer.h"

namespace ipd {
namespace {

using kernel::RouteInfo;
using kernel::RouteKey;
using kernel::RoutePicture;
using kernel::RouteTable;
using rsw::Route;
using rsw::RouteKind;
using rsw::RouteNextHop;
using rsw::RouteView;

constexpr uint32_t kernels_local_table = 255;
constexpr size_t few_changes = 1000;       // never worth replacing a table
constexpr size_t worth_replacing = 8;      // more than one in so many prefixes is
constexpr uint64_t refusals_in_words = 3;  // per process; then one in a thousand

bool is_connected(const RouteInfo &info) {
  return info.type == RTN_UNICAST && info.protocol == RTPROT_KERNEL && info.scope == RT_SCOPE_LINK;
}

}  // namespace

void Routes::configure(const Configuration &configuration) {
  multicast_rules_ = configuration.multicast_routes;
  leak_rules_ = configuration.leaks;
  surroundings_changed_ = true;
}

void Routes::surround(RouteSurroundings surroundings) {
  now_ = std::move(surroundings);
  surroundings_changed_ = true;
}

bool Routes::accepted(bool done, uint32_t table) {
  if (done) return true;
  refused_.insert(table);
  if (++refusals_ <= refusals_in_words || refusals_ % 1000 == 0) {
    log_line(LOG_ERR, "cannot publish routes of table %u: %s", table, writer_.last_error().c_str());
  }
  return false;
}

// Whether a route of a kernel table that holds several contexts' routes is this table's.
bool Routes::belongs(const RoutePicture &picture, uint32_t kernel_table, uint32_t table, uint32_t id) const {
  if (kernel_table == table) return true;
  const RouteInfo &info = picture.info(id);
  if (kernel_table == main_table && !is_connected(info)) return false;
  if (info.hops.empty()) return table == main_table;
  return table_of(info.hops[0].ifindex) == table;
}

std::optional<Route> Routes::first_usable(const RoutePicture &picture, uint32_t kernel_table, uint32_t table,
                                          const Prefix &prefix) const {
  const RouteTable *routes = picture.table(kernel_table);
  if (routes == nullptr) return std::nullopt;
  const auto [addr, len] = prefix;
  for (auto each = routes->lower_bound({.addr = addr, .len = len, .tos = 0, .metric = 0});
       each != routes->end() && each->first.addr == addr && each->first.len == len && each->first.tos == 0; ++each) {
    if (!belongs(picture, kernel_table, table, each->second.info)) continue;
    if (auto route = route_of(picture, kernel_table, table, each->first, each->second.info)) return route;
  }
  return std::nullopt;
}

std::optional<Route> Routes::inactive_vip(uint32_t table, const Prefix &prefix) const {
  const auto vip = vips_.find({table, prefix});
  if (vip == vips_.end()) return std::nullopt;
  const auto interface = now_.interfaces.find(vip->second);
  if (interface == now_.interfaces.end() || interface->second.iod == 0) return std::nullopt;
  return Route{.addr = prefix.first,
               .len = prefix.second,
               .kind = RouteKind::local,
               .next_hops = {{.iod = interface->second.iod, .data = rsw::inactive_next_hop}}};
}

std::optional<Route> Routes::wanted(const RoutePicture &picture, uint32_t table, const Prefix &prefix) const {
  auto route = first_usable(picture, kernels_local_table, table, prefix);
  const auto vip = inactive_vip(table, prefix);
  if (route && (!vip || route->kind == RouteKind::local)) return route;
  auto own = first_usable(picture, table, table, prefix);
  if (vip) return own && own->kind == RouteKind::local ? own : vip;
  if (own) return own;
  if (now_.policy_tables.contains(table)) {
    if (auto connected = first_usable(picture, main_table, table, prefix)) return connected;
  }
  if (const auto leak = leaks_.find({table, prefix}); leak != leaks_.end()) return leak->second;
  return std::nullopt;
}

void Routes::add_tables(uint32_t ifindex, std::set<uint32_t> &tables) const {
  for (const RouteSurroundings *each : {&before_, &now_}) {
    const auto found = each->interfaces.find(ifindex);
    if (found != each->interfaces.end() && found->second.table != 0) tables.insert(found->second.table);
  }
}

void Routes::add_targets(const kernel::RouteChanges &changes, Targets &targets) const {
  for (const kernel::RouteChange &change : changes.routes) {
    const Prefix prefix{change.addr, change.len};
    std::set<uint32_t> tables;
    if (change.table != kernels_local_table) targets[change.table].push_back(prefix);
    if (change.table == kernels_local_table || change.table == main_table) {
      if (change.ifindex == 0) {
        tables.insert(main_table);
      } else {
        add_tables(change.ifindex, tables);
      }
    }
    for (uint32_t table : tables) {
      if (table != change.table) targets[table].push_back(prefix);
    }
  }
}

void Routes::write_one(const RoutePicture &picture, uint32_t table, const Prefix &prefix) {
  const auto route = wanted(picture, table, prefix);
  if (route) {
    accepted(writer_.set(table, *route), table);
  } else {
    accepted(writer_.remove(table, RouteView::unicast, prefix.first, prefix.second), table);
  }
  if (!surroundings_changed_) return;  // the rest stands on nothing else
  const auto multicast = multicast_.find({table, prefix});
  if (multicast != multicast_.end()) {
    accepted(writer_.set(table, multicast->second), table);
  } else {
    accepted(writer_.remove(table, RouteView::multicast, prefix.first, prefix.second), table);
  }
}

void Routes::write(const RoutePicture &picture, uint32_t table, std::vector<Prefix> &prefixes) {
  std::sort(prefixes.begin(), prefixes.end());
  prefixes.erase(std::unique(prefixes.begin(), prefixes.end()), prefixes.end());
  if (!exists(picture, table)) {
    if (written_.contains(table) && accepted(writer_.remove_table(table), table)) written_.erase(table);
    return;
  }
  const RouteTable *routes = picture.table(table);
  const size_t size = routes == nullptr ? 0 : routes->size();
  if (prefixes.size() > few_changes && prefixes.size() > size / worth_replacing) return load(picture, {table});
  written_.insert(table);
  for (const Prefix &prefix : prefixes) write_one(picture, table, prefix);
}

bool Routes::exists(const RoutePicture &picture, uint32_t table) const {
  const Place first{table, {0, 0}};
  const auto has = [&](const std::map<Place, Route> &routes) {
    const auto found = routes.lower_bound(first);
    return found != routes.end() && found->first.first == table;
  };
  return picture.table(table) != nullptr || context_tables_.contains(table) || has(multicast_) || has(leaks_);
}

std::set<uint32_t> Routes::all_tables(const RoutePicture &picture) const {
  std::set<uint32_t> tables = context_tables_;
  for (const auto &[id, routes] : picture.tables()) tables.insert(id);
  for (const auto &[place, route] : multicast_) tables.insert(place.first);
  for (const auto &[place, route] : leaks_) tables.insert(place.first);
  tables.erase(kernels_local_table);
  return tables;
}

void Routes::load(const RoutePicture &picture, const std::set<uint32_t> &tables) {
  // What does not come from the kernel's table of the same number; the prefixes alone, each looked at in its turn.
  std::map<uint32_t, std::set<Prefix>> merged;
  const auto merge = [&](uint32_t table, const Prefix &prefix) {
    if (tables.contains(table)) merged[table].insert(prefix);
  };
  const auto merge_by_interface = [&](uint32_t kernel_table) {
    const RouteTable *routes = picture.table(kernel_table);
    if (routes == nullptr) return;
    for (const auto &[key, entry] : *routes) {
      const RouteInfo &info = picture.info(entry.info);
      if (kernel_table == main_table && !is_connected(info)) continue;
      merge(info.hops.empty() ? main_table : table_of(info.hops[0].ifindex), {key.addr, key.len});
    }
  };
  merge_by_interface(kernels_local_table);
  if (!now_.policy_tables.empty()) merge_by_interface(main_table);
  for (const auto &[place, ifindex] : vips_) merge(place.first, place.second);
  for (const auto &[place, route] : leaks_) merge(place.first, place.second);

  std::vector<Route> routes;
  for (uint32_t table : tables) {
    routes.clear();
    const RouteTable *own = picture.table(table);
    if (own != nullptr) routes.reserve(own->size());
    const std::set<Prefix> &others = merged[table];
    auto other = others.begin();
    const auto add_others_before = [&](const Prefix &end) {
      for (; other != others.end() && *other < end; ++other) {
        if (auto route = wanted(picture, table, *other)) routes.push_back(std::move(*route));
      }
    };
    Prefix last{0, 255};
    if (own != nullptr) {
      for (const auto &[key, entry] : *own) {
        const Prefix prefix{key.addr, key.len};
        if (prefix == last) continue;
        add_others_before(prefix);
        const bool contested = other != others.end() && *other == prefix;
        if (contested) ++other;
        auto route = contested ? wanted(picture, table, prefix) : route_of(picture, table, table, key, entry.info);
        // The first of several for the prefix may be of no use.
        if (!route && !contested) route = first_usable(picture, table, table, prefix);
        last = prefix;
        if (route) routes.push_back(std::move(*route));
      }
    }
    add_others_before({0xffffffff, 255});
    for (auto each = multicast_.lower_bound({table, {0, 0}}); each != multicast_.end() && each->first.first == table;
         ++each) {
      routes.push_back(each->second);
    }
    written_.insert(table);
    accepted(writer_.load(table, routes), table);
  }
}

void Routes::compare_surroundings(RoutePicture &picture, Targets &targets) {
  for (const auto &[ifindex, interface] : now_.interfaces) {
    const auto old = before_.interfaces.find(ifindex);
    if (old == before_.interfaces.end() || old->second != interface) picture.look_again(ifindex);
  }
  for (const auto &[ifindex, interface] : before_.interfaces) {
    if (!now_.interfaces.contains(ifindex)) picture.look_again(ifindex);
  }
  std::map<Place, uint32_t> vips;
  for (const auto &[ifindex, addr] : now_.vips) {
    if (const uint32_t table = table_of(ifindex); table != 0) vips.try_emplace({table, {addr, 32}}, ifindex);
  }
  for (const auto &[place, ifindex] : vips_) targets[place.first].push_back(place.second);
  for (const auto &[place, ifindex] : vips) targets[place.first].push_back(place.second);
  vips_ = std::move(vips);
  context_tables_.clear();
  for (const auto &[name, table] : now_.context_tables) context_tables_.insert(table);
}

std::optional<uint32_t> Routes::table_named(const TableName &name) const {
  if (name.context.empty()) return name.table;
  const auto found = now_.context_tables.find(name.context);
  if (found == now_.context_tables.end()) return std::nullopt;
  return found->second;
}

std::optional<Route> Routes::multicast_route(const MulticastRouteRule &rule) const {
  Route route{.addr = rule.addr, .len = rule.len, .kind = RouteKind::multicast_static, .next_hops = {}};
  route.metric = rule.metric;
  for (const MulticastNextHop &rule_hop : rule.next_hops) {
    RouteNextHop hop{.addr = rule_hop.address};
    if (!rule_hop.interface.empty()) {
      const auto ifindex = now_.interface_names.find(rule_hop.interface);
      if (ifindex == now_.interface_names.end()) continue;
      const auto interface = now_.interfaces.find(ifindex->second);
      if (interface == now_.interfaces.end() || interface->second.iod == 0) continue;
      hop.iod = interface->second.iod;
    }
    route.next_hops.push_back(hop);
  }
  if (route.next_hops.empty()) return std::nullopt;
  return route;
}

void Routes::compare_configured(Targets &targets) {
  std::map<Place, Route> multicast;
  for (const MulticastRouteRule &rule : multicast_rules_) {
    const auto table = table_named(rule.table);
    if (!table) continue;
    if (auto route = multicast_route(rule)) multicast[{*table, {rule.addr, rule.len}}] = std::move(*route);
  }
  std::map<Place, Route> leaks;
  for (const LeakRule &rule : leak_rules_) {
    const auto from = table_named(rule.from);
    const auto to = table_named(rule.to);
    if (!from || !to || *from == *to) continue;
    leaks[{*to, {rule.addr, rule.len}}] =
        Route{.addr = rule.addr, .len = rule.len, .kind = RouteKind::static_, .next_hops = {{.table = *from}}};
  }
  const auto compare = [&targets](const std::map<Place, Route> &old, const std::map<Place, Route> &fresh) {
    for (const auto &[place, route] : old) {
      const auto there = fresh.find(place);
      if (there == fresh.end() || there->second != route) targets[place.first].push_back(place.second);
    }
    for (const auto &[place, route] : fresh) {
      if (!old.contains(place)) targets[place.first].push_back(place.second);
    }
  };
  compare(multicast_, multicast);
  compare(leaks_, leaks);
  multicast_ = std::move(multicast);
  leaks_ = std::move(leaks);
}

bool Routes::update(RoutePicture &picture) {
  Targets targets;
  if (surroundings_changed_) {
    compare_surroundings(picture, targets);
    compare_configured(targets);
  }
  const kernel::RouteChanges changes = picture.take_changes();
  if (surroundings_changed_) {
    for (uint32_t table : written_) {
      if (!exists(picture, table)) targets.try_emplace(table);
    }
  }
  if (changes.everything || !begun_) {
    load(picture, all_tables(picture));
    begun_ = true;
  } else {
    add_targets(changes, targets);
    for (auto &[table, prefixes] : targets) write(picture, table, prefixes);
  }
  if (surroundings_changed_) {
    before_ = now_;
    surroundings_changed_ = false;
  }
  return commit() && refused_.empty();
}

bool Routes::commit() {
  uncommitted_ = !writer_.commit();
  if (uncommitted_ && ++refusals_ <= refusals_in_words) {
    log_line(LOG_ERR, "cannot commit routes: %s", writer_.last_error().c_str());
  }
  return !uncommitted_;
}

bool Routes::retry(RoutePicture &picture) {
  const std::set<uint32_t> tables = std::exchange(refused_, {});
  update(picture);
  std::set<uint32_t> there;
  const std::set<uint32_t> all = all_tables(picture);
  for (uint32_t table : tables) {
    if (all.contains(table)) {
      there.insert(table);
    } else if (accepted(writer_.remove_table(table), table)) {
      written_.erase(table);
    }
  }
  load(picture, there);
  return commit() && refused_.empty();
}

}  // namespace ipd
