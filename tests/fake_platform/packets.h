// SPDX-License-Identifier: Apache-2.0
// Packets of the fake platform: a chain of buffers in low memory, each with room in front of its bytes.
//
// A pull-up keeps the packet's first buffer where it is, unless it is told to answer moves_packet: the packet then
// begins in another buffer, and the one that it began in is free.
//
//   platform().scripts.answer("m_pullup", fake_platform::moves_packet);
#ifndef TESTS_FAKE_PLATFORM_PACKETS_H
#define TESTS_FAKE_PLATFORM_PACKETS_H

#include <cstdint>
#include <span>
#include <vector>

#include "mbuf.h"

namespace fake_platform {

inline constexpr uint32_t packet_room = 2048;      // bytes behind each buffer
inline constexpr uint32_t packet_front_room = 64;  // of these, before the first valid byte

inline constexpr uintptr_t moves_packet = 2;

struct mbuf *packet_buffer(std::span<const uint8_t> bytes);
// One buffer per part.
struct mbuf *packet_chain(const std::vector<std::vector<uint8_t>> &parts);
std::vector<uint8_t> packet_bytes(const struct mbuf *packet);

}  // namespace fake_platform

#endif
