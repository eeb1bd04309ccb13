// SPDX-License-Identifier: Apache-2.0
// Walks over the interfaces: the next one that is enabled or does multicast, and the first one that has something.
//
// The order is the interface manager's: loopbacks first, so that the first interface with an address is a loopback
// where a loopback has one. It steps from an iod to the next, and lists only interfaces with IP state.
//
// What is locked differs on purpose. The two "each" questions lock one step: their callers' loops see interfaces come
// and go in between. The two "first" questions lock their whole walk. ip_is_addr_local_configured is a caller of
// ip_get_each_enabled_iod like any other and holds no lock while it reads: records of a list stay records of such a
// list when they are reused, so it may miss an address that moves, but it ends.
//
// Nobody here asks for a lender's address: an interface stands for its own list alone.
#include "guard.h"
#include "ip_api.h"
#include "l3vm.h"
#include "lending.h"
#include "walks.h"

namespace libip {
namespace {

// The first interface after `prev` whose iod satisfies `wanted`; 0: none. Under the guard.
template <class Wanted>
uint32_t next_interface(uint32_t prev, Wanted wanted) {
  if (!attached()) return 0;
  uint32_t left = max_steps;
  for (uint32_t iod = im_get_next_ext_if(prev, IP_COMPONENT); iod != 0 && left != 0;
       iod = im_get_next_ext_if(iod, IP_COMPONENT), left--) {
    if (wanted(iod)) return iod;
  }
  return 0;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_get_each_enabled_iod(uint32_t prev) {
  using namespace libip;
  const ReadGuard guard;
  return next_interface(prev, [](uint32_t iod) { return ip_enabled(iod) != 0; });
}

uint32_t ip_get_each_multicast_iod(uint32_t prev) {
  using namespace libip;
  const ReadGuard guard;
  return next_interface(prev, [](uint32_t iod) {
    const ip_iftype *interface = interface_record(iod);
    return interface != nullptr && interface->mcast_enabled != 0 &&
           (addresses_of(*interface).first() != nullptr || is_unnumbered(*interface));
  });
}

uint32_t ip_is_addr_local_configured(uint32_t context_id, uint32_t addr) {
  using namespace libip;
  if (context_id == 0) return 0;
  // One number of steps for interfaces and addresses together: more than a sound database has of both.
  uint32_t left = max_steps;
  for (uint32_t iod = ip_get_each_enabled_iod(0); iod != 0 && left != 0; iod = ip_get_each_enabled_iod(iod), left--) {
    if (l3vm_if_get_context_id(iod) != context_id) continue;
    const ip_iftype *interface = interface_record(iod);
    if (interface == nullptr) continue;
    for (const ip_addrtype *own = addresses_of(*interface).first(); own != nullptr; own = follow(own->next)) {
      if (read_word(own->addr) == addr) return iod;
      if (--left == 0) return 0;
    }
  }
  return 0;
}

uint32_t ip_get_local_mcast_addr(uint32_t context_id, uint32_t *iod) {
  using namespace libip;
  if (context_id == 0) return 0;
  const ReadGuard guard;
  uint32_t addr = 0;
  const uint32_t found = next_interface(0, [context_id, &addr](uint32_t candidate) {
    if (l3vm_if_get_context_id(candidate) != context_id) return false;
    const ip_iftype *interface = interface_record(candidate);
    if (interface == nullptr) return false;
    const ip_addrtype *primary = addresses_of(*interface).first();
    if (primary == nullptr || interface->mcast_enabled == 0) return false;
    addr = primary->addr;
    return true;
  });
  if (found != 0 && iod != nullptr) *iod = found;
  return addr;
}

uint32_t ip_get_loopback_addr(void) {
  using namespace libip;
  const ReadGuard guard;
  uint32_t addr = 0;
  next_interface(0, [&addr](uint32_t candidate) {
    const ip_iftype *interface = interface_record(candidate);
    const ip_addrtype *primary = interface == nullptr ? nullptr : addresses_of(*interface).first();
    if (primary == nullptr) return false;
    addr = primary->addr;
    return true;
  });
  return addr;
}

}  // extern "C"
