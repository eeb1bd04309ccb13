// SPDX-License-Identifier: Apache-2.0
// The shortcut of a trie to its nodes of 18 bits: made when there are enough routes, and kept up to date.
#include "urib/trie_writer.h"

namespace rsw::urib {
namespace {

constexpr uint32_t shortcut_routes = 64;

void swing(uint32_t &word, uint32_t value) {
  if (word != value) publish_word(word, value);
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

void TrieWriter::refresh_slot(Block &block, const Node *middle, uint32_t addr) {
  uint32_t &slot = block.slot[addr >> (32 - direct_level) & (block_slots - 1)];
  if (middle == nullptr) return swing(slot, 0);
  const uint32_t bits = bits_at(addr, region_bits);
  const Place place = longest_in(*middle, bits, node_bits);
  const uint32_t above = place.longer == 0 ? 0 : route_word(*middle, region_bits, place.index);
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
      swing(all.region[i].best, walk(*trie_, i << (32 - region_bits), region_bits).word);
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
    fill_word(all->region[i].best, walk(*trie_, addr, region_bits).word);
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
