// SPDX-License-Identifier: Apache-2.0
// What dead processes left in the pool. Private to this folder.
#ifndef RSW_MBUF_RECLAIM_H
#define RSW_MBUF_RECLAIM_H

#include <cstdint>

namespace rsw::pool {

// Looks at every entry, buffer and group at once, and takes back those of processes that do not exist. The process is
// attached. Results: how many buffers.
uint32_t take_back_everything();

}  // namespace rsw::pool

#endif
