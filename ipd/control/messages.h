// SPDX-License-Identifier: Apache-2.0
// The messages that the control queue takes: one row each. What is the same for all of them is checked by row, before a
// handler sees the message.
#ifndef IPD_CONTROL_MESSAGES_H
#define IPD_CONTROL_MESSAGES_H

#include <cstdint>
#include <span>

#include "ipd/control/request.h"

namespace ipd::control {

enum class Right : uint8_t {
  read,       // asks, or makes itself known
  configure,  // changes what the system does; includes the other
};

struct MessageKind {
  uint16_t minor;
  const char *name;  // what people call it
  uint32_t opcode;
  uint32_t least_size;
  uint32_t most_size;
  Right right;
  bool is_list = false;  // of interfaces: its count says how long it must be
};

// Ascending by minor type.
[[nodiscard]] std::span<const MessageKind> message_kinds();
// Null: no message that this queue takes.
[[nodiscard]] const MessageKind *find_message(uint16_t minor);

// `none` unless size, major type, minor type, opcode or the count of a list are wrong. *kind: the row, as soon as the
// minor type was found good; else null.
[[nodiscard]] Refusal check_form(std::span<const std::byte> bytes, uint32_t opcode, const MessageKind **kind);

// For the log and for people.
[[nodiscard]] const char *refusal_text(Refusal refusal);

}  // namespace ipd::control

#endif
