// SPDX-License-Identifier: Apache-2.0
// What the control service asks of the rest of ipd: the interfaces as they are published.
#ifndef IPD_CONTROL_BOX_H
#define IPD_CONTROL_BOX_H

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "ipd/config.h"
#include "ipd/publish/publisher.h"

namespace ipd::control {

struct InterfaceFacts {
  uint32_t iod = 0;
  InterfaceState state;
  uint32_t lender_iod = 0;              // of the interface whose address it borrows; 0: none
  std::vector<AddressState> addresses;  // published, the primary first
};

struct ContextFacts {
  uint32_t vrf_ifindex = 0;  // of its VRF device; 0: it has none
};

class Box {
 public:
  virtual ~Box() = default;

  // Nothing: there is no such interface.
  [[nodiscard]] virtual std::optional<InterfaceFacts> interface(uint32_t iod) const = 0;
  [[nodiscard]] virtual std::optional<InterfaceFacts> interface_by_ifindex(uint32_t ifindex) const = 0;
  // All interfaces, ascending.
  [[nodiscard]] virtual std::vector<uint32_t> iods() const = 0;
  // The addresses of all interfaces of a context, with their iods, in any order.
  [[nodiscard]] virtual std::vector<std::pair<uint32_t, AddressState>> addresses_of_context(uint32_t id) const {
    std::vector<std::pair<uint32_t, AddressState>> list;
    for (const uint32_t iod : iods()) {
      const auto facts = interface(iod);
      if (!facts || facts->state.context_id != id) continue;
      for (const AddressState &address : facts->addresses) list.emplace_back(iod, address);
    }
    return list;
  }
  // Nothing: there is no such context. The default context is always there.
  [[nodiscard]] virtual std::optional<ContextFacts> context(uint32_t id) const {
    if (id == 1) return ContextFacts{};
    for (const uint32_t iod : iods()) {
      if (const auto facts = interface(iod); facts && facts->state.context_id == id) return ContextFacts{};
    }
    return std::nullopt;
  }
  // Loans that clients asked for; all of them, each time. Where the configuration says something about the same
  // borrower, the configuration holds.
  virtual void lend(const std::vector<UnnumberedRule> &loans) = 0;
};

}  // namespace ipd::control

#endif
