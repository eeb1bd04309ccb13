// SPDX-License-Identifier: Apache-2.0
// Patricia trees, the reader's side.
//
// Three structures name the same data nodes, and each answers what it answers fastest:
//   the index   finds an exact prefix: the tree's record, one cache line of the index, the node;
//   the thread  (each node's `next`) gives the successor of a node that the index found;
//   the tree    answers everything else: covering nodes, and the successor of a prefix that is not there.
// The writer changes them one after another, each by one store. A call takes its answer from one of them, so the answer
// was true at a moment of the call; only two calls next to each other may differ by a change that is being made.
//
// Data nodes keep their address and their links' key and length as long as readers can hold them. A node that was taken
// out keeps its `next`: who stands on it goes on from there.
//
// What must never happen: a fault or an endless walk on damaged memory. Each address is checked before it is followed,
// and an answer in key order is handed out only when it lies strictly after the question, so that a caller's loop ends
// too.
#include "pt.h"

#include <arpa/inet.h>

#include <cstring>

#include "pt/tree.h"

namespace {

using rsw::pt::Links;
using rsw::pt::Tree;

uint32_t key_from(const void *key_net) {
  uint32_t word;
  memcpy(&word, key_net, sizeof word);
  return ntohl(word);
}

void key_to(void *key_net, uint32_t key) {
  const uint32_t word = htonl(key);
  memcpy(key_net, &word, sizeof word);
}

// Null, too, when the handle itself is a damaged word.
const Tree *tree_of(const void *handle) {
  const uintptr_t address = reinterpret_cast<uintptr_t>(handle);
  if (address - rsw::window_low >= rsw::readable_span || (address & 3) != 0) return nullptr;
  return static_cast<const Tree *>(handle);
}

void *result(const Links *node) {
  return const_cast<Links *>(node);
}

// Acquire: the tree below the root word; partner: the store of the root in PtWriter.
uint32_t root_of(const Tree *tree) {
  return rsw::observe_word(tree->root);
}

// The node of exactly that prefix; *known is false when the index cannot say. key has no bits beyond length, which is
// at most 32.
const Links *indexed(const Tree *tree, uint32_t key, uint32_t length, bool *known) {
  const bool whole = length == 32;
  const uint32_t tag = whole ? 0 : rsw::word_index_tag;
  // Acquire: the array behind the word; partner: the store of a fresh array in WordIndexWriter.
  const uint32_t value =
      rsw::word_index_find(rsw::observe_word(tree->index), whole ? key : rsw::pt::mark(key, length), tag);
  *known = value != rsw::word_index_not_known;
  if (value == 0 || !*known) return nullptr;
  return rsw::pt::node_at(value & ~rsw::word_index_tag);
}

// Apart from pt_lookup, so that the question for a whole address, which stands in inner loops, needs no stack frame.
[[gnu::noinline]] const Links *exact(const Tree *tree, uint32_t key, uint32_t length) {
  bool known;
  const Links *node = indexed(tree, key, length, &known);
  if (known) [[likely]]
    return node;
  return rsw::pt::exact_by_walk(root_of(tree), key, length);
}

// The first node strictly after (key, length).
const Links *successor(const Tree *tree, uint32_t key, uint32_t length) {
  if ((key & ~rsw::pt::mask_of(length)) == 0) {
    bool known;
    if (const Links *node = indexed(tree, key, length, &known)) {
      // Acquire: the next node's links; partner: the store of its predecessor's `next` in PtWriter.
      const uint32_t next = rsw::observe_word(node->next);
      if (next == 0) return nullptr;
      const Links *candidate = rsw::pt::node_at(next);
      if (candidate != nullptr &&
          rsw::pt::before(key, length, rsw::load_word(candidate->key), rsw::load_word(candidate->length))) {
        return candidate;
      }
    }
  }
  const Links *found = rsw::pt::first_after(root_of(tree), key, length);
  if (found == nullptr) return nullptr;
  const bool after = rsw::pt::before(key, length, rsw::load_word(found->key), rsw::load_word(found->length));
  return after ? found : nullptr;
}

}  // namespace

void *pt_lookup(void *handle, const void *key, uint32_t len, uint32_t) {
  const Tree *tree = tree_of(handle);
  if (tree == nullptr || len > 32) return nullptr;
  const uint32_t key_host = key_from(key);
  if (len == 32) [[likely]] {
    // Acquire: as in indexed().
    const uint32_t value = rsw::word_index_find(rsw::observe_word(tree->index), key_host, 0);
    if (value == 0) return nullptr;
    if (value != rsw::word_index_not_known) [[likely]]
      return result(rsw::pt::node_at(value));
  }
  return result(exact(tree, key_host & rsw::pt::mask_of(len), len));
}

uint32_t pt_lookup_return_leafs(void *handle, void *key, uint32_t len, void **nodes, uint32_t *count) {
  *count = 0;
  const Tree *tree = tree_of(handle);
  if (tree == nullptr || len > 32) return 0;
  const uint32_t key_host = key_from(key) & rsw::pt::mask_of(len);
  uint32_t found = 0;
  const auto add = [&](const Links *node) {
    if (node != nullptr && found < 33) nodes[found++] = result(node);
  };
  uint32_t most_bit = rsw::pt::root_bit;
  uint32_t child = root_of(tree);
  while ((child & rsw::pt::leaf_bit) == 0) {
    const rsw::pt::BranchView view = rsw::pt::view_branch(child, most_bit);
    if (view.branch == nullptr || view.length > len || !view.matches(key_host)) break;
    const uint32_t bits = rsw::pt::bits_after(key_host, view.length);
    for (uint32_t longer = 0; longer < rsw::pt::stride && view.length + longer <= len; ++longer) {
      const uint32_t kept = bits & (7u << (rsw::pt::stride - longer));
      const uint32_t word = rsw::load_word(view.branch->slot[longer + rsw::pt::place_of(kept & 7)]);
      if (word != 0) add(rsw::pt::leaf_at(word));
    }
    child = 0;
    if (view.length + rsw::pt::stride > len) break;
    child = rsw::load_word(view.branch->slot[rsw::pt::stride + rsw::pt::place_of(bits)]);
    most_bit = view.bit >> rsw::pt::stride;
  }
  if ((child & rsw::pt::leaf_bit) != 0) {
    if (const Links *leaf = rsw::pt::leaf_at(child)) {
      const uint32_t length = rsw::load_word(leaf->length);
      if (length <= len && ((rsw::load_word(leaf->key) ^ key_host) & rsw::pt::mask_of(length)) == 0) add(leaf);
    }
  }
  *count = found;
  return found != 0 ? 1 : 0;
}

void *pt_lookup_more_specific(void *handle, void *key, uint32_t len) {
  const Tree *tree = tree_of(handle);
  if (tree == nullptr || len > 32) return nullptr;
  // In order, what lies inside a prefix stands right behind it.
  const uint32_t key_host = key_from(key) & rsw::pt::mask_of(len);
  const Links *node = successor(tree, key_host, len);
  if (node == nullptr) return nullptr;
  const uint32_t node_key = rsw::load_word(node->key);
  if (((node_key ^ key_host) & rsw::pt::mask_of(len)) != 0 || rsw::load_word(node->length) <= len) return nullptr;
  key_to(key, node_key);
  return result(node);
}

void *pt_get_first_node(void *handle, void *key, uint32_t *len, uint32_t) {
  const Tree *tree = tree_of(handle);
  if (tree == nullptr) return nullptr;
  const Links *node = rsw::pt::first_of(root_of(tree), rsw::pt::root_bit);
  if (node == nullptr) return nullptr;
  key_to(key, rsw::load_word(node->key));
  *len = rsw::load_word(node->length);
  return result(node);
}

void *pt_get_next_node(void *handle, void *key, uint32_t *len, uint32_t) {
  const Tree *tree = tree_of(handle);
  if (tree == nullptr || *len > 32) return nullptr;
  const Links *node = successor(tree, key_from(key), *len);
  if (node == nullptr) return nullptr;
  key_to(key, rsw::load_word(node->key));
  *len = rsw::load_word(node->length);
  return result(node);
}

void pt_get_key(void *node, void *key, uint32_t *len) {
  if (node == nullptr) return;
  const Links *links = static_cast<const Links *>(node);
  key_to(key, rsw::load_word(links->key));
  *len = rsw::load_word(links->length);
}
