// SPDX-License-Identifier: Apache-2.0
// Which addresses are this system's. Answered from the published state, and by a list in tests.
#ifndef IPD_PACKET_LOCAL_ADDRESSES_H
#define IPD_PACKET_LOCAL_ADDRESSES_H

#include <cstdint>

namespace ipd::packet {

// Addresses in host order.
class LocalAddresses {
 public:
  virtual ~LocalAddresses() = default;

  // An address of an interface of the context, or a virtual one that is active.
  [[nodiscard]] virtual bool is_local(uint32_t context_id, uint32_t addr) const = 0;
  // A broadcast address of one of the interface's own subnets.
  [[nodiscard]] virtual bool is_broadcast(uint32_t iod, uint32_t addr) const = 0;
  [[nodiscard]] virtual bool has_context(uint32_t context_id) const = 0;
};

}  // namespace ipd::packet

#endif
