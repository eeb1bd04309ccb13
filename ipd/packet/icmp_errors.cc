// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/icmp_errors.h"

#include <algorithm>
#include <array>
#include <limits>

#include "ip_packet.h"
#include "ipd/packet/icmp.h"
#include "ipd/packet/icmp_rules.h"
#include "ipd/packet/ipv4.h"

namespace ipd::packet {
namespace {

Outcome outcome_of(Objection objection) {
  switch (objection) {
    case Objection::none:
      return Outcome::done;
    case Objection::no_packet:
      return Outcome::bad_packet;
    default:
      return Outcome::not_eligible;
  }
}

// The primary one, if it means anything to somebody else.
uint32_t source_of(std::span<const AddressState> arrival) {
  const auto found =
      std::ranges::find_if(arrival, [](const AddressState &each) { return !ipv4::is_loopback(each.addr); });
  return found == arrival.end() ? 0 : found->addr;
}

}  // namespace

Outcome IcmpErrors::handle(Request &request) {
  if (request.minor == IP_MSG_ICMP_ERROR) {
    const auto asked = request.as<ip_msg_icmp_error>();
    return send_error({.type = asked.type,
                       .code = asked.code,
                       .rest_of_header = asked.rest_of_header,
                       .iod = asked.iod,
                       .context_id = asked.context_id,
                       .packet = request.packet});
  }
  const auto asked = request.as<ip_msg_driver_icmp>();
  if (asked.quoted_len < IP_QUOTED_MIN || asked.quoted_len > IP_QUOTED_MAX) return Outcome::bad_field;
  return send_error({.type = asked.type,
                     .code = asked.code,
                     .packet = std::as_bytes(std::span(asked.quoted)).first(asked.quoted_len)});
}

Outcome IcmpErrors::send_error(const Wish &wish) {
  if (!icmp::is_error_to_send(wish.type, wish.code)) return Outcome::bad_field;
  if (wish.context_id > std::numeric_limits<int32_t>::max()) return Outcome::no_context;
  if (wish.iod == 0) return send_error(wish, wish.context_id != 0 ? wish.context_id : default_context_id, {});
  const auto facts = box_.interface(wish.iod);
  if (!facts) return Outcome::no_interface;
  return send_error(wish, wish.context_id != 0 ? wish.context_id : facts->state.context_id, addresses_of(*facts));
}

Outcome IcmpErrors::send_error(const Wish &wish, uint32_t context_id, std::span<const AddressState> arrival) {
  Objection objection = objection_to_error(wish.packet, box_.addresses_of_context(context_id));
  if (objection == Objection::none && wish.type == icmp::redirect) {
    objection = objection_to_redirect(wish.packet, wish.rest_of_header, arrival);
  }
  if (objection != Objection::none) return outcome_of(objection);
  const uint32_t destination = ipv4::source(wish.packet);
  if (!limits_.take(now_(), context_id, destination)) return Outcome::rate_limited;

  Way way;
  way.context_id = static_cast<int32_t>(context_id);
  const uint32_t towards = output_.source_towards(way, destination);
  std::array<std::byte, largest_icmp_error> room;
  const size_t length = build_icmp_error({.type = static_cast<uint8_t>(wish.type),
                                          .code = static_cast<uint8_t>(wish.code),
                                          .rest_of_header = rest_of_header(wish, way)},
                                         wish.packet, towards != 0 ? towards : source_of(arrival), room);
  return output_.send(way, std::span(room).first(length));
}

uint32_t IcmpErrors::rest_of_header(const Wish &wish, const Way &way) const {
  const bool is_mtu = wish.type == icmp::unreachable && wish.code == icmp::fragmentation_needed;
  if (!is_mtu || wish.rest_of_header != 0) return wish.rest_of_header;
  const uint32_t mtu = output_.mtu_towards(way, ipv4::destination(wish.packet));
  return mtu < std::max<size_t>(ipv4::total_length(wish.packet), wish.packet.size()) ? mtu : 0;
}

// Those of whom it borrows from when it has none of its own.
std::vector<AddressState> IcmpErrors::addresses_of(const control::InterfaceFacts &facts) const {
  if (!facts.addresses.empty() || facts.lender_iod == 0) return facts.addresses;
  const auto lender = box_.interface(facts.lender_iod);
  return lender ? lender->addresses : std::vector<AddressState>{};
}

}  // namespace ipd::packet
