// SPDX-License-Identifier: Apache-2.0
// What became of a packet that a client handed over, or that is for one.
#ifndef IPD_PACKET_OUTCOME_H
#define IPD_PACKET_OUTCOME_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace ipd::packet {

// They are counted by message and outcome. The numbers are those of ip_show.h.
enum class Outcome : uint8_t {
  done,            // sent, or delivered, as asked
  too_short,       // the message is less than its record
  too_long,        // more than its record, and no packet behind it is expected
  wrong_major,     // no client message
  unknown_minor,   // no message that this queue takes
  wrong_opcode,    // not the opcode of packets
  not_allowed,     // the sender lacks the right
  bad_reference,   // it names no packet of the sender's
  bad_length,      // the packet is not as long as the message says
  bad_packet,      // no IPv4 packet, or one that nobody may send or receive
  bad_field,       // another field has a value that makes no sense
  no_context,      // there is no such context
  no_interface,    // no such interface
  interface_down,  // or it cannot do what is asked, as multicast
  no_route,        // nothing leads there
  no_source,       // the packet wants a source address, and there is none
  no_neighbor,     // who is to get the frame does not answer
  too_big,         // it does not fit the interface, and must not be fragmented
  not_eligible,    // about this packet no ICMP error may be sent
  rate_limited,    // enough ICMP errors were sent for now
  no_member,       // no interface has joined the group
  no_receiver,     // nobody takes packets of this protocol
  queue_full,      // the receiver, or what waits for a neighbour, has no room
  no_privilege,    // we run without the right that it takes
  no_memory,
  kernel,  // the kernel refused
};
inline constexpr size_t outcome_count = 26;

// For the log and for people.
[[nodiscard]] const char *outcome_text(Outcome outcome);

using OutcomeCounts = std::array<uint64_t, outcome_count>;

}  // namespace ipd::packet

#endif
