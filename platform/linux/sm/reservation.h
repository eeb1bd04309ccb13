// SPDX-License-Identifier: Apache-2.0
// The range of addresses that all segments of a process share.
#ifndef RSW_SM_RESERVATION_H
#define RSW_SM_RESERVATION_H

#include <cstdint>
#include <string>

namespace rsw {

// Makes [window_low, window_high) readable zeros, once per process; later calls only confirm it.
// Threads: any. Blocks: no. False: *reason names what is in the way, errno says why.
bool reserve_windows(std::string *reason);

// Puts readable zeros back where a segment was mapped.
void restore_reservation(uint32_t base, uint32_t size);

}  // namespace rsw

#endif
