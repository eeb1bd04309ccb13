// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/messages.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "ip_show.h"

namespace ipd::control {
namespace {

constexpr MessageKind standard(uint16_t minor, const char *name, Right right) {
  return {.minor = minor,
          .name = name,
          .opcode = IP_OPCODE_CLIENT,
          .least_size = IP_MSG_SIZE,
          .most_size = IP_MSG_SIZE,
          .right = right};
}

constexpr MessageKind interface_list(uint16_t minor, const char *name) {
  MessageKind kind = standard(minor, name, Right::configure);
  kind.most_size = IP_MAX_IPC_PAYLOAD;
  kind.is_list = true;
  return kind;
}

constexpr MessageKind show(uint16_t minor, const char *name) {
  MessageKind kind = standard(minor, name, Right::read);
  kind.least_size = kind.most_size = sizeof(ip_msg_show);
  return kind;
}

constexpr std::array kinds{
    standard(IP_MSG_REGISTER, "register", Right::read),
    standard(IP_MSG_DEREGISTER, "deregister", Right::read),
    MessageKind{.minor = IP_MSG_CONFIG_ADDRESS,
                .name = "configure address",
                .opcode = IP_OPCODE_CONFIGURE,
                .least_size = IP_MSG_SIZE,
                .most_size = IP_MSG_SIZE,
                .right = Right::configure},
    standard(IP_MSG_JOIN_GROUP, "join group", Right::configure),
    standard(IP_MSG_LEAVE_GROUP, "leave group", Right::configure),
    standard(IP_MSG_DOWNLOAD_IF_INFO, "download interface information", Right::read),
    standard(IP_MSG_LOAD_SHARE_CFG, "load-share configuration", Right::read),
    standard(IP_MSG_REPORT_LINK_LOCAL, "report link-local", Right::read),
    standard(IP_MSG_SET_UNNUMBERED, "set unnumbered", Right::configure),
    standard(IP_MSG_UNSET_UNNUMBERED, "unset unnumbered", Right::configure),
    interface_list(IP_MSG_REDIRECT_DISABLE, "disable redirects"),
    // Its caller chooses how long it is.
    MessageKind{.minor = IP_MSG_GET_IF_STATS,
                .name = "interface statistics",
                .opcode = IP_OPCODE_CLIENT,
                .least_size = sizeof(ip_msg_if_stats_request),
                .most_size = IP_MAX_IPC_PAYLOAD,
                .right = Right::read},
    interface_list(IP_MSG_UNNUMBERED_PSS_CLEANUP, "clean up unnumbered"),
    show(IP_MSG_SHOW_CLIENTS, "show clients"),
    show(IP_MSG_SHOW_REGISTRATIONS, "show registrations"),
    show(IP_MSG_SHOW_MESSAGES, "show messages"),
    show(IP_MSG_SHOW_PACKETS, "show packets"),
    // Packets are as good as what they carry.
    MessageKind{.minor = IP_MSG_CAPTURE,
                .name = "capture",
                .opcode = IP_OPCODE_CLIENT,
                .least_size = sizeof(ip_msg_capture),
                .most_size = sizeof(ip_msg_capture),
                .right = Right::configure},
};
static_assert(std::ranges::is_sorted(kinds, {}, &MessageKind::minor));

template <class Value>
Value value_at(std::span<const std::byte> bytes, size_t offset) {
  Value value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

Refusal compare(uint64_t size, uint64_t wanted) {
  if (size == wanted) return Refusal::none;
  return size < wanted ? Refusal::too_short : Refusal::too_long;
}

}  // namespace

std::span<const MessageKind> message_kinds() {
  return kinds;
}

const MessageKind *find_message(uint16_t minor) {
  const auto found = std::ranges::lower_bound(kinds, minor, {}, &MessageKind::minor);
  return found != kinds.end() && found->minor == minor ? &*found : nullptr;
}

Refusal check_form(std::span<const std::byte> bytes, uint32_t opcode, const MessageKind **kind) {
  *kind = nullptr;
  if (bytes.size() < sizeof(ip_msg_header)) return Refusal::too_short;
  if (value_at<uint16_t>(bytes, offsetof(ip_msg_header, major_type)) != IP_MAJOR_CLIENT) return Refusal::wrong_major;
  *kind = find_message(value_at<uint16_t>(bytes, offsetof(ip_msg_header, minor_type)));
  if (*kind == nullptr) return Refusal::unknown_minor;
  if (opcode != (*kind)->opcode) return Refusal::wrong_opcode;
  if (bytes.size() < (*kind)->least_size) return Refusal::too_short;
  if (bytes.size() > (*kind)->most_size) return Refusal::too_long;
  if (!(*kind)->is_list) return Refusal::none;
  // In 64 bits: the count is whatever the sender wrote.
  const uint64_t count = value_at<uint32_t>(bytes, offsetof(ip_msg_interface_list, count));
  return compare(bytes.size(), IP_MSG_SIZE + sizeof(uint32_t) * count);
}

const char *refusal_text(Refusal refusal) {
  switch (refusal) {
    case Refusal::none:
      return "done";
    case Refusal::too_short:
      return "too short";
    case Refusal::too_long:
      return "too long";
    case Refusal::wrong_major:
      return "not a client's message";
    case Refusal::unknown_minor:
      return "no message that is known here";
    case Refusal::wrong_opcode:
      return "sent as another message";
    case Refusal::bad_field:
      return "a field has no valid value";
    case Refusal::no_interface:
      return "no such interface";
    case Refusal::not_allowed:
      return "not allowed";
    case Refusal::name_taken:
      return "another process has that registration";
    case Refusal::not_registered:
      return "no such registration, or nothing like that is held";
    case Refusal::limit:
      return "more than one process may hold";
    case Refusal::kernel:
      return "the kernel refused";
    case Refusal::no_answer:
      return "the answer could not be delivered";
  }
  return "unknown";
}

}  // namespace ipd::control
