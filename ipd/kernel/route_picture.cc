// SPDX-License-Identifier: Apache-2.0
// The kernel's routes as far as it has told of them. What it does without telling stands in route_rules.cc.
//
// Structure. A table is an ordered multimap from (prefix, type of service, metric) to the number of an info; infos hold
// what the kernel's own do (type, scope, protocol, source, next hops), once for however many routes, so that a full
// table of 900,000 routes costs a node of some 64 bytes each. Whether a next hop is dead is the state of an info, not a
// part of what it is.
//
// Changes are collected by prefix, whatever happened to it: whoever takes them looks at what is there now. When an info
// itself changes (a device went, a nexthop object leads elsewhere), its routes are found by walking all tables, once
// for all such changes since the last look: settle().
//
// A dump is laid over what is there, in place: an entry that it tells of is marked, one that is new is added, and at
// its end what it did not tell of is gone. What an event told of during the dump is left as the event has it. A dump
// goes through the kernel's tables without holding them still and finds its way back by position among the routes of
// one address; so when an event touched an address during the dump, the missing of another route there proves nothing,
// and neither does a table of which nothing was told: such routes stay until the next dump, which is asked for.
#include "ipd/kernel/route_picture.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <tuple>

namespace ipd::kernel {
namespace {

size_t mix(size_t hash, size_t value) {
  hash ^= value + 0x9e3779b9u + (hash << 6) + (hash >> 2);
  return hash;
}

size_t hash_of(const RouteInfo &info) {
  size_t hash = mix(size_t{info.type}, (size_t{info.scope} << 8) | info.protocol);
  hash = mix(mix(hash, info.pref_src), info.nexthop_id);
  for (const RouteHop &hop : info.hops) {
    hash = mix(mix(mix(hash, hop.ifindex), hop.gateway), hop.weight);
    if (!hop.via_ipv6) continue;
    for (uint8_t byte : hop.gateway_ipv6) hash = mix(hash, byte);
  }
  return hash;
}

RouteKey key_of(const RouteMessage &message) {
  return {.addr = message.addr, .len = message.len, .tos = message.tos, .metric = message.metric};
}

uint64_t head_of(uint32_t table, uint32_t addr) {
  return (uint64_t{table} << 32) | addr;
}

bool drops(uint8_t type) {
  return type == RTN_BLACKHOLE || type == RTN_UNREACHABLE || type == RTN_PROHIBIT || type == RTN_THROW;
}

}  // namespace

size_t RoutePicture::PlaceHash::operator()(const Place &place) const {
  const RouteKey &key = place.second;
  return mix(mix(mix(size_t{place.first}, key.addr), key.metric), (size_t{key.len} << 8) | key.tos);
}

const RouteTable *RoutePicture::table(uint32_t id) const {
  const auto found = tables_.find(id);
  return found == tables_.end() ? nullptr : &found->second;
}

uint32_t RoutePicture::intern(const RouteMessage &message) {
  RouteInfo info{.type = message.type,
                 .scope = message.scope,
                 .protocol = message.protocol,
                 .pref_src = message.pref_src,
                 .nexthop_id = message.nexthop_id,
                 .hops = message.hops};
  const size_t hash = hash_of(info);
  const auto [first, last] = by_content_.equal_range(hash);
  for (auto each = first; each != last; ++each) {
    if (infos_[each->second].info == info) return each->second;
  }
  uint32_t id = static_cast<uint32_t>(infos_.size());
  if (free_.empty()) {
    infos_.emplace_back();
  } else {
    id = free_.back();
    free_.pop_back();
  }
  for (const RouteHop &hop : info.hops) by_ifindex_.insert({hop.ifindex, id});
  if (info.nexthop_id != 0) by_object_.insert({info.nexthop_id, id});
  if (info.pref_src != 0) by_source_.insert({info.pref_src, id});
  by_content_.emplace(hash, id);
  infos_[id] = {.info = std::move(info), .dead = message.dead, .references = 0, .doomed = false, .dirty = false};
  return id;
}

// No later route gets this info.
void RoutePicture::unlist(uint32_t id) {
  const RouteInfo &info = infos_[id].info;
  const auto [first, last] = by_content_.equal_range(hash_of(info));
  for (auto each = first; each != last; ++each) {
    if (each->second != id) continue;
    by_content_.erase(each);
    break;
  }
  for (const RouteHop &hop : info.hops) by_ifindex_.erase({hop.ifindex, id});
  by_object_.erase({info.nexthop_id, id});
  by_source_.erase({info.pref_src, id});
}

void RoutePicture::release(uint32_t id) {
  if (--infos_[id].references > 0) return;
  if (!infos_[id].doomed) unlist(id);
  infos_[id] = {};
  free_.push_back(id);
}

void RoutePicture::make_dirty(uint32_t id) {
  infos_[id].dirty = dirty_ = true;
}

void RoutePicture::set_dead(uint32_t id, const std::vector<bool> &dead) {
  if (infos_[id].dead == dead) return;
  infos_[id].dead = dead;
  make_dirty(id);
}

void RoutePicture::note(uint32_t table, const RouteKey &key, uint32_t info) {
  const auto &hops = infos_[info].info.hops;
  changes_.routes.push_back(
      {.table = table, .addr = key.addr, .ifindex = hops.empty() ? 0 : hops[0].ifindex, .len = key.len});
}

void RoutePicture::touch(uint32_t table, const RouteKey &key) {
  if (!dumping_) return;
  touched_.insert({table, key});
  touched_heads_.insert(head_of(table, key.addr));
}

RouteTable::iterator RoutePicture::insert(uint32_t table, RouteTable &routes, RouteTable::iterator before,
                                          const RouteKey &key, uint32_t info) {
  ++infos_[info].references;
  ++route_count_;
  note(table, key, info);
  return routes.emplace_hint(before, key, RouteEntry{.info = info, .seen = dump_});
}

RouteTable::iterator RoutePicture::erase(uint32_t table, RouteTable &routes, RouteTable::iterator entry) {
  note(table, entry->first, entry->second.info);
  release(entry->second.info);
  --route_count_;
  return routes.erase(entry);
}

void RoutePicture::put_in_place(uint32_t table, RouteTable::iterator entry, uint32_t info) {
  ++infos_[info].references;
  note(table, entry->first, entry->second.info);
  release(entry->second.info);
  entry->second = {.info = info, .seen = dump_};
  note(table, entry->first, info);
}

void RoutePicture::erase_doomed(uint32_t table, RouteTable &routes, const RouteKey &key) {
  if (!doomed_) return;
  for (auto entry = routes.lower_bound(key); entry != routes.end() && entry->first == key;) {
    entry = infos_[entry->second.info].doomed ? erase(table, routes, entry) : std::next(entry);
  }
}

void RoutePicture::remove(RouteTable &routes, const RouteMessage &message, const RouteKey &key) {
  const auto [first, last] = routes.equal_range(key);
  if (first == last) return;
  const RouteInfo gone{.type = message.type,
                       .scope = message.scope,
                       .protocol = message.protocol,
                       .pref_src = message.pref_src,
                       .nexthop_id = message.nexthop_id,
                       .hops = message.hops};
  for (auto entry = first; entry != last; ++entry) {
    if (infos_[entry->second.info].info != gone) continue;
    erase(message.table, routes, entry);
    return;
  }
  doubt_ = true;
  if (std::next(first) == last) erase(message.table, routes, first);
}

void RoutePicture::route(const RouteMessage &message) {
  const RouteKey key = key_of(message);
  const uint32_t table = message.table;
  touch(table, key);
  if (message.removed) {
    const auto known = tables_.find(table);
    if (known == tables_.end()) return;
    erase_doomed(table, known->second, key);
    remove(known->second, message, key);
    if (known->second.empty()) tables_.erase(known);
    return;
  }
  RouteTable &routes = tables_[table];
  erase_doomed(table, routes, key);
  const uint32_t info = intern(message);
  set_dead(info, message.dead);
  const auto [first, last] = routes.equal_range(key);
  const bool several = first != last && std::next(first) != last;
  const auto same = std::find_if(first, last, [&](const auto &entry) { return entry.second.info == info; });
  if (same != last) {
    // A dump was ahead of the event, or the event only says it again.
    same->second.seen = dump_;
    note(table, key, info);
    doubt_ |= several;
    return;
  }
  switch (message.place) {
    case RoutePlace::alone: {
      auto entry = first;
      while (entry != last) entry = erase(table, routes, entry);
      insert(table, routes, last, key, info);
      return;
    }
    case RoutePlace::first:
      insert(table, routes, first, key, info);
      return;
    case RoutePlace::last:
      insert(table, routes, last, key, info);
      return;
    case RoutePlace::instead:
    case RoutePlace::unsaid:
      // Which of several it speaks of cannot be told from the message.
      doubt_ |= several || message.place == RoutePlace::unsaid;
      if (first == last) {
        insert(table, routes, last, key, info);
      } else {
        put_in_place(table, first, info);
      }
      return;
  }
}

void RoutePicture::begin_dump() {
  ++dump_;
  touched_.clear();
  touched_heads_.clear();
  touched_objects_.clear();
  told_tables_.clear();
  dumping_ = true;
  doubt_ = false;
}

void RoutePicture::dump_route(const RouteMessage &message) {
  const RouteKey key = key_of(message);
  const uint32_t table = message.table;
  told_tables_.insert(table);
  RouteTable &routes = tables_[table];
  erase_doomed(table, routes, key);
  const uint32_t info = intern(message);
  set_dead(info, message.dead);
  // A dump runs through its table from the lowest address to the highest: most entries go to the end.
  auto first = routes.end();
  auto last = routes.end();
  if (!routes.empty() && !(std::prev(last)->first < key)) std::tie(first, last) = routes.equal_range(key);
  if (touched_.contains({table, key})) {
    const bool known = std::any_of(first, last, [&](const auto &entry) { return entry.second.info == info; });
    doubt_ |= !known;
    if (infos_[info].references == 0) {
      infos_[info].references = 1;
      release(info);
    }
    if (routes.empty()) tables_.erase(table);
    return;
  }
  // The entries that this dump told of already stand in front, in its order.
  auto place = first;
  while (place != last && place->second.seen == dump_) ++place;
  const auto same = std::find_if(place, last, [&](const auto &entry) { return entry.second.info == info; });
  if (same == last) {
    insert(table, routes, place, key, info);
    return;
  }
  if (same == place) {
    same->second.seen = dump_;
    return;
  }
  insert(table, routes, place, key, info);
  erase(table, routes, same);
}

void RoutePicture::sweep() {
  for (auto table = tables_.begin(); table != tables_.end();) {
    auto &[id, routes] = *table;
    const bool proves_nothing = !told_tables_.contains(id) && !touched_heads_.empty();
    for (auto entry = routes.begin(); entry != routes.end();) {
      if (entry->second.seen == dump_ || touched_.contains({id, entry->first})) {
        ++entry;
      } else if (proves_nothing || touched_heads_.contains(head_of(id, entry->first.addr))) {
        doubt_ = true;
        ++entry;
      } else {
        entry = erase(id, routes, entry);
      }
    }
    table = routes.empty() ? tables_.erase(table) : std::next(table);
  }
  std::vector<uint32_t> gone;
  for (const auto &[id, object] : objects_) {
    if (object.seen != dump_ && !touched_objects_.contains(id)) gone.push_back(id);
  }
  // Only the objects: the same dump told which routes are left.
  for (uint32_t id : gone) {
    objects_users_dirty(id);
    objects_.erase(id);
  }
}

void RoutePicture::end_dump(bool whole) {
  if (whole) sweep();
  dumping_ = false;
  touched_.clear();
  touched_heads_.clear();
  touched_objects_.clear();
  if (!complete_) changes_.everything = true;
  complete_ = true;
}

void RoutePicture::look_again(uint32_t ifindex) {
  for (auto each = by_ifindex_.lower_bound({ifindex, 0}); each != by_ifindex_.end() && each->first == ifindex; ++each) {
    make_dirty(each->second);
  }
  for (const auto &[id, object] : objects_) {
    if (object.told.hop.ifindex == ifindex) objects_users_dirty(id);
  }
}

// Walks all routes at most once, and no further than to the last one whose info has news.
void RoutePicture::settle() {
  if (!doomed_ && !dirty_) return;
  size_t left = 0;
  for (const Info &info : infos_) left += info.doomed || info.dirty ? info.references : 0;
  for (auto table = tables_.begin(); table != tables_.end() && left > 0;) {
    auto &[id, routes] = *table;
    for (auto entry = routes.begin(); entry != routes.end() && left > 0;) {
      const Info &info = infos_[entry->second.info];
      if (info.doomed) {
        --left;
        touch(id, entry->first);
        entry = erase(id, routes, entry);
        continue;
      }
      if (info.dirty) {
        --left;
        note(id, entry->first, entry->second.info);
      }
      ++entry;
    }
    table = routes.empty() ? tables_.erase(table) : std::next(table);
  }
  for (Info &info : infos_) info.dirty = false;
  doomed_ = dirty_ = false;
}

RouteChanges RoutePicture::take_changes() {
  settle();
  devices_.take_changes();
  if (changes_.everything) changes_.routes.clear();
  auto &routes = changes_.routes;
  std::sort(routes.begin(), routes.end());
  routes.erase(std::unique(routes.begin(), routes.end()), routes.end());
  return std::exchange(changes_, {});
}

ResolvedRoute RoutePicture::resolve(uint32_t id) const {
  const Info &info = infos_[id];
  ResolvedRoute out;
  if (drops(info.info.type)) {
    out.usable = true;
    return out;
  }
  if (info.info.nexthop_id == 0) {
    for (size_t i = 0; i < info.info.hops.size(); ++i) {
      if (i >= info.dead.size() || !info.dead[i]) out.hops.push_back(info.info.hops[i]);
    }
    out.usable = !out.hops.empty();
    return out;
  }
  const auto object = objects_.find(info.info.nexthop_id);
  if (object == objects_.end()) return out;
  const NexthopMessage &told = object->second.told;
  if (told.members.empty()) {
    out.usable = true;
    out.blackhole = told.blackhole;
    if (!told.blackhole) out.hops.push_back(told.hop);
    return out;
  }
  for (const NexthopMessage::Member &member : told.members) {
    const auto single = objects_.find(member.id);
    if (single == objects_.end() || !single->second.told.members.empty()) continue;
    out.blackhole |= single->second.told.blackhole;
    if (single->second.told.blackhole) continue;
    out.hops.push_back(single->second.told.hop);
    out.hops.back().weight = member.weight;
  }
  if (!out.hops.empty()) out.blackhole = false;
  out.usable = out.blackhole || !out.hops.empty();
  return out;
}

}  // namespace ipd::kernel
