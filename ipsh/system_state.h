// SPDX-License-Identifier: Apache-2.0
// The running system as a whole: who publishes, who reads, what memory is in use.
#ifndef IPSH_SYSTEM_STATE_H
#define IPSH_SYSTEM_STATE_H

#include <cstdint>
#include <string>
#include <vector>

#include "attachment.h"
#include "exit_code.h"
#include "mtrack/mtrack_writer.h"

namespace ipsh {

struct SystemState {
  std::string run_directory;
  uint32_t ipd_pid;
  bool ipd_runs;
  uint32_t instance;         // how often an ipd took the database over, counted from 1
  uint32_t generation;       // batches of changes published
  uint64_t database_bytes;   // in use
  uint64_t database_window;  // at most
  uint32_t supervisor;       // 1 active, 2 standby
  uint32_t uuid;
  uint32_t contexts, interfaces, addresses;
};

[[nodiscard]] const char *supervisor_text(uint32_t state);
[[nodiscard]] SystemState read_system(const Attachment &attachment);

// Sorted by process, component and type.
[[nodiscard]] std::vector<rsw::MemoryUse> read_memory();

// Sets the supervisor state. False: *failure.
[[nodiscard]] bool set_supervisor(uint32_t state, Failure *failure);

}  // namespace ipsh

#endif
