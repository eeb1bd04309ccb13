// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/outcome.h"

namespace ipd::packet {
namespace {

constexpr std::array<const char *, outcome_count> texts = {
    "done",
    "the message is too short",
    "the message is too long",
    "not a client message",
    "no such message",
    "wrong opcode",
    "the sender may not",
    "no packet of the sender's",
    "the packet is not as long as the message says",
    "not a packet that can be used",
    "a field has no possible value",
    "no such context",
    "no such interface",
    "the interface is down or cannot do it",
    "no route",
    "no source address",
    "the next hop does not answer",
    "too big, and must not be fragmented",
    "no ICMP error may be sent about it",
    "too many ICMP errors",
    "no interface has joined the group",
    "nobody takes it",
    "no room",
    "ipd lacks the privilege",
    "no memory",
    "the kernel refused",
};

}  // namespace

const char *outcome_text(Outcome outcome) {
  const auto place = static_cast<size_t>(outcome);
  return place < texts.size() ? texts[place] : "?";
}

}  // namespace ipd::packet
