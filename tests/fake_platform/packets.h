// SPDX-License-Identifier: Apache-2.0
// Packets of the fake platform: a chain of buffers in low memory, each with room in front of its bytes.
#ifndef TESTS_FAKE_PLATFORM_PACKETS_H
#define TESTS_FAKE_PLATFORM_PACKETS_H

#include <cstdint>
#include <span>
#include <vector>

#include "mbuf.h"

namespace fake_platform {

inline constexpr uint32_t packet_room = 2048;      // bytes behind each buffer
inline constexpr uint32_t packet_front_room = 64;  // of these, before the first valid byte

struct mbuf *packet_buffer(std::span<const uint8_t> bytes);
// One buffer per part.
struct mbuf *packet_chain(const std::vector<std::vector<uint8_t>> &parts);
std::vector<uint8_t> packet_bytes(const struct mbuf *packet);

}  // namespace fake_platform

#endif
