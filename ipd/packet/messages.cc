// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/messages.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "ip_packet.h"

namespace ipd::packet {
namespace {

template <class Record>
constexpr MessageKind with_packet(uint16_t minor, const char *name) {
  return {minor, name, sizeof(Record), true, offsetof(Record, packet_len), offsetof(Record, iod)};
}

constexpr std::array kinds = {
    with_packet<ip_msg_input>(IP_MSG_INPUT, "input"),
    with_packet<ip_msg_output>(IP_MSG_OUTPUT, "output"),
    with_packet<ip_msg_icmp_output>(IP_MSG_ICMP_OUTPUT, "ICMP output"),
    with_packet<ip_msg_replicate>(IP_MSG_REPLICATE, "replicate"),
    with_packet<ip_msg_icmp_error>(IP_MSG_ICMP_ERROR, "ICMP error"),
    MessageKind{IP_MSG_DRIVER_ICMP, "driver ICMP error", sizeof(ip_msg_driver_icmp), false, 0, 0},
    with_packet<ip_msg_output_l2>(IP_MSG_OUTPUT_L2, "layer-2 output"),
    with_packet<ip_msg_input>(IP_MSG_CONSUME, "consume"),
    with_packet<ip_msg_output_l2>(IP_MSG_OUTPUT_L2_DCE, "layer-2 output DCE"),
    with_packet<ip_msg_output_l2>(IP_MSG_OUTPUT_L2_MVR, "layer-2 output MVR"),
};

}  // namespace

std::span<const MessageKind> message_kinds() {
  return kinds;
}

const MessageKind *find_message(uint16_t minor) {
  const auto *found = std::ranges::find(kinds, minor, &MessageKind::minor);
  return found == kinds.end() ? nullptr : found;
}

}  // namespace ipd::packet
