// SPDX-License-Identifier: Apache-2.0
// The records of a Patricia tree in shared memory, and the walks over them that readers and the writer share.
//
// Prefixes are (key in host order, length). Their order is by key, then shorter length first.
#ifndef RSW_PT_TREE_H
#define RSW_PT_TREE_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "pt/word_index.h"

namespace rsw::pt {

// What a tree handle points to.
struct Tree {
  uint32_t root;   // child word
  uint32_t index;  // the exact-match index's publishing word
  uint32_t reserved[2];
};
static_assert(sizeof(Tree) == 16);
static_assert(offsetof(Tree, index) == 4);
static_assert(std::is_trivially_copyable_v<Tree>);

// Three bits of the key: a branch stands for a prefix whose length is a multiple of three, 0 to 30, and tells its
// subtree apart by the next three bits. One cache line. Never changed once readers can reach it.
//
// Its slots are child words in key order: the prefix itself; then, for its left half, the same again one bit longer;
// and so on. With t the three bits, a prefix d bits longer than the branch (d = 0, 1, 2) has the slot d + place_of(t),
// bits beyond d being 0; everything longer is below the slot 3 + place_of(t).
struct Branch {
  uint32_t marked;  // the prefix, with the bit after its last one set: one word for key and length
  uint32_t slot[15];
};
static_assert(sizeof(Branch) == 64);
static_assert(offsetof(Branch, slot) == 4);
static_assert(std::is_trivially_copyable_v<Branch>);

inline constexpr uint32_t stride = 3;
inline constexpr uint32_t slot_count = 15;
inline constexpr uint32_t most_depth = 11;  // branches of lengths 0, 3 .. 30

// The first 12 bytes of a data node; the rest is the caller's.
struct Links {
  uint32_t key;
  uint32_t length;
  uint32_t next;  // address of the next data node in order, or 0
};
static_assert(sizeof(Links) == 12);
static_assert(offsetof(Links, next) == 8);
static_assert(std::is_trivially_copyable_v<Links>);

// A child word: 0 none; the address of a branch; or the address of a data node plus leaf_bit.
inline constexpr uint32_t leaf_bit = 1;
inline constexpr uint32_t node_align_mask = 15;
inline constexpr uint32_t branch_align_mask = 63;

[[nodiscard]] constexpr uint32_t mask_of(uint32_t length) {
  return length == 0 ? 0 : ~0u << (32 - length);
}
// One word for a prefix shorter than 32.
[[nodiscard]] constexpr uint32_t mark(uint32_t key, uint32_t length) {
  return key | 1u << (31 - length);
}
// The three bits after the first `length` ones; what lies beyond bit 31 reads 0.
[[nodiscard]] constexpr uint32_t bits_after(uint32_t key, uint32_t length) {
  return key << length >> 29;
}
[[nodiscard]] constexpr uint32_t place_of(uint32_t bits) {
  return bits + (bits >> 1) + (bits >> 2);
}
// Where (key, length), which the branch covers, has its place below a branch of length `above`.
[[nodiscard]] constexpr uint32_t slot_below(uint32_t above, uint32_t key, uint32_t length) {
  const uint32_t longer = length - above;
  return (longer < stride ? longer : stride) + place_of(bits_after(key, above));
}
static_assert(slot_below(0, 0, 0) == 0 && slot_below(0, 0, 3) == 3 && slot_below(0, 0x80000000u, 1) == 8);
static_assert(slot_below(3, 0x1c000000u, 32) == 14 && slot_below(30, 3, 32) == 12);

// Strictly in front: (a_key, a_length) before (b_key, b_length).
[[nodiscard]] constexpr bool before(uint32_t a_key, uint32_t a_length, uint32_t b_key, uint32_t b_length) {
  return a_key < b_key || (a_key == b_key && a_length < b_length);
}

// What one step down sees of a branch. Its bit moves right by a stride or more with each step, which is how every walk
// makes sure that it ends.
struct BranchView {
  const Branch *branch;  // null: there is no branch
  uint32_t key;
  uint32_t bit;  // the one after the prefix
  uint32_t length;

  // Equal to the branch's prefix in all bits in front of `bit`.
  [[nodiscard]] bool matches(uint32_t other) const { return ((key ^ other) & (0u - (bit << 1))) == 0; }
};

// The greatest bit of a branch at the root; below a branch it is that one's bit >> stride.
inline constexpr uint32_t root_bit = 0x80000000u;

// The branch that `child` leads to, whose bit is at most most_bit.
[[nodiscard]] inline BranchView view_branch(uint32_t child, uint32_t most_bit) {
  if ((child & branch_align_mask) != 0 || !is_readable(child)) return {nullptr, 0, 0, 0};
  const Branch *branch = at_address<const Branch>(child);
  const uint32_t marked = load_word(branch->marked);
  const uint32_t bit = marked & (0u - marked);
  if (bit - 1 >= most_bit) return {nullptr, 0, 0, 0};  // 0 as well
  return {branch, marked ^ bit, bit, static_cast<uint32_t>(std::countl_zero(bit))};
}

// The data node at that address, or null when no node can be there.
[[nodiscard]] inline const Links *node_at(uint32_t address) {
  if ((address & node_align_mask) != 0 || !is_readable(address)) return nullptr;
  return at_address<const Links>(address);
}

[[nodiscard]] inline const Links *leaf_at(uint32_t child) {
  return node_at(child & ~leaf_bit);
}

[[nodiscard]] inline bool node_is(const Links *node, uint32_t key, uint32_t length) {
  return node != nullptr && load_word(node->key) == key && load_word(node->length) == length;
}

// The first node of the subtree whose branch has at most that bit.
const Links *first_of(uint32_t child, uint32_t most_bit);
// Exactly that prefix, by walking.
const Links *exact_by_walk(uint32_t root, uint32_t key, uint32_t length);
// The first node strictly after (key, length); key may have bits beyond length.
const Links *first_after(uint32_t root, uint32_t key, uint32_t length);
// The last node strictly before (key, length), no key bits beyond length. The writer's.
const Links *last_before(uint32_t root, uint32_t key, uint32_t length);

}  // namespace rsw::pt

#endif
