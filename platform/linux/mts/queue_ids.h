// SPDX-License-Identifier: Apache-2.0
// What a queue's epoll set says of its own descriptors; connections have higher numbers.
#ifndef RSW_MTS_QUEUE_IDS_H
#define RSW_MTS_QUEUE_IDS_H

#include <cstdint>

namespace rsw::mts {

inline constexpr uint64_t id_of_listener = 1;
inline constexpr uint64_t id_of_ready = 2;
inline constexpr uint64_t id_of_closed = 3;

}  // namespace rsw::mts

#endif
