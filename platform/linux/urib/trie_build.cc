// SPDX-License-Identifier: Apache-2.0
// A whole trie at once: each node is made once, from below, when all of its routes are known.
#include <bit>

#include "urib/trie_writer.h"

namespace rsw::urib {

// The node of all these routes, which agree in the bits above its level and are longer. 0: no room.
uint32_t TrieWriter::build_node(Change &change, std::span<const Item> items, uint32_t level) {
  uint64_t near = 0;
  uint64_t far = 0;
  uint64_t present = 0;
  uint32_t near_word[64];
  uint32_t far_word[64];
  uint32_t child[64];
  for (size_t i = 0; i < items.size();) {
    const Item &item = items[i];
    const uint32_t bits = bits_at(item.addr, level);
    const uint32_t longer = item.len - level;
    if (longer > node_bits) {
      // In order, all that lies below one child stands together.
      size_t end = i + 1;
      while (end < items.size() && bits_at(items[end].addr, level) == bits) ++end;
      child[bits] = build_node(change, items.subspan(i, end - i), level + node_bits);
      if (child[bits] == 0) return 0;
      present |= uint64_t{1} << bits;
      i = end;
      continue;
    }
    uint32_t row_word = item.attributes;
    if (level < direct_level) {
      auto *word = change.allocate<RouteWord>(route_word_type);
      if (word == nullptr) return 0;
      word->attributes = item.attributes;
      row_word = address_of(word);
    }
    if (longer == node_bits) {
      far |= uint64_t{1} << bits;
      far_word[bits] = row_word;
    } else {
      const uint32_t bit = 1u << longer | bits >> (node_bits - longer);
      near |= uint64_t{1} << bit;
      near_word[bit] = row_word;
    }
    ++i;
  }
  const bool is_direct = level == direct_level;
  const uint32_t count = count_bits(near) + count_bits(far);
  auto *node = change.allocate<Node>(is_direct ? direct_node_type(count) : node_type);
  if (node == nullptr) return 0;
  node->near[0] = static_cast<uint32_t>(near);
  node->near[1] = static_cast<uint32_t>(near >> 32);
  node->far[0] = static_cast<uint32_t>(far);
  node->far[1] = static_cast<uint32_t>(far >> 32);
  if (count != 0) {
    auto *row = is_direct ? at_address<Row>(address_of(node) + offsetof(DirectNode, row))
                          : change.allocate<Row>(row_type(count));
    if (row == nullptr) return 0;
    uint32_t *to = row->word;
    for (; near != 0; near &= near - 1) *to++ = near_word[std::countr_zero(near)];
    for (; far != 0; far &= far - 1) *to++ = far_word[std::countr_zero(far)];
    node->row = address_of(row);
  }
  if (present != 0) {
    auto *children = change.allocate<Children>(children_type(count_bits(present)));
    if (children == nullptr) return 0;
    children->present[0] = static_cast<uint32_t>(present);
    children->present[1] = static_cast<uint32_t>(present >> 32);
    uint32_t *to = children->node;
    for (; present != 0; present &= present - 1) *to++ = child[std::countr_zero(present)];
    node->children = address_of(children);
  }
  fill_places(node, level);
  return address_of(node);
}

bool TrieWriter::build(std::span<const Item> items) {
  Change change(*arena_);
  uint32_t whole = 0;
  std::span<const Item> rest = items;
  if (!rest.empty() && rest.front().len == 0) {
    auto *word = change.allocate<RouteWord>(route_word_type);
    if (word == nullptr) return false;
    word->attributes = rest.front().attributes;
    whole = address_of(word);
    rest = rest.subspan(1);
  }
  const uint32_t root = rest.empty() ? 0 : build_node(change, rest, 0);
  if (change.failed()) return false;
  publish_word(trie_->whole, whole);
  publish_word(trie_->root, root);
  routes_ = static_cast<uint32_t>(items.size());
  change.done();
  adapt();
  return true;
}

}  // namespace rsw::urib
