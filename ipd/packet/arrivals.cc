// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/arrivals.h"

#include "ipd/config.h"
#include "ipd/packet/ipv4.h"

namespace ipd::packet {

Outcome find_place(const control::Box &box, const LocalAddresses &addresses, uint32_t iod, uint32_t context_id,
                   ArrivalPlace *place) {
  *place = {.iod = iod, .context_id = default_context_id};
  if (iod != 0) {
    const auto facts = box.interface(iod);
    if (!facts) return Outcome::no_interface;
    place->context_id = facts->state.context_id;
    place->loopback = facts->state.loopback;
  }
  if (context_id == 0 || context_id == place->context_id) return Outcome::done;
  place->context_id = context_id;
  return addresses.has_context(context_id) ? Outcome::done : Outcome::no_context;
}

bool is_possible_source(uint32_t source, uint32_t destination, bool loopback) {
  if (source == 0) return ipv4::is_multicast(destination) || ipv4::is_limited_broadcast(destination);
  if (ipv4::is_loopback(source)) return loopback;
  return source >> 24 != 0 && source >> 28 < 0xe;
}

}  // namespace ipd::packet
