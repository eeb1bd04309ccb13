// SPDX-License-Identifier: Apache-2.0
#include "ipd/recording_publisher.h"

#include <algorithm>

namespace test_support {
namespace {

int order_of_kind(const ipd::AddressState &address) {
  return address.secondary ? 256 : 255 - address.scope;
}

}  // namespace

bool RecordingPublisher::refuse(const std::string &why) {
  error_ = why;
  return false;
}

bool RecordingPublisher::set_context(const ipd::ContextState &context) {
  calls.push_back("set_context " + std::to_string(context.id));
  for (const auto &[id, other] : contexts) {
    if (id != context.id && other.name == context.name) return refuse("the name is another context's");
    if (id == context.id && other.name != context.name) return refuse("a context keeps its name");
  }
  contexts[context.id] = context;
  return true;
}

bool RecordingPublisher::remove_context(uint32_t id) {
  calls.push_back("remove_context " + std::to_string(id));
  for (const auto &[ifindex, interface] : interfaces) {
    if (interface.state.context_id == id) return refuse("interfaces are in it");
  }
  return contexts.erase(id) == 1 || refuse("no such context");
}

bool RecordingPublisher::set_interface(const ipd::InterfaceState &interface) {
  calls.push_back("set_interface " + interface.name);
  if (!contexts.contains(interface.context_id)) return refuse("no such context");
  if (!interfaces.contains(interface.ifindex)) {
    if (interfaces.size() >= room) return refuse("the table is full");
    interfaces[interface.ifindex].made = ++made_;
  }
  interfaces[interface.ifindex].state = interface;
  return true;
}

bool RecordingPublisher::remove_interface(uint32_t ifindex) {
  calls.push_back("remove_interface " + std::to_string(ifindex));
  return interfaces.erase(ifindex) == 1 || refuse("no such interface");
}

bool RecordingPublisher::set_address(uint32_t ifindex, const ipd::AddressState &address) {
  calls.push_back("set_address " + std::to_string(ifindex) + " " + std::to_string(address.addr));
  const auto found = interfaces.find(ifindex);
  if (found == interfaces.end()) return refuse("no such interface");
  auto &list = found->second.addresses;
  const auto same = std::find_if(list.begin(), list.end(), [&](const ipd::AddressState &other) {
    return other.addr == address.addr && other.mask_len == address.mask_len;
  });
  if (same != list.end()) {
    if (order_of_kind(*same) == order_of_kind(address)) {
      *same = address;
      return true;
    }
    list.erase(same);
  }
  const auto behind = std::find_if(list.begin(), list.end(), [&](const ipd::AddressState &other) {
    return order_of_kind(other) > order_of_kind(address);
  });
  list.insert(behind, address);
  return true;
}

bool RecordingPublisher::remove_address(uint32_t ifindex, uint32_t addr, uint8_t mask_len) {
  calls.push_back("remove_address " + std::to_string(ifindex) + " " + std::to_string(addr));
  const auto found = interfaces.find(ifindex);
  if (found == interfaces.end()) return refuse("no such interface");
  const auto gone = std::erase_if(found->second.addresses, [&](const ipd::AddressState &address) {
    return address.addr == addr && address.mask_len == mask_len;
  });
  return gone == 1 || refuse("no such address");
}

bool RecordingPublisher::set_vip(const ipd::VipState &vip) {
  calls.push_back("set_vip " + std::to_string(vip.ifindex) + " " + std::to_string(vip.addr));
  if (!interfaces.contains(vip.ifindex)) return refuse("no such interface");
  interfaces[vip.ifindex].vips.insert(vip.addr);
  return true;
}

bool RecordingPublisher::remove_vip(const ipd::VipState &vip) {
  calls.push_back("remove_vip " + std::to_string(vip.ifindex) + " " + std::to_string(vip.addr));
  const auto found = interfaces.find(vip.ifindex);
  return (found != interfaces.end() && found->second.vips.erase(vip.addr) == 1) || refuse("no such virtual address");
}

bool RecordingPublisher::set_unnumbered(uint32_t ifindex, uint32_t source_ifindex, const std::string &source_name) {
  calls.push_back("set_unnumbered " + std::to_string(ifindex) + " " + std::to_string(source_ifindex));
  if (!interfaces.contains(ifindex)) return refuse("no such interface");
  if (source_ifindex != 0 && !interfaces.contains(source_ifindex)) return refuse("no such source");
  interfaces[ifindex].lender = {source_ifindex, source_name};
  return true;
}

bool RecordingPublisher::set_groups(uint32_t ifindex, const std::vector<ipd::GroupState> &groups) {
  calls.push_back("set_groups " + std::to_string(ifindex) + " " + std::to_string(groups.size()));
  if (!interfaces.contains(ifindex)) return refuse("no such interface");
  interfaces[ifindex].groups = groups;
  return true;
}

bool RecordingPublisher::set_multicast_counters(uint32_t ifindex, const ipd::MulticastCounters &counters) {
  calls.push_back("set_multicast_counters " + std::to_string(ifindex));
  if (!interfaces.contains(ifindex)) return refuse("no such interface");
  interfaces[ifindex].counters = counters;
  return true;
}

bool RecordingPublisher::set_pim_asserts(uint32_t ifindex, uint32_t count) {
  calls.push_back("set_pim_asserts " + std::to_string(ifindex) + " " + std::to_string(count));
  if (!interfaces.contains(ifindex)) return refuse("no such interface");
  interfaces[ifindex].pim_asserts = count;
  return true;
}

bool RecordingPublisher::set_load_share(uint8_t mode, uint32_t value) {
  calls.push_back("set_load_share " + std::to_string(mode) + " " + std::to_string(value));
  load_share = {mode, value};
  return true;
}

// An interface that was removed and came again has another iod.
uint32_t RecordingPublisher::iod(uint32_t ifindex) const {
  const auto found = interfaces.find(ifindex);
  return found == interfaces.end() ? 0 : static_cast<uint32_t>(found->second.made);
}

uint32_t RecordingPublisher::pim_asserts(uint32_t ifindex) const {
  const auto found = interfaces.find(ifindex);
  return found == interfaces.end() ? 0 : found->second.pim_asserts;
}

std::optional<ipd::MulticastCounters> RecordingPublisher::multicast_counters(uint32_t ifindex) const {
  const auto found = interfaces.find(ifindex);
  return found == interfaces.end() ? std::nullopt : found->second.counters;
}

bool RecordingPublisher::commit() {
  ++commits;
  return true;
}

ipd::PublisherUse RecordingPublisher::use() const {
  size_t addresses = 0;
  for (const auto &[ifindex, interface] : interfaces) addresses += interface.addresses.size();
  return {.contexts = static_cast<uint32_t>(contexts.size()),
          .interfaces = static_cast<uint32_t>(interfaces.size()),
          .addresses = static_cast<uint32_t>(addresses),
          .segment_bytes = 1};
}

std::vector<uint32_t> RecordingPublisher::addresses(uint32_t ifindex) const {
  std::vector<uint32_t> list;
  if (const auto found = interfaces.find(ifindex); found != interfaces.end()) {
    for (const auto &address : found->second.addresses) list.push_back(address.addr);
  }
  return list;
}

std::string RecordingPublisher::picture() const {
  std::string out;
  const auto word = [&out](auto value) { out += std::to_string(value) + " "; };
  for (const auto &[id, context] : contexts) {
    out += "context " + context.name + " ";
    for (uint32_t value : {id, context.table_id, context.router_id}) word(value);
    out += "\n";
  }
  for (const auto &[ifindex, interface] : interfaces) {
    const ipd::InterfaceState &state = interface.state;
    out += "interface " + state.name + " ";
    for (uint32_t value : {ifindex, state.mtu, state.context_id, interface.lender.first}) word(value);
    for (bool value :
         {state.up, state.admin_up, state.loopback, state.multicast, state.forwarding, state.directed_broadcast}) {
      word(value ? 1 : 0);
    }
    for (const auto &address : interface.addresses) {
      out += "\n  ";
      word(address.addr);
      for (unsigned value : {unsigned{address.mask_len}, address.secondary ? 1u : 0u, unsigned{address.scope}})
        word(value);
    }
    for (uint32_t vip : interface.vips) out += "\n  vip " + std::to_string(vip);
    out += "\n";
  }
  return out;
}

}  // namespace test_support
