// SPDX-License-Identifier: Apache-2.0
// The shortcut of a trie to its nodes of 18 bits: made when there are enough routes, and kept up to date.
#include <bit>

#include "urib/trie_writer.h"

namespace rsw::urib {
namespace {

constexpr uint32_t shortcut_routes = 64;

void swing(uint32_t &word, uint32_t value) {
  if (word != value) publish_word(word, value);
}

// How the shortcut names a route of up to 18 bits: searches that must know whether it passes on ask the tree.
uint32_t tagged(uint32_t word) {
  return word != 0 && passes_on(word) ? word | ask_tree : word;
}

void fill_place(uint8_t &place, uint8_t value) {
  // Relaxed: as fill_word().
  __atomic_store_n(&place, value, __ATOMIC_RELAXED);
}

bool passes_on(const Row &row, uint32_t index) {
  return rsw::urib::passes_on(address_of(&row.word[index]));
}

// The node of level 12, whose routes are 13 to 18 bits long.
const Node *middle_node(const Trie &trie, uint32_t addr) {
  const Node *node = node_at(trie.root);
  for (uint32_t level = 0; node != nullptr && level < region_bits; level += node_bits) {
    const uint32_t *child = child_word(*node, bits_at(addr, level));
    node = child == nullptr ? nullptr : node_at(*child);
  }
  return node;
}

}  // namespace

// The places of a node that is not published yet.
void TrieWriter::fill_places(Node *node, uint32_t level) {
  if (level != direct_level) return;
  auto &direct = *reinterpret_cast<DirectNode *>(node);
  for (uint8_t &place : direct.place) fill_place(place, place_none);
  uint32_t index = 0;
  const auto fill = [&](uint32_t first, uint32_t count) {
    const auto value = passes_on(direct.row, index) ? place_ask_tree : static_cast<uint8_t>(index);
    for (uint32_t i = first; i < first + count; ++i) fill_place(direct.place[i], value);
    ++index;
  };
  // In the order of the row: from the shortest routes to the longest.
  for (uint64_t near = bits_of(node->near); near != 0; near &= near - 1) {
    const auto bit = static_cast<uint32_t>(std::countr_zero(near));
    const auto longer = static_cast<uint32_t>(31 - std::countl_zero(bit));
    fill((bit ^ 1u << longer) << (node_bits - longer), 1u << (node_bits - longer));
  }
  for (uint64_t far = bits_of(node->far); far != 0; far &= far - 1) {
    fill(static_cast<uint32_t>(std::countr_zero(far)), 1);
  }
  if (node->children == 0) return;
  for (uint64_t present = bits_of(at_address<Children>(node->children)->present); present != 0;
       present &= present - 1) {
    fill_place(direct.place[std::countr_zero(present)], place_ask_tree);
  }
}

// After a change below a node of level 18: what its place says of nodes below it.
void TrieWriter::refresh_place(uint32_t addr) {
  const Node *middle = middle_node(*trie_, addr);
  const uint32_t *word = middle == nullptr ? nullptr : child_word(*middle, bits_at(addr, region_bits));
  if (word == nullptr) return;
  auto &direct = *at_address<DirectNode>(*word);
  const uint32_t bits = bits_at(addr, direct_level);
  const Place found = longest_in(direct.node, bits, node_bits);
  uint8_t value = found.longer == 0 ? place_none : static_cast<uint8_t>(found.index);
  if (child_word(direct.node, bits) != nullptr || (found.longer != 0 && passes_on(direct.row, found.index))) {
    value = place_ask_tree;
  }
  // Release: the children stand before the place that sends searches there; partner: quick() in urib.cc.
  __atomic_store_n(&direct.place[bits], value, __ATOMIC_RELEASE);
}

void TrieWriter::refresh_slot(Block &block, const Node *middle, uint32_t addr) {
  uint32_t &slot = block.slot[addr >> (32 - direct_level) & (block_slots - 1)];
  if (middle == nullptr) return swing(slot, 0);
  const uint32_t bits = bits_at(addr, region_bits);
  const Place place = longest_in(*middle, bits, node_bits);
  const uint32_t above = place.longer == 0 ? 0 : tagged(route_word(*middle, region_bits, place.index));
  const uint32_t *child = child_word(*middle, bits);
  if (child == nullptr) return swing(slot, above == 0 ? 0 : above | slot_route);
  swing(at_address<Node>(*child)->above, above);
  swing(slot, *child);
}

void TrieWriter::refresh(uint32_t addr, uint32_t len) {
  if (trie_->regions == 0) return;
  Regions &all = *regions();
  if (len <= region_bits) {
    const uint32_t first = addr >> (32 - region_bits);
    for (uint32_t i = first; i < first + (1u << (region_bits - len)); ++i) {
      swing(all.region[i].best, tagged(walk(*trie_, i << (32 - region_bits), region_bits).word));
    }
    return;
  }
  const Region &region = all.region[addr >> (32 - region_bits)];
  if (region.block == 0) return;
  Block &block = *at_address<Block>(region.block);
  const Node *middle = middle_node(*trie_, addr);
  const uint32_t slots = len >= direct_level ? 1 : 1u << (direct_level - len);
  for (uint32_t i = 0; i < slots; ++i) refresh_slot(block, middle, addr + (i << (32 - direct_level)));
}

// A block goes with the last route of its region that is longer than 12 bits.
void TrieWriter::drop_block(Change &change, uint32_t addr) {
  if (trie_->regions == 0 || middle_node(*trie_, addr) != nullptr) return;
  Region &region = regions()->region[addr >> (32 - region_bits)];
  if (region.block == 0) return;
  change.take_out(block_type, region.block);
  publish_word(region.block, 0);
}

void TrieWriter::adapt() {
  if (trie_->regions != 0 && routes_ < shortcut_routes / 2) {
    Regions *all = regions();
    publish_word(trie_->regions, 0);
    discard_shortcut(all, true);
  } else if (trie_->regions == 0 && routes_ >= shortcut_routes && routes_ >= shortcut_from_) {
    // Without room the tree goes on alone, and is asked again when it has twice as many routes.
    shortcut_from_ = make_shortcut() ? 0 : 2 * routes_;
  }
}

bool TrieWriter::make_shortcut() {
  Change change(*arena_);
  auto *all = change.allocate<Regions>(regions_type);
  if (all == nullptr) return false;
  for (uint32_t i = 0; i < region_count; ++i) {
    const uint32_t addr = i << (32 - region_bits);
    fill_word(all->region[i].best, tagged(walk(*trie_, addr, region_bits).word));
    const Node *middle = middle_node(*trie_, addr);
    if (middle == nullptr) continue;
    auto *block = change.allocate<Block>(block_type);
    if (block == nullptr) return false;
    for (uint32_t slot = 0; slot < block_slots; ++slot) {
      refresh_slot(*block, middle, addr | slot << (32 - direct_level));
    }
    fill_word(all->region[i].block, address_of(block));
  }
  publish_word(trie_->regions, address_of(all));
  change.done();
  return true;
}

void TrieWriter::discard_shortcut(Regions *all, bool published) {
  for (const Region &region : all->region) {
    if (region.block != 0) let_go(block_type, region.block, published);
  }
  let_go(regions_type, address_of(all), published);
}

}  // namespace rsw::urib
