// SPDX-License-Identifier: Apache-2.0
// The records of the route tables in shared memory.
//
// A table has three tries: unicast routes; those of them that are direct; multicast static routes. A trie is a tree of
// nodes of six bits each. A node of level L (0, 6 .. 30) stands for a prefix of L bits and holds the routes that are
// one to six bits longer, as bits of two words: a route is found by counting the bits in front of its own. Nothing is
// pushed down from a short prefix to longer ones in this tree, so a change of any route changes one node, and the nodes
// above it when it is the first or last below them.
//
// Beside the tree of a trie with many routes stands a shortcut to level 18: per 12 bits a Region, which knows the best
// route of up to 12 bits, and per region a Block of one slot per 18 bits. A slot leads to the node of level 18, or
// names the best route of 13 to 18 bits where there is no node; a node knows that one too, in `above`. A node of level
// 18 says in one byte for each of its 64 values where the answer stands. So a search reads one region, one slot and one
// byte, whatever is in the table.
//
// A route's handle is the address of a RouteWord, the word that leads to its attributes. Routes longer than 18 bits
// have their RouteWords one after another in a Row of their node: a search computes the handle without reading it. The
// few shorter ones, which the shortcut names in many places, have RouteWords that keep their address, and rows lead
// there.
//
// Most searches need no more than that byte. It, or the word of the shortcut that names a route, sends the others to
// the tree: those that meet routes longer than 24 bits, and those whose best route passes on.
//
// Published records never change but for the words that this file calls swung: those lead readers on, and each is
// stored to once per change.
#ifndef RSW_URIB_URIB_RECORDS_H
#define RSW_URIB_URIB_RECORDS_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "sm/segment.h"

namespace rsw::urib {

inline constexpr uint32_t node_bits = 6;
inline constexpr uint32_t direct_level = 18;  // of the nodes that the shortcut leads to
inline constexpr uint32_t last_level = 30;
inline constexpr uint32_t region_bits = 12;
inline constexpr uint32_t region_count = 1u << region_bits;
inline constexpr uint32_t block_slots = 64;
inline constexpr uint32_t most_next_hops = 256;
inline constexpr uint32_t small_tables = 1024;

// The level whose nodes hold routes of that length, 1 .. 32.
[[nodiscard]] constexpr uint32_t level_of(uint32_t len) {
  return (len - 1) / node_bits * node_bits;
}
static_assert(level_of(6) == 0 && level_of(7) == 6 && level_of(24) == 18 && level_of(32) == 30);

struct Node {
  uint32_t far[2];  // bit b: there is a route six bits longer than the level, its last six bits being b; low word first
  uint32_t near[2];   // bit 2^n + b: there is one n (1 .. 5) bits longer, b being these n bits
  uint32_t row;       // address of a Row: the near routes in the order of their bits, then the far ones; 0: none
  uint32_t children;  // swung. Address of Children; 0: none
  uint32_t above;     // swung. Level 18 only: RouteWord of the best route of 13 to 18 bits, tagged; 0: none
  uint32_t reserved;
};
static_assert(sizeof(Node) == 32);
static_assert(offsetof(Node, near) == 8);
static_assert(offsetof(Node, row) == 16);
static_assert(offsetof(Node, children) == 20);
static_assert(offsetof(Node, above) == 24);
static_assert(std::is_trivially_copyable_v<Node>);
inline constexpr uint32_t node_align = 8;
inline constexpr uint32_t most_routes_of_node = 62 + 64;

// The nodes below a node, six bits longer.
struct Children {
  uint32_t present[2];  // bit b: there is one for the six bits b
  uint32_t node[64];    // swung. As many as bits are set, in their order
};
static_assert(sizeof(Children) == 264);
static_assert(offsetof(Children, node) == 8);
inline constexpr uint32_t children_align = 8;

// Of level 18 and longer: RouteWords. Of shorter ones: addresses of RouteWords.
struct Row {
  uint32_t word[most_routes_of_node];
};
inline constexpr uint32_t row_align = 8;

// A node of level 18. Its row is its own.
struct DirectNode {
  Node node;
  uint8_t place[64];  // swung. Per six bits: which word of the row is the best route of 19 to 24 bits, or one of these:
  Row row;            // as many words as there are routes
};
static_assert(sizeof(DirectNode) == 600);
static_assert(offsetof(DirectNode, place) == 32);
static_assert(offsetof(DirectNode, row) == 96);
static_assert(std::is_trivially_copyable_v<DirectNode>);
inline constexpr uint8_t place_ask_tree = 0xfe;
inline constexpr uint8_t place_none = 0xff;  // shorter routes decide
static_assert(most_routes_of_node < place_ask_tree);

// In a word of the shortcut that names a route: it passes on, so ask the tree. RouteWords that are named have these
// bits 0.
inline constexpr uint32_t ask_tree = 2;

// Where a route's handle points.
struct RouteWord {
  uint32_t attributes;  // address of Attributes
};

struct Region {
  uint32_t block;  // swung. Address of a Block; 0: nothing is longer than 12 bits here
  uint32_t best;   // swung. RouteWord of the best route of up to 12 bits, tagged; 0: none
};
struct Regions {
  Region region[region_count];
};
static_assert(sizeof(Regions) == 32768);

struct Block {
  uint32_t slot[block_slots];  // swung. 0; address of a DirectNode; or of a RouteWord, tagged and with slot_route set
};
static_assert(sizeof(Block) == 256);
inline constexpr uint32_t slot_route = 1;
inline constexpr uint32_t slot_tags = slot_route | ask_tree;

// One of a table's three tries.
struct Trie {
  uint32_t regions;  // swung. Address of Regions; 0: no shortcut
  uint32_t root;     // swung. Address of the node of level 0; 0: none
  uint32_t whole;    // swung. RouteWord of 0.0.0.0/0; 0: none
  uint32_t reserved;
};
static_assert(sizeof(Trie) == 16);

// All that a batch load replaces by one store.
struct Body {
  Trie unicast;
  Trie direct;
  Trie multicast;
  uint32_t changes;  // counted up after each change, so that a search that read several swung words knows
  uint32_t pass_on;  // how many routes of the three tries end the search in this table; readers ask only whether any
  uint32_t reserved[2];
};
static_assert(sizeof(Body) == 64);
static_assert(offsetof(Body, multicast) == 32);
static_assert(offsetof(Body, changes) == 48);
static_assert(std::is_trivially_copyable_v<Body>);

// A table, for as long as it exists.
struct Table {
  uint32_t id;
  uint32_t body;  // swung. Address of a Body
  uint32_t next;  // swung. Address of the Table of the next greater id; 0: the last
  uint32_t reserved;
};
static_assert(sizeof(Table) == 16);

// The segment's root.
struct Directory {
  uint32_t first;  // swung. Address of the Table of the least id; 0: none
  uint32_t index;  // swung. The word index of the tables from small_tables on
  uint32_t reserved[2];
  uint32_t small[small_tables];  // swung. Address of the Table of each smaller id; 0: none
};
static_assert(sizeof(Directory) == 4112);
static_assert(offsetof(Directory, small) == 16);

// Behind the segment's header, in every generation of the tables: what most lookups look at first.
struct Shortcuts {
  uint32_t regions[small_tables];  // swung. Of each smaller table, what its unicast trie's `regions` says
};
static_assert(sizeof(Shortcuts) == segment_page);
inline constexpr uint32_t shortcuts_offset = segment_page;

struct NextHop {
  uint32_t iod;
  uint32_t addr;
  uint32_t data;
  uint32_t table;
  uint16_t weight;
  uint16_t flags;
};
static_assert(sizeof(NextHop) == 20);
static_assert(offsetof(NextHop, weight) == 16);
inline constexpr uint16_t next_hop_via_ipv6 = 1;

// The next hops of a route, shared by all attributes that have the same ones.
struct NextHops {
  uint32_t count;   // 1 ..
  uint32_t weight;  // the sum of their weights
  NextHop hop[most_next_hops];
};
static_assert(sizeof(NextHops) == 8 + 20 * most_next_hops);
static_assert(offsetof(NextHops, hop) == 8);

// What a route says beside its prefix, shared by all routes that say the same.
struct Attributes {
  uint8_t kind;    // RouteKind
  uint8_t action;  // RouteAction
  uint8_t protocol;
  uint8_t reserved;
  uint32_t metric;
  uint32_t origin;
  uint32_t pref_src;
  uint32_t next_hops;  // address of NextHops; 0: none
  uint32_t first_iod;  // of the first next hop: what most callers ask for
  uint32_t first_data;
  uint32_t reserved2;
};
static_assert(sizeof(Attributes) == 32);
static_assert(offsetof(Attributes, metric) == 4);
static_assert(offsetof(Attributes, next_hops) == 16);
static_assert(offsetof(Attributes, first_data) == 24);
static_assert(std::is_trivially_copyable_v<Attributes>);

// Where the arena begins in the segment.
inline constexpr uint32_t arena_offset = shortcuts_offset + segment_page;

}  // namespace rsw::urib

#endif
