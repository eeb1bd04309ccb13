// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/redirects.h"

#include <cerrno>

#include "ipd/control/interface_list.h"

namespace ipd::control {

Refusal Redirects::handle(const Request &request) {
  const auto iods = listed_interfaces(request);
  if (!iods) return Refusal::bad_field;
  Refusal refusal = Refusal::none;
  for (const uint32_t iod : *iods) {
    const auto facts = box_.interface(iod);
    const int error = facts ? kernel_.disable(facts->state.name) : ENODEV;
    if (error == 0) continue;
    // An interface that goes meanwhile is no fault of the kernel's.
    const bool missing = error == ENODEV || error == ENOENT;
    if (refusal != Refusal::kernel) refusal = missing ? Refusal::no_interface : Refusal::kernel;
  }
  return refusal;
}

}  // namespace ipd::control
