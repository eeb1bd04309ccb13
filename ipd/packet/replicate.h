// SPDX-License-Identifier: Apache-2.0
// IP_MSG_REPLICATE: a multicast packet, to every interface that has joined its group.
#ifndef IPD_PACKET_REPLICATE_H
#define IPD_PACKET_REPLICATE_H

#include <cstdint>
#include <vector>

#include "ipd/control/box.h"
#include "ipd/control/memberships.h"
#include "ipd/packet/arrivals.h"
#include "ipd/packet/handler.h"
#include "ipd/packet/local.h"
#include "ipd/packet/local_addresses.h"
#include "ipd/packet/output.h"

namespace ipd::packet {

class Replicate final : public Handler {
 public:
  // All outlive it.
  Replicate(const control::Box &box, const LocalAddresses &addresses, const control::Memberships &memberships,
            Output &output, LocalDelivery &delivery)
      : box_(box), addresses_(addresses), memberships_(memberships), output_(output), delivery_(delivery) {}

  // Done: one copy at least went where it was to go. Else why the first one did not.
  Outcome handle(Request &request) override;

 private:
  Outcome to_links(const ArrivalPlace &place, std::span<const std::byte> packet);
  Outcome send(uint32_t iod, const ArrivalPlace &place, std::span<const std::byte> packet);

  const control::Box &box_;
  const LocalAddresses &addresses_;
  const control::Memberships &memberships_;
  Output &output_;
  LocalDelivery &delivery_;
  std::vector<std::byte> copy_;  // what is sent: sending may change it
};

}  // namespace ipd::packet

#endif
