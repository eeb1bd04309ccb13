// SPDX-License-Identifier: Apache-2.0
// The searches in a trie, for readers and the writer.
//
// What a search must never do is fault or go on for ever on damaged memory: each word is followed only when a record of
// that size and alignment can be read there, and no search goes deeper than the six levels that there are.
//
// Most searches take their answer from one swung word or byte, and what they saw there is the answer of that moment:
// all else on the way leads there and says nothing itself. Some read several, and a writer that adds a longer route and
// then changes the shorter one could show these the old half of the first change with the new half of the second, which
// never stood together. So they look at the table's count of changes before and after, and begin again when that has
// moved.
#ifndef RSW_URIB_URIB_LOOKUP_H
#define RSW_URIB_URIB_LOOKUP_H

#include <array>
#include <bit>

#include "pt/word_index.h"
#include "urib/urib_records.h"

namespace rsw::urib {

[[nodiscard]] constexpr uint32_t mask_of(uint32_t len) {
  return len == 0 ? 0 : ~0u << (32 - len);
}

// Whether a word leads to where a record of that size can be.
template <class T, uint32_t align = 4, uint32_t bytes = sizeof(T)>
[[nodiscard]] inline bool leads_to(uint32_t word) {
  constexpr uint32_t span = (window_high - segment_page - window_low - bytes) / align;
  // The low bits of a word that is not aligned become the highest of the rotated one: more than the span. The 0 of "no
  // record" lies below the windows.
  return std::rotr(word - window_low, std::countr_zero(align)) < span;
}
// The record that a word leads to; null when none can be there.
template <class T, uint32_t align = 4, uint32_t bytes = sizeof(T)>
[[nodiscard]] inline const T *follow(uint32_t word) {
  return leads_to<T, align, bytes>(word) ? at_address<const T>(word) : nullptr;
}

// Relaxed: bits of a node never change while a reader can reach it; the swung word that led here was acquired.
[[nodiscard]] inline uint64_t bits_of(const uint32_t (&words)[2]) {
#if defined(__x86_64__)
  // One load: the pair is aligned, since its record is, and the low word comes first.
  using Both [[gnu::may_alias]] = uint64_t;
  return __atomic_load_n(reinterpret_cast<const Both *>(words), __ATOMIC_RELAXED);
#else
  return uint64_t{load_word(words[1])} << 32 | load_word(words[0]);
#endif
}

// The population count as one instruction where the processor has it: the portable one is a call.
#if defined(__x86_64__)
extern const bool has_popcnt;
#endif
[[nodiscard]] inline uint32_t count_bits(uint64_t bits) {
#if defined(__x86_64__)
  if (has_popcnt) [[likely]] {
    uint64_t count;
    __asm__("popcnt %1, %0" : "=r"(count) : "r"(bits) : "cc");
    return static_cast<uint32_t>(count);
  }
#endif
  return static_cast<uint32_t>(std::popcount(bits));
}

// The six bits of an address below a level.
[[nodiscard]] constexpr uint32_t bits_at(uint32_t addr, uint32_t level) {
  return level == last_level ? (addr & 3u) << 4 : addr >> (32 - node_bits - level) & 63u;
}

// The near bits of the prefixes that cover six given bits, which are 1 to 5 bits longer than the level.
inline constexpr auto path_of = [] {
  std::array<uint64_t, 32> paths{};
  for (uint32_t bits = 0; bits < 64; ++bits) {
    for (uint32_t longer = 1; longer < node_bits; ++longer) {
      paths[bits >> 1] |= uint64_t{1} << (1u << longer | bits >> (node_bits - longer));
    }
  }
  return paths;
}();

// The near bits of prefixes that are at most that much longer.
inline constexpr std::array<uint64_t, 7> near_until = {0, 0xf, 0xff, 0xffff, 0xffffffff, ~uint64_t{0}, ~uint64_t{0}};

// Which of a node's routes: its place in the row, and how much longer than the level it is; 0 longer: none.
struct Place {
  uint32_t index;
  uint32_t longer;
};

// The longest route of a node that covers the bits and is at most `most` (0 .. 6) bits longer than the level.
[[nodiscard]] inline Place longest_in(const Node &node, uint32_t bits, uint32_t most) {
  const uint64_t far = bits_of(node.far);
  const uint64_t near = bits_of(node.near);
  if (most >= node_bits && (far >> bits & 1) != 0) {
    return {count_bits(near) + count_bits(far & ((uint64_t{1} << bits) - 1)), node_bits};
  }
  const uint64_t path = near & path_of[bits >> 1] & near_until[most < node_bits ? most : node_bits];
  if (path == 0) return {0, 0};
  const auto top = static_cast<uint32_t>(63 - std::countl_zero(path));
  return {count_bits(near & ((uint64_t{1} << top) - 1)), static_cast<uint32_t>(31 - std::countl_zero(top))};
}

// The place of exactly the route that is `longer` (1 .. 6) bits longer than the level.
[[nodiscard]] inline Place exactly_in(const Node &node, uint32_t bits, uint32_t longer) {
  const uint64_t far = bits_of(node.far);
  const uint64_t near = bits_of(node.near);
  if (longer == node_bits) {
    if ((far >> bits & 1) == 0) return {0, 0};
    return {count_bits(near) + count_bits(far & ((uint64_t{1} << bits) - 1)), longer};
  }
  const uint32_t bit = 1u << longer | bits >> (node_bits - longer);
  if ((near >> bit & 1) == 0) return {0, 0};
  return {count_bits(near & ((uint64_t{1} << bit) - 1)), longer};
}

// The node that a word leads to. Acquire at the load of the word: its bits and its row; partner: TrieWriter's stores.
[[nodiscard]] inline const Node *node_at(uint32_t word) {
  return follow<Node, node_align>(word);
}

// The RouteWord of a place in a node's row; 0 when the row is damaged.
[[nodiscard]] inline uint32_t route_word(const Node &node, uint32_t level, uint32_t index) {
  const uint32_t row = load_word(node.row);
  if (level >= direct_level) return row + 4 * index;
  const Row *words = follow<Row, row_align>(row);
  return words == nullptr ? 0 : load_word(words->word[index]);
}

// The swung word that leads to the node six bits further down; null when there is none.
[[nodiscard]] inline const uint32_t *child_word(const Node &node, uint32_t bits) {
  const Children *children = follow<Children, children_align>(observe_word(node.children));
  if (children == nullptr) return nullptr;
  const uint64_t present = bits_of(children->present);
  if ((present >> bits & 1) == 0) return nullptr;
  return &children->node[count_bits(present & ((uint64_t{1} << bits) - 1))];
}

// A route that a search found. No route: word 0.
struct Match {
  uint32_t word;  // the address of its RouteWord, which may be damaged: route_at() checks
  uint32_t len;
};

// The longest match among routes of at most `most` bits (0 .. 32), from the root down.
[[nodiscard]] Match walk(const Trie &trie, uint32_t addr, uint32_t most);

// The route of exactly this prefix, which has no bits beyond its length.
[[nodiscard]] uint32_t exact_word(const Trie &trie, uint32_t addr, uint32_t len);

// The longest match, a RouteWord's address or 0: as of one moment only while the count of changes stands.
[[nodiscard]] uint32_t longest_word(const Trie &trie, uint32_t addr);

// The attributes of a route; null for 0 and for damaged words.
[[nodiscard]] inline const Attributes *attributes_at(uint32_t word) {
  const RouteWord *route = follow<RouteWord>(word);
  return route == nullptr ? nullptr : follow<Attributes, 32>(observe_word(route->attributes));
}

[[nodiscard]] inline const NextHops *next_hops_of(const Attributes &attributes) {
  return follow<NextHops, 8>(load_word(attributes.next_hops));
}

// A search begins again when the table changed meanwhile; so often at most.
inline constexpr uint32_t most_tries = 100;

// ask() at one moment of the table.
template <class Ask>
inline auto at_one_moment(const Body &body, Ask ask) {
  for (uint32_t tries = 1;; ++tries) {
    // Acquire: a search sees all of the changes that were counted; partner: the store in UribWriter after a change.
    const uint32_t before = observe_word(body.changes);
    const auto answer = ask();
    // The loads of the search were acquire loads, so this one comes after them.
    if (observe_word(body.changes) == before || tries == most_tries) [[likely]]
      return answer;
  }
}

[[nodiscard]] uint32_t best_word(const Body &body, const Trie &trie, uint32_t addr);
// The longest of at most `most` bits.
[[nodiscard]] Match best_match(const Body &body, const Trie &trie, uint32_t addr, uint32_t most);
// As best_match in the view of reverse-path checks.
[[nodiscard]] Match best_rpf_match(const Body &body, uint32_t addr, uint32_t most);

// The table's body; null: there is no such table.
[[nodiscard]] const Table *find_table(const Directory &directory, uint32_t id);
[[nodiscard]] inline const Body *body_at(const Directory *directory, uint32_t id) {
  if (directory == nullptr) return nullptr;
  const Table *table =
      id < small_tables ? follow<Table, 8>(observe_word(directory->small[id])) : find_table(*directory, id);
  return table == nullptr ? nullptr : follow<Body, 64>(observe_word(table->body));
}

// A route that ends the search in its table, as if nothing had matched.
[[nodiscard]] bool passes_on(uint32_t word);
// What a lookup answers: the word, or 0 where the route passes on.
[[nodiscard]] inline uint32_t answered(const Body &body, uint32_t word) {
  // Counted before such a route can be found; partner: UribWriter.
  return observe_word(body.pass_on) == 0 || !passes_on(word) ? word : 0;
}

}  // namespace rsw::urib

#endif
