// SPDX-License-Identifier: Apache-2.0
// Queue handles of this process.
#ifndef RSW_MTS_QUEUE_TABLE_H
#define RSW_MTS_QUEUE_TABLE_H

#include <cstdint>
#include <memory>

#include "mts/queue.h"

namespace rsw::mts {

inline constexpr uint32_t no_queue = ~uint32_t{0};

// Binds and enters a queue; no_queue: *error.
uint32_t add_queue(int32_t sap, uint32_t module, const char *name, int *error);
// Null: errno is EBADF, or ECHILD for a queue that a parent bound.
std::shared_ptr<Queue> queue_of(uint32_t handle);
// As queue_of, and takes it out.
std::shared_ptr<Queue> remove_queue(uint32_t handle);

}  // namespace rsw::mts

#endif
