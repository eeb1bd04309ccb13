// SPDX-License-Identifier: Apache-2.0
// The counters of all processes.
//
// A block counts when somebody holds the lock on its first byte and its pid is set. Everything in it was written by
// that process and is copied before it is looked at; an entry whose sequence does not come to rest within a few tries
// (its owner was killed or stopped in the middle of a change) is left out.
#include <fcntl.h>
#include <string.h>

#include <algorithm>
#include <atomic>

#include "counters.h"

namespace rsw {
namespace {

using namespace mtrack;

uint32_t load(uint32_t &word, std::memory_order order) {
  return std::atomic_ref<uint32_t>(word).load(order);
}

bool is_locked(int fd, uint32_t index) {
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_start = static_cast<off_t>(block_offset(index));
  range.l_len = 1;
  return fcntl(fd, F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
}

template <size_t size>
std::string text_of(const char (&text)[size]) {
  return std::string(text, strnlen(text, size));
}

bool read_counts(SharedEntry &entry, uint64_t (&count)[counters]) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    // Acquire: the numbers are read after it; the partner is the last store of publish_entry().
    const uint32_t before = load(entry.sequence, std::memory_order_acquire);
    for (uint32_t name = 0; name < counters; ++name) {
      // Acquire: the second look at the sequence stays behind; the partner is the release store of the number.
      const uint64_t low = load(entry.count[name][0], std::memory_order_acquire);
      const uint64_t high = load(entry.count[name][1], std::memory_order_acquire);
      count[name] = high << 32 | low;
    }
    if (before % 2 == 0 && load(entry.sequence, std::memory_order_relaxed) == before) return true;
  }
  return false;
}

void report_block(SharedBlock &block, std::vector<MemoryUse> *uses) {
  // Acquire, both: the partners are the last two stores of publish_all().
  const uint32_t pid = load(block.pid, std::memory_order_acquire);
  const uint32_t entries = std::min(load(block.entries, std::memory_order_acquire), max_entries);
  if (pid == 0) return;
  for (uint32_t i = 0; i < entries; ++i) {
    SharedEntry &entry = block.entry[i];
    uint64_t count[counters];
    if (!read_counts(entry, count)) continue;
    if (count[blocks] == 0 && count[allocations] == 0 && count[failures] == 0) continue;
    MemoryUse use{};
    use.pid = static_cast<int32_t>(pid);
    memcpy(use.command, block.command, sizeof use.command - 1);
    const uint32_t component = entry.component;
    if (component >= 1 && component <= max_components) {
      use.component = block.component[component - 1].component;
      use.description = text_of(block.component[component - 1].description);
    }
    use.shared = entry.shared != 0;
    use.type = entry.type;
    use.type_name = text_of(entry.name);
    use.blocks = count[blocks];
    use.bytes = count[bytes];
    use.allocations = count[allocations];
    use.failures = count[failures];
    uses->push_back(std::move(use));
  }
}

}  // namespace

bool mtrack_open_for_writing(std::string *reason) {
  return process_counters().open_for_writing(reason);
}

void mtrack_shared_set(uint32_t component, uint32_t type, uint64_t block_number, uint64_t byte_number) {
  process_counters().set_shared(component, type, block_number, byte_number);
}

std::vector<MemoryUse> mtrack_report() {
  std::vector<MemoryUse> uses;
  process_counters().report_own(&uses);
  uint32_t own = UINT32_MAX;
  std::shared_ptr<SegmentMap> segment = process_counters().segment(&own);
  if (segment != nullptr) {
    process_counters().attach();  // the run directory may be another one by now
    segment = process_counters().segment(&own);
  }
  std::string reason;
  if (segment == nullptr) segment = SegmentMap::attach(segment_mtrack, &reason);
  if (segment == nullptr) return uses;
  for (uint32_t index = 0; index < block_count(segment->layout()); ++index) {
    if (index == own || !is_locked(segment->descriptor(), index)) continue;
    const uintptr_t address = segment->layout().base + block_offset(index);
    report_block(*reinterpret_cast<SharedBlock *>(address), &uses);
  }
  return uses;
}

}  // namespace rsw
