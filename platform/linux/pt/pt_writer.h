// SPDX-License-Identifier: Apache-2.0
// The writer's side of a Patricia tree in shared memory.
//
// Data nodes belong to the caller: 12 bytes that the tree owns, then the caller's own words (`info` first). A data node
// keeps its address as long as its prefix is in the tree. Branch nodes and the exact-match index are the tree's own,
// are path-copied, and swung by one store of the tree record's root word.
#ifndef RSW_PT_PT_WRITER_H
#define RSW_PT_PT_WRITER_H

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "sm/arena.h"

namespace rsw {

// The record types that a tree allocates: to be added to the arena's table. They take the numbers first_pt_type up to
// first_pt_type + pt_types().size() - 1; callers number their own types below first_pt_type.
inline constexpr RecordType first_pt_type = 64;
RSW_EXPORT std::vector<RecordTypeInfo> pt_types(uint32_t memory_type);

class RSW_EXPORT PtWriter {
 public:
  // A new, empty tree in the arena; null when the arena is full.
  static std::unique_ptr<PtWriter> create(Arena &arena);
  virtual ~PtWriter() = default;

  // The tree's handle: what pt_lookup and the others take, the same address in every process.
  [[nodiscard]] virtual void *handle() const = 0;

  // key in host order, bits beyond len are cleared. `node` is in the same segment, its caller's words are filled in.
  // False: the prefix is there already, or the arena is full (then nothing changed).
  [[nodiscard]] virtual bool insert(void *node, uint32_t key, uint8_t len) = 0;
  // The node, unlinked, for the caller to retire; null: the prefix is not there, or the arena is full (then nothing
  // changed).
  virtual void *erase(uint32_t key, uint8_t len) = 0;
  [[nodiscard]] virtual void *find(uint32_t key, uint8_t len) const = 0;
  [[nodiscard]] virtual uint32_t size() const = 0;

  // Between hold() and publish() the walks of readers go on seeing the tree of the moment of hold(), and an insert
  // copies nothing that an earlier one has copied: loading 100,000 prefixes leaves no garbage behind. Exact lookups see
  // a node at once; an erase publishes first and holds again. Holding does not nest.
  virtual void hold() = 0;
  virtual void publish() = 0;

  // Retires all that the tree itself owns, after its handle was unlinked. The data nodes are the caller's.
  virtual void retire_all() = 0;
};

}  // namespace rsw

#endif
