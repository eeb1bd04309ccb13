// SPDX-License-Identifier: Apache-2.0
// Buffers of a process that has no shared pool. Private to this folder.
#ifndef RSW_MBUF_PRIVATE_BUFFERS_H
#define RSW_MBUF_PRIVATE_BUFFERS_H

#include <cstdint>

#include "mbuf/buffers.h"
#include "sm/segment.h"

namespace rsw {

// Right behind the pool's window: 16,384 buffers.
inline constexpr uint32_t private_base = 0x7c000000u;
inline constexpr uint32_t private_bytes = 32u << 20;
static_assert(private_base + private_bytes <= window_high);

inline bool is_private(const struct mbuf *m) {
  return reinterpret_cast<uintptr_t>(m) - private_base < private_bytes;
}

// Its head is as the last user left it. Null: none left, or no place for them (logged once). All calls: any thread.
struct mbuf *take_private_buffer();
void give_private_buffer_back(struct mbuf *m);
uint32_t private_buffers_in_use();

// Around fork(): the child has copies of all of them.
void lock_private_buffers_for_fork();
void unlock_private_buffers_after_fork();

}  // namespace rsw

#endif
