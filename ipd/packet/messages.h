// SPDX-License-Identifier: Apache-2.0
// The messages that the packet queue takes: one row each.
#ifndef IPD_PACKET_MESSAGES_H
#define IPD_PACKET_MESSAGES_H

#include <cstdint>
#include <span>

namespace ipd::packet {

struct MessageKind {
  uint16_t minor;
  const char *name;    // what people call it
  uint32_t size;       // of the record; what stands behind it is the packet
  bool has_packet;     // by segments or by reference
  uint32_t length_at;  // where it says how long the packet is
  uint32_t iod_at;     // where it names an interface; 0: nowhere
};

// Ascending by minor type.
[[nodiscard]] std::span<const MessageKind> message_kinds();
// Null: no message that this queue takes.
[[nodiscard]] const MessageKind *find_message(uint16_t minor);

}  // namespace ipd::packet

#endif
