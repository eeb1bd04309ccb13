// SPDX-License-Identifier: Apache-2.0
// Does a new prefix collide with one that the context has already?
//
// Two places of the tree can hold a collision: the nodes that cover the new prefix, and the nodes inside it. Covering
// nodes come as an array, shortest first. Nodes inside come in key order, one by one, so a walk over them may stop as
// soon as it has left the new subnet.
//
// The three questions look alike and differ on purpose:
//
//                                          find_overlap_interface  prefix_overlap     prefix_overlap_no_state
//   an interface that does not count       ignore_iod              -                  -
//   covering node: its interface must be   administratively up     administratively   in any state
//                                                                  up
//   nodes inside that are looked at        all in the subnet       the first          the first
//   node inside: its interface must be     in any state            administratively   in any state
//                                                                  up
//   a node without information             the one before goes on  the one before     is skipped
//                                          to count                goes on to count
//
// The search by an operator's address asks about interfaces inside the subnet that are down, too: they would collide
// when they come up. A missing context is an overlap with no interface, so that a caller refuses the address.
//
// The search's mask of length 0 is all ones: its shift counts modulo 32. Whoever asks for 0.0.0.0/0 is told of nodes
// inside that have the very address.
//
// Debug lines are gated by the debug level alone. Their text is put together without printf: they are made whether or
// not anybody listens.
#include "guard.h"
#include "ip_api.h"
#include "local_tree.h"
#include "pt.h"
#include "report.h"
#include "walks.h"

namespace libip {
namespace {

// The lengths 0 to 32.
constexpr uint32_t most_covering = 33;

constexpr uint32_t search_mask(uint8_t len) {
  return ~0u << ((32u - len) & 31u);
}
static_assert(search_mask(24) == 0xffffff00u);
static_assert(search_mask(32) == ~0u);
static_assert(search_mask(0) == ~0u, "a length of 0 does not make an empty mask");

// The nodes that cover a prefix, shortest first.
class CoveringNodes {
 public:
  CoveringNodes(void *tree, TreeKey *key, uint8_t len) {
    pt_lookup_return_leafs(tree, key, len, nodes_, &count_);
    if (count_ > most_covering) count_ = most_covering;
  }
  [[nodiscard]] void *const *begin() const { return nodes_; }
  [[nodiscard]] void *const *end() const { return nodes_ + count_; }

 private:
  void *nodes_[most_covering] = {};
  uint32_t count_ = 0;
};

// The first holder of a node's prefix; null: none.
const ip_iod_elem *holder_at(const void *node) {
  const ip_local_addr_info *info = info_of(node);
  return info == nullptr ? nullptr : first_holder(*info);
}

// The same, but a node about which nothing is known leaves the holder of the node before.
const ip_iod_elem *holder_carried_to(const void *node, const ip_iod_elem *before) {
  const ip_local_addr_info *info = info_of(node);
  return info == nullptr ? before : first_holder(*info);
}

bool is_adminup(const ip_iod_elem &holder) {
  return im_is_adminup(holder.iod) != 0;
}

uint32_t overlap_with(const ip_iod_elem &holder, uint32_t *out) {
  *out = holder.iod;
  return 1;
}

uint32_t covering_overlap_with(const ip_iod_elem &holder, uint32_t *out) {
  direct_debug_line("Returning from 1: iod %d", static_cast<int32_t>(holder.iod));
  return overlap_with(holder, out);
}

// The context's tree, to be used under the guard; null: nothing to search.
void *tree_of(const ip_api_context_type &context) {
  return attached() ? context.local_pt.get() : nullptr;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_find_overlap_interface(struct ip_api_context_type *ctx, uint32_t addr, uint8_t len, uint32_t ignore_iod,
                                   uint32_t *out) {
  using namespace libip;
  const uint32_t mask = search_mask(len);
  const uint32_t new_subnet = addr & mask;
  debug_words("new_subnet: ", ip_print_addr(new_subnet));
  *out = 0;
  if (ctx == nullptr) return 1;
  const ReadGuard guard;
  void *tree = tree_of(*ctx);
  if (tree == nullptr) return 0;
  TreeKey key = key_of(addr);
  uint32_t key_bits = address_bits;

  const ip_iod_elem *holder = nullptr;
  for (const void *node : CoveringNodes(tree, &key, len)) {
    holder = holder_carried_to(node, holder);
    if (holder != nullptr && is_adminup(*holder) && holder->iod != ignore_iod) {
      return covering_overlap_with(*holder, out);
    }
  }

  const void *node = pt_lookup_more_specific(tree, &key, len);
  debug_words(" First Key value ", ip_print_addr(swapped(key.addr_net)));
  for (uint32_t left = max_steps; node != nullptr && left != 0; left--) {
    holder = holder_carried_to(node, holder);
    if (holder != nullptr && holder->iod != ignore_iod) {
      const uint32_t current_subnet = swapped(key.addr_net) & mask;
      debug_words("Current Subnet: ", ip_print_addr(current_subnet));
      if (current_subnet == new_subnet) return overlap_with(*holder, out);
      if (current_subnet > new_subnet) {
        debug_words("Reached a greater mask, no overlapping interface found", "");
        return 0;
      }
    }
    node = pt_get_next_node(tree, &key, &key_bits, 0);
    debug_words("Key value ", ip_print_addr(swapped(key.addr_net)), ", mask ", key_bits);
  }
  return 0;
}

uint32_t ip_check_for_prefix_overlap(struct ip_api_context_type *ctx, uint32_t addr, uint8_t len, uint32_t *out) {
  using namespace libip;
  *out = 0;
  if (ctx == nullptr) return 1;
  const ReadGuard guard;
  void *tree = tree_of(*ctx);
  if (tree == nullptr) return 0;
  TreeKey key = key_of(addr);

  const ip_iod_elem *holder = nullptr;
  for (const void *node : CoveringNodes(tree, &key, len)) {
    holder = holder_carried_to(node, holder);
    if (holder != nullptr && is_adminup(*holder)) return covering_overlap_with(*holder, out);
  }
  const void *inside = pt_lookup_more_specific(tree, &key, len);
  if (inside == nullptr) return 0;
  holder = holder_carried_to(inside, holder);
  return holder != nullptr && is_adminup(*holder) ? overlap_with(*holder, out) : 0;
}

uint32_t ip_check_for_prefix_overlap_no_state(struct ip_api_context_type *ctx, uint32_t addr, uint8_t len,
                                              uint32_t *out) {
  using namespace libip;
  *out = 0;
  if (ctx == nullptr) return 1;
  const ReadGuard guard;
  void *tree = tree_of(*ctx);
  if (tree == nullptr) return 0;
  TreeKey key = key_of(addr);

  for (const void *node : CoveringNodes(tree, &key, len)) {
    const ip_iod_elem *holder = holder_at(node);
    if (holder != nullptr) return covering_overlap_with(*holder, out);
  }
  const ip_iod_elem *holder = holder_at(pt_lookup_more_specific(tree, &key, len));
  return holder != nullptr ? overlap_with(*holder, out) : 0;
}

}  // extern "C"
