// SPDX-License-Identifier: Apache-2.0
// Interfaces: their entries in the interface table, their records, their change of context, and who borrows whose
// address.
//
// The interface table answers questions about the device (name, state, MTU, context), the record those about IP. Each
// is changed by one store, so a change that touches both is two steps, and no question reads both in one answer.
#include <cstring>

#include "ipd/publish/segment_publisher.h"

namespace ipd {

bool SegmentPublisher::set_interface(const InterfaceState &state) {
  if (state.ifindex == 0) return refuse("0 is not an interface index");
  if (state.name.empty() || state.name.size() >= sizeof(LenderName) || state.name.find('\0') != std::string::npos) {
    return refuse("interface name \"", state.name, "\" is not 1 to 39 characters long");
  }
  Context *context = find_context(state.context_id);
  if (context == nullptr) {
    return refuse("interface ", state.name, " is in context ", std::to_string(state.context_id),
                  ", which is not known");
  }
  Interface *interface = find_interface(state.ifindex);
  if (interface == nullptr) return add_interface(state, *context);
  if (interface->state == state) return true;
  return change_interface(*interface, state, *context);
}

bool SegmentPublisher::add_interface(const InterfaceState &state, Context &context) {
  auto *record = static_cast<ip_iftype *>(arena_->allocate(interface_record));
  if (record == nullptr) return refuse_for_storage("interface " + state.name);
  const uint32_t iod = set_in_table(state, context);
  if (iod == 0) {
    arena_->give_back(interface_record, record);
    return refuse("no room in the interface table for interface ", state.name);
  }
  Interface &interface = interfaces_[state.ifindex];
  interface.state = state;
  interface.context = &context;
  interface.iod = iod;
  interface.record = record;
  context.interfaces.insert(state.ifindex);
  take_inherited(interface);
  fill_record(interface, *record);
  if (live_) {
    interface_table_->set_extension(iod, IP_COMPONENT, record);
    interface.published = true;
  }
  tell_borrowers(state.ifindex);
  changed_ = true;
  return true;
}

bool SegmentPublisher::change_interface(Interface &interface, const InterfaceState &state, Context &context) {
  Context &old_context = *interface.context;
  const InterfaceState &old = interface.state;
  const bool moves = &context != &old_context;
  const bool new_record = old.multicast != state.multicast || old.forwarding != state.forwarding ||
                          old.directed_broadcast != state.directed_broadcast;

  // Whatever may fail comes first.
  ip_iftype *record = nullptr;
  if (new_record) {
    record = static_cast<ip_iftype *>(arena_->allocate(interface_record));
    if (record == nullptr) return refuse_for_storage("interface " + state.name);
  }
  Claims claims;
  if (moves && !claim_everything(interface, context, claims)) {
    if (record != nullptr) arena_->give_back(interface_record, record);
    return refuse_for_storage("the addresses of interface " + state.name);
  }

  set_in_table(state, context);
  if (moves) {
    // The addresses are in both trees for a moment: a question about either context is answered as it was before or as
    // it is from now on.
    interface.claims.swap(claims);
    release_all_prefixes(*arena_, old_context, claims);
    interface.context = &context;
    old_context.interfaces.erase(state.ifindex);
    context.interfaces.insert(state.ifindex);
    router_ids_due_.insert(&old_context);
    router_ids_due_.insert(&context);
  }
  if (old.loopback != state.loopback) {
    count_loopback_claims(context, interface, false);
    interface.state.loopback = state.loopback;
    count_loopback_claims(context, interface, true);
    router_ids_due_.insert(&context);
  }
  interface.state = state;
  if (record != nullptr) swing_record(interface, record);
  changed_ = true;
  return true;
}

// All that the interface holds, once more, in another context.
bool SegmentPublisher::claim_everything(Interface &interface, Context &context, Claims &claims) {
  bool done = true;
  for (auto each = interface.list.begin(); done && each != interface.list.end(); ++each) {
    done = claim_address(*arena_, context, interface, claims, each->second->state);
  }
  for (auto each = interface.vips.begin(); done && each != interface.vips.end(); ++each) {
    done = claim_prefix(*arena_, context, interface, claims, prefix_key(*each, 32), ClaimKind::vip);
  }
  if (!done) release_all_prefixes(*arena_, context, claims);
  return done;
}

bool SegmentPublisher::remove_interface(uint32_t ifindex) {
  Interface *interface = find_interface(ifindex);
  if (interface == nullptr) return true;
  Context &context = *interface->context;
  forget_lender(*interface);

  // The record goes out of sight first, then the addresses leave the tree, then the interface leaves the table: no
  // answer names an interface that the table does not know.
  interface_table_->set_extension(interface->iod, IP_COMPONENT, nullptr);
  release_all_prefixes(*arena_, context, interface->claims);
  interface_table_->remove(interface->iod);

  for (auto &[key, address] : interface->addresses) arena_->retire(address_record, address.record);
  address_count_ -= static_cast<uint32_t>(interface->addresses.size());
  if (interface->lender_record != nullptr) arena_->retire(lender_record, interface->lender_record);
  for (const Group &group : interface->groups) arena_->retire(group_record, group.record);
  if (interface->statistics != nullptr) arena_->retire(statistics_record, interface->statistics);
  arena_->retire(interface_record, interface->record);
  context.interfaces.erase(ifindex);
  router_ids_due_.insert(&context);
  interfaces_.erase(ifindex);
  tell_borrowers(ifindex);
  changed_ = true;
  return true;
}

bool SegmentPublisher::set_unnumbered(uint32_t ifindex, uint32_t source_ifindex, const std::string &source_name) {
  Interface *interface = find_interface(ifindex);
  if (interface == nullptr) return refuse("no interface has the index ", std::to_string(ifindex));
  if (source_ifindex == ifindex) return refuse("interface ", interface->state.name, " cannot borrow its own address");
  if (source_ifindex == 0) {
    if (interface->lender_ifindex == 0) return true;
  } else {
    if (source_name.empty() || source_name.size() >= sizeof(LenderName) ||
        source_name.find('\0') != std::string::npos) {
      return refuse("interface name \"", source_name, "\" is not 1 to 39 characters long");
    }
    if (interface->lender_ifindex == source_ifindex && interface->lender_name == source_name) return true;
  }

  LenderName *lender = nullptr;
  if (source_ifindex != 0) {
    lender = static_cast<LenderName *>(arena_->allocate(lender_record));
    if (lender == nullptr) return refuse_for_storage("the lender of interface " + interface->state.name);
    std::memcpy(lender->name, source_name.data(), source_name.size());  // the rest is zero
  }
  auto *record = static_cast<ip_iftype *>(arena_->allocate(interface_record));
  if (record == nullptr) {
    if (lender != nullptr) arena_->give_back(lender_record, lender);
    return refuse_for_storage("interface " + interface->state.name);
  }

  forget_lender(*interface);
  if (source_ifindex != 0) borrowers_[source_ifindex].insert(ifindex);
  LenderName *old = interface->lender_record;
  interface->lender_ifindex = source_ifindex;
  interface->lender_name = source_ifindex == 0 ? std::string() : source_name;
  interface->lender_record = lender;
  // Lending interface and name change together: they stand in one new record.
  swing_record(*interface, record);
  if (old != nullptr) arena_->retire(lender_record, old);
  changed_ = true;
  return true;
}

// The iod of that interface in the interface table; 0: the table is full.
uint32_t SegmentPublisher::set_in_table(const InterfaceState &state, const Context &context) {
  return interface_table_->set(rsw::ImInterface{.ifindex = state.ifindex,
                                                .name = state.name,
                                                .up = state.up,
                                                .admin_up = state.admin_up,
                                                .loopback = state.loopback,
                                                .mtu = state.mtu,
                                                .context_id = context.state.id,
                                                .table_id = context.state.table_id});
}

void SegmentPublisher::fill_record(const Interface &interface, ip_iftype &record) const {
  record.addr_list = interface.list.empty() ? nullptr : interface.list.begin()->second->record;
  record.unnum_src_iod = iod(interface.lender_ifindex);
  record.unnum_data = reinterpret_cast<ip_unnumbered *>(interface.lender_record);
  record.directed_bcast = interface.state.directed_broadcast ? 1 : 0;
  record.mcast_enabled = interface.state.multicast ? 1 : 0;
  record.group_list = interface.groups.empty() ? nullptr : interface.groups.front().record;
  record.pim_assert_sent = interface.pim_asserts;
  record.stats = reinterpret_cast<uint8_t *>(interface.statistics);
  record.vaddr_count = static_cast<uint32_t>(interface.vips.size());
  record.fwd_enabled = interface.state.forwarding ? 1 : 0;
}

// Several fields change as one: in a new record, and the extension word is swung to it.
void SegmentPublisher::swing_record(Interface &interface, ip_iftype *fresh) {
  ip_iftype *old = interface.record;
  fill_record(interface, *fresh);
  interface.record = fresh;
  if (interface.published) {
    interface_table_->set_extension(interface.iod, IP_COMPONENT, fresh);
    arena_->retire(interface_record, old);
  } else {
    arena_->give_back(interface_record, old);
  }
}

// What the picture says now, in a new record: a question reads the record of one moment. Only without storage for it
// the two numbers that may have changed are stored in the old one.
void SegmentPublisher::renew_record(Interface &interface) {
  if (auto *fresh = static_cast<ip_iftype *>(arena_->allocate(interface_record)); fresh != nullptr) {
    swing_record(interface, fresh);
    return;
  }
  store_shared(interface.record->vaddr_count, static_cast<uint32_t>(interface.vips.size()));
  store_shared(interface.record->unnum_src_iod, iod(interface.lender_ifindex));
}

// The interface is new or gone: those that borrow its address are told.
void SegmentPublisher::tell_borrowers(uint32_t lender_ifindex) {
  const auto borrowers = borrowers_.find(lender_ifindex);
  if (borrowers == borrowers_.end()) return;
  for (const uint32_t ifindex : borrowers->second) renew_record(interfaces_.at(ifindex));
}

void SegmentPublisher::forget_lender(Interface &interface) {
  if (interface.lender_ifindex == 0) return;
  const auto borrowers = borrowers_.find(interface.lender_ifindex);
  borrowers->second.erase(interface.state.ifindex);
  if (borrowers->second.empty()) borrowers_.erase(borrowers);
  interface.lender_ifindex = 0;
}

}  // namespace ipd
