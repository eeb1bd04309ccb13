// SPDX-License-Identifier: Apache-2.0
#include "urib/urib_lookup.h"

#include "urib/urib_routes.h"

namespace rsw::urib {

#if defined(__x86_64__)
const bool has_popcnt = (__builtin_cpu_init(), __builtin_cpu_supports("popcnt") != 0);
#endif

Match walk(const Trie &trie, uint32_t addr, uint32_t most) {
  Match best{observe_word(trie.whole), 0};
  const Node *node = node_at(observe_word(trie.root));
  for (uint32_t level = 0; node != nullptr && level < most; level += node_bits) {
    const uint32_t bits = bits_at(addr, level);
    const Place place = longest_in(*node, bits, most - level);
    if (place.longer != 0) best = {route_word(*node, level, place.index), level + place.longer};
    if (level == last_level) break;
    const uint32_t *child = child_word(*node, bits);
    node = child == nullptr ? nullptr : node_at(observe_word(*child));
  }
  return best;
}

uint32_t exact_word(const Trie &trie, uint32_t addr, uint32_t len) {
  if (len == 0) return observe_word(trie.whole);
  const Node *node = node_at(observe_word(trie.root));
  const uint32_t level = level_of(len);
  for (uint32_t above = 0; node != nullptr && above < level; above += node_bits) {
    const uint32_t *child = child_word(*node, bits_at(addr, above));
    node = child == nullptr ? nullptr : node_at(observe_word(*child));
  }
  if (node == nullptr) return 0;
  const Place place = exactly_in(*node, bits_at(addr, level), len - level);
  return place.longer == 0 ? 0 : route_word(*node, level, place.index);
}

namespace {

// The longest match at or below a node of level 18; 0: none.
uint32_t longest_below(const Node *node, uint32_t addr) {
  uint32_t found = 0;
  for (uint32_t level = direct_level; node != nullptr; level += node_bits) {
    const uint32_t bits = bits_at(addr, level);
    const Place place = longest_in(*node, bits, node_bits);
    if (place.longer != 0) found = load_word(node->row) + 4 * place.index;
    if (level == last_level) break;
    const uint32_t *child = child_word(*node, bits);
    node = child == nullptr ? nullptr : node_at(observe_word(*child));
  }
  return found;
}

}  // namespace

uint32_t longest_word(const Trie &trie, uint32_t addr) {
  const Regions *regions = follow<Regions, 64>(observe_word(trie.regions));
  if (regions == nullptr) return walk(trie, addr, 32).word;
  const Region &region = regions->region[addr >> (32 - region_bits)];
  const Block *block = follow<Block, 64>(observe_word(region.block));
  if (block != nullptr) {
    const uint32_t slot = observe_word(block->slot[addr >> (32 - direct_level) & (block_slots - 1)]);
    uint32_t named = slot;
    if ((slot & slot_route) == 0) {
      const Node *node = node_at(slot);
      const uint32_t found = longest_below(node, addr);
      if (found != 0) return found;
      named = node == nullptr ? 0 : observe_word(node->above);
    }
    if (named != 0) return named & ~slot_tags;
  }
  return observe_word(region.best) & ~slot_tags;
}

uint32_t best_word(const Body &body, const Trie &trie, uint32_t addr) {
  return at_one_moment(body, [&] { return longest_word(trie, addr); });
}

Match best_match(const Body &body, const Trie &trie, uint32_t addr, uint32_t most) {
  return at_one_moment(body, [&] { return walk(trie, addr, most); });
}

Match best_rpf_match(const Body &body, uint32_t addr, uint32_t most) {
  return at_one_moment(body, [&] {
    const Match multicast = walk(body.multicast, addr, most);
    const Match unicast = walk(body.unicast, addr, most);
    // The multicast static one wins at equal length.
    return multicast.word == 0 || (unicast.word != 0 && unicast.len > multicast.len) ? unicast : multicast;
  });
}

const Table *find_table(const Directory &directory, uint32_t id) {
  // Acquire: the array behind the word; partner: the store of a fresh array in WordIndexWriter.
  const uint32_t value = word_index_find(observe_word(directory.index), id, 0);
  if (value != word_index_not_known) return follow<Table, 8>(value & ~word_index_tag);
  // Not every table has a place in the index; the list has them all, in ascending order.
  const Table *table = follow<Table, 8>(observe_word(directory.first));
  while (table != nullptr) {
    const uint32_t found = load_word(table->id);
    if (found >= id) return found == id ? table : nullptr;
    const Table *next = follow<Table, 8>(observe_word(table->next));
    if (next != nullptr && load_word(next->id) <= found) return nullptr;
    table = next;
  }
  return nullptr;
}

bool passes_on(uint32_t word) {
  const Attributes *attributes = attributes_at(word);
  return attributes != nullptr &&
         __atomic_load_n(&attributes->action, __ATOMIC_RELAXED) == static_cast<uint8_t>(RouteAction::pass_on);
}

}  // namespace rsw::urib
