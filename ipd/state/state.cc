// SPDX-License-Identifier: Apache-2.0
// From picture and configuration to calls of the publisher.
//
// What the publisher was told is remembered here, so every step is "what should be" against "what was told", and only
// the difference is said. A batch of events names what it touched, and only that is compared: the cost of a change does
// not depend on how much there is. After a dump or a reload everything is compared.
//
// Order within a batch. An address needs its interface, an interface its context, and a name must not stand in two
// contexts at once. So:
//   1. contexts whose id or name is wanted for another one go, with their interfaces;
//   2. contexts that are new or changed are set;
//   3. interfaces that are gone, or are another device now, go with their addresses;
//   4. interfaces are set (a change of context moves them), then their addresses;
//   5. contexts that nobody wants any more go;
//   6. virtual addresses and loans follow the interfaces that their names mean now;
//   7. who publishes more about interfaces is told which were touched;
//   8. commit, and then whoever follows what is published is told.
//
// A refusal of the publisher (a full table) is logged, counts as not told, and everything is compared again later.
#include "ipd/state/state.h"

#include <net/if.h>

#include <algorithm>

#include "ipd/process/log.h"
#include "ipd/state/address_plan.h"

namespace ipd {
namespace {

using kernel::AddressEntry;
using kernel::AddressPlace;
using kernel::InterfaceAddresses;
using kernel::LinkMessage;
using kernel::Picture;

bool is_vrf(const LinkMessage &link) {
  return link.kind == "vrf" && link.vrf_table != 0;
}

AddressState address_state(uint32_t addr, uint8_t mask_len, const AddressEntry &entry) {
  return {.addr = addr, .mask_len = mask_len, .secondary = entry.place.secondary, .scope = entry.scope};
}

bool same_kind(const AddressPlace &a, const AddressPlace &b) {
  return a.secondary == b.secondary && a.rising == b.rising;
}

std::string print_prefix(uint32_t addr, uint8_t mask_len) {
  return print_address(addr) + "/" + std::to_string(mask_len);
}

bool same_context(const ContextState &a, const ContextState &b) {
  return a.id == b.id && a.name == b.name && a.table_id == b.table_id && a.router_id == b.router_id;
}

}  // namespace

void State::configure(Configuration configuration) {
  configuration_ = std::move(configuration);
  configured_anew_ = true;
}

bool State::accepted(bool done, const char *what, const std::string &name) {
  if (done) return true;
  refused_ = true;
  // The first few say what is wrong; a full table would repeat it for every address.
  if (++refusals_ <= 10 || refusals_ % 1000 == 0) {
    log_line(LOG_ERR, "cannot %s %s: %s", what, name.c_str(), publisher_.last_error().c_str());
  }
  return false;
}

// True when the set of VRF devices, or what is said about one of them, changed.
bool State::watch_vrfs(const Picture &picture, const kernel::Changes &changes) {
  bool changed = false;
  const auto look = [&](uint32_t ifindex) {
    const auto link = picture.links().find(ifindex);
    const auto known = vrfs_.find(ifindex);
    if (link == picture.links().end() || !is_vrf(link->second.told)) {
      changed |= known != vrfs_.end();
      vrfs_.erase(ifindex);
      return;
    }
    const LinkMessage &told = link->second.told;
    if (known != vrfs_.end() && known->second.name == told.name && known->second.vrf_table == told.vrf_table) return;
    vrfs_[ifindex] = told;
    changed = true;
  };
  if (changes.everything) {
    std::vector<uint32_t> known;
    for (const auto &[ifindex, link] : vrfs_) known.push_back(ifindex);
    for (uint32_t ifindex : known) look(ifindex);
    for (const auto &[ifindex, link] : picture.links()) {
      if (is_vrf(link.told)) look(ifindex);
    }
  } else {
    for (uint32_t ifindex : changes.links) look(ifindex);
  }
  return changed;
}

void State::plan_again() {
  plan_ = plan_contexts(configuration_, vrfs_, ids_);
  for (const std::string &remark : plan_.remarks) {
    if (remarked_.insert(remark).second) log_line(LOG_WARNING, "%s", remark.c_str());
  }
  std::string reason;
  if (!ids_.save(&reason)) log_line(LOG_WARNING, "context ids will not outlive this run: %s", reason.c_str());
}

// Step 1: an id that is to mean another name, or a name that is to have another id.
void State::remove_clashing_contexts() {
  std::vector<uint32_t> clashing;
  for (const auto &[id, told] : contexts_) {
    const auto same_id = plan_.contexts.find(id);
    const bool renamed = same_id != plan_.contexts.end() && same_id->second.name != told.name;
    const bool moved = same_id == plan_.contexts.end() && plan_.ids.contains(told.name);
    if (renamed || moved) clashing.push_back(id);
  }
  for (uint32_t id : clashing) {
    std::vector<uint32_t> members;
    for (const auto &[ifindex, told] : interfaces_) {
      if (told.state.context_id == id) members.push_back(ifindex);
    }
    for (uint32_t ifindex : members) remove_interface(ifindex);
    if (accepted(publisher_.remove_context(id), "remove context", contexts_[id].name)) contexts_.erase(id);
  }
}

void State::set_contexts() {
  for (const auto &[id, context] : plan_.contexts) {
    const auto told = contexts_.find(id);
    if (told != contexts_.end() && same_context(told->second, context)) continue;
    if (accepted(publisher_.set_context(context), "set context", context.name)) contexts_[id] = context;
  }
}

void State::remove_stale_contexts() {
  for (auto told = contexts_.begin(); told != contexts_.end();) {
    if (plan_.contexts.contains(told->first) ||
        !accepted(publisher_.remove_context(told->first), "remove context", told->second.name)) {
      ++told;
    } else {
      told = contexts_.erase(told);
    }
  }
}

std::optional<InterfaceState> State::wanted(const Picture &picture, uint32_t ifindex) const {
  const auto found = picture.links().find(ifindex);
  if (found == picture.links().end()) return std::nullopt;
  const LinkMessage &link = found->second.told;
  const bool admin_up = (link.flags & IFF_UP) != 0;
  return InterfaceState{.ifindex = ifindex,
                        .name = link.name,
                        .up = admin_up && (link.flags & IFF_RUNNING) != 0,
                        .admin_up = admin_up,
                        // A VRF device is the loopback of its context.
                        .loopback = (link.flags & IFF_LOOPBACK) != 0 || is_vrf(link),
                        .multicast = (link.flags & IFF_MULTICAST) != 0,
                        .forwarding = picture.forwarding(ifindex),
                        .directed_broadcast = picture.directed_broadcast(ifindex),
                        .mtu = link.mtu.value_or(0),
                        .context_id = context_of(link, plan_, configuration_)};
}

void State::remove_interface(uint32_t ifindex) {
  const auto told = interfaces_.find(ifindex);
  if (told == interfaces_.end()) return;
  if (const auto lent = borrowers_.find(ifindex); lent != borrowers_.end()) {
    for (const uint32_t borrower : std::set<uint32_t>(lent->second)) {
      accepted(publisher_.set_unnumbered(borrower, 0, ""), "end the loan to", std::to_string(borrower));
      forget_loan(borrower);
    }
  }
  if (!accepted(publisher_.remove_interface(ifindex), "remove interface", told->second.state.name)) return;
  log_line(LOG_INFO, "interface %s is gone", told->second.state.name.c_str());
  forget_loan(ifindex);
  std::erase_if(vips_, [ifindex](const auto &vip) { return vip.first == ifindex; });
  if (const auto name = by_name_.find(told->second.state.name); name != by_name_.end() && name->second == ifindex) {
    by_name_.erase(name);
  }
  by_iod_.erase(told->second.iod);
  interfaces_.erase(told);
  names_changed_ = true;
}

void State::remove_gone(const Picture &picture, const std::set<uint32_t> &interfaces) {
  for (uint32_t ifindex : interfaces) {
    const auto told = interfaces_.find(ifindex);
    if (told == interfaces_.end()) continue;
    const auto link = picture.links().find(ifindex);
    if (link == picture.links().end() || link->second.incarnation != told->second.incarnation) {
      remove_interface(ifindex);
    }
  }
}

bool State::tell_address(uint32_t ifindex, Told &told, const AddressState &address, const AddressPlace &place) {
  if (!accepted(publisher_.set_address(ifindex, address), "publish",
                print_prefix(address.addr, address.mask_len) + " on " + told.state.name)) {
    return false;
  }
  told.addresses[{address.addr, address.mask_len}] = {.state = address, .place = place};
  return true;
}

void State::untell_address(uint32_t ifindex, Told &told, const AddressId &id) {
  if (accepted(publisher_.remove_address(ifindex, id.first, id.second), "take back",
               print_prefix(id.first, id.second) + " on " + told.state.name)) {
    told.addresses.erase(id);
  }
}

void State::compare_addresses(const InterfaceAddresses *addresses, uint32_t ifindex, Told &told) {
  std::vector<AddressState> want;
  std::map<AddressId, AddressPlace> places;
  if (addresses != nullptr) {
    for (const auto &[place, key] : addresses->in_order()) {
      if (!places.try_emplace({key.addr, key.mask_len}, place).second) continue;
      want.push_back(address_state(key.addr, key.mask_len, addresses->entries().at(key)));
    }
  }
  std::map<AddressPlace, AddressState> by_place;
  for (const auto &[id, address] : told.addresses) by_place.emplace(address.place, address.state);
  std::vector<AddressState> have;
  for (const auto &[place, address] : by_place) have.push_back(address);

  const AddressPlan plan = plan_addresses(have, want);
  for (const AddressState &address : plan.remove) untell_address(ifindex, told, {address.addr, address.mask_len});
  for (const AddressState &address : plan.set) {
    tell_address(ifindex, told, address, places.at({address.addr, address.mask_len}));
  }
  for (auto &[id, address] : told.addresses) {
    if (const auto place = places.find(id); place != places.end()) address.place = place->second;
  }
}

void State::set_interface(const Picture &picture, uint32_t ifindex, bool compare) {
  const auto want = wanted(picture, ifindex);
  if (!want) return;
  auto told = interfaces_.find(ifindex);
  if (told == interfaces_.end() || told->second.state != *want) {
    if (!accepted(publisher_.set_interface(*want), "publish interface", want->name)) return;
    if (told == interfaces_.end()) {
      log_line(LOG_INFO, "interface %s, ifindex %u, context %u", want->name.c_str(), ifindex, want->context_id);
      told = interfaces_.emplace(ifindex, Told{}).first;
      told->second.incarnation = picture.links().at(ifindex).incarnation;
      told->second.iod = publisher_.iod(ifindex);
      by_iod_[told->second.iod] = ifindex;
      compare = true;
    }
    if (told->second.state.name != want->name) {
      if (const auto old = by_name_.find(told->second.state.name); old != by_name_.end() && old->second == ifindex) {
        by_name_.erase(old);
      }
      by_name_[want->name] = ifindex;
      names_changed_ = true;
    }
    if (told->second.state.context_id != want->context_id) ++surroundings_version_;
    told->second.state = *want;
  }
  if (compare) compare_addresses(picture.addresses(ifindex), ifindex, told->second);
}

void State::change_addresses(const Picture &picture, uint32_t ifindex, const std::vector<AddressId> &ids) {
  const auto found = interfaces_.find(ifindex);
  if (found == interfaces_.end()) return;  // its link has not come yet: compared as a whole then
  Told &told = found->second;
  const InterfaceAddresses *addresses = picture.addresses(ifindex);
  std::map<AddressPlace, AddressState> to_set;
  for (const AddressId &id : ids) {
    const AddressEntry *entry = addresses == nullptr ? nullptr : addresses->find(id.first, id.second);
    const auto known = told.addresses.find(id);
    if (known != told.addresses.end()) {
      // Another place of the same kind: it went and came again meanwhile.
      const bool again =
          entry != nullptr && entry->place != known->second.place && same_kind(entry->place, known->second.place);
      if (entry == nullptr || again) untell_address(ifindex, told, id);
    }
    if (entry == nullptr) continue;
    const AddressState want = address_state(id.first, id.second, *entry);
    const auto still = told.addresses.find(id);
    if (still == told.addresses.end() || still->second.state != want) to_set.emplace(entry->place, want);
  }
  for (const auto &[place, address] : to_set) tell_address(ifindex, told, address, place);
}

void State::commit(const std::set<uint32_t> &touched) {
  accepted(publisher_.commit(), "commit", "the batch");
  if (after_commit_ && !touched.empty()) after_commit_(touched);
}

const InterfaceState *State::interface(uint32_t ifindex) const {
  const auto told = interfaces_.find(ifindex);
  return told == interfaces_.end() ? nullptr : &told->second.state;
}

std::vector<AddressState> State::addresses(uint32_t ifindex) const {
  const auto told = interfaces_.find(ifindex);
  if (told == interfaces_.end()) return {};
  std::map<AddressPlace, AddressState> by_place;
  for (const auto &[id, address] : told->second.addresses) by_place.emplace(address.place, address.state);
  std::vector<AddressState> list;
  for (const auto &[place, address] : by_place) list.push_back(address);
  return list;
}

std::vector<std::pair<uint32_t, AddressState>> State::addresses_of_context(uint32_t id) const {
  std::vector<std::pair<uint32_t, AddressState>> list;
  for (const auto &[ifindex, told] : interfaces_) {
    if (told.state.context_id != id) continue;
    for (const auto &[prefix, address] : told.addresses) list.emplace_back(told.iod, address.state);
  }
  return list;
}

uint32_t State::ifindex_of(uint32_t iod) const {
  const auto found = by_iod_.find(iod);
  return found == by_iod_.end() ? 0 : found->second;
}

uint32_t State::vrf_of_context(uint32_t id) const {
  const auto found = std::ranges::find_if(plan_.of_vrf, [&](const auto &vrf) { return vrf.second == id; });
  return found == plan_.of_vrf.end() ? 0 : found->first;
}

std::vector<uint32_t> State::iods() const {
  std::vector<uint32_t> list;
  for (const auto &[iod, ifindex] : by_iod_) list.push_back(iod);
  return list;
}

RouteSurroundings State::surroundings() const {
  RouteSurroundings out;
  std::set<uint32_t> of_vrfs;
  for (const auto &[ifindex, id] : plan_.of_vrf) of_vrfs.insert(id);
  for (const auto &[id, context] : contexts_) {
    out.context_tables[context.name] = context.table_id;
    if (id != default_context_id && !of_vrfs.contains(id)) out.policy_tables.insert(context.table_id);
  }
  for (const auto &[ifindex, told] : interfaces_) {
    const auto context = contexts_.find(told.state.context_id);
    const auto vrf = vrfs_.find(ifindex);
    out.interfaces[ifindex] = {.iod = publisher_.iod(ifindex),
                               .table = context == contexts_.end() ? 0 : context->second.table_id,
                               .vrf_table = vrf == vrfs_.end() ? 0 : vrf->second.vrf_table};
  }
  out.interface_names = by_name_;
  out.vips = vips_;
  return out;
}

bool State::update(const Picture &picture, kernel::Changes changes) {
  const bool vrfs_changed = watch_vrfs(picture, changes);
  const bool plan_changed = vrfs_changed || configured_anew_;
  if (plan_changed) changes.everything = true;
  names_changed_ |= changes.everything;
  configured_anew_ = false;
  if (changes.everything) refused_ = false;

  std::set<uint32_t> touched = std::move(changes.links);
  if (changes.everything) {
    for (const auto &[ifindex, link] : picture.links()) touched.insert(ifindex);
    for (const auto &[ifindex, told] : interfaces_) touched.insert(ifindex);
  }
  if (plan_changed) {
    plan_again();
    remove_clashing_contexts();
  }
  if (changes.everything) set_contexts();
  std::set<uint32_t> seen = touched;
  add_borrowers(seen);  // before a lender that goes takes its loans along
  remove_gone(picture, touched);
  for (uint32_t ifindex : touched) set_interface(picture, ifindex, changes.everything);
  if (!changes.everything) {
    for (auto each = changes.addresses.begin(); each != changes.addresses.end();) {
      const uint32_t ifindex = each->first;
      std::vector<AddressId> ids;
      for (; each != changes.addresses.end() && each->first == ifindex; ++each) ids.push_back(each->second);
      change_addresses(picture, ifindex, ids);
      seen.insert(ifindex);
    }
  }
  if (changes.everything) remove_stale_contexts();
  if (names_changed_) {
    names_changed_ = false;
    ++surroundings_version_;
    apply_vips();
    apply_unnumbered(seen);
  }
  add_borrowers(seen);
  if (before_commit_) before_commit_(touched);
  commit(seen);
  return !refused_;
}

}  // namespace ipd
