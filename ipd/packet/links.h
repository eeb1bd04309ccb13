// SPDX-License-Identifier: Apache-2.0
// The link layer of interfaces.
#ifndef IPD_PACKET_LINKS_H
#define IPD_PACKET_LINKS_H

#include <cstdint>
#include <optional>

#include "ipd/kernel/picture.h"
#include "ipd/packet/output.h"

namespace ipd::packet {

class Links {
 public:
  virtual ~Links() = default;

  // The interface's own Ethernet address. Nothing: there is no such interface, or its link has no such addresses, as a
  // tunnel's and a loopback's.
  [[nodiscard]] virtual std::optional<MacAddress> ethernet_address(uint32_t ifindex) const = 0;
};

class KernelLinks final : public Links {
 public:
  // The picture outlives it.
  explicit KernelLinks(const kernel::Picture &picture) : picture_(picture) {}

  [[nodiscard]] std::optional<MacAddress> ethernet_address(uint32_t ifindex) const override;

 private:
  const kernel::Picture &picture_;
};

}  // namespace ipd::packet

#endif
