// SPDX-License-Identifier: Apache-2.0
// Memory counters beyond the contract: who makes the segment they are seen in, what the owner of shared records
// reports, and what ipsh shows.
#ifndef RSW_MTRACK_MTRACK_WRITER_H
#define RSW_MTRACK_MTRACK_WRITER_H

#include <cstdint>
#include <string>
#include <vector>

#include "sm/run_dir.h"

namespace rsw {

struct MemoryUse {
  int32_t pid;
  char command[16];
  uint32_t component;
  std::string description;  // "Internet Protocol (IP)"
  bool shared;              // a shared-memory type
  uint32_t type;
  std::string type_name;
  uint64_t blocks, bytes;
  uint64_t allocations, failures;  // since the process registered
};

// Makes or takes over the segment "/rsw/shm/mtrack" and keeps it mapped: for ipd, before it publishes the names of
// other segments. Clients that were counting in it go on. Threads: any. Blocks: no. False: *reason.
RSW_EXPORT bool mtrack_open_for_writing(std::string *reason);

// This process owns shared records: sets the counters of one shared memory type. What is set before mtrack_sm_init named
// the component's types counts from then on; a type that it did not name is left out. Threads: any.
RSW_EXPORT void mtrack_shared_set(uint32_t component, uint32_t type, uint64_t blocks, uint64_t bytes);

// All live processes' counters, types without any allocation left out; this process's own ones first. Without the
// segment these are all. What the others' blocks say was written by them and is not trusted: texts and numbers of
// entries are bounded. Threads: any. Blocks: no.
RSW_EXPORT std::vector<MemoryUse> mtrack_report();

}  // namespace rsw

#endif
