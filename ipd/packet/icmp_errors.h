// SPDX-License-Identifier: Apache-2.0
// ICMP errors that clients and drivers ask for: which are sent, about what, how many, and from which address.
#ifndef IPD_PACKET_ICMP_ERRORS_H
#define IPD_PACKET_ICMP_ERRORS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "ipd/control/box.h"
#include "ipd/packet/handler.h"
#include "ipd/packet/icmp_build.h"
#include "ipd/packet/icmp_limits.h"
#include "ipd/packet/output.h"

namespace ipd::packet {

// IP_MSG_ICMP_ERROR and IP_MSG_DRIVER_ICMP.
//
// An error goes where the routes of its context lead, from the address that any packet there would have (RFC 1812,
// section 4.3.2.4). Where that says none, it is the one of the interface that the packet came in by.
//
// Who says that a packet would have to be fragmented, but not for which MTU, as a driver cannot, has it filled in (RFC
// 1191, section 4): that of the way to the packet's destination, unless the packet would fit there.
class IcmpErrors final : public Handler {
 public:
  using Now = std::function<IcmpLimits::Moment()>;

  // Box and output outlive it.
  IcmpErrors(const control::Box &box, Output &output, const IcmpErrorRule &rule,
             Now now = std::chrono::steady_clock::now)
      : box_(box), output_(output), limits_(rule), now_(std::move(now)) {}

  void configure(const IcmpErrorRule &rule) { limits_.configure(rule); }

  Outcome handle(Request &request) override;

 private:
  struct Wish {
    uint32_t type = 0, code = 0;
    uint32_t rest_of_header = 0;
    uint32_t iod = 0;         // that the packet came in by; 0: not known
    uint32_t context_id = 0;  // 0: the interface's, else the default one
    std::span<const std::byte> packet;
  };

  Outcome send_error(const Wish &wish);
  Outcome send_error(const Wish &wish, uint32_t context_id, std::span<const AddressState> arrival);
  [[nodiscard]] uint32_t rest_of_header(const Wish &wish, const Way &way) const;
  [[nodiscard]] std::vector<AddressState> addresses_of(const control::InterfaceFacts &facts) const;

  const control::Box &box_;
  Output &output_;
  IcmpLimits limits_;
  Now now_;
};

}  // namespace ipd::packet

#endif
