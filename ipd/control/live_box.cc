// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/live_box.h"

namespace ipd::control {

std::optional<InterfaceFacts> LiveBox::interface(uint32_t iod) const {
  return interface_by_ifindex(state_.ifindex_of(iod));
}

std::optional<InterfaceFacts> LiveBox::interface_by_ifindex(uint32_t ifindex) const {
  const InterfaceState *state = state_.interface(ifindex);
  if (state == nullptr) return std::nullopt;
  const uint32_t lender = state_.lender(ifindex);
  return InterfaceFacts{.iod = publisher_.iod(ifindex),
                        .state = *state,
                        .lender_iod = lender == 0 ? 0 : publisher_.iod(lender),
                        .addresses = state_.addresses(ifindex)};
}

std::optional<ContextFacts> LiveBox::context(uint32_t id) const {
  if (!state_.has_context(id)) return std::nullopt;
  return ContextFacts{.vrf_ifindex = state_.vrf_of_context(id)};
}

}  // namespace ipd::control
