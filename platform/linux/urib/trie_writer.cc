// SPDX-License-Identifier: Apache-2.0
// Changes of a trie, one route at a time.
//
// A change makes a new row and a new node beside the old and swings the one word that leads to the node. Where nodes
// are missing on the way, they are made from below, and the lowest node that there is gets new Children by one store;
// where a node becomes empty, it goes with the empty ones above it, by one store as well. All records are allocated in
// front of the first store, so that a change happens as a whole or not at all.
//
// The shortcut follows right behind, from what the tree says then: the regions, slots or the one slot that the route
// touches. Searches that use it see a change a moment later than those that do not; each of them sees it whole.
#include "urib/trie_writer.h"

#include <algorithm>
#include <utility>

namespace rsw::urib {
namespace {

template <class T>
T *record_at(uint32_t address) {
  return at_address<T>(address);
}

void set_bits(uint32_t (&words)[2], uint64_t bits) {
  fill_word(words[0], static_cast<uint32_t>(bits));
  fill_word(words[1], static_cast<uint32_t>(bits >> 32));
}

uint32_t routes_in(const Node &node) {
  return count_bits(bits_of(node.near)) + count_bits(bits_of(node.far));
}
uint32_t count_of(const Children &children) {
  return count_bits(bits_of(children.present));
}

// The word that leads to the child, for the writer to swing.
uint32_t *child_of(Node &node, uint32_t bits) {
  return const_cast<uint32_t *>(child_word(node, bits));
}

// Children with one more, or, for node 0, one less.
Children *changed(Change &change, const Children *old, uint32_t bits, uint32_t node) {
  const uint64_t bit = uint64_t{1} << bits;
  const uint64_t before = old == nullptr ? 0 : bits_of(old->present);
  const uint64_t present = node != 0 ? before | bit : before & ~bit;
  auto *fresh = change.allocate<Children>(children_type(count_bits(present)));
  if (fresh == nullptr) return nullptr;
  set_bits(fresh->present, present);
  const uint32_t place = count_bits(before & (bit - 1));
  for (uint32_t i = 0; i < place; ++i) fill_word(fresh->node[i], old->node[i]);
  uint32_t to = place;
  if (node != 0) fill_word(fresh->node[to++], node);
  for (uint32_t i = place + (node != 0 ? 0 : 1); i < count_bits(before); ++i) {
    fill_word(fresh->node[to++], old->node[i]);
  }
  return fresh;
}

}  // namespace

// The way to the node of a prefix's level, as far as there are nodes.
struct TrieWriter::Path {
  Path(Trie &trie, uint32_t addr, uint32_t target) : word{&trie.root} {
    depth = 0;
    node[0] = record_at<Node>(trie.root);
    while (node[depth] != nullptr && depth * node_bits < target) {
      uint32_t *const child = child_of(*node[depth], bits_at(addr, depth * node_bits));
      if (child == nullptr) break;
      ++depth;
      word[depth] = child;
      node[depth] = record_at<Node>(*child);
    }
  }
  [[nodiscard]] uint32_t level() const { return depth * node_bits; }

  uint32_t depth;
  uint32_t *word[6];
  Node *node[6];  // null at depth 0: there is no root
};

// A node's routes: bits, and what its row holds.
struct TrieWriter::RouteSet {
  uint64_t near = 0, far = 0;
  uint32_t count = 0;
  std::array<uint32_t, most_routes_of_node> word{};

  static RouteSet of(const Node &node) {
    RouteSet set;
    set.near = bits_of(node.near);
    set.far = bits_of(node.far);
    set.count = routes_in(node);
    const Row *row = record_at<Row>(node.row);
    for (uint32_t i = 0; i < set.count; ++i) set.word[i] = row->word[i];
    return set;
  }

  [[nodiscard]] uint32_t place(uint32_t bits, uint32_t longer) const {
    if (longer == node_bits) return count_bits(near) + count_bits(far & ((uint64_t{1} << bits) - 1));
    return count_bits(near & ((uint64_t{1} << (1u << longer | bits >> (node_bits - longer))) - 1));
  }
  [[nodiscard]] bool has(uint32_t bits, uint32_t longer) const {
    return longer == node_bits ? (far >> bits & 1) != 0
                               : (near >> (1u << longer | bits >> (node_bits - longer)) & 1) != 0;
  }
  void flip(uint32_t bits, uint32_t longer) {
    if (longer == node_bits) {
      far ^= uint64_t{1} << bits;
    } else {
      near ^= uint64_t{1} << (1u << longer | bits >> (node_bits - longer));
    }
  }
  // The word that was there; 0: none.
  uint32_t put(uint32_t bits, uint32_t longer, uint32_t row_word) {
    const uint32_t at = place(bits, longer);
    if (has(bits, longer)) return std::exchange(word[at], row_word);
    std::copy_backward(word.data() + at, word.data() + count, word.data() + count + 1);
    word[at] = row_word;
    ++count;
    flip(bits, longer);
    return 0;
  }
  uint32_t erase(uint32_t bits, uint32_t longer) {
    const uint32_t at = place(bits, longer);
    const uint32_t old = word[at];
    std::copy(word.data() + at + 1, word.data() + count, word.data() + at);
    --count;
    flip(bits, longer);
    return old;
  }
};

// With places that fill_places() will fill, when its children are known.
Node *TrieWriter::make_node(Change &change, const RouteSet &routes, uint32_t level) {
  const bool is_direct = level == direct_level;
  auto *node = change.allocate<Node>(is_direct ? direct_node_type(routes.count) : node_type);
  if (node == nullptr) return nullptr;
  set_bits(node->near, routes.near);
  set_bits(node->far, routes.far);
  if (routes.count == 0) return node;
  Row *row = is_direct ? record_at<Row>(address_of(node) + offsetof(DirectNode, row))
                       : change.allocate<Row>(row_type(routes.count));
  if (row == nullptr) return nullptr;
  for (uint32_t i = 0; i < routes.count; ++i) fill_word(row->word[i], routes.word[i]);
  fill_word(node->row, address_of(row));
  return node;
}

void TrieWriter::take_out_node(Change &change, const Node &node, uint32_t level) {
  const uint32_t count = routes_in(node);
  if (level == direct_level) return change.take_out(direct_node_type(count), address_of(&node));
  if (count != 0) change.take_out(row_type(count), node.row);
  change.take_out(node_type, address_of(&node));
}

uint32_t TrieWriter::find(uint32_t addr, uint32_t len) const {
  const uint32_t word = exact_word(*trie_, addr, len);
  return word == 0 ? 0 : record_at<RouteWord>(word)->attributes;
}

Regions *TrieWriter::regions() const {
  return record_at<Regions>(trie_->regions);
}

// The route of no bits at all; attributes 0: there shall be none.
bool TrieWriter::prepare_whole(Change &change, uint32_t attributes, Pending *pending) {
  uint32_t fresh = 0;
  if (attributes != 0) {
    auto *word = change.allocate<RouteWord>(route_word_type);
    if (word == nullptr) return false;
    fill_word(word->attributes, attributes);
    fresh = address_of(word);
  }
  const uint32_t old = trie_->whole;
  if (old != 0) change.take_out(route_word_type, old);
  *pending = {.word = &trie_->whole,
              .value = fresh,
              .block = nullptr,
              .addr = 0,
              .len = 0,
              .routes = routes_ + (fresh != 0 ? 1u : 0u) - (old != 0 ? 1u : 0u)};
  return true;
}

void TrieWriter::apply(Change &change, const Pending &pending) {
  if (pending.word == nullptr) return;
  routes_ = pending.routes;
  // Release: the new records stand before the word that leads to them; partner: the acquire loads of urib_lookup.h, as
  // with every publish_word of the tries.
  publish_word(*pending.word, pending.value);
  if (pending.block != nullptr) {
    publish_word(regions()->region[pending.addr >> (32 - region_bits)].block, address_of(pending.block));
  }
  if (pending.len > direct_level + node_bits) refresh_place(pending.addr);
  if (pending.len > region_bits) drop_block(change, pending.addr);
  refresh(pending.addr, pending.len);
}

// Makes sure that the region has a block, for a route longer than 12 bits. *block: a new one, not yet published.
bool TrieWriter::stage_block(Change &change, uint32_t addr, Block **block) {
  *block = nullptr;
  if (trie_->regions == 0 || regions()->region[addr >> (32 - region_bits)].block != 0) return true;
  *block = change.allocate<Block>(block_type);
  return *block != nullptr;
}

bool TrieWriter::prepare_put(Change &change, const Item &item, Pending *pending) {
  if (item.len == 0) return prepare_whole(change, item.attributes, pending);
  const uint32_t level = level_of(item.len);
  *pending = {.word = nullptr, .value = 0, .block = nullptr, .addr = item.addr, .len = item.len, .routes = routes_};
  if (item.len > region_bits && !stage_block(change, item.addr, &pending->block)) return false;
  uint32_t row_word = item.attributes;
  if (level < direct_level) {
    auto *word = change.allocate<RouteWord>(route_word_type);
    if (word == nullptr) return false;
    fill_word(word->attributes, item.attributes);
    row_word = address_of(word);
  }
  const Path path(*trie_, item.addr, level);
  Node *const present = path.level() == level ? path.node[path.depth] : nullptr;
  if (present == nullptr) {
    ++pending->routes;
    return prepare_missing(change, path, item, row_word, pending);
  }
  RouteSet routes = RouteSet::of(*present);
  const uint32_t replaced = routes.put(bits_at(item.addr, level), item.len - level, row_word);
  Node *node = make_node(change, routes, level);
  if (node == nullptr) return false;
  fill_word(node->children, present->children);
  fill_word(node->above, present->above);
  fill_places(node, level);
  if (replaced == 0) ++pending->routes;
  if (replaced != 0 && level < direct_level) change.take_out(route_word_type, replaced);
  take_out_node(change, *present, level);
  pending->word = path.word[path.depth];
  pending->value = address_of(node);
  return true;
}

// Nodes from the prefix's level up to the lowest one that there is.
bool TrieWriter::prepare_missing(Change &change, const Path &path, const Item &item, uint32_t row_word,
                                 Pending *pending) {
  const uint32_t level = level_of(item.len);
  RouteSet routes;
  routes.put(bits_at(item.addr, level), item.len - level, row_word);
  Node *node = make_node(change, routes, level);
  if (node != nullptr) fill_places(node, level);
  Node *const lowest = path.node[path.depth];
  const uint32_t stop = lowest == nullptr ? 0 : path.level() + node_bits;
  for (uint32_t above = level; node != nullptr && above > stop;) {
    above -= node_bits;
    Children *children = changed(change, nullptr, bits_at(item.addr, above), address_of(node));
    node = make_node(change, RouteSet{}, above);
    if (children == nullptr || node == nullptr) return false;
    fill_word(node->children, address_of(children));
    fill_places(node, above);
  }
  if (change.failed()) return false;
  if (lowest == nullptr) {
    pending->word = path.word[0];
    pending->value = address_of(node);
    return true;
  }
  const auto *old = record_at<Children>(lowest->children);
  Children *children = changed(change, old, bits_at(item.addr, path.level()), address_of(node));
  if (children == nullptr) return false;
  if (old != nullptr) change.take_out(children_type(count_of(*old)), address_of(old));
  pending->word = &lowest->children;
  pending->value = address_of(children);
  return true;
}

bool TrieWriter::prepare_erase(Change &change, uint32_t addr, uint32_t len, Pending *pending) {
  *pending = Pending{};
  if (len == 0) return trie_->whole == 0 || prepare_whole(change, 0, pending);
  const uint32_t level = level_of(len);
  const uint32_t bits = bits_at(addr, level);
  const Path path(*trie_, addr, level);
  Node *const node = path.level() == level ? path.node[path.depth] : nullptr;
  if (node == nullptr || exactly_in(*node, bits, len - level).longer == 0) return true;
  *pending = {.word = nullptr, .value = 0, .block = nullptr, .addr = addr, .len = len, .routes = routes_ - 1};
  RouteSet routes = RouteSet::of(*node);
  take_out_node(change, *node, level);
  const uint32_t word = routes.erase(bits, len - level);
  if (level < direct_level) change.take_out(route_word_type, word);
  if (routes.count != 0 || node->children != 0) {
    Node *fresh = make_node(change, routes, level);
    if (fresh == nullptr) return false;
    fill_word(fresh->children, node->children);
    fill_word(fresh->above, node->above);
    fill_places(fresh, level);
    pending->word = path.word[path.depth];
    pending->value = address_of(fresh);
    return true;
  }
  // The node goes, and with it those above it, up to the first one that keeps something.
  uint32_t depth = path.depth;
  while (depth > 0) {
    Node &above = *path.node[depth - 1];
    if (routes_in(above) != 0 || count_of(*record_at<Children>(above.children)) > 1) break;
    change.take_out(children_type(1), above.children);
    --depth;
    take_out_node(change, above, depth * node_bits);
  }
  if (depth == 0) {
    pending->word = &trie_->root;
    return true;
  }
  Node &keeper = *path.node[depth - 1];
  const auto *old = record_at<Children>(keeper.children);
  Children *children = nullptr;
  if (count_of(*old) > 1) {
    children = changed(change, old, bits_at(addr, (depth - 1) * node_bits), 0);
    if (children == nullptr) return false;
  }
  change.take_out(children_type(count_of(*old)), address_of(old));
  pending->word = &keeper.children;
  pending->value = address_of(children);
  return true;
}

void TrieWriter::for_each(const std::function<void(const Item &)> &visit) const {
  if (trie_->whole != 0) visit({0, 0, record_at<RouteWord>(trie_->whole)->attributes});
  const std::function<void(const Node &, uint32_t, uint32_t)> walk_node = [&](const Node &node, uint32_t addr,
                                                                              uint32_t level) {
    const auto report = [&](uint32_t bits, uint32_t longer) {
      const Place place = exactly_in(node, bits, longer);
      const uint32_t prefix = level == last_level ? addr | bits >> 4 : addr | bits << (32 - node_bits - level);
      visit({prefix, level + longer, record_at<RouteWord>(route_word(node, level, place.index))->attributes});
    };
    for (uint64_t near = bits_of(node.near); near != 0; near &= near - 1) {
      const auto bit = static_cast<uint32_t>(std::countr_zero(near));
      const auto longer = static_cast<uint32_t>(31 - std::countl_zero(bit));
      report((bit ^ 1u << longer) << (node_bits - longer), longer);
    }
    for (uint64_t far = bits_of(node.far); far != 0; far &= far - 1) {
      report(static_cast<uint32_t>(std::countr_zero(far)), node_bits);
    }
    if (node.children == 0) return;
    const Children &children = *record_at<Children>(node.children);
    uint32_t place = 0;
    for (uint64_t present = bits_of(children.present); present != 0; present &= present - 1) {
      const auto bits = static_cast<uint32_t>(std::countr_zero(present));
      const uint32_t below = level + node_bits;
      const uint32_t shift = 32 - below;
      walk_node(*record_at<Node>(children.node[place++]), addr | bits << shift, below);
    }
  };
  if (trie_->root != 0) walk_node(*record_at<Node>(trie_->root), 0, 0);
}

void TrieWriter::let_go(RecordType type, uint32_t address, bool published) {
  if (published) {
    arena_->retire(type, record_at<void>(address));
  } else {
    arena_->give_back(type, record_at<void>(address));
  }
}

void TrieWriter::discard_node(uint32_t address, uint32_t level, bool published) {
  const Node &node = *record_at<Node>(address);
  const uint32_t count = routes_in(node);
  if (count != 0) {
    const Row &row = *record_at<Row>(node.row);
    for (uint32_t i = 0; level < direct_level && i < count; ++i) let_go(route_word_type, row.word[i], published);
    if (level != direct_level) let_go(row_type(count), node.row, published);
  }
  if (node.children != 0) {
    const Children &children = *record_at<Children>(node.children);
    for (uint32_t i = 0; i < count_of(children); ++i) discard_node(children.node[i], level + node_bits, published);
    let_go(children_type(count_of(children)), node.children, published);
  }
  let_go(level == direct_level ? direct_node_type(count) : node_type, address, published);
}

// Stores nothing to the trie: a search may be in it still.
void TrieWriter::discard(bool published) {
  if (trie_->regions != 0) discard_shortcut(regions(), published);
  if (trie_->whole != 0) let_go(route_word_type, trie_->whole, published);
  if (trie_->root != 0) discard_node(trie_->root, 0, published);
}

}  // namespace rsw::urib
