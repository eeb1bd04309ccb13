// SPDX-License-Identifier: Apache-2.0
// Whose addresses an interface uses. An unnumbered interface has none of its own: it names another interface, the
// lender, and uses that one's. A lender's lender is not asked.
#ifndef IP_LENDING_H
#define IP_LENDING_H

#include "guard.h"
#include "walks.h"

namespace libip {

using Addresses = Chain<ip_addrtype>;

inline bool is_unnumbered(const ip_iftype &interface) {
  return interface.unnum_data.get() != nullptr;
}

// The lender's addresses; none without a lender. Under the guard.
inline Addresses lent_addresses(const ip_iftype &interface) {
  const ip_iftype *lender = interface_record(interface.unnum_src_iod);
  return lender == nullptr ? Addresses() : addresses_of(*lender);
}

// Two rules say whose addresses count, and only an interface that is neither numbered nor unnumbered tells them apart.
// Either reads the head of a list once: the writer may empty it meanwhile. Under the guard.

// By the interface's kind: the lender's when it is unnumbered, else its own, which may be none.
inline Addresses addresses_by_kind(const ip_iftype &interface) {
  return is_unnumbered(interface) ? lent_addresses(interface) : addresses_of(interface);
}

// By need: the lender's when it is unnumbered or has none, so that a lender's iod alone is enough.
inline Addresses addresses_by_need(const ip_iftype &interface) {
  const Addresses own = addresses_of(interface);
  return is_unnumbered(interface) || own.first() == nullptr ? lent_addresses(interface) : own;
}

// The first address of a list; 0: none.
inline uint32_t primary_address(const Addresses &addresses) {
  const ip_addrtype *primary = addresses.first();
  return primary == nullptr ? 0 : primary->addr;
}

}  // namespace libip

#endif
