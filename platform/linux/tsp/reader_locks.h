// SPDX-License-Identifier: Apache-2.0
// Opening either reader lock from C++. Everything else about a handle goes through tsp.h.
#ifndef RSW_TSP_READER_LOCKS_H
#define RSW_TSP_READER_LOCKS_H

#include <cstdint>
#include <string>

#include "tsp/epochs.h"

namespace rsw {

// Opens a lock for this process and attaches its slots: 1 for the database, 2 for URIB.
// Threads: any. Blocks: for some milliseconds, the first time in a process.
// Counted: one tsp_destroy_lock(handle) for each. 0: *reason says why; there is no writer yet, as a rule.
RSW_EXPORT uint32_t open_reader_lock(Domain domain, std::string *reason);

}  // namespace rsw

#endif
