// SPDX-License-Identifier: Apache-2.0
// What a client says about a packet that it received by itself: where it came in, and whether it could have.
#ifndef IPD_PACKET_ARRIVALS_H
#define IPD_PACKET_ARRIVALS_H

#include <cstdint>
#include <span>

#include "ipd/control/box.h"
#include "ipd/packet/local.h"
#include "ipd/packet/local_addresses.h"
#include "ipd/packet/outcome.h"

namespace ipd::packet {

struct ArrivalPlace {
  uint32_t iod = 0;  // 0: not known
  uint32_t context_id = 0;
  bool loopback = false;  // the interface is one
};

// `iod` 0: not known. `context_id` 0: the interface's, else the default context. Results: done; no_interface;
// no_context.
[[nodiscard]] Outcome find_place(const control::Box &box, const LocalAddresses &addresses, uint32_t iod,
                                 uint32_t context_id, ArrivalPlace *place);

// Whether a packet on a wire may have this source (RFC 1122, 3.2.1.3): a host's address, and a loopback address only
// where the interface is one. 0.0.0.0 is who does not know his address yet, and asks everybody.
[[nodiscard]] bool is_possible_source(uint32_t source, uint32_t destination, bool loopback);

}  // namespace ipd::packet

#endif
