// SPDX-License-Identifier: Apache-2.0
// The segment "/rsw/shm/mtrack": after the header page, one block per process. Private to this folder.
//
// A block belongs to the process that holds an open-file-description write lock on the block's first byte of the file.
// It may take a block whose byte nobody has locked, whatever the block says. Whoever changes a record here counts the
// layout string of this segment up in sm/segments.cc.
#ifndef RSW_MTRACK_MTRACK_RECORDS_H
#define RSW_MTRACK_MTRACK_RECORDS_H

#include <cstddef>
#include <cstdint>

#include "sm/segment.h"

namespace rsw::mtrack {

inline constexpr uint32_t max_components = 8;  // one for private and one for shared types of the same number
inline constexpr uint32_t max_entries = 84;    // entry 0 is the process's "(other)"

struct SharedComponent {
  uint32_t component;
  char description[60];
};
static_assert(sizeof(SharedComponent) == 64);

enum CounterName : uint32_t { blocks, bytes, allocations, failures, counters };

// 64-bit numbers are two words, low one first; `sequence` is odd while they change.
struct SharedEntry {
  uint32_t sequence;
  uint32_t component;  // index in the block's components plus 1; 0: none
  uint32_t shared;     // 1: a shared-memory type
  uint32_t type;
  uint32_t count[counters][2];
  char name[40];
};
static_assert(sizeof(SharedEntry) == 88);
static_assert(offsetof(SharedEntry, count) == 16);
static_assert(offsetof(SharedEntry, name) == 48);

struct SharedBlock {
  uint32_t pid;      // 0 while it is being filled in; the last word to be written
  uint32_t entries;  // how many are in use
  uint32_t reserved[10];
  char command[16];
  SharedComponent component[max_components];
  SharedEntry entry[max_entries];
};
static_assert(sizeof(SharedBlock) == 64 + 8 * 64 + 84 * 88);
static_assert(offsetof(SharedBlock, command) == 48);
static_assert(offsetof(SharedBlock, entry) == 576);

inline constexpr uint32_t block_stride = 8192;
static_assert(sizeof(SharedBlock) <= block_stride);

inline constexpr uint32_t block_offset(uint32_t index) {
  return segment_page + index * block_stride;
}
inline constexpr uint32_t block_count(const SegmentLayout &layout) {
  return (layout.size - 2 * segment_page) / block_stride;
}

}  // namespace rsw::mtrack

#endif
