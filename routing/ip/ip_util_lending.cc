// SPDX-License-Identifier: Apache-2.0
// An interface's own address: the primary one, the one that fits a destination, and what an unnumbered interface
// borrows.
//
// An interface is numbered (it has a list of addresses) or unnumbered (it names a lender, whose addresses it uses). It
// may be neither, and then has no address. The questions agree about the two common cases and differ, on purpose, in
// the others:
//
//                              unnumbered                     neither list nor unnumbered
//   ip_get_local_addr          the lender's primary address   0
//   ip_get_local_prefix        the lender's primary address   1 with 0.0.0.0/0
//   ip_get_best_local_addr     the lender's primary address,  0
//                              whatever the destination
//   ip_get_best_intf_addr      the lender's list, searched    the list of the lender's iod, where there is one
//                              like an own one
//
// An unnumbered interface that has a list as well counts as unnumbered. A lender's lender is not asked.
//
// ip_get_local_mask looks the length up on the interface's own list: it is 0 for an address that was borrowed.
#include "guard.h"
#include "ip_api.h"
#include "lending.h"
#include "walks.h"

namespace libip {
namespace {

// The address that answers, and how much of it the destination shares; length 0: no subnet holds the destination.
struct Best {
  uint32_t addr;
  uint32_t length;
};

// The address whose subnet holds the destination with the longest prefix, the earlier of equals; else the primary one;
// 0 of an empty list. Strictly longer: the primary wins a tie, and a /0 never beats it.
Best best_address(const Addresses &addresses, uint32_t dest) {
  Best best{primary_address(addresses), 0};
  for (const ip_addrtype &own : addresses) {
    const bool holds = ((dest ^ own.addr) & ip_bits2mask(own.mask_len)) == 0;
    if (holds && own.mask_len > best.length) best = {own.addr, own.mask_len};
  }
  return best;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_get_local_addr(uint32_t iod) {
  using namespace libip;
  if (!attached()) return 0;
  return ask_interface(iod, 0u,
                       [](const ip_iftype &interface) { return primary_address(addresses_by_kind(interface)); });
}

uint32_t ip_get_local_mask(uint32_t iod) {
  return ip_bits2mask(static_cast<uint8_t>(ip_get_local_mask_len(ip_get_local_addr(iod), iod)));
}

uint32_t ip_get_local_prefix(uint32_t iod, ip_prefixtype *out) {
  using namespace libip;
  if (out == nullptr) return 0;
  out->addr = 0;
  out->mask_len = 0;
  if (!attached()) return 0;
  const ReadGuard guard;
  if (!attached()) return 0;
  const ip_iftype *interface = interface_record(iod);
  if (interface == nullptr) return 1;
  const ip_addrtype *primary = addresses_by_kind(*interface).first();
  if (primary == nullptr) return 1;
  out->addr = primary->addr;
  out->mask_len = primary->mask_len;
  return 1;
}

uint32_t ip_get_best_local_addr(uint32_t iod, uint32_t dest) {
  using namespace libip;
  return ask_interface(iod, 0u, [dest](const ip_iftype &interface) {
    if (is_unnumbered(interface)) return primary_address(lent_addresses(interface));
    return best_address(addresses_of(interface), dest).addr;
  });
}

uint32_t ip_get_best_intf_addr(uint32_t iod, uint32_t dest, uint32_t *out) {
  using namespace libip;
  if (out == nullptr) return 0;
  const Best best = ask_interface(
      iod, Best{0, 0}, [dest](const ip_iftype &interface) { return best_address(addresses_by_need(interface), dest); });
  if (best.length == 0) return 0;
  *out = best.addr;
  return 1;
}

}  // extern "C"
