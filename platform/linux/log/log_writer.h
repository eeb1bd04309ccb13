// SPDX-License-Identifier: Apache-2.0
// The log and debug channels beyond the contract: librsw's own lines to the operator, the event history for whoever
// shows it, and a second look at the environment. docs/environment.md lists the variables.
#ifndef RSW_LOG_LOG_WRITER_H
#define RSW_LOG_LOG_WRITER_H

#include <cstdint>
#include <functional>

#include "sm/run_dir.h"

namespace rsw {

// One line to the operator, where the catalogue's lines go: why an attach failed, who holds memory up.
//   severity  as in syslog(3), 0 most severe; above the facility's level the line is dropped
// Threads: any. Blocks: as write(2) to standard error and syslog(3) do. errno is kept. A line break at the end is
// dropped, other control characters become '?', at most 1023 characters are kept.
RSW_EXPORT void log_line(uint32_t severity, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Takes RSW_LOG, RSW_LOG_LEVEL, RSW_DEBUG and RSW_HISTORY as they are now; librsw does so by itself when it is loaded.
// For a program that changes its own environment, before it has threads (getenv and setenv are no pair for threads).
RSW_EXPORT void read_log_environment();

// One event that sdwrap_hist_event kept.
struct HistoryEvent {
  uint64_t number;        // 0 is the process's first
  uint64_t monotonic_ns;  // CLOCK_MONOTONIC at the event
  uint32_t subtype;
  uint32_t level;
  char text[160];  // NUL-terminated, cut to fit
};

// Shows the kept events, oldest first, each as a copy of its own; events that come meanwhile may or may not be shown.
// Threads: any; `show` may itself log or add events. Results: how many were shown.
RSW_EXPORT uint32_t each_history_event(const std::function<void(const HistoryEvent &)> &show);

}  // namespace rsw

#endif
