// SPDX-License-Identifier: Apache-2.0
// The supervisor state beyond the contract: who makes the segment, and who changes the state.
#ifndef RSW_SYSMGR_SYSMGR_WRITER_H
#define RSW_SYSMGR_SYSMGR_WRITER_H

#include <cstdint>
#include <string>

#include "sm/run_dir.h"

namespace rsw {

inline constexpr uint32_t supervisor_active = 1;
inline constexpr uint32_t supervisor_standby = 2;

// Makes the segment (state active, a fresh uuid) unless it is there, and keeps it mapped: for ipd. A state that
// somebody set outlives ipd's restart. Threads: any. Blocks: no. False: *reason.
RSW_EXPORT bool sysmgr_open_for_writing(std::string *reason);

// Sets the state in the segment; needs write permission on its file, and no ipd. Every attached process sees the new
// state at its next question. Threads: any. Blocks: no. False: *reason (no such state, no segment, no permission).
RSW_EXPORT bool sysmgr_supstate_set(uint32_t state, std::string *reason);

}  // namespace rsw

#endif
