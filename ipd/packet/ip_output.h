// SPDX-License-Identifier: Apache-2.0
// Packets that leave this system, by the kernel's routes or as the client says.
#ifndef IPD_PACKET_IP_OUTPUT_H
#define IPD_PACKET_IP_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <optional>

#include "ipd/control/box.h"
#include "ipd/kernel/raw_output.h"
#include "ipd/kernel/route_query.h"
#include "ipd/packet/filling.h"
#include "ipd/packet/framed_output.h"
#include "ipd/packet/links.h"
#include "ipd/packet/output.h"

namespace ipd::packet {

class IpOutput final : public Output {
 public:
  // All outlive it.
  IpOutput(const control::Box &box, const Links &links, kernel::RouteQuery &routes, kernel::RawOutput &raw,
           FramedOutput &framed, Identifications &identifications)
      : box_(box), links_(links), routes_(routes), raw_(raw), framed_(framed), identifications_(identifications) {}

  Outcome send(const Way &way, std::span<std::byte> packet) override;
  [[nodiscard]] uint32_t source_towards(const Way &way, uint32_t destination) override;
  [[nodiscard]] uint32_t mtu_towards(const Way &way, uint32_t destination) override;

 private:
  using Facts = std::optional<control::InterfaceFacts>;

  // The way of one packet, after everything was asked.
  struct Path {
    Facts interface;  // to leave by
    kernel::RouteQuestion question;
    kernel::RouteAnswer route;
    uint32_t neighbor = 0;  // who gets the frame, when it is one neighbour
    bool on_link = false;   // whatever the route says of a gateway
    size_t mtu = 0;
  };

  Outcome begin(const Way &way, uint32_t destination, uint32_t source, Path &path, uint32_t *context_id) const;
  Outcome ask(Path &path) const;
  Outcome find_path(const Way &way, uint32_t destination, uint32_t source, Path &path) const;
  Outcome find_interface(uint32_t destination, uint32_t context_id, Path &path) const;
  [[nodiscard]] Facts on_subnet(uint32_t destination, const Facts &named, uint32_t context_id) const;
  [[nodiscard]] uint32_t source_of(const Path &path) const;
  Outcome send_raw(const Way &way, const Path &path, ipv4::Bytes packet);

  const control::Box &box_;
  const Links &links_;
  kernel::RouteQuery &routes_;
  kernel::RawOutput &raw_;
  FramedOutput &framed_;
  Identifications &identifications_;
};

// Whether the address is in a subnet of the interface's.
[[nodiscard]] const AddressState *address_towards(const control::InterfaceFacts &facts, uint32_t addr);

}  // namespace ipd::packet

#endif
