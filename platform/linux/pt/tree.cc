// SPDX-License-Identifier: Apache-2.0
// Walks over a Patricia tree.
//
// A walk takes the root word once, so it sees one whole tree whatever the writer does meanwhile. It goes down only to
// branches of a greater length than the one it stands on, hence at most 11 of them, and looks only at aligned addresses
// inside the windows: damaged memory gives a wrong answer, never a fault or a loop.
//
// A step in key order remembers its way down, each branch with the slot it left by. When the way ends, the answer is in
// the first slot behind, at the deepest branch that has one. The turns on the way down are as good as random, so they
// are taken by arithmetic and an indexed load; the jumps that remain go the same way at every branch but the last.
#include "pt/tree.h"

#include <algorithm>

namespace rsw::pt {
namespace {

// The way down of a walk in order.
struct Way {
  struct Turn {
    const Branch *branch;
    uint32_t bit;
    uint32_t slot;
  };
  Turn turns[most_depth];
  uint32_t depth = 0;

  void take(const BranchView &view, uint32_t slot) { turns[depth++] = {view.branch, view.bit, slot}; }
};

const Links *last_of(uint32_t child) {
  while (child != 0 && (child & leaf_bit) == 0) {
    const Branch *branch = at_address<const Branch>(child);
    uint32_t slot = slot_count - 1;
    while (slot > 0 && branch->slot[slot] == 0) --slot;
    child = branch->slot[slot];
  }
  return child != 0 ? leaf_at(child) : nullptr;
}

}  // namespace

const Links *first_of(uint32_t child, uint32_t most_bit) {
  while ((child & leaf_bit) == 0) {
    const BranchView view = view_branch(child, most_bit);
    if (view.branch == nullptr) return nullptr;
    uint32_t slot = 0;
    while (slot < slot_count - 1 && load_word(view.branch->slot[slot]) == 0) ++slot;
    most_bit = view.bit >> stride;
    child = load_word(view.branch->slot[slot]);
  }
  return leaf_at(child);
}

const Links *exact_by_walk(uint32_t root, uint32_t key, uint32_t length) {
  uint32_t most_bit = root_bit;
  uint32_t child = root;
  while ((child & leaf_bit) == 0) {
    const BranchView view = view_branch(child, most_bit);
    if (view.branch == nullptr || view.length > length || !view.matches(key)) return nullptr;
    most_bit = view.bit >> stride;
    child = load_word(view.branch->slot[slot_below(view.length, key, length)]);
  }
  const Links *leaf = leaf_at(child);
  return node_is(leaf, key, length) ? leaf : nullptr;
}

const Links *first_after(uint32_t root, uint32_t key, uint32_t length) {
  Way way;
  uint32_t most_bit = root_bit;
  uint32_t child = root;
  while ((child & leaf_bit) == 0) {
    const BranchView view = view_branch(child, most_bit);
    if (view.branch == nullptr) break;
    if (!view.matches(key)) {
      if (view.key > key) return first_of(child, most_bit);
      break;
    }
    if (key == view.key && length < view.length) return first_of(child, most_bit);
    const uint32_t bits = bits_after(key, view.length);
    const uint32_t place = place_of(bits);
    const uint32_t rest = key & (view.bit - 1) >> 2;  // the key behind these three bits
    if (rest == 0 && length < view.length + stride) [[unlikely]] {
      // Equal keys stand in neighbouring slots, shorter first, from the shortest that can write these bits, with
      // `least` of them, to the one with all that are longer than the branch by a stride.
      const uint32_t least = bits == 0 ? 0 : stride - static_cast<uint32_t>(std::countr_zero(bits));
      const uint32_t past = length + 1 > view.length ? length + 1 - view.length : 0;
      const uint32_t behind = std::max(past, least) + place;  // the first slot after (key, length); never 0, see above
      way.take(view, behind - 1);
      child = 0;
      break;
    }
    most_bit = view.bit >> stride;
    way.take(view, stride + place);
    child = load_word(view.branch->slot[stride + place]);
  }
  if ((child & leaf_bit) != 0) {
    const Links *leaf = leaf_at(child);
    if (leaf == nullptr) return nullptr;
    if (before(key, length, load_word(leaf->key), load_word(leaf->length))) return leaf;
  }
  while (way.depth > 0) {
    const Way::Turn &turn = way.turns[--way.depth];
    for (uint32_t slot = turn.slot + 1; slot < slot_count; ++slot) {
      if (const uint32_t behind = load_word(turn.branch->slot[slot])) return first_of(behind, turn.bit >> stride);
    }
  }
  return nullptr;
}

const Links *last_before(uint32_t root, uint32_t key, uint32_t length) {
  Way way;
  uint32_t most_bit = root_bit;
  uint32_t child = root;
  while ((child & leaf_bit) == 0) {
    const BranchView view = view_branch(child, most_bit);
    if (view.branch == nullptr) break;
    if (!view.matches(key)) {
      if (view.key < key) return last_of(child);
      break;
    }
    if (length < view.length) break;
    const uint32_t slot = slot_below(view.length, key, length);
    way.take(view, slot);
    most_bit = view.bit >> stride;
    if (length - view.length < stride) {
      child = 0;  // the prefix's own slot
      break;
    }
    child = load_word(view.branch->slot[slot]);
  }
  if ((child & leaf_bit) != 0) {
    const Links *leaf = leaf_at(child);
    if (before(leaf->key, leaf->length, key, length)) return leaf;
  }
  while (way.depth > 0) {
    const Way::Turn &turn = way.turns[--way.depth];
    for (uint32_t slot = turn.slot; slot > 0; --slot) {
      if (turn.branch->slot[slot - 1] != 0) return last_of(turn.branch->slot[slot - 1]);
    }
  }
  return nullptr;
}

}  // namespace rsw::pt
