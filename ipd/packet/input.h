// SPDX-License-Identifier: Apache-2.0
// IP_MSG_INPUT and IP_MSG_CONSUME: packets that a client received by itself, for local processing.
#ifndef IPD_PACKET_INPUT_H
#define IPD_PACKET_INPUT_H

#include "ipd/control/box.h"
#include "ipd/packet/arrivals.h"
#include "ipd/packet/handler.h"
#include "ipd/packet/local.h"
#include "ipd/packet/local_addresses.h"

namespace ipd::packet {

class Input final : public Handler {
 public:
  // All outlive it.
  Input(const control::Box &box, const LocalAddresses &addresses, LocalDelivery &delivery)
      : box_(box), addresses_(addresses), delivery_(delivery) {}

  Outcome handle(Request &request) override;

 private:
  [[nodiscard]] bool may_have_come(const ArrivalPlace &place, std::span<const std::byte> packet) const;
  [[nodiscard]] bool is_for_us(const ArrivalPlace &place, uint32_t destination) const;

  const control::Box &box_;
  const LocalAddresses &addresses_;
  LocalDelivery &delivery_;
};

}  // namespace ipd::packet

#endif
