// SPDX-License-Identifier: Apache-2.0
// The route tables, the writer's side: which tables there are, and what happens to each.
//
// A table is three tries that share its routes' attributes. A route of the unicast view that is direct stands in two of
// them, and each place counts as one user of its attributes. Both are prepared before the first store, so that a change
// for which there is no room leaves everything as it was.
//
// The first commit makes the directory the segment's root. Until then everything is built beside what a previous
// writer left, which readers go on seeing; none of that is adopted, so that the first commit retires all of it.
#include "urib/urib_writer.h"

#include <syslog.h>

#include <algorithm>
#include <map>

#include "log/log_writer.h"
#include "pt/word_index_writer.h"
#include "sm/make_room.h"
#include "urib/attachment.h"
#include "urib/attribute_store.h"
#include "urib/trie_writer.h"

namespace rsw {
namespace {

using namespace urib;

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

RouteView view_of(RouteKind kind) {
  return kind == RouteKind::multicast_static ? RouteView::multicast : RouteView::unicast;
}
bool is_direct(RouteKind kind) {
  return kind == RouteKind::local || kind == RouteKind::attached || kind == RouteKind::direct;
}

RouteKind kind_of(uint32_t attributes) {
  return static_cast<RouteKind>(at_address<Attributes>(attributes)->kind);
}
uint32_t passes_on_count(uint32_t attributes) {
  return at_address<Attributes>(attributes)->action == static_cast<uint8_t>(RouteAction::pass_on) ? 1 : 0;
}

// One table as the writer knows it.
struct TableWriter {
  TableWriter(Arena &arena, Table *the_table, Body *the_body)
      : table(the_table),
        body(the_body),
        unicast(arena, &the_body->unicast),
        direct(arena, &the_body->direct),
        multicast(arena, &the_body->multicast) {}
  TrieWriter &of(RouteView view) { return view == RouteView::multicast ? multicast : unicast; }
  void discard(bool published) {
    unicast.discard(published);
    direct.discard(published);
    multicast.discard(published);
  }

  Table *table;
  Body *body;
  TrieWriter unicast, direct, multicast;
};

class Writer final : public UribWriter {
 public:
  Writer(std::shared_ptr<SegmentMap> segment, std::unique_ptr<Arena> arena, Directory *directory)
      : segment_(std::move(segment)),
        arena_(std::move(arena)),
        directory_(directory),
        attributes_(*arena_),
        index_(*arena_, first_table_index_type, most_table_index_log2, &directory->index,
               [this](const WordIndexWriter::Sink &sink) {
                 for (const auto &[id, table] : tables_) {
                   if (id >= small_tables) sink(id, 0, address_of(table.table));
                 }
               }) {}

  bool set(uint32_t table, const Route &route) override;
  bool remove(uint32_t table, RouteView view, uint32_t addr, uint8_t len) override;
  bool load(uint32_t table, std::span<const Route> routes) override;
  bool remove_table(uint32_t table) override;
  bool commit() override;
  void tick(std::chrono::steady_clock::time_point now) override { arena_->tick(now); }
  [[nodiscard]] const std::string &last_error() const override { return error_; }
  [[nodiscard]] UribUse use() const override;

 private:
  using Tables = std::map<uint32_t, TableWriter>;
  using ItemsOfTries = std::array<std::vector<Item>, 3>;  // unicast, direct, multicast

  bool refuse(const std::string &text) {
    error_ = text;
    return false;
  }
  bool no_room() { return refuse("no room for more routes in " + std::string(segment_->layout().name)); }
  TableWriter *make_table(uint32_t id);
  void remove_if_empty(uint32_t id);
  void unlink(uint32_t id);
  bool put(TableWriter &table, const Item &item, uint32_t old);
  bool take_items(std::span<const Route> routes, ItemsOfTries *items);
  void drop_items(const ItemsOfTries &items);
  void drop_attributes(const TableWriter &table);
  void publish_shortcut(uint32_t id, const TableWriter &table);
  [[nodiscard]] Shortcuts &shortcuts() const {
    return *at_address<Shortcuts>(segment_->layout().base + shortcuts_offset);
  }
  void changed(TableWriter &table) { publish_word(table.body->changes, table.body->changes + 1); }

  std::shared_ptr<SegmentMap> segment_;
  std::unique_ptr<Arena> arena_;
  Directory *directory_;
  AttributeStore attributes_;
  Tables tables_;
  WordIndexWriter index_;
  std::string error_;
  bool committed_ = false;
};

// The table, a new one if there is none. Null: no room.
TableWriter *Writer::make_table(uint32_t id) {
  const auto present = tables_.find(id);
  if (present != tables_.end()) return &present->second;
  Change change(*arena_);
  auto *body = change.allocate<Body>(body_type);
  auto *table = change.allocate<Table>(table_type);
  if (table == nullptr) return nullptr;
  fill_word(table->id, id);
  fill_word(table->body, address_of(body));
  const auto entry = tables_.emplace(id, TableWriter(*arena_, table, body)).first;
  const auto next = std::next(entry);
  fill_word(table->next, next == tables_.end() ? 0 : address_of(next->second.table));
  // Release: the table stands before its address does; partner: body_at() and find_table().
  publish_word(entry == tables_.begin() ? directory_->first : std::prev(entry)->second.table->next, address_of(table));
  if (id < small_tables) {
    publish_word(directory_->small[id], address_of(table));
  } else {
    index_.insert(id, 0, address_of(table));
  }
  change.done();
  return &entry->second;
}

// What lookups look at first. Records that go with a shortcut are retired by then, and live on until the next tick.
void Writer::publish_shortcut(uint32_t id, const TableWriter &table) {
  if (!committed_ || id >= small_tables || shortcuts().regions[id] == table.body->unicast.regions) return;
  // Release: the shortcut stands before its address does; partner: shortcut_of().
  publish_word(shortcuts().regions[id], table.body->unicast.regions);
}

void Writer::unlink(uint32_t id) {
  const auto entry = tables_.find(id);
  TableWriter table = std::move(entry->second);
  const auto next = std::next(entry);
  publish_word(entry == tables_.begin() ? directory_->first : std::prev(entry)->second.table->next,
               next == tables_.end() ? 0 : address_of(next->second.table));
  tables_.erase(entry);
  if (id < small_tables) {
    if (committed_) publish_word(shortcuts().regions[id], 0);
    publish_word(directory_->small[id], 0);
  } else {
    index_.erase(id, 0);
  }
  drop_attributes(table);
  table.discard(true);
  arena_->retire(body_type, table.body);
  arena_->retire(table_type, table.table);
}

void Writer::remove_if_empty(uint32_t id) {
  const TableWriter &table = tables_.at(id);
  if (table.unicast.size() == 0 && table.multicast.size() == 0) unlink(id);
}

// The route in all tries that it belongs in, in the place of the one with the attributes `old` (0: none). False: no
// room, nothing has changed.
bool Writer::put(TableWriter &table, const Item &item, uint32_t old) {
  const RouteKind kind = kind_of(item.attributes);
  TrieWriter &trie = table.of(view_of(kind));
  const bool was_direct = old != 0 && is_direct(kind_of(old));
  const bool now_direct = is_direct(kind);
  Change change(*arena_);
  TrieWriter::Pending main;
  TrieWriter::Pending direct;
  if (!trie.prepare_put(change, item, &main)) return false;
  if (now_direct && !table.direct.prepare_put(change, item, &direct)) return false;
  if (was_direct && !now_direct && !table.direct.prepare_erase(change, item.addr, item.len, &direct)) return false;
  trie.apply(change, main);
  table.direct.apply(change, direct);
  if (now_direct) attributes_.hold(item.attributes);
  if (was_direct) attributes_.drop(old);
  change.done();
  trie.adapt();
  table.direct.adapt();
  return true;
}

bool Writer::set(uint32_t id, const Route &route) {
  if (id == 0) return refuse("there is no table 0");
  if (const char *fault = fault_of(route)) return refuse(fault);
  TableWriter *table = make_table(id);
  if (table == nullptr) return no_room();
  const uint32_t attributes = attributes_.take(route);
  const uint32_t old = table->of(view_of(route.kind)).find(route.addr, route.len);
  bool done = attributes != 0;
  if (attributes != 0 && attributes == old) {
    attributes_.drop(attributes);
  } else if (attributes != 0) {
    // Before such a route can be found; partner: answered().
    publish_word(table->body->pass_on, table->body->pass_on + passes_on_count(attributes));
    done = put(*table, {route.addr, route.len, attributes}, old);
    const uint32_t gone = done ? old : attributes;
    if (gone != 0) {
      publish_word(table->body->pass_on, table->body->pass_on - passes_on_count(gone));
      attributes_.drop(gone);
    }
    changed(*table);
    publish_shortcut(id, *table);
  }
  if (done) return true;
  remove_if_empty(id);
  return no_room();
}

bool Writer::remove(uint32_t id, RouteView view, uint32_t addr, uint8_t len) {
  const auto entry = tables_.find(id);
  if (entry == tables_.end() || len > 32 || (addr & ~mask_of(len)) != 0) return true;
  TableWriter &table = entry->second;
  const uint32_t old = table.of(view).find(addr, len);
  if (old == 0) return true;
  TrieWriter &trie = table.of(view);
  Change change(*arena_);
  TrieWriter::Pending main;
  TrieWriter::Pending direct;
  const bool is_in_direct = view == RouteView::unicast && is_direct(kind_of(old));
  if (!trie.prepare_erase(change, addr, len, &main)) return no_room();
  if (is_in_direct && !table.direct.prepare_erase(change, addr, len, &direct)) return no_room();
  trie.apply(change, main);
  table.direct.apply(change, direct);
  change.done();
  if (is_in_direct) attributes_.drop(old);
  trie.adapt();
  table.direct.adapt();
  publish_word(table.body->pass_on, table.body->pass_on - passes_on_count(old));
  changed(table);
  publish_shortcut(id, table);
  attributes_.drop(old);
  remove_if_empty(id);
  return true;
}

// What the tries shall hold, in order; each item has one user of its attributes. False: refused.
bool Writer::take_items(std::span<const Route> routes, ItemsOfTries *items) {
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

void Writer::drop_items(const ItemsOfTries &items) {
  for (const std::vector<Item> &trie : items) {
    for (const Item &item : trie) attributes_.drop(item.attributes);
  }
}

void Writer::drop_attributes(const TableWriter &table) {
  for (const TrieWriter *trie : {&table.unicast, &table.direct, &table.multicast}) {
    trie->for_each([this](const Item &item) { attributes_.drop(item.attributes); });
  }
}

bool Writer::load(uint32_t id, std::span<const Route> routes) {
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

bool Writer::remove_table(uint32_t id) {
  if (tables_.contains(id)) unlink(id);
  return true;
}

bool Writer::commit() {
  if (!committed_) {
    // Release: everything stands before the directory's address does; partner: directory() of attachment.h.
    publish_word(segment_->header()->root, address_of(directory_));
    for (uint32_t id = 0; id < small_tables; ++id) {
      const auto entry = tables_.find(id);
      publish_word(shortcuts().regions[id], entry == tables_.end() ? 0 : entry->second.body->unicast.regions);
    }
    if (!segment_->publish_name(&error_)) return false;
    arena_->retire_unadopted();
    committed_ = true;
  }
  segment_->publish_generation();
  return true;
}

UribUse Writer::use() const {
  UribUse answer{.tables = static_cast<uint32_t>(tables_.size()),
                 .routes = 0,
                 .lookup_bytes = 0,
                 .route_bytes = 0,
                 .segment_bytes = segment_->header()->used_end - segment_->layout().base};
  for (const auto &[id, table] : tables_) answer.routes += table.unicast.size() + table.multicast.size();
  for (const RecordTypeUse &type : arena_->use()) {
    const uint64_t bytes = type.live * type.info.size;
    const Purpose purpose = purpose_of(type.info.type);
    if (purpose == Purpose::search) answer.lookup_bytes += bytes;
    if (purpose == Purpose::route) answer.route_bytes += bytes;
  }
  return answer;
}

// Until the first commit readers find no routes.
void withdraw(const SegmentMap &segment) {
  // Release, as all of these words, though nothing stands behind a zero.
  publish_word(segment.header()->root, 0);
  auto &shortcuts = *at_address<Shortcuts>(segment.layout().base + shortcuts_offset);
  for (uint32_t &region : shortcuts.regions) publish_word(region, 0);
}

}  // namespace

std::unique_ptr<UribWriter> UribWriter::open(Epochs &epochs, std::string *reason, ArenaLimits limits) {
  urib::detach_idle();
  std::shared_ptr<SegmentMap> segment = SegmentMap::create(segment_urib, reason);
  if (segment == nullptr) return nullptr;
  const std::vector<RecordTypeInfo> types = urib::record_types();
  std::unique_ptr<Arena> arena = Arena::open(segment, epochs, Domain::urib, urib::arena_offset, types, limits, reason);
  if (arena == nullptr) return nullptr;
  make_room(*segment, *arena, limits, "no routes are served", [&segment] { withdraw(*segment); });
  auto *directory = static_cast<urib::Directory *>(arena->allocate(urib::directory_type));
  if (directory == nullptr) {
    *reason = std::string(segment->layout().name) + ": no room for a directory of tables";
    return nullptr;
  }
  return std::make_unique<Writer>(std::move(segment), std::move(arena), directory);
}

}  // namespace rsw
