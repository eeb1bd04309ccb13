// SPDX-License-Identifier: Apache-2.0
// Each client gets its own copy, and none waits for another one: who has no room loses this packet, the others do not.
//
// A multicast packet is for the clients that joined its group, from any source or from its own, on the interface that
// it came in by, or that take every group there; of a packet that came in by an interface that is not known, on
// whichever. What is for all hosts of a link (224.0.0.1, broadcasts) is for every client of the protocol. A process
// that hands in a packet gets no copy of it: it has it, and would hand it in again.
//
// Clients get whole packets: of what comes from the kernel, it has put fragments together, and a fragment that a client
// hands in is for the kernel only.
//
// The kernel gets nothing back that came from it. Its groups are joined by interface and none on the device that
// packets go in by, so multicast is not for it; and it has one table for what comes in by that device, that of the
// default context, so other contexts' packets are not for it either.
#include "ipd/packet/local_delivery.h"

#include <cerrno>
#include <cstring>

#include "ip_packet.h"
#include "ipd/config.h"
#include "ipd/control/reply.h"
#include "ipd/packet/ipv4.h"

namespace ipd::packet {
namespace {

constexpr uint32_t all_hosts = 0xe0000001;

Outcome outcome_of(int error) {
  switch (error) {
    case 0:
      return Outcome::done;
    case EPERM:
    case EACCES:
      return Outcome::no_privilege;
    case ENOMEM:
    case ENOBUFS:
      return Outcome::no_memory;
    default:
      return Outcome::kernel;
  }
}

ip_msg_input message_of(const Arrival &arrival, size_t length) {
  ip_msg_input message{};
  message.header = control::reply_header(IP_MSG_INPUT);
  message.iod = arrival.iod;
  message.context_id = arrival.context_id;
  message.packet_len = static_cast<uint16_t>(length);
  std::memcpy(message.src_l2_addr, arrival.src_l2.data(), sizeof message.src_l2_addr);
  return message;
}

}  // namespace

Outcome Distribution::deliver(const Arrival &arrival, std::span<const std::byte> packet) {
  const Outcome clients = ipv4::is_fragment(packet) ? Outcome::no_receiver : to_clients(arrival, packet);
  const Outcome kernel = to_kernel(arrival, packet);
  if (clients == Outcome::done || kernel == Outcome::done) return Outcome::done;
  return clients == Outcome::no_receiver ? kernel : clients;
}

Outcome Distribution::to_clients(const Arrival &arrival, std::span<const std::byte> packet) {
  const uint32_t destination = ipv4::destination(packet);
  const bool for_members = ipv4::is_multicast(destination) && destination != all_hosts;
  const ip_msg_input message = message_of(arrival, packet.size());
  Outcome best = Outcome::no_receiver;
  for (const Receiver &receiver : receivers_.of(ipv4::protocol(packet))) {
    if (receiver.pid == arrival.from_pid) continue;
    Outcome outcome = Outcome::no_member;
    if (!for_members || memberships_.wants(receiver.pid, arrival.iod, destination, ipv4::source(packet))) {
      ip_msg_input own = message;
      outcome = delivery_.deliver(receiver, std::as_writable_bytes(std::span(&own, 1)), packet);
    }
    if (best == Outcome::no_receiver || best == Outcome::no_member || outcome == Outcome::done) best = outcome;
  }
  return best;
}

Outcome Distribution::to_kernel(const Arrival &arrival, std::span<const std::byte> packet) {
  const bool takes = kernel_ != nullptr && !arrival.from_kernel && arrival.context_id == default_context_id &&
                     !ipv4::is_multicast(ipv4::destination(packet));
  return takes ? outcome_of(kernel_->input(packet)) : Outcome::no_receiver;
}

}  // namespace ipd::packet
