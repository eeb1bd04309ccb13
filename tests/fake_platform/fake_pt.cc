// SPDX-License-Identifier: Apache-2.0
// Patricia trees as sorted vectors that are searched from one end to the other: slow, and too simple to be wrong.
// A handle that names no tree is an empty tree, as a damaged word must be.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "fake_platform/platform.h"
#include "pt.h"

using fake_platform::Address;
using fake_platform::Bare;
using fake_platform::dotted;
using fake_platform::platform;
using fake_platform::Tree;
using fake_platform::TreeEntry;

namespace {

constexpr size_t key_bytes = 16;  // every key buffer has room for these

uint32_t read_key(const void *key) {
  uint32_t word;
  std::memcpy(&word, key, sizeof word);
  return ntohl(word);
}

void write_key(void *key, uint32_t host_order) {
  std::memset(key, 0, key_bytes);
  const uint32_t word = htonl(host_order);
  std::memcpy(key, &word, sizeof word);
}

uint32_t mask(uint32_t length) {
  return length == 0 ? 0 : ~uint32_t{0} << (32 - std::min(length, 32u));
}

bool covers(uint32_t outer_key, uint32_t outer_length, uint32_t key, uint32_t length) {
  return outer_length <= length && ((outer_key ^ key) & mask(outer_length)) == 0;
}

bool before(uint32_t key, uint32_t length, const TreeEntry &entry) {
  return std::tie(key, length) < std::tie(entry.key, entry.length);
}

const std::vector<TreeEntry> &entries_of(const void *tree) {
  static const std::vector<TreeEntry> none;
  const auto found = platform().trees.find(tree);
  return found == platform().trees.end() ? none : found->second.entries;
}

Bare prefix(const void *key, uint32_t length) {
  return {dotted(read_key(key)) + "/" + std::to_string(length)};
}

}  // namespace

void Tree::insert(uint32_t key, uint32_t length, void *node) {
  const auto at =
      std::find_if(entries.begin(), entries.end(), [&](const TreeEntry &entry) { return before(key, length, entry); });
  entries.insert(at, TreeEntry{key, length, node});
}

void *pt_lookup(void *tree, const void *key, uint32_t len, uint32_t one) {
  platform().log.call(__func__, static_cast<const void *>(tree), Address{read_key(key)}, len, one);
  void *node = nullptr;
  for (const TreeEntry &entry : entries_of(tree)) {
    if (entry.key == read_key(key) && entry.length == len) node = entry.node;
  }
  return platform().scripts.result<void *>(__func__, node, nullptr);
}

uint32_t pt_lookup_return_leafs(void *tree, void *key, uint32_t len, void **nodes, uint32_t *count) {
  platform().log.call(__func__, static_cast<const void *>(tree), prefix(key, len));
  std::vector<void *> found;
  if (platform().covering_nodes) {
    found = *platform().covering_nodes;
  } else {
    // In key order, and so shortest first: what covers one key starts with the same bits.
    for (const TreeEntry &entry : entries_of(tree)) {
      if (covers(entry.key, entry.length, read_key(key), len)) found.push_back(entry.node);
    }
  }
  const auto size = static_cast<uint32_t>(found.size());
  const auto result = platform().scripts.result<uint32_t>(__func__, size, 0);
  *count = result == 0 ? 0 : size;
  std::copy_n(found.begin(), *count, nodes);
  return result;
}

void *pt_lookup_more_specific(void *tree, void *key, uint32_t len) {
  platform().log.call(__func__, static_cast<const void *>(tree), prefix(key, len));
  const TreeEntry *found = nullptr;
  for (const TreeEntry &entry : entries_of(tree)) {
    if (found == nullptr && entry.length > len && covers(read_key(key), len, entry.key, entry.length)) found = &entry;
  }
  void *node = platform().scripts.result<void *>(__func__, found != nullptr ? found->node : nullptr, nullptr);
  if (node != nullptr && found != nullptr) write_key(key, found->key);
  return node;
}

void *pt_get_first_node(void *tree, void *key, uint32_t *len, uint32_t zero) {
  platform().log.call(__func__, static_cast<const void *>(tree), prefix(key, *len), zero);
  const std::vector<TreeEntry> &entries = entries_of(tree);
  void *node = platform().scripts.result<void *>(__func__, entries.empty() ? nullptr : entries.front().node, nullptr);
  if (node == nullptr || entries.empty()) return node;
  write_key(key, entries.front().key);
  *len = entries.front().length;
  return node;
}

void *pt_get_next_node(void *tree, void *key, uint32_t *len, uint32_t zero) {
  platform().log.call(__func__, static_cast<const void *>(tree), prefix(key, *len), zero);
  const TreeEntry *found = nullptr;
  for (const TreeEntry &entry : entries_of(tree)) {
    if (found == nullptr && before(read_key(key), *len, entry)) found = &entry;
  }
  void *node = platform().scripts.result<void *>(__func__, found != nullptr ? found->node : nullptr, nullptr);
  if (node == nullptr || found == nullptr) return node;
  write_key(key, found->key);
  *len = found->length;
  return node;
}

void pt_get_key(void *node, void *key, uint32_t *len) {
  platform().log.call(__func__, static_cast<const void *>(node));
  for (const auto &[handle, tree] : platform().trees) {
    for (const TreeEntry &entry : tree.entries) {
      if (entry.node != node) continue;
      write_key(key, entry.key);
      *len = entry.length;
    }
  }
}
