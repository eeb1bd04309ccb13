// SPDX-License-Identifier: Apache-2.0
// This system's addresses as its clients see them.
#ifndef IPD_PACKET_PUBLISHED_ADDRESSES_H
#define IPD_PACKET_PUBLISHED_ADDRESSES_H

#include "ipd/packet/local_addresses.h"

namespace ipd::packet {

// Asks the library, which this process has to be attached to.
class PublishedAddresses final : public LocalAddresses {
 public:
  [[nodiscard]] bool is_local(uint32_t context_id, uint32_t addr) const override;
  [[nodiscard]] bool is_broadcast(uint32_t iod, uint32_t addr) const override;
  [[nodiscard]] bool has_context(uint32_t context_id) const override;
};

}  // namespace ipd::packet

#endif
