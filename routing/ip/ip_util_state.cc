// SPDX-License-Identifier: Apache-2.0
// Is IP enabled on an interface, is forwarding?
//
// The special interface counts as enabled for both, before anything else is looked at and without the lock: whoever
// named it wants it to work while its record is not there yet. Otherwise forwarding is a word of the record. IP is
// enabled with an address, own or borrowed, and also, without one, where the interface forwards: a transit link needs
// no address.
//
// ip_enabled asks for the lender's address by the exported query, which takes the lock again inside. So a lender that
// is itself unnumbered counts here with what it borrowed, although its address is not lent any further.
#include "guard.h"
#include "ip_api.h"
#include "lending.h"

namespace libip {
namespace {

bool may_be_asked(uint32_t iod) {
  return attached() && iod != 0;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_enabled(uint32_t iod) {
  using namespace libip;
  if (!may_be_asked(iod)) return 0;
  if (is_fwd_enabled_spl_iod(iod) != 0) return 1;
  return ask_interface(iod, 0u, [](const ip_iftype &interface) -> uint32_t {
    if (addresses_of(interface).first() != nullptr) return 1;
    if (is_unnumbered(interface) && ip_get_local_addr(interface.unnum_src_iod) != 0) return 1;
    return interface.fwd_enabled != 0 ? 1 : 0;
  });
}

uint32_t ip_forward_enabled(uint32_t iod) {
  using namespace libip;
  if (!may_be_asked(iod)) return 0;
  if (is_fwd_enabled_spl_iod(iod) != 0) return 1;
  return ask_interface(iod, 0u,
                       [](const ip_iftype &interface) -> uint32_t { return interface.fwd_enabled != 0 ? 1 : 0; });
}

}  // extern "C"
