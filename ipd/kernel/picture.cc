// SPDX-License-Identifier: Apache-2.0
// The kernel's state as far as it has told it.
//
// Links, addresses and settings are kept apart, each by ifindex, and an entry of one kind never waits for another kind:
// an address that comes before its link simply lies there until somebody looks at the link. So the picture after a set
// of events is the same in whatever order links, addresses and settings came.
//
// A dump takes many datagrams, and events come in between. Both are kept: `current_` goes on with events alone, and
// `fresh_` is built from the dump and from the same events. What an event told of is never changed by a dump entry,
// before or after it: every later change of that object has an event of its own, so the last event is right and a dump
// entry can only be as new or older. At the end `fresh_` takes the place of `current_`, and what it lacks is gone. That
// is right for the first dump, for the one after lost events, and for a dump whose messages cross a deletion on the
// way.
//
// Order of addresses. Readers call the first address of an interface its primary, so the order is part of the state.
// The kernel's rule is a pure function of (secondary, scope, arrival), which is AddressPlace, and a dump lists
// addresses in the kernel's order: entries get their arrival as they come. An address that an event brought before the
// dump reached its interface moves to where the dump has it.
//
// An ifindex may be given to a new device while we do not look. After an event "removed" that is certain; when events
// were lost, another kind, hardware type or hardware address says so. An interface that kept all three is the same one.
#include "ipd/kernel/picture.h"

#include <algorithm>

namespace ipd::kernel {
namespace {

bool same_device(const LinkMessage &a, const LinkMessage &b) {
  return a.kind == b.kind && a.hardware_type == b.hardware_type && a.hardware_address_len == b.hardware_address_len &&
         a.hardware_address == b.hardware_address;
}

bool same_link(const LinkMessage &a, const LinkMessage &b) {
  return a.name == b.name && a.flags == b.flags && a.mtu == b.mtu && a.master == b.master &&
         a.vrf_table == b.vrf_table && same_device(a, b);
}

// False: the message tells too little about a link that is not known yet.
bool merge_link(std::map<uint32_t, Link> &links, const LinkMessage &message) {
  const auto known = links.find(message.ifindex);
  if (message.mtu) {
    links[message.ifindex].told = message;
    return true;
  }
  if (known == links.end()) return false;
  known->second.told.name = message.name;
  known->second.told.flags = message.flags;
  return true;
}

}  // namespace

AddressKey address_key(const AddressMessage &message) {
  const bool has_peer = message.peer != message.local;
  return {.addr = message.local,
          .mask_len = has_peer ? uint8_t{32} : message.prefix_len,
          .peer = message.peer,
          .prefix_len = message.prefix_len};
}

void InterfaceAddresses::set(const AddressMessage &message, uint64_t arrival) {
  const AddressKey key = address_key(message);
  AddressPlace place{.secondary = message.secondary,
                     .rising = message.secondary ? uint8_t{0} : static_cast<uint8_t>(255 - message.scope),
                     .arrival = arrival};
  const auto known = entries_.find(key);
  if (known != entries_.end()) {
    const AddressPlace old = known->second.place;
    if (old.secondary == place.secondary && old.rising == place.rising) place = old;
    order_.erase(old);
  }
  entries_[key] = {.scope = message.scope, .place = place};
  order_.emplace(place, key);
}

void InterfaceAddresses::remove(const AddressKey &key) {
  const auto known = entries_.find(key);
  if (known == entries_.end()) return;
  order_.erase(known->second.place);
  entries_.erase(known);
}

const AddressEntry *InterfaceAddresses::find(uint32_t addr, uint8_t mask_len) const {
  const AddressEntry *first = nullptr;
  for (auto each = entries_.lower_bound({.addr = addr, .mask_len = mask_len, .peer = 0, .prefix_len = 0});
       each != entries_.end() && each->first.addr == addr && each->first.mask_len == mask_len; ++each) {
    if (first == nullptr || each->second.place < first->place) first = &each->second;
  }
  return first;
}

void Picture::forget_interface(Contents &contents, uint32_t ifindex) {
  contents.links.erase(ifindex);
  contents.addresses.erase(ifindex);
  contents.settings.erase(static_cast<int32_t>(ifindex));
}

void Picture::link(const LinkMessage &message) {
  const uint32_t ifindex = message.ifindex;
  const auto known = current_.links.find(ifindex);
  if (message.removed) {
    forget_interface(current_, ifindex);
    if (dumping_) {
      forget_interface(fresh_, ifindex);
      touched_links_.insert(ifindex);
    }
    changes_.links.insert(ifindex);
    return;
  }
  if (known == current_.links.end()) {
    if (!merge_link(current_.links, message)) return;
    current_.links[ifindex].incarnation = ++last_incarnation_;
    changes_.links.insert(ifindex);
  } else {
    Link &link = known->second;
    const LinkMessage before = link.told;
    merge_link(current_.links, message);
    if (doubtful_ && !same_device(before, link.told)) link.incarnation = ++last_incarnation_;
    if (!same_link(before, link.told)) changes_.links.insert(ifindex);
  }
  if (dumping_ && merge_link(fresh_.links, message)) touched_links_.insert(ifindex);
}

void Picture::note_address(uint32_t ifindex, const AddressKey &key) {
  changes_.addresses.insert({ifindex, {key.addr, key.mask_len}});
}

void Picture::apply(Contents &contents, const AddressMessage &message) {
  if (!message.removed) {
    contents.addresses[message.ifindex].set(message, ++last_arrival_);
    return;
  }
  const auto known = contents.addresses.find(message.ifindex);
  if (known == contents.addresses.end()) return;
  known->second.remove(address_key(message));
  if (known->second.entries().empty()) contents.addresses.erase(known);
}

void Picture::address(const AddressMessage &message) {
  apply(current_, message);
  note_address(message.ifindex, address_key(message));
  if (!dumping_) return;
  apply(fresh_, message);
  touched_addresses_.insert({message.ifindex, address_key(message)});
}

void Picture::apply(Contents &contents, const NetconfMessage &message) {
  if (message.removed) {
    contents.settings.erase(message.ifindex);
    return;
  }
  Settings &settings = contents.settings[message.ifindex];
  settings.forwarding = message.forwarding.value_or(settings.forwarding);
  settings.directed_broadcast = message.directed_broadcast.value_or(settings.directed_broadcast);
}

void Picture::netconf(const NetconfMessage &message) {
  const auto known = current_.settings.find(message.ifindex);
  const Settings before = known == current_.settings.end() ? Settings{} : known->second;
  apply(current_, message);
  const auto now = current_.settings.find(message.ifindex);
  const bool same = before == (now == current_.settings.end() ? Settings{} : now->second);
  if (same) {
    // Said again: nothing to look at.
  } else if (message.ifindex > 0) {
    changes_.links.insert(static_cast<uint32_t>(message.ifindex));
  } else if (message.ifindex == netconf_all) {
    for (const auto &[ifindex, link] : current_.links) changes_.links.insert(ifindex);
  }
  if (!dumping_) return;
  apply(fresh_, message);
  // An event may name one setting only; the dump still has to tell the other.
  TouchedSettings &touched = touched_settings_[message.ifindex];
  touched.forwarding |= message.removed || message.forwarding.has_value();
  touched.directed_broadcast |= message.removed || message.directed_broadcast.has_value();
}

void Picture::begin_dump() {
  fresh_ = {};
  touched_links_.clear();
  touched_addresses_.clear();
  touched_settings_.clear();
  dumping_ = true;
}

void Picture::dump_link(const LinkMessage &message) {
  if (!touched_links_.contains(message.ifindex)) merge_link(fresh_.links, message);
}

void Picture::dump_address(const AddressMessage &message) {
  const AddressKey key = address_key(message);
  if (!touched_addresses_.contains({message.ifindex, key})) {
    apply(fresh_, message);
    return;
  }
  const auto known = fresh_.addresses.find(message.ifindex);
  if (known == fresh_.addresses.end() || !known->second.contains(key)) return;  // an event took it away
  AddressMessage same = message;
  same.secondary = known->second.entries().at(key).place.secondary;
  same.scope = known->second.entries().at(key).scope;
  known->second.remove(key);
  known->second.set(same, ++last_arrival_);
}

void Picture::dump_netconf(const NetconfMessage &message) {
  NetconfMessage news = message;
  if (const auto touched = touched_settings_.find(message.ifindex); touched != touched_settings_.end()) {
    if (touched->second.forwarding) news.forwarding.reset();
    if (touched->second.directed_broadcast) news.directed_broadcast.reset();
    if (!news.forwarding && !news.directed_broadcast) return;
  }
  apply(fresh_, news);
}

void Picture::keep_what_was_missed() {
  for (const auto &[ifindex, link] : current_.links) {
    if (!touched_links_.contains(ifindex)) fresh_.links.try_emplace(ifindex, link);
  }
  for (const auto &[ifindex, addresses] : current_.addresses) {
    for (const auto &[place, key] : addresses.in_order()) {
      const auto known = fresh_.addresses.find(ifindex);
      if (touched_addresses_.contains({ifindex, key})) continue;
      if (known != fresh_.addresses.end() && known->second.contains(key)) continue;
      AddressMessage message;
      message.ifindex = ifindex;
      message.local = key.addr;
      message.peer = key.peer;
      message.prefix_len = key.prefix_len;
      message.scope = addresses.entries().at(key).scope;
      message.secondary = place.secondary;
      apply(fresh_, message);
    }
  }
  for (const auto &[ifindex, settings] : current_.settings) fresh_.settings.try_emplace(ifindex, settings);
}

void Picture::end_dump(bool whole) {
  if (!whole) keep_what_was_missed();
  for (auto &[ifindex, link] : fresh_.links) {
    const auto known = current_.links.find(ifindex);
    const bool same = known != current_.links.end() && same_device(known->second.told, link.told);
    // Without lost events a removal would have had its event: a new hardware address is then only that.
    const bool kept = known != current_.links.end() && (same || !doubtful_);
    link.incarnation = kept ? known->second.incarnation : ++last_incarnation_;
  }
  current_ = std::move(fresh_);
  begin_dump();
  dumping_ = false;
  if (whole) doubtful_ = false;
  changes_ = {};
  changes_.everything = true;
}

const InterfaceAddresses *Picture::addresses(uint32_t ifindex) const {
  const auto known = current_.addresses.find(ifindex);
  return known == current_.addresses.end() ? nullptr : &known->second;
}

bool Picture::forwarding(uint32_t ifindex) const {
  const auto known = current_.settings.find(static_cast<int32_t>(ifindex));
  return known != current_.settings.end() && known->second.forwarding;
}

bool Picture::directed_broadcast(uint32_t ifindex) const {
  const auto known = current_.settings.find(static_cast<int32_t>(ifindex));
  return directed_broadcast_allowed() && known != current_.settings.end() && known->second.directed_broadcast;
}

bool Picture::directed_broadcast_allowed() const {
  const auto all = current_.settings.find(netconf_all);
  return all != current_.settings.end() && all->second.directed_broadcast;
}

}  // namespace ipd::kernel
