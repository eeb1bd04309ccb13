// SPDX-License-Identifier: Apache-2.0
// One trie of a route table, the writer's side.
#ifndef RSW_URIB_TRIE_WRITER_H
#define RSW_URIB_TRIE_WRITER_H

#include <cstdint>
#include <functional>
#include <span>

#include "sm/arena.h"
#include "urib/urib_lookup.h"
#include "urib/urib_types.h"

namespace rsw::urib {

// A route as a trie knows it: its prefix and the address of its attributes.
struct Item {
  uint32_t addr;
  uint32_t len;
  uint32_t attributes;
};

class TrieWriter {
 public:
  // `trie` is zeroed, or was filled by this class before.
  TrieWriter(Arena &arena, Trie *trie) : arena_(&arena), trie_(trie) {}

  // A change in two steps, so that changes of two tries happen together or not at all. The first step allocates and
  // stores nothing that readers see; false: no room. The second one always succeeds, and change.done() comes after it.
  struct Pending {
    uint32_t *word = nullptr;  // to be swung; null: nothing is to be done
    uint32_t value = 0;
    Block *block = nullptr;  // a new one for the region
    uint32_t addr = 0;
    uint32_t len = 0;
    uint32_t routes = 0;  // how many there are then
  };
  // Adds the route or replaces the one of that prefix.
  [[nodiscard]] bool prepare_put(Change &change, const Item &item, Pending *pending);
  // Takes a route out, if it is there.
  [[nodiscard]] bool prepare_erase(Change &change, uint32_t addr, uint32_t len, Pending *pending);
  void apply(Change &change, const Pending &pending);
  // Makes or drops the shortcut, as many routes as there are now. After a change is done.
  void adapt();

  // Fills an empty trie with routes in the order of (addr, len), each prefix once. False: no room, it is empty still.
  [[nodiscard]] bool build(std::span<const Item> items);
  // The attributes of exactly that prefix; 0: it is not there.
  [[nodiscard]] uint32_t find(uint32_t addr, uint32_t len) const;
  [[nodiscard]] uint32_t size() const { return routes_; }

  // Each route.
  void for_each(const std::function<void(const Item &)> &visit) const;
  // Lets go of all its records; this object is of no use afterwards. `published`: readers could reach the trie until
  // now.
  void discard(bool published);

 private:
  struct Path;
  struct RouteSet;
  bool prepare_whole(Change &change, uint32_t attributes, Pending *pending);
  bool prepare_missing(Change &change, const Path &path, const Item &item, uint32_t row_word, Pending *pending);
  Node *make_node(Change &change, const RouteSet &routes, uint32_t level);
  static void fill_places(Node *node, uint32_t level);
  void refresh_place(uint32_t addr);
  uint32_t build_node(Change &change, std::span<const Item> items, uint32_t level);
  bool stage_block(Change &change, uint32_t addr, Block **block);
  void refresh(uint32_t addr, uint32_t len);
  static void take_out_node(Change &change, const Node &node, uint32_t level);
  void refresh_slot(Block &block, const Node *middle, uint32_t addr);
  void drop_block(Change &change, uint32_t addr);
  bool make_shortcut();
  void discard_shortcut(Regions *all, bool published);
  void discard_node(uint32_t address, uint32_t level, bool published);
  void let_go(RecordType type, uint32_t address, bool published);
  [[nodiscard]] Regions *regions() const;

  Arena *arena_;
  Trie *trie_;
  uint32_t routes_ = 0;
  uint32_t shortcut_from_ = 0;  // routes at which to try again after there was no room
};

}  // namespace rsw::urib

#endif
