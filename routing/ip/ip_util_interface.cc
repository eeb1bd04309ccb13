// SPDX-License-Identifier: Apache-2.0
// Questions to one interface: is this address mine, what are my secondaries, is a group joined, what may pass.
//
// All have one shape: the guard, the interface's record, the question. An interface's record is never changed in place
// but replaced, so what a question reads of it is of one moment. The lists that hang off it grow and shrink by one
// store; the first address is the primary one, every other is a secondary.
//
// One question takes no lock: ip_is_address_on_interface. It stands in the packet paths of drivers. Records of a list
// stay records of such a list when they are reused, so its walk may miss an address that moves, but ends.
#include "guard.h"
#include "ip_api.h"
#include "walks.h"

namespace libip {
namespace {

// The cursor of the secondaries' iterator: the primary for addr 0, else the record of (addr, mask_len).
const ip_addrtype *secondary_cursor(const ip_iftype &interface, uint32_t addr, uint8_t mask_len) {
  if (addr == 0) return addresses_of(interface).first();
  for (const ip_addrtype &address : addresses_of(interface)) {
    if (address.addr == addr && address.mask_len == mask_len) return &address;
  }
  return nullptr;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_is_address_on_interface(uint32_t addr, uint32_t iod) {
  using namespace libip;
  const ip_iftype *interface = interface_record(iod);
  if (interface == nullptr) return 0;
  for (const ip_addrtype &address : addresses_of(*interface)) {
    if (read_word(address.addr) == addr) return 1;
  }
  return 0;
}

uint32_t ip_get_local_mask_len(uint32_t addr, uint32_t iod) {
  using namespace libip;
  return ask_interface(iod, 0u, [addr](const ip_iftype &interface) -> uint32_t {
    for (const ip_addrtype &address : addresses_of(interface)) {
      if (address.addr == addr) return address.mask_len;
    }
    return 0;
  });
}

void ip_get_next_secondary(uint32_t iod, uint32_t *addr, uint8_t *mask_len) {
  using namespace libip;
  const ReadGuard guard;
  const ip_iftype *interface = interface_record(iod);
  const ip_addrtype *cursor = interface == nullptr ? nullptr : secondary_cursor(*interface, *addr, *mask_len);
  const ip_addrtype *next = cursor == nullptr ? nullptr : follow(cursor->next);
  *addr = next == nullptr ? 0 : next->addr;
  *mask_len = next == nullptr ? uint8_t{0} : next->mask_len;
}

uint32_t ip_get_secondary_count(uint32_t iod) {
  using namespace libip;
  return ask_interface(iod, 0u, [](const ip_iftype &interface) -> uint32_t {
    uint32_t addresses = 0;
    for ([[maybe_unused]] const ip_addrtype &address : addresses_of(interface)) addresses++;
    return addresses == 0 ? 0 : addresses - 1;
  });
}

uint32_t ip_is_group_joined(uint32_t group, uint32_t iod) {
  using namespace libip;
  return ask_interface(iod, 0u, [group](const ip_iftype &interface) -> uint32_t {
    for (const ip_maddrtype &joined : groups_of(interface)) {
      if (joined.group == group) return 1;
    }
    return 0;
  });
}

uint32_t ip_allow_directed_broadcast(uint32_t iod) {
  return libip::ask_interface(iod, 0u, [](const ip_iftype &interface) { return interface.directed_bcast; });
}

uint32_t ip_get_vaddr_count_for_iod(uint32_t iod) {
  return libip::ask_interface(iod, 0u, [](const ip_iftype &interface) { return interface.vaddr_count; });
}

uint32_t ip_is_iod_unnumbered(uint32_t iod) {
  return libip::ask_interface(
      iod, 0u, [](const ip_iftype &interface) -> uint32_t { return interface.unnum_data.get() != nullptr ? 1 : 0; });
}

uint32_t ip_is_multicast_enabled(uint32_t iod) {
  const bool enabled =
      libip::ask_interface(iod, false, [](const ip_iftype &interface) { return interface.mcast_enabled != 0; });
  // Asked in any case: the special interface counts as enabled without a record, too, and may be looked up here first.
  const bool special = is_fwd_enabled_spl_iod(iod) != 0;
  return enabled || special ? 1 : 0;
}

uint32_t ip_get_mtu(uint32_t iod) {
  return lcache_im_get_if_mtu(iod) & 0xffffu;
}

uint32_t ip_calc_effective_mtu(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t iod) {
  return ip_get_mtu(iod);
}

}  // extern "C"
