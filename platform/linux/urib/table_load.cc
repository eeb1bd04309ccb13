// SPDX-License-Identifier: Apache-2.0
// A table whole: its routes are checked and sorted first, then built aside, then swung in by one store.
#include <algorithm>

#include "urib/tables_writer.h"

namespace rsw::urib {

// Why a route is refused; null: it is not.
const char *fault_of(const Route &route) {
  if (route.len > 32 || (route.addr & ~mask_of(route.len)) != 0) return "the prefix has bits beyond its length";
  if (route.kind < RouteKind::local || route.kind > RouteKind::other) return "there is no such kind of route";
  if (route.action > RouteAction::pass_on) return "there is no such action";
  if (route.next_hops.size() > most_next_hops) return "there are more than 256 next hops";
  if (route.action > RouteAction::broadcast && !route.next_hops.empty()) return "such a route has no next hops";
  for (const RouteNextHop &hop : route.next_hops) {
    if (hop.weight < 1 || hop.weight > 256) return "the weight of a next hop is not 1 to 256";
    if (hop.iod == 0 && hop.addr == 0 && hop.table == 0) return "a next hop leads nowhere";
  }
  return nullptr;
}

// What the tries shall hold, in order; each item has one user of its attributes. False: refused.
bool TablesWriter::take_items(std::span<const Route> routes, ItemsOfTries *items) {
  auto &[unicast, direct, multicast] = *items;
  unicast.reserve(routes.size());
  for (const Route &route : routes) {
    if (const char *fault = fault_of(route)) return refuse(fault);
    const uint32_t attributes = attributes_.take(route);
    if (attributes == 0) return no_room();
    const Item item{route.addr, route.len, attributes};
    (view_of(route.kind) == RouteView::multicast ? multicast : unicast).push_back(item);
    if (!is_direct(route.kind)) continue;
    attributes_.hold(attributes);
    direct.push_back(item);
  }
  const auto before = [](const Item &a, const Item &b) { return a.addr != b.addr ? a.addr < b.addr : a.len < b.len; };
  const auto same = [](const Item &a, const Item &b) { return a.addr == b.addr && a.len == b.len; };
  for (std::vector<Item> &trie : *items) {
    if (!std::ranges::is_sorted(trie, before)) std::ranges::sort(trie, before);
    if (std::ranges::adjacent_find(trie, same) != trie.end()) return refuse("a prefix stands there twice");
  }
  return true;
}

void TablesWriter::drop_items(const ItemsOfTries &items) {
  for (const std::vector<Item> &trie : items) {
    for (const Item &item : trie) attributes_.drop(item.attributes);
  }
}

void TablesWriter::drop_attributes(const TableWriter &table) {
  for (const TrieWriter *trie : {&table.unicast, &table.direct, &table.multicast}) {
    trie->for_each([this](const Item &item) { attributes_.drop(item.attributes); });
  }
}

bool TablesWriter::load(uint32_t id, std::span<const Route> routes) {
  if (id == 0) return refuse("there is no table 0");
  if (routes.empty()) return remove_table(id);
  ItemsOfTries items;
  if (!take_items(routes, &items)) {
    drop_items(items);
    return false;
  }
  TableWriter *present = make_table(id);
  auto *body = present == nullptr ? nullptr : static_cast<Body *>(arena_->allocate(body_type));
  if (body == nullptr) {
    drop_items(items);
    if (present != nullptr) remove_if_empty(id);
    return no_room();
  }
  TableWriter fresh(*arena_, present->table, body);
  if (!fresh.unicast.build(items[0]) || !fresh.direct.build(items[1]) || !fresh.multicast.build(items[2])) {
    fresh.discard(false);
    arena_->give_back(body_type, body);
    drop_items(items);
    remove_if_empty(id);
    return no_room();
  }
  for (const size_t trie : {size_t{0}, size_t{2}}) {
    for (const Item &item : items[trie]) body->pass_on += passes_on_count(item.attributes);
  }
  // Release: the whole body stands before its address does; partner: body_at().
  publish_word(present->table->body, address_of(body));
  publish_shortcut(id, fresh);
  drop_attributes(*present);
  present->discard(true);
  arena_->retire(body_type, present->body);
  *present = std::move(fresh);
  return true;
}

}  // namespace rsw::urib
