// SPDX-License-Identifier: Apache-2.0
// The box as ipd publishes it.
#ifndef IPD_CONTROL_LIVE_BOX_H
#define IPD_CONTROL_LIVE_BOX_H

#include "ipd/control/box.h"
#include "ipd/state/state.h"

namespace ipd::control {

class LiveBox final : public Box {
 public:
  // Both outlive it.
  LiveBox(State &state, const Publisher &publisher) : state_(state), publisher_(publisher) {}

  [[nodiscard]] std::optional<InterfaceFacts> interface(uint32_t iod) const override;
  [[nodiscard]] std::optional<InterfaceFacts> interface_by_ifindex(uint32_t ifindex) const override;
  [[nodiscard]] std::vector<uint32_t> iods() const override { return state_.iods(); }
  [[nodiscard]] std::vector<std::pair<uint32_t, AddressState>> addresses_of_context(uint32_t id) const override {
    return state_.addresses_of_context(id);
  }
  [[nodiscard]] std::optional<ContextFacts> context(uint32_t id) const override;
  void lend(const std::vector<UnnumberedRule> &loans) override { state_.lend(loans); }

 private:
  State &state_;
  const Publisher &publisher_;
};

}  // namespace ipd::control

#endif
