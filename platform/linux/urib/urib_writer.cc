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

#include "sm/make_room.h"
#include "urib/attachment.h"
#include "urib/tables_writer.h"

namespace rsw {
namespace urib {

// The route in all tries that it belongs in, in the place of the one with the attributes `old` (0: none). False: no
// room, nothing has changed.
bool TablesWriter::put(TableWriter &table, const Item &item, uint32_t old) {
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

bool TablesWriter::set(uint32_t id, const Route &route) {
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

bool TablesWriter::remove(uint32_t id, RouteView view, uint32_t addr, uint8_t len) {
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

namespace {

// Until the first commit readers find no routes.
void withdraw(const SegmentMap &segment) {
  // Release, as all of these words, though nothing stands behind a zero.
  publish_word(segment.header()->root, 0);
  auto &shortcuts = *at_address<Shortcuts>(segment.layout().base + shortcuts_offset);
  for (uint32_t &region : shortcuts.regions) publish_word(region, 0);
}

}  // namespace
}  // namespace urib

std::unique_ptr<UribWriter> UribWriter::open(Epochs &epochs, std::string *reason, ArenaLimits limits) {
  urib::detach_idle();
  std::shared_ptr<SegmentMap> segment = SegmentMap::create(segment_urib, reason);
  if (segment == nullptr) return nullptr;
  const std::vector<RecordTypeInfo> types = urib::record_types();
  std::unique_ptr<Arena> arena = Arena::open(segment, epochs, Domain::urib, urib::arena_offset, types, limits, reason);
  if (arena == nullptr) return nullptr;
  make_room(*segment, *arena, limits, "no routes are served", [&segment] { urib::withdraw(*segment); });
  auto *directory = static_cast<urib::Directory *>(arena->allocate(urib::directory_type));
  if (directory == nullptr) {
    *reason = std::string(segment->layout().name) + ": no room for a directory of tables";
    return nullptr;
  }
  return std::make_unique<urib::TablesWriter>(std::move(segment), std::move(arena), directory);
}

}  // namespace rsw
