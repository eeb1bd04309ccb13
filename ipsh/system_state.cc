// SPDX-License-Identifier: Apache-2.0
// The numbers here come from the headers of the segments and from the platform's own reports; nothing is computed that
// a header does not say, except the counts, which are what the listings would show.
#include "system_state.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "snapshot.h"
#include "sysmgr.h"
#include "sysmgr/sysmgr_writer.h"

namespace ipsh {
namespace {

// Relaxed: numbers for display, nothing is read through them.
uint32_t shown(const uint32_t &word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

}  // namespace

const char *supervisor_text(uint32_t state) {
  if (state == rsw::supervisor_active) return "active";
  if (state == rsw::supervisor_standby) return "standby";
  return "unknown";
}

SystemState read_system(const Attachment &attachment) {
  const rsw::SegmentHeader &header = *attachment.database();
  SystemState state{};
  state.run_directory = rsw::run_directory();
  state.ipd_pid = shown(header.writer_pid);
  state.ipd_runs = attachment.writer_runs();
  state.instance = shown(header.instance);
  state.generation = shown(header.generation);
  state.database_bytes = shown(header.used_end) - shown(header.base);
  state.database_window = shown(header.size);
  state.supervisor = sysmgr_supstate_get();
  state.uuid = sysmgr_uuid_get();
  state.contexts = static_cast<uint32_t>(read_contexts().size());
  state.interfaces = static_cast<uint32_t>(read_interfaces({}).size());
  state.addresses = static_cast<uint32_t>(read_addresses({}).size());
  return state;
}

std::vector<rsw::MemoryUse> read_memory() {
  std::vector<rsw::MemoryUse> rows = rsw::mtrack_report();
  std::ranges::sort(
      rows, {}, [](const rsw::MemoryUse &use) { return std::tuple(use.pid, use.component, !use.shared, use.type); });
  return rows;
}

bool set_supervisor(uint32_t state, Failure *failure) {
  const std::string path = rsw::segment_path("/rsw/shm/sysmgr");
  if (access(path.c_str(), W_OK) != 0) {
    const int error = errno;
    if (error == EACCES || error == EPERM || error == EROFS) {
      *failure = {ExitCode::permission, fmt::format("{}: {}", path, std::strerror(error)),
                  "run ipsh as the user that runs ipd"};
    } else {
      *failure = {ExitCode::unavailable, fmt::format("no system runs in {}", rsw::run_directory()),
                  "start ipd, or name its run directory with --run-dir or RSW_RUN_DIR"};
    }
    return false;
  }
  std::string reason;
  if (rsw::sysmgr_supstate_set(state, &reason)) return true;
  *failure = {ExitCode::unavailable, fmt::format("cannot set the supervisor state: {}", reason), ""};
  return false;
}

}  // namespace ipsh
