// SPDX-License-Identifier: Apache-2.0
// An address and the subnets of an interface: is it in one of them, which own address lies there, is it a broadcast
// address; and who holds a subnet in a context.
//
// The three questions to an interface walk its own list, the primary address first, and nobody else's: an unnumbered
// interface has no subnet. They differ in what they pass over:
//
//   ip_check_target_addr_for_local_subnet   the target's own record; the first subnet that holds the target answers
//   ip_get_local_addr_for_subnet            the address's own record; the longest prefix answers, the earlier of equals
//   ip_is_addr_directed_broadcast           subnets of 31 and 32 bits: they have no broadcast address
//
// ip_get_iod_for_local_subnet is ip_get_iod_for_local_address for a prefix, with a reason for each kind of "nobody".
#include "guard.h"
#include "ip_api.h"
#include "local_tree.h"
#include "report.h"
#include "walks.h"

namespace libip {
namespace {

bool subnet_holds(const ip_addrtype &own, uint32_t addr) {
  return ((addr ^ own.addr) & ip_bits2mask(own.mask_len)) == 0;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_check_target_addr_for_local_subnet(uint32_t iod, uint32_t target) {
  using namespace libip;
  return ask_interface(iod, 0u, [target](const ip_iftype &interface) -> uint32_t {
    for (const ip_addrtype &own : addresses_of(interface)) {
      if (own.addr == target) continue;
      if (subnet_holds(own, target)) return 1;
    }
    return 0;
  });
}

uint32_t ip_get_local_addr_for_subnet(uint32_t iod, uint32_t addr) {
  using namespace libip;
  return ask_interface(iod, 0u, [addr](const ip_iftype &interface) -> uint32_t {
    const ip_addrtype *kept = nullptr;
    for (const ip_addrtype &own : addresses_of(interface)) {
      if (own.addr == addr) continue;
      if (subnet_holds(own, addr) && (kept == nullptr || own.mask_len > kept->mask_len)) kept = &own;
    }
    return kept == nullptr ? 0 : kept->addr;
  });
}

uint32_t ip_is_addr_on_attached_subnet(uint32_t addr, uint32_t iod) {
  return ip_get_local_addr_for_subnet(iod, addr);
}

uint32_t ip_is_addr_directed_broadcast(uint32_t addr, uint32_t iod) {
  using namespace libip;
  if (iod == 0) return 0;
  return ask_interface(iod, 0u, [addr](const ip_iftype &interface) -> uint32_t {
    for (const ip_addrtype &own : addresses_of(interface)) {
      if (own.mask_len == 31 || own.mask_len == 32) continue;
      if (!subnet_holds(own, addr)) continue;
      const uint32_t mask = ip_bits2mask(own.mask_len);
      if ((addr | mask) == ~0u || (addr & ~mask) == 0) return 1;
    }
    return 0;
  });
}

uint32_t ip_get_iod_for_local_subnet(const char *name, uint32_t addr, uint8_t len) {
  using namespace libip;
  return ask_tree_of_context(name, [=](void *tree) -> uint32_t {
    const TreeKey key = key_of(addr);
    const void *node = pt_lookup(tree, &key, len, 1);
    if (node == nullptr) {
      set_error_text("Local PT node not found for context %s ip %s/%d", name, ip_print_addr(addr), len);
      return 0;
    }
    const ip_local_addr_info *info = info_of(node);
    if (info == nullptr) {
      set_error_text("Local PT address not found for context %s ip %s/%d", name, ip_print_addr(addr), len);
      return 0;
    }
    const ip_iod_elem *holder = first_holder(*info);
    if (holder == nullptr) {
      // Spelt "addres" as those who search for the text know it.
      set_error_text("Interface type not found for local addres context %s ip %s/%d", name, ip_print_addr(addr), len);
      return 0;
    }
    return holder->iod;
  });
}

}  // extern "C"
