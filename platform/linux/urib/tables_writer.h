// SPDX-License-Identifier: Apache-2.0
// The writer of the route tables, as its own files see it: which tables there are, how one is made and unlinked
// (tables_writer.cc), how one is loaded whole (table_load.cc), and what happens to single routes (urib_writer.cc).
#ifndef RSW_URIB_TABLES_WRITER_H
#define RSW_URIB_TABLES_WRITER_H

#include <array>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "pt/word_index_writer.h"
#include "sm/arena.h"
#include "urib/attribute_store.h"
#include "urib/trie_writer.h"
#include "urib/urib_writer.h"

namespace rsw::urib {

// Why a route is refused; null: it is not.
const char *fault_of(const Route &route);

inline RouteView view_of(RouteKind kind) {
  return kind == RouteKind::multicast_static ? RouteView::multicast : RouteView::unicast;
}
inline bool is_direct(RouteKind kind) {
  return kind == RouteKind::local || kind == RouteKind::attached || kind == RouteKind::direct;
}

inline RouteKind kind_of(uint32_t attributes) {
  return static_cast<RouteKind>(at_address<Attributes>(attributes)->kind);
}
inline uint32_t passes_on_count(uint32_t attributes) {
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

class TablesWriter final : public UribWriter {
 public:
  TablesWriter(std::shared_ptr<SegmentMap> segment, std::unique_ptr<Arena> arena, Directory *directory)
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

}  // namespace rsw::urib

#endif
