// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/show.h"

#include "ipd/control/show_page.h"

namespace ipd::packet {
namespace {

static_assert(outcome_count == IP_SHOW_PACKET_OUTCOMES);
static_assert(outcome_count <= std::extent_v<decltype(ip_show_packets::counts)>);
static_assert(static_cast<uint32_t>(Outcome::done) == IP_SHOW_PACKET_DONE);
static_assert(static_cast<uint32_t>(Outcome::too_short) == IP_SHOW_PACKET_TOO_SHORT);
static_assert(static_cast<uint32_t>(Outcome::too_long) == IP_SHOW_PACKET_TOO_LONG);
static_assert(static_cast<uint32_t>(Outcome::wrong_major) == IP_SHOW_PACKET_WRONG_MAJOR);
static_assert(static_cast<uint32_t>(Outcome::unknown_minor) == IP_SHOW_PACKET_UNKNOWN_MINOR);
static_assert(static_cast<uint32_t>(Outcome::wrong_opcode) == IP_SHOW_PACKET_WRONG_OPCODE);
static_assert(static_cast<uint32_t>(Outcome::not_allowed) == IP_SHOW_PACKET_NOT_ALLOWED);
static_assert(static_cast<uint32_t>(Outcome::bad_reference) == IP_SHOW_PACKET_BAD_REFERENCE);
static_assert(static_cast<uint32_t>(Outcome::bad_length) == IP_SHOW_PACKET_BAD_LENGTH);
static_assert(static_cast<uint32_t>(Outcome::bad_packet) == IP_SHOW_PACKET_BAD_PACKET);
static_assert(static_cast<uint32_t>(Outcome::bad_field) == IP_SHOW_PACKET_BAD_FIELD);
static_assert(static_cast<uint32_t>(Outcome::no_context) == IP_SHOW_PACKET_NO_CONTEXT);
static_assert(static_cast<uint32_t>(Outcome::no_interface) == IP_SHOW_PACKET_NO_INTERFACE);
static_assert(static_cast<uint32_t>(Outcome::interface_down) == IP_SHOW_PACKET_INTERFACE_DOWN);
static_assert(static_cast<uint32_t>(Outcome::no_route) == IP_SHOW_PACKET_NO_ROUTE);
static_assert(static_cast<uint32_t>(Outcome::no_source) == IP_SHOW_PACKET_NO_SOURCE);
static_assert(static_cast<uint32_t>(Outcome::no_neighbor) == IP_SHOW_PACKET_NO_NEIGHBOR);
static_assert(static_cast<uint32_t>(Outcome::too_big) == IP_SHOW_PACKET_TOO_BIG);
static_assert(static_cast<uint32_t>(Outcome::not_eligible) == IP_SHOW_PACKET_NOT_ELIGIBLE);
static_assert(static_cast<uint32_t>(Outcome::rate_limited) == IP_SHOW_PACKET_RATE_LIMITED);
static_assert(static_cast<uint32_t>(Outcome::no_member) == IP_SHOW_PACKET_NO_MEMBER);
static_assert(static_cast<uint32_t>(Outcome::no_receiver) == IP_SHOW_PACKET_NO_RECEIVER);
static_assert(static_cast<uint32_t>(Outcome::queue_full) == IP_SHOW_PACKET_QUEUE_FULL);
static_assert(static_cast<uint32_t>(Outcome::no_privilege) == IP_SHOW_PACKET_NO_PRIVILEGE);
static_assert(static_cast<uint32_t>(Outcome::no_memory) == IP_SHOW_PACKET_NO_MEMORY);
static_assert(static_cast<uint32_t>(Outcome::kernel) == IP_SHOW_PACKET_KERNEL);

// Deliveries come behind every kind of message that there can be.
constexpr uint32_t order_of_deliveries = UINT16_MAX + 2u;

ip_show_packets entry_of(uint32_t order, uint16_t minor, const char *name, uint32_t direction,
                         const MessageCounts &counts) {
  ip_show_packets entry{};
  entry.order = order;
  entry.minor = minor;
  control::copy_show_text(entry.name, name);
  entry.direction = direction;
  control::set_show_count(entry.received, counts.received);
  control::set_show_count(entry.bytes, counts.bytes);
  for (size_t i = 0; i < outcome_count; ++i) control::set_show_count(entry.counts[i], counts.by_outcome[i]);
  return entry;
}

}  // namespace

control::Refusal Show::handle(const control::Request &request) {
  // Nobody could receive it.
  if (!request.wants_answer) return control::Refusal::bad_field;
  const uint32_t after = request.as<ip_msg_show>().after;
  std::vector<ip_show_packets> entries;
  for (const auto &[minor, counts] : service_.counts()) {
    const uint32_t order = uint32_t{minor} + 1;
    if (order <= after) continue;
    const MessageKind *kind = find_message(minor);
    entries.push_back(entry_of(order, minor, kind == nullptr ? "others" : kind->name, IP_SHOW_FROM_CLIENT, counts));
  }
  if (order_of_deliveries > after) {
    entries.push_back(
        entry_of(order_of_deliveries, IP_MSG_INPUT, "delivery", IP_SHOW_TO_CLIENT, service_.deliveries()));
  }
  return control::answer_page(transport_, request, entries);
}

}  // namespace ipd::packet
