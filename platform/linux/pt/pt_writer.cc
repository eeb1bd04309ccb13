// SPDX-License-Identifier: Apache-2.0
// Patricia trees, the writer's side.
//
// A branch stands where two or more prefixes go on from the same multiple of three bits: at least two of its slots are
// taken (tree.h says what the slots are). What is alone below a slot is not below a branch, but in the slot itself. So
// the tree's shape follows from its prefixes alone, whatever the order of changes, and n nodes make at most n - 1
// branches.
//
// A change copies the branches from the root to the place of the change, links the copies to all that did not change,
// and publishes the copy of the root by one store; then the replaced branches are retired. Every walk therefore sees
// one whole tree. Data nodes are linked, never copied. Beside the tree stand the index (word_index.h) and the thread
// through all data nodes in order. They are changed one after another, the root first; a node's own `next` is set
// before any of the three leads there, and stays when the node is taken out.
//
// While changes are held back (hold), root_ runs ahead of the published root. The branches made since then are unknown
// to readers: `fresh_` names them, they are changed in place, and what they replace is retired at publish(), not
// earlier, since the published tree still leads there.
//
// All memory of a change is allocated before anything is linked: a full arena leaves the tree as it was.
#include "pt/pt_writer.h"

#include <algorithm>
#include <unordered_set>

#include "pt/tree.h"
#include "pt/word_index_writer.h"

namespace rsw {
namespace {

using pt::Branch;
using pt::Links;
using pt::Tree;

constexpr RecordType tree_type = first_pt_type;
constexpr RecordType branch_type = first_pt_type + 1;
constexpr RecordType first_index_type = first_pt_type + 2;

// Where a walk down for (key, length) ended.
struct Place {
  struct Step {
    Branch *branch;
    uint32_t slot;
  };
  std::array<Step, pt::most_depth> path;
  uint32_t depth = 0;
  uint32_t child =
      0;  // the word at the end of the path: nothing, a data node, or a branch that does not cover the prefix
};

struct Prefix {
  uint32_t key, length;
};

bool is_leaf(uint32_t child) {
  return (child & pt::leaf_bit) != 0;
}

Prefix prefix_of(uint32_t child) {
  if (is_leaf(child)) {
    const Links *leaf = pt::leaf_at(child);
    return {leaf->key, leaf->length};
  }
  const pt::BranchView view = pt::view_branch(child, pt::root_bit);
  return {view.key, view.length};
}

class Writer final : public PtWriter {
 public:
  Writer(Arena &arena, Tree *tree)
      : arena_(arena),
        tree_(tree),
        index_(arena, first_index_type, word_index_most_log2, &tree->index,
               [this](const WordIndexWriter::Sink &sink) { enumerate(sink); }) {}

  [[nodiscard]] void *handle() const override { return tree_; }
  [[nodiscard]] uint32_t size() const override { return size_; }

  bool insert(void *node, uint32_t key, uint8_t len) override;
  void *erase(uint32_t key, uint8_t len) override {
    const bool held = holding_;
    publish();
    void *node = take_out(key, len);
    holding_ = held;
    return node;
  }
  [[nodiscard]] void *find(uint32_t key, uint8_t len) const override;
  void hold() override { holding_ = true; }
  void publish() override;
  void retire_all() override;

 private:
  void enumerate(const WordIndexWriter::Sink &sink) const;
  void *take_out(uint32_t key, uint32_t length);
  [[nodiscard]] Place descend(uint32_t key, uint32_t length) const;
  [[nodiscard]] Branch *new_branch();
  bool copy_path(const Place &place, uint32_t child);
  void let_go(Branch *branch);
  void retire_below(uint32_t child);

  Arena &arena_;
  Tree *tree_;
  WordIndexWriter index_;
  uint32_t root_ = 0;
  uint32_t first_ = 0;  // address of the first data node in order
  uint32_t size_ = 0;
  bool holding_ = false;
  std::unordered_set<Branch *> fresh_;  // while holding: branches that readers do not know
  std::vector<Branch *> replaced_;      // while holding: branches that only the published tree leads to
};

void Writer::enumerate(const WordIndexWriter::Sink &sink) const {
  for (uint32_t address = first_; address != 0;) {
    const Links *node = at_address<const Links>(address);
    if (node->length == 32) {
      sink(node->key, 0, address);
    } else {
      sink(pt::mark(node->key, node->length), word_index_tag, address);
    }
    address = node->next;
  }
}

Place Writer::descend(uint32_t key, uint32_t length) const {
  Place place;
  place.child = root_;
  while (place.child != 0 && !is_leaf(place.child)) {
    const pt::BranchView view = pt::view_branch(place.child, pt::root_bit);
    if (view.length > length || !view.matches(key)) break;
    const uint32_t slot = pt::slot_below(view.length, key, length);
    place.path[place.depth++] = {at_address<Branch>(place.child), slot};
    place.child = view.branch->slot[slot];
  }
  return place;
}

Branch *Writer::new_branch() {
  Branch *branch = static_cast<Branch *>(arena_.allocate(branch_type));
  if (branch != nullptr && holding_) fresh_.insert(branch);
  return branch;
}

// Readers no longer reach this branch from the tree that is being built.
void Writer::let_go(Branch *branch) {
  if (!holding_) {
    arena_.retire(branch_type, branch);
  } else if (fresh_.erase(branch) != 0) {
    arena_.give_back(branch_type, branch);
  } else {
    replaced_.push_back(branch);
  }
}

// The tree with `child` at the end of the path becomes the tree. False: no memory, nothing changed.
bool Writer::copy_path(const Place &place, uint32_t child) {
  std::array<Branch *, pt::most_depth> copies;
  // A branch that readers do not know yet needs no copy, nor does anything above it: its parents are fresh as well.
  uint32_t top = place.depth;
  while (top > 0 && !fresh_.contains(place.path[top - 1].branch)) --top;
  for (uint32_t i = top; i < place.depth; ++i) {
    copies[i] = new_branch();
    if (copies[i] != nullptr) continue;
    while (i > top) {
      fresh_.erase(copies[--i]);
      arena_.give_back(branch_type, copies[i]);
    }
    return false;
  }
  for (uint32_t i = place.depth; i > top; --i) {
    const auto &[old, slot] = place.path[i - 1];
    Branch *copy = copies[i - 1];
    fill_word(copy->marked, old->marked);
    for (uint32_t other = 0; other < pt::slot_count; ++other) fill_word(copy->slot[other], old->slot[other]);
    fill_word(copy->slot[slot], child);
    child = address_of(copy);
  }
  if (top > 0) {
    fill_word(place.path[top - 1].branch->slot[place.path[top - 1].slot], child);
  } else {
    root_ = child;
  }
  // Release: all that was filled in stands before the root word; partner: root_of in pt.cc.
  if (!holding_) publish_word(tree_->root, root_);
  for (uint32_t i = top; i < place.depth; ++i) let_go(place.path[i].branch);
  return true;
}

bool Writer::insert(void *node, uint32_t key, uint8_t len) {
  const uint32_t length = len;
  if (length > 32) return false;
  key &= pt::mask_of(length);
  const Place place = descend(key, length);
  const uint32_t leaf = address_of(node) | pt::leaf_bit;

  uint32_t child = leaf;
  Branch *fork = nullptr;
  if (place.child != 0) {
    const Prefix there = prefix_of(place.child);
    if (there.key == key && there.length == length) return false;
    fork = new_branch();
    if (fork == nullptr) return false;
    child = address_of(fork);
    // The last multiple of three at which both still go the same way.
    const uint32_t common = std::min({static_cast<uint32_t>(std::countl_zero(key ^ there.key)), length, there.length});
    const uint32_t at = common - common % pt::stride;
    fill_word(fork->marked, pt::mark(key & pt::mask_of(at), at));
    fill_word(fork->slot[pt::slot_below(at, key, length)], leaf);
    fill_word(fork->slot[pt::slot_below(at, there.key, there.length)], place.child);
  }

  Links *links = static_cast<Links *>(node);
  Links *previous = const_cast<Links *>(pt::last_before(root_, key, length));
  fill_word(links->key, key);
  fill_word(links->length, length);
  fill_word(links->next, previous != nullptr ? previous->next : first_);
  if (!copy_path(place, child)) {
    fresh_.erase(fork);
    if (fork != nullptr) arena_.give_back(branch_type, fork);
    return false;
  }
  // Release: the node's own links and the caller's words stand before any word that leads there; partners: successor()
  // in pt.cc, and word_index_find.
  if (previous != nullptr) {
    publish_word(previous->next, address_of(node));
  } else {
    first_ = address_of(node);
  }
  ++size_;
  if (length == 32) {
    index_.insert(key, 0, address_of(node));
  } else {
    index_.insert(pt::mark(key, length), word_index_tag, address_of(node));
  }
  return true;
}

void *Writer::take_out(uint32_t key, uint32_t length) {
  if (length > 32) return nullptr;
  key &= pt::mask_of(length);
  Place place = descend(key, length);
  if (place.child == 0 || !is_leaf(place.child)) return nullptr;
  const Prefix there = prefix_of(place.child);
  if (there.key != key || there.length != length) return nullptr;

  Links *node = at_address<Links>(place.child & ~pt::leaf_bit);
  uint32_t child = 0;
  Branch *gone = nullptr;  // a branch that would be left with one slot gives its place to what is in that slot
  if (place.depth > 0) {
    const auto [branch, slot] = place.path[place.depth - 1];
    uint32_t others = 0;
    uint32_t last = 0;
    for (uint32_t other = 0; other < pt::slot_count; ++other) {
      if (other == slot || branch->slot[other] == 0) continue;
      ++others;
      last = branch->slot[other];
    }
    if (others == 1) {
      child = last;
      gone = branch;
      --place.depth;
    }
  }
  if (!copy_path(place, child)) return nullptr;
  if (gone != nullptr) let_go(gone);

  // `next` of the node itself stays: a reader that stands on it goes on from there.
  if (Links *previous = const_cast<Links *>(pt::last_before(root_, key, length))) {
    publish_word(previous->next, node->next);
  } else {
    first_ = node->next;
  }
  --size_;
  if (length == 32) {
    index_.erase(key, 0);
  } else {
    index_.erase(pt::mark(key, length), word_index_tag);
  }
  return node;
}

void *Writer::find(uint32_t key, uint8_t len) const {
  const uint32_t length = len;
  if (length > 32) return nullptr;
  return const_cast<Links *>(pt::exact_by_walk(root_, key & pt::mask_of(length), length));
}

void Writer::publish() {
  if (!holding_) return;
  holding_ = false;
  // Release: as in copy_path.
  publish_word(tree_->root, root_);
  fresh_.clear();
  for (Branch *branch : replaced_) arena_.retire(branch_type, branch);
  replaced_.clear();
}

void Writer::retire_below(uint32_t child) {
  if (child == 0 || is_leaf(child)) return;
  Branch *branch = at_address<Branch>(child);
  for (const uint32_t below : branch->slot) retire_below(below);
  arena_.retire(branch_type, branch);
}

void Writer::retire_all() {
  publish();
  publish_word(tree_->root, 0);
  retire_below(root_);
  index_.retire();
  arena_.retire(tree_type, tree_);
  root_ = first_ = size_ = 0;
  tree_ = nullptr;
}

}  // namespace

std::vector<RecordTypeInfo> pt_types(uint32_t memory_type) {
  std::vector<RecordTypeInfo> types = {
      {.type = tree_type, .size = sizeof(Tree), .align = 16, .memory_type = memory_type, .name = "tree"},
      {.type = branch_type, .size = sizeof(Branch), .align = 64, .memory_type = memory_type, .name = "tree branch"},
  };
  const std::vector<RecordTypeInfo> index = word_index_types(first_index_type, word_index_most_log2, memory_type);
  types.insert(types.end(), index.begin(), index.end());
  return types;
}

std::unique_ptr<PtWriter> PtWriter::create(Arena &arena) {
  Tree *tree = static_cast<Tree *>(arena.allocate(tree_type));
  if (tree == nullptr) return nullptr;
  return std::make_unique<Writer>(arena, tree);
}

}  // namespace rsw
