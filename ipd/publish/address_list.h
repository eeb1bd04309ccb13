// SPDX-License-Identifier: Apache-2.0
// The shared list of an interface's addresses.
#ifndef IPD_PUBLISH_ADDRESS_LIST_H
#define IPD_PUBLISH_ADDRESS_LIST_H

#include <cstdint>

#include "ipd/publish/picture.h"

namespace ipd {

// Where an address stands: `arrival` grows with each call and decides between equals.
[[nodiscard]] uint64_t address_place(const AddressState &state, uint64_t arrival);

// Fills in a record that no list leads to, but for `next`.
void fill_address(ip_addrtype &record, const AddressState &state);

// Puts the address, whose record is filled in but for `next`, at its place: one store.
void link_address(Interface &interface, Address &address);

// Takes it out: one store. The record is the caller's to retire.
void unlink_address(Interface &interface, Address &address);

// Gives a linked address another place: one store, whatever the distance. False: no storage, nothing changed.
[[nodiscard]] bool move_address(rsw::Arena &arena, Interface &interface, Address &address, uint64_t place);

}  // namespace ipd

#endif
