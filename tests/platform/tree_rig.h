// SPDX-License-Identifier: Apache-2.0
// A Patricia tree in a segment of its own, with its naive twin: a sorted vector of prefixes.
#ifndef TESTS_PLATFORM_TREE_RIG_H
#define TESTS_PLATFORM_TREE_RIG_H

#include <arpa/inet.h>

#include <algorithm>
#include <compare>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "pt.h"
#include "pt/pt_writer.h"
#include "sm/arena.h"
#include "support/run_directory.h"
#include "tsp.h"

namespace tree_rig {

struct Node {
  uint32_t links[3];
  uint32_t info;
};

struct Prefix {
  uint32_t key;
  uint32_t length;
  auto operator<=>(const Prefix &) const = default;
};

inline uint32_t mask_of(uint32_t length) {
  return length == 0 ? 0 : ~0u << (32 - length);
}
inline bool covers(const Prefix &a, const Prefix &b) {
  return a.length <= b.length && ((a.key ^ b.key) & mask_of(a.length)) == 0;
}
// What a node of that prefix carries: a reader that finds another word looks at memory that is no longer the node.
inline uint32_t info_of(const Prefix &prefix) {
  return prefix.key * 2654435761u ^ prefix.length;
}

class TreeRig {
 public:
  explicit TreeRig(std::chrono::milliseconds quarantine = std::chrono::milliseconds(0)) {
    std::string reason;
    epochs = rsw::Epochs::open(&reason);
    if (epochs == nullptr) throw std::runtime_error(reason);
    segment = rsw::SegmentMap::create(rsw::segment_ip, &reason);
    if (segment == nullptr) throw std::runtime_error(reason);
    std::vector<rsw::RecordTypeInfo> types = rsw::pt_types(0);
    types.push_back({.type = node_type, .size = sizeof(Node), .align = 16, .memory_type = 0, .name = "node"});
    arena = rsw::Arena::open(segment, *epochs, rsw::Domain::database, 65536, types,
                             {.quarantine = quarantine, .retired_bytes_cap = 32u << 20}, &reason);
    if (arena == nullptr) throw std::runtime_error(reason);
    tree = rsw::PtWriter::create(*arena);
    if (tree == nullptr) throw std::runtime_error("no room for a tree");
  }

  bool add(const Prefix &prefix) {
    Node *node = static_cast<Node *>(arena->allocate(node_type));
    if (node == nullptr) throw std::runtime_error("the segment is full");
    __atomic_store_n(&node->info, info_of(prefix), __ATOMIC_RELAXED);
    if (tree->insert(node, prefix.key, static_cast<uint8_t>(prefix.length))) return true;
    arena->give_back(node_type, node);
    return false;
  }
  bool remove(const Prefix &prefix) {
    void *node = tree->erase(prefix.key, static_cast<uint8_t>(prefix.length));
    if (node == nullptr) return false;
    arena->retire(node_type, node);
    return true;
  }
  void tick() { arena->tick(std::chrono::steady_clock::now()); }
  [[nodiscard]] void *handle() const { return tree->handle(); }

  static constexpr rsw::RecordType node_type = 1;
  test_support::RunDirectory directory;
  std::unique_ptr<rsw::Epochs> epochs;
  std::shared_ptr<rsw::SegmentMap> segment;
  std::unique_ptr<rsw::Arena> arena;
  std::unique_ptr<rsw::PtWriter> tree;
};

// Questions in host order. A node stands for its prefix; `none` for null.
inline constexpr Prefix none{0, 99};

struct KeyBuffer {  // at least 16 bytes, as the callers of the library have it
  explicit KeyBuffer(uint32_t key) : word(htonl(key)) {}
  [[nodiscard]] uint32_t host() const { return ntohl(word); }
  uint32_t word;
  uint32_t rest[3] = {};
};

inline Prefix prefix_of(void *node) {
  if (node == nullptr) return none;
  KeyBuffer key(0);
  uint32_t length = 0;
  pt_get_key(node, &key, &length);
  return {key.host(), length};
}
inline uint32_t info_word(void *node) {
  return __atomic_load_n(&static_cast<Node *>(node)->info, __ATOMIC_RELAXED);
}

inline void *exact_node(void *tree, const Prefix &prefix) {
  const KeyBuffer key(prefix.key);
  return pt_lookup(tree, &key, prefix.length, 1);
}
inline Prefix exact(void *tree, const Prefix &prefix) {
  return prefix_of(exact_node(tree, prefix));
}

inline Prefix more_specific(void *tree, const Prefix &prefix) {
  KeyBuffer key(prefix.key);
  void *node = pt_lookup_more_specific(tree, &key, prefix.length);
  const Prefix found = prefix_of(node);
  if (node != nullptr && key.host() != found.key) throw std::runtime_error("the key buffer holds another key");
  return found;
}

inline std::vector<Prefix> covering(void *tree, const Prefix &prefix) {
  KeyBuffer key(prefix.key);
  void *nodes[33] = {};
  uint32_t count = 99;
  const uint32_t answer = pt_lookup_return_leafs(tree, &key, prefix.length, nodes, &count);
  if (count > 33 || answer != (count > 0 ? 1 : 0)) throw std::runtime_error("answer and count differ");
  if (key.host() != prefix.key) throw std::runtime_error("the key buffer was changed");
  std::vector<Prefix> found;
  for (uint32_t i = 0; i < count; ++i) found.push_back(prefix_of(nodes[i]));
  return found;
}

inline Prefix first(void *tree) {
  KeyBuffer key(0);
  uint32_t length = 0;
  void *node = pt_get_first_node(tree, &key, &length, 0);
  const Prefix found = prefix_of(node);
  if (node != nullptr && Prefix{key.host(), length} != found)
    throw std::runtime_error("the buffers hold another prefix");
  return found;
}

inline Prefix next(void *tree, const Prefix &after) {
  KeyBuffer key(after.key);
  uint32_t length = after.length;
  void *node = pt_get_next_node(tree, &key, &length, 0);
  const Prefix found = prefix_of(node);
  if (node != nullptr && Prefix{key.host(), length} != found)
    throw std::runtime_error("the buffers hold another prefix");
  return found;
}

class Twin {
 public:
  bool add(const Prefix &prefix) {
    const auto place = std::ranges::lower_bound(prefixes, prefix);
    if (place != prefixes.end() && *place == prefix) return false;
    prefixes.insert(place, prefix);
    return true;
  }
  bool remove(const Prefix &prefix) {
    const auto place = std::ranges::lower_bound(prefixes, prefix);
    if (place == prefixes.end() || *place != prefix) return false;
    prefixes.erase(place);
    return true;
  }
  [[nodiscard]] Prefix exact(const Prefix &prefix) const {
    return std::ranges::binary_search(prefixes, prefix) ? prefix : none;
  }
  [[nodiscard]] std::vector<Prefix> covering(const Prefix &prefix) const {
    std::vector<Prefix> found;
    for (uint32_t length = 0; length <= prefix.length; ++length) {
      const Prefix cover{prefix.key & mask_of(length), length};
      if (exact(cover) == cover) found.push_back(cover);
    }
    return found;
  }
  [[nodiscard]] Prefix more_specific(const Prefix &prefix) const {
    const auto place = std::ranges::find_if(std::ranges::lower_bound(prefixes, prefix), prefixes.end(),
                                            [&](const Prefix &p) { return p != prefix; });
    return place != prefixes.end() && covers(prefix, *place) ? *place : none;
  }
  [[nodiscard]] Prefix next(const Prefix &after) const {
    const auto place = std::ranges::upper_bound(prefixes, after);
    return place != prefixes.end() ? *place : none;
  }

  std::vector<Prefix> prefixes;
};

}  // namespace tree_rig

#endif
