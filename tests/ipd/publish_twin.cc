// SPDX-License-Identifier: Apache-2.0
#include "ipd/publish_twin.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "im.h"
#include "l3vm.h"

namespace publish_test {
namespace {

uint32_t masked(uint32_t addr, uint8_t len) {
  uint32_t result = 0;
  for (uint32_t bit = 0; bit < len; ++bit) result |= addr & (0x80000000u >> bit);
  return result;
}

}  // namespace

bool Twin::set_context(const ipd::ContextState &state) {
  if (state.id == 0 || state.name.empty() || state.name.size() > 35) return false;
  for (const auto &[id, other] : contexts_) {
    if (id != state.id && other.name == state.name) return false;
  }
  contexts_[state.id] = state;
  return true;
}

bool Twin::remove_context(uint32_t id) {
  for (const auto &[ifindex, port] : ports_) {
    if (port.state.context_id == id) return false;
  }
  contexts_.erase(id);
  return true;
}

bool Twin::set_interface(const ipd::InterfaceState &state) {
  if (!contexts_.contains(state.context_id)) return false;
  Port &port = ports_[state.ifindex];
  const bool moves = port.state.context_id != state.context_id;
  if (moves) claim_all(port, false);
  port.state = state;
  if (moves) claim_all(port, true);
  return true;
}

bool Twin::remove_interface(uint32_t ifindex) {
  const auto port = ports_.find(ifindex);
  if (port == ports_.end()) return true;
  claim_all(port->second, false);
  ports_.erase(port);
  return true;
}

// The kernel's own way to find the place, step by step.
void Twin::enter(std::vector<ipd::AddressState> &list, const ipd::AddressState &state) {
  auto place = list.begin();
  for (auto each = list.begin(); each != list.end(); ++each) {
    if (!each->secondary && state.scope <= each->scope) place = each + 1;
  }
  list.insert(state.secondary ? list.end() : place, state);
}

bool Twin::set_address(uint32_t ifindex, const ipd::AddressState &state) {
  const auto port = ports_.find(ifindex);
  if (port == ports_.end() || state.mask_len > 32 || state.addr == 0) return false;
  auto &list = port->second.addresses;
  for (auto each = list.begin(); each != list.end(); ++each) {
    if (each->addr != state.addr || each->mask_len != state.mask_len) continue;
    const bool stays = each->secondary == state.secondary && (state.secondary || each->scope == state.scope);
    if (stays) {
      *each = state;
    } else {
      list.erase(each);
      enter(list, state);
    }
    return true;
  }
  enter(list, state);
  claim_address(port->second, state, true);
  return true;
}

bool Twin::remove_address(uint32_t ifindex, uint32_t addr, uint8_t mask_len) {
  const auto port = ports_.find(ifindex);
  if (port == ports_.end()) return true;
  auto &list = port->second.addresses;
  for (auto each = list.begin(); each != list.end(); ++each) {
    if (each->addr != addr || each->mask_len != mask_len) continue;
    claim_address(port->second, *each, false);
    list.erase(each);
    return true;
  }
  return true;
}

bool Twin::set_vip(const ipd::VipState &vip) {
  const auto port = ports_.find(vip.ifindex);
  if (port == ports_.end() || vip.addr == 0) return false;
  if (port->second.vips.insert(vip.addr).second) claim(port->second, vip.addr, 32, true, true);
  return true;
}

bool Twin::remove_vip(const ipd::VipState &vip) {
  const auto port = ports_.find(vip.ifindex);
  if (port != ports_.end() && port->second.vips.erase(vip.addr) != 0) claim(port->second, vip.addr, 32, true, false);
  return true;
}

bool Twin::set_unnumbered(uint32_t ifindex, uint32_t source_ifindex, const std::string &source_name) {
  const auto port = ports_.find(ifindex);
  if (port == ports_.end() || source_ifindex == ifindex) return false;
  port->second.lender = source_ifindex;
  port->second.lender_name = source_name;
  return true;
}

bool Twin::set_groups(uint32_t ifindex, const std::vector<ipd::GroupState> &groups) {
  const auto port = ports_.find(ifindex);
  for (const ipd::GroupState &group : groups) {
    if (group.group < ip(224, 0, 0, 0) || group.group > ip(239, 255, 255, 255)) return false;
  }
  if (port == ports_.end()) return false;
  port->second.groups = groups;
  return true;
}

bool Twin::set_multicast_counters(uint32_t ifindex, const ipd::MulticastCounters &counters) {
  const auto port = ports_.find(ifindex);
  if (port == ports_.end()) return false;
  port->second.counters = counters;
  return true;
}

bool Twin::set_pim_asserts(uint32_t ifindex, uint32_t count) {
  const auto port = ports_.find(ifindex);
  if (port == ports_.end()) return false;
  port->second.pim_asserts = count;
  return true;
}

bool Twin::set_load_share(uint8_t mode, uint32_t value) {
  load_share_ = {.mode = mode, .value = value};
  return true;
}

void Twin::claim(const Port &port, uint32_t network, uint8_t len, bool vip, bool add) {
  auto each = claims_.begin();
  while (each != claims_.end() && !(each->context_id == port.state.context_id && each->network == network &&
                                    each->len == len && each->ifindex == port.state.ifindex)) {
    ++each;
  }
  if (each == claims_.end()) {
    each = claims_.insert(each, {.context_id = port.state.context_id,
                                 .network = network,
                                 .len = len,
                                 .ifindex = port.state.ifindex,
                                 .addresses = 0,
                                 .vips = 0});
  }
  (vip ? each->vips : each->addresses) += add ? 1 : ~0u;
  if (each->addresses == 0 && each->vips == 0) claims_.erase(each);
}

void Twin::claim_address(const Port &port, const ipd::AddressState &address, bool add) {
  claim(port, address.addr, 32, false, add);
  if (address.mask_len < 32) claim(port, masked(address.addr, address.mask_len), address.mask_len, false, add);
}

void Twin::claim_all(const Port &port, bool add) {
  for (const ipd::AddressState &address : port.addresses) claim_address(port, address, add);
  for (const uint32_t vip : port.vips) claim(port, vip, 32, true, add);
}

void Twin::replay(ipd::Publisher &publisher) const {
  for (const auto &[id, context] : contexts_) ASSERT_TRUE(publisher.set_context(context)) << publisher.last_error();
  for (const auto &[ifindex, port] : ports_) {
    ASSERT_TRUE(publisher.set_interface(port.state)) << publisher.last_error();
    for (const auto &address : port.addresses) ASSERT_TRUE(publisher.set_address(ifindex, address));
    for (const uint32_t vip : port.vips) ASSERT_TRUE(publisher.set_vip({.ifindex = ifindex, .addr = vip}));
    ASSERT_TRUE(publisher.set_unnumbered(ifindex, port.lender, port.lender_name));
    ASSERT_TRUE(publisher.set_groups(ifindex, port.groups));
  }
  ASSERT_TRUE(publisher.set_load_share(static_cast<uint8_t>(load_share_.mode), load_share_.value));
}

Twin Twin::replayed() const {
  Twin result;
  result.contexts_ = contexts_;
  result.ports_ = ports_;
  result.load_share_ = load_share_;
  for (const auto &[ifindex, port] : ports_) result.claim_all(port, true);
  return result;
}

std::vector<Holding> Twin::holdings(const ipd::Publisher &publisher, uint32_t context_id) const {
  std::map<std::pair<uint32_t, uint32_t>, Holding> found;
  for (const Claim &each : claims_) {
    if (each.context_id != context_id) continue;
    Holding &holding = found[{each.network, each.len}];
    holding.network = each.network;
    holding.len = each.len;
    holding.iods.push_back(publisher.iod(each.ifindex));
    holding.vip = holding.vip || each.vips != 0;
  }
  std::vector<Holding> result;
  for (const auto &[key, holding] : found) result.push_back(holding);
  return result;
}

void Twin::expect_router_id(const ipd::Publisher &publisher, const ipd::ContextState &context) const {
  uint32_t router_id = 0;
  uint32_t iod = 0;
  for (const bool loopback_only : {true, false}) {
    for (const Claim &each : claims_) {
      const bool eligible = each.context_id == context.id && each.len == 32 && each.addresses != 0 &&
                            each.network >> 24 != 127 && (!loopback_only || ports_.at(each.ifindex).state.loopback);
      if (!eligible || each.network <= router_id) continue;
      router_id = each.network;
      iod = publisher.iod(each.ifindex);
    }
    if (router_id != 0) break;
  }
  if (context.router_id != 0) {
    router_id = context.router_id;
    iod = 0;
    for (const Claim &each : claims_) {
      const bool holds = each.context_id == context.id && each.network == router_id && each.len == 32;
      if (holds && each.addresses != 0 && iod == 0) iod = publisher.iod(each.ifindex);
    }
  }
  const ip_api_context_type *record = ip_get_api_context(context.id);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->router_id, router_id);
  EXPECT_EQ(record->router_id_iod, iod);
}

void Twin::expect_contexts(const ipd::Publisher &publisher) const {
  std::vector<uint32_t> ids;
  for (const auto &[id, context] : contexts_) {
    ids.push_back(id);
    const ip_api_context_type *record = ip_get_api_context(id);
    ASSERT_NE(record, nullptr) << context.name;
    EXPECT_EQ(ip_get_api_context_by_name(context.name.c_str()), record);
    EXPECT_EQ(ip_get_api_context_id(context.name.c_str()), id);
    EXPECT_STREQ(ip_get_api_context_name(id), context.name.c_str());
    EXPECT_EQ(record->table_id, context.table_id);
    expect_router_id(publisher, context);

    const std::vector<Holding> expected = holdings(publisher, id);
    EXPECT_EQ(holdings_of(id), expected) << context.name;
    for (const Holding &holding : expected) {
      EXPECT_EQ(holding_of(id, holding.network, holding.len), holding);
      if (holding.len != 32) continue;
      EXPECT_EQ(ip_get_iod_for_local_address(context.name.c_str(), holding.network), holding.iods.front());
    }
  }
  EXPECT_EQ(context_ids(), ids);
}

void Twin::expect_interface(const ipd::Publisher &publisher, const Port &port) const {
  const uint32_t iod = publisher.iod(port.state.ifindex);
  uint32_t found = 0;
  EXPECT_EQ(im_get_iod_frm_ifindex(port.state.ifindex, &found), 0u);
  EXPECT_EQ(found, iod);
  EXPECT_STREQ(im_get_if_name(iod), port.state.name.c_str());
  EXPECT_EQ(im_is_if_up(iod), port.state.up ? 1u : 0u);
  EXPECT_EQ(im_is_adminup(iod), port.state.admin_up ? 1u : 0u);
  EXPECT_EQ(lcache_im_get_if_mtu(iod), port.state.mtu);
  EXPECT_EQ(l3vm_if_get_context_id(iod), port.state.context_id);
  EXPECT_EQ(l3vm_if_get_table_id(iod, 1, "base"), contexts_.at(port.state.context_id).table_id);
  EXPECT_EQ(ip_allow_directed_broadcast(iod), port.state.directed_broadcast ? 1u : 0u);
  EXPECT_EQ(ip_is_multicast_enabled(iod), port.state.multicast ? 1u : 0u);
  EXPECT_EQ(ip_is_iod_unnumbered(iod), port.lender != 0 ? 1u : 0u);
  const ip_iftype *record = interface_record(iod);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->fwd_enabled, port.state.forwarding ? 1u : 0u);
  EXPECT_EQ(record->vaddr_count, port.vips.size());
  EXPECT_EQ(record->unnum_src_iod, publisher.iod(port.lender));
  if (port.lender != 0) {
    EXPECT_STREQ(record->unnum_data->name, port.lender_name.c_str());
  }

  EXPECT_EQ(ip_get_secondary_count(iod), port.addresses.empty() ? 0 : port.addresses.size() - 1);
  uint32_t addr = 0;
  uint8_t len = 0;
  for (size_t i = 0; i < port.addresses.size(); ++i) {
    const ipd::AddressState &address = port.addresses[i];
    EXPECT_EQ(ip_is_address_on_interface(address.addr, iod), 1u);
    if (i == 0) {
      EXPECT_EQ(ip_get_local_mask_len(address.addr, iod), address.mask_len);
      continue;
    }
    ip_get_next_secondary(iod, &addr, &len);
    EXPECT_EQ(addr, address.addr);
    EXPECT_EQ(len, address.mask_len);
  }
  ip_get_next_secondary(iod, &addr, &len);
  EXPECT_EQ(addr, 0u);
  uint32_t vip = 0;
  const uint32_t own_vip = ip_get_best_intf_vip(port.state.context_id, 1, iod, &vip);
  uint32_t expected_vip = 0;
  for (const Holding &holding : holdings(publisher, port.state.context_id)) {
    if (expected_vip == 0 && holding.vip && holding.iods.front() == iod) expected_vip = holding.network;
  }
  EXPECT_EQ(own_vip, expected_vip != 0 ? 1u : 0u);
  if (own_vip != 0) {
    EXPECT_EQ(vip, expected_vip);
  }
}

void Twin::expect_multicast(uint32_t iod, const Port &port) {
  EXPECT_EQ(groups_of(iod), port.groups);
  EXPECT_EQ(ip_get_pim_assert_sent_count(iod), port.pim_asserts);
  EXPECT_EQ(counters_of(iod), port.counters);
}

void Twin::expect_published(const ipd::Publisher &publisher) const {
  expect_contexts(publisher);
  uint32_t addresses = 0;
  for (const auto &[ifindex, port] : ports_) {
    expect_interface(publisher, port);
    expect_multicast(publisher.iod(ifindex), port);
    EXPECT_EQ(publisher.pim_asserts(ifindex), port.pim_asserts);
    EXPECT_EQ(publisher.multicast_counters(ifindex), port.counters);
    addresses += static_cast<uint32_t>(port.addresses.size());
  }
  uint32_t interfaces = 0;
  for (uint32_t iod = im_get_next_ext_if(0, IP_COMPONENT); iod != 0; iod = im_get_next_ext_if(iod, IP_COMPONENT)) {
    ++interfaces;
  }
  EXPECT_EQ(interfaces, ports_.size());
  ip_ecmp_loadshare_status load_share{};
  EXPECT_EQ(ip_get_ecmp_loadshare_status(&load_share), 1u);
  EXPECT_EQ(load_share.mode, load_share_.mode);
  EXPECT_EQ(load_share.value, load_share_.value);
  const ipd::PublisherUse use = publisher.use();
  EXPECT_EQ(use.contexts, contexts_.size());
  EXPECT_EQ(use.interfaces, ports_.size());
  EXPECT_EQ(use.addresses, addresses);
}

}  // namespace publish_test
