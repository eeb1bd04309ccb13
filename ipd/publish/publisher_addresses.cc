// SPDX-License-Identifier: Apache-2.0
// Addresses and virtual addresses.
//
// An address stands in two places, the context's tree and the interface's list; a question looks at one of them. A new
// address enters the tree first and the list last, a removed one leaves them in the opposite order; each of the steps
// is one store, and what may fail for lack of storage is done, and undone, before the list changes.
#include "ipd/publish/address_list.h"
#include "ipd/publish/segment_publisher.h"

namespace ipd {

bool SegmentPublisher::set_address(uint32_t ifindex, const AddressState &state) {
  Interface *interface = find_interface(ifindex);
  if (interface == nullptr) return refuse("no interface has the index ", std::to_string(ifindex));
  if (state.mask_len > 32) return refuse("mask length ", std::to_string(state.mask_len), " is above 32");
  // 0 ends every iteration over addresses, so it cannot be one.
  if (state.addr == 0) return refuse("0.0.0.0 is not an address of an interface");
  const uint64_t key = prefix_key(state.addr, state.mask_len);
  if (const auto known = interface->addresses.find(key); known != interface->addresses.end()) {
    return change_address(*interface, known->second, state);
  }

  auto *record = static_cast<ip_addrtype *>(arena_->allocate(address_record));
  if (record == nullptr) return refuse_for_storage("an address of interface " + interface->state.name);
  fill_address(*record, state);
  if (!claim_address(*arena_, *interface->context, *interface, interface->claims, state)) {
    arena_->give_back(address_record, record);
    return refuse_for_storage("an address of context " + interface->context->state.name);
  }
  Address &address = interface->addresses[key];
  address = Address{.state = state, .place = address_place(state, ++arrivals_), .record = record};
  link_address(*interface, address);
  router_ids_due_.insert(interface->context);
  ++address_count_;
  changed_ = true;
  return true;
}

// The kernel's flags of an address decide nothing but its place in the list.
bool SegmentPublisher::change_address(Interface &interface, Address &address, const AddressState &state) {
  const bool same_rank =
      address.state.secondary == state.secondary && (state.secondary || address.state.scope == state.scope);
  if (!same_rank) {
    if (!move_address(*arena_, interface, address, address_place(state, ++arrivals_))) {
      return refuse_for_storage("the addresses of interface " + interface.state.name);
    }
    changed_ = true;
  }
  address.state = state;
  return true;
}

bool SegmentPublisher::remove_address(uint32_t ifindex, uint32_t addr, uint8_t mask_len) {
  Interface *interface = find_interface(ifindex);
  if (interface == nullptr) return true;
  const auto position = interface->addresses.find(prefix_key(addr, mask_len));
  if (position == interface->addresses.end()) return true;
  Address &address = position->second;
  unlink_address(*interface, address);
  release_address(*arena_, *interface->context, interface->claims, address.state);
  arena_->retire(address_record, address.record);
  interface->addresses.erase(position);
  router_ids_due_.insert(interface->context);
  --address_count_;
  changed_ = true;
  return true;
}

bool SegmentPublisher::set_vip(const VipState &vip) {
  Interface *interface = find_interface(vip.ifindex);
  if (interface == nullptr) return refuse("no interface has the index ", std::to_string(vip.ifindex));
  if (vip.addr == 0) return refuse("0.0.0.0 is not a virtual address");
  if (interface->vips.contains(vip.addr)) return true;
  if (!claim_prefix(*arena_, *interface->context, *interface, interface->claims, prefix_key(vip.addr, 32),
                    ClaimKind::vip)) {
    return refuse_for_storage("a virtual address of interface " + interface->state.name);
  }
  interface->vips.insert(vip.addr);
  renew_record(*interface);
  changed_ = true;
  return true;
}

bool SegmentPublisher::remove_vip(const VipState &vip) {
  Interface *interface = find_interface(vip.ifindex);
  if (interface == nullptr || interface->vips.erase(vip.addr) == 0) return true;
  renew_record(*interface);
  release_prefix(*arena_, *interface->context, interface->claims, prefix_key(vip.addr, 32), ClaimKind::vip);
  changed_ = true;
  return true;
}

}  // namespace ipd
