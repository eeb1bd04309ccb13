// SPDX-License-Identifier: Apache-2.0
// An entry is compared with what it was, because most changes of an interface (a second address, a group) are none that
// an entry tells of.
//
// Within one batch an ifindex may have gone to another interface, and an iod too. So an interface is gone when nothing
// has its ifindex any more or something with another iod has, but what is known under its iod goes only if that is
// still the same interface.
#include "ipd/control/interface_entries.h"

#include <cstring>

namespace ipd::control {
namespace {

// All of it is compared: an entry has no padding, and a name is zeros behind its end.
bool same(const ip_if_info_msg_entry &a, const ip_if_info_msg_entry &b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

ip_if_info_msg_entry removal_of(const ip_if_info_msg_entry &entry) {
  ip_if_info_msg_entry removal{};
  removal.f0 = entry.f0;
  removal.f3 = entry.f3;
  removal.f2 = IP_IF_INFO_REMOVED;
  std::memcpy(removal.f1, entry.f1, sizeof removal.f1);
  return removal;
}

}  // namespace

ip_if_info_msg_entry entry_of(const InterfaceFacts &facts) {
  const InterfaceState &state = facts.state;
  ip_if_info_msg_entry entry{};
  entry.f0 = facts.iod;
  entry.f3 = state.ifindex;
  entry.f7 = state.context_id;
  entry.f2 = (state.up ? IP_IF_INFO_UP : 0) | (state.admin_up ? IP_IF_INFO_ADMIN_UP : 0) |
             (state.loopback ? IP_IF_INFO_LOOPBACK : 0) | (state.multicast ? IP_IF_INFO_MULTICAST : 0) |
             (state.forwarding ? IP_IF_INFO_FORWARDING : 0) | (facts.lender_iod != 0 ? IP_IF_INFO_UNNUMBERED : 0);
  if (!facts.addresses.empty()) {
    entry.f4 = facts.addresses.front().addr;
    entry.f8 = facts.addresses.front().mask_len;
  }
  entry.f9 = state.mtu;
  entry.f10 = facts.lender_iod;
  state.name.copy(entry.f1, sizeof entry.f1);
  return entry;
}

void InterfaceEntries::clear() {
  present_.clear();
  gone_.clear();
  by_ifindex_.clear();
}

void InterfaceEntries::read() {
  clear();
  for (const uint32_t iod : box_.iods()) {
    const auto facts = box_.interface(iod);
    if (!facts) continue;
    present_[iod] = entry_of(*facts);
    by_ifindex_[facts->state.ifindex] = iod;
  }
}

void InterfaceEntries::remove(uint32_t ifindex, std::set<uint32_t> &news) {
  const auto known = by_ifindex_.find(ifindex);
  if (known == by_ifindex_.end()) return;
  const uint32_t iod = known->second;
  by_ifindex_.erase(known);
  const auto entry = present_.find(iod);
  if (entry == present_.end() || entry->second.f3 != ifindex) return;
  gone_[iod] = removal_of(entry->second);
  present_.erase(entry);
  news.insert(iod);
}

std::set<uint32_t> InterfaceEntries::compare(const std::set<uint32_t> &ifindexes) {
  std::set<uint32_t> news;
  for (const uint32_t ifindex : ifindexes) {
    const auto facts = box_.interface_by_ifindex(ifindex);
    const auto known = by_ifindex_.find(ifindex);
    if (!facts || (known != by_ifindex_.end() && known->second != facts->iod)) remove(ifindex, news);
    if (!facts) continue;
    by_ifindex_[ifindex] = facts->iod;
    const ip_if_info_msg_entry entry = entry_of(*facts);
    gone_.erase(facts->iod);
    const auto [told, is_new] = present_.try_emplace(facts->iod, entry);
    if (!is_new && same(told->second, entry)) continue;
    told->second = entry;
    news.insert(facts->iod);
  }
  return news;
}

}  // namespace ipd::control
