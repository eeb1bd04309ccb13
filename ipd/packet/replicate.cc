// SPDX-License-Identifier: Apache-2.0
// Who asks for copies forwards: it has found the packet fit for that and has counted its TTL down, so the TTL leaves as
// it is. With a TTL of 0 the packet has come to the end of its way (RFC 1112, 6.1), and so has one to a group of the
// link (224.0.0.0/24, RFC 5771) at any TTL: no copy leaves, but this system's own members may have theirs. With a TTL
// of 1 it goes out once more, for the hosts of the next link.
//
// Total length and checksum may be zero as in every packet that is sent. Given ones have to be good: copies of what is
// damaged would look as if it were not. A source there must be, since another one on each link would make another
// packet of each copy.
//
// An interface has joined a group when a client joined it there, from any source or from the packet's. Who takes every
// group on an interface has not asked for this one. No copy goes to the interface that the packet came in by, to a
// loopback interface, or into another context.
#include "ipd/packet/replicate.h"

#include "ip_packet.h"
#include "ipd/packet/ipv4.h"

namespace ipd::packet {
namespace {

bool is_of_the_link(uint32_t group) {
  return group >> 8 == 0xe00000;
}

// False: it can be sent nowhere.
bool complete(std::span<std::byte> packet) {
  if (!ipv4::is_multicast(ipv4::destination(packet)) || ipv4::source(packet) == 0) return false;
  if (!is_possible_source(ipv4::source(packet), ipv4::destination(packet), false)) return false;
  const bool has_checksum = ipv4::checksum(packet) != 0;
  if (has_checksum && !ipv4::checksum_is_good(packet)) return false;
  if (ipv4::total_length(packet) != packet.size()) {
    ipv4::write16(packet, ipv4::total_length_at, static_cast<uint16_t>(packet.size()));
    ipv4::write_checksum(packet);
  } else if (!has_checksum) {
    ipv4::write_checksum(packet);
  }
  return true;
}

}  // namespace

Outcome Replicate::handle(Request &request) {
  const auto message = request.as<ip_msg_replicate>();
  ArrivalPlace place;
  const Outcome found = find_place(box_, addresses_, message.iod, message.context_id, &place);
  if (found != Outcome::done) return found;
  if (!complete(request.packet)) return Outcome::bad_packet;
  const bool stays = is_of_the_link(ipv4::destination(request.packet)) || ipv4::ttl(request.packet) == 0;
  const bool local = (message.flags & IP_REPLICATE_LOCAL) != 0;
  if (stays && !local) return Outcome::bad_packet;
  Outcome outcome = stays ? Outcome::no_member : to_links(place, request.packet);
  if (!local) return outcome;
  const Outcome here = delivery_.deliver(
      {.iod = place.iod, .context_id = place.context_id, .from_pid = request.sender.pid}, request.packet);
  return here == Outcome::done || outcome == Outcome::no_member ? here : outcome;
}

Outcome Replicate::to_links(const ArrivalPlace &place, std::span<const std::byte> packet) {
  bool sent = false;
  Outcome first = Outcome::done;
  for (const uint32_t iod : memberships_.interfaces_with(ipv4::destination(packet), ipv4::source(packet))) {
    const auto facts = iod == place.iod ? std::nullopt : box_.interface(iod);
    if (!facts || facts->state.loopback || facts->state.context_id != place.context_id) continue;
    const Outcome outcome = facts->state.up ? send(iod, place, packet) : Outcome::interface_down;
    sent = sent || outcome == Outcome::done;
    if (first == Outcome::done) first = outcome;
  }
  if (sent) return Outcome::done;
  return first == Outcome::done ? Outcome::no_member : first;
}

Outcome Replicate::send(uint32_t iod, const ArrivalPlace &place, std::span<const std::byte> packet) {
  copy_.assign(packet.begin(), packet.end());
  Way way;
  way.iod = iod;
  way.context_id = static_cast<int32_t>(place.context_id);
  return output_.send(way, copy_);
}

}  // namespace ipd::packet
