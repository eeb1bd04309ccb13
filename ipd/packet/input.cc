// SPDX-License-Identifier: Apache-2.0
// The client stands where a driver would, so the packet is looked at as one from a wire (RFC 1122, 3.2.1): its header's
// checksum and length have to be good, and its source has to be one that a packet from there can have: no loopback
// address but by a loopback interface, no group, no broadcast address, and none of our own.
//
// It is processed locally and not forwarded: one for another system has no receiver here. Whose it is, the context says
// that the message names; that may be another one than the interface's.
#include "ipd/packet/input.h"

#include <algorithm>

#include "ip_packet.h"
#include "ipd/packet/ipv4.h"

namespace ipd::packet {

bool Input::may_have_come(const ArrivalPlace &place, std::span<const std::byte> packet) const {
  const uint32_t source = ipv4::source(packet);
  if (!is_possible_source(source, ipv4::destination(packet), place.loopback)) return false;
  if (place.loopback) return true;
  return !addresses_.is_local(place.context_id, source) && !addresses_.is_broadcast(place.iod, source);
}

// Groups are looked up by whoever delivers: they are joined by each process for itself.
bool Input::is_for_us(const ArrivalPlace &place, uint32_t destination) const {
  if (ipv4::is_multicast(destination) || ipv4::is_limited_broadcast(destination)) return true;
  if (ipv4::is_loopback(destination)) return place.loopback;
  return addresses_.is_local(place.context_id, destination) || addresses_.is_broadcast(place.iod, destination);
}

Outcome Input::handle(Request &request) {
  const auto message = request.as<ip_msg_input>();
  ArrivalPlace place;
  const Outcome found = find_place(box_, addresses_, message.iod, message.context_id, &place);
  if (found != Outcome::done) return found;
  const bool good = ipv4::total_length(request.packet) == request.packet.size() &&
                    ipv4::checksum_is_good(request.packet) && may_have_come(place, request.packet);
  if (!good) return Outcome::bad_packet;
  if (!is_for_us(place, ipv4::destination(request.packet))) return Outcome::no_receiver;
  Arrival arrival{.iod = place.iod, .context_id = place.context_id, .from_pid = request.sender.pid};
  if (request.minor == IP_MSG_CONSUME) std::ranges::copy(message.src_l2_addr, arrival.src_l2.begin());
  return delivery_.deliver(arrival, request.packet);
}

}  // namespace ipd::packet
