// SPDX-License-Identifier: Apache-2.0
// How to get from the addresses that readers see on an interface to those that they should see, in order.
#ifndef IPD_STATE_ADDRESS_PLAN_H
#define IPD_STATE_ADDRESS_PLAN_H

#include <vector>

#include "ipd/publish/publisher.h"

namespace ipd {

struct AddressPlan {
  std::vector<AddressState> remove;  // first these
  std::vector<AddressState> set;     // then these, in this order
};

// Both lists in the order of the interface's list. The publisher puts what it is given at the end of its kind
// (primaries by scope, secondaries), so what stands at another place than it should goes and comes again; nothing else
// does.
[[nodiscard]] AddressPlan plan_addresses(const std::vector<AddressState> &told,
                                         const std::vector<AddressState> &wanted);

}  // namespace ipd

#endif
