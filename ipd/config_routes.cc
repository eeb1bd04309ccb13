// SPDX-License-Identifier: Apache-2.0
// Contexts are named here, never checked for existence: a VRF device may come later. A route whose context is not there
// waits for it.
#include "ipd/config_routes.h"

#include <algorithm>

namespace ipd {
namespace {

constexpr size_t longest_context_name = 35;
constexpr size_t longest_interface_name = 15;
constexpr size_t most_next_hops = 256;
constexpr uint32_t kernels_local_table = 255;

// Exactly one of a context's name and a table's number; without both, `otherwise`, if there is that.
TableName read_table(const JsonObject &object, const char *context_key, const char *table_key, const char *otherwise) {
  TableName name;
  const auto context = object.text(context_key, longest_context_name);
  const auto table = object.number(table_key, 1, 0xffffffff);
  if (context && table) object.refuse(table_key, std::string("given beside ") + context_key);
  if (!context && !table && otherwise == nullptr) object.refuse(context_key, "missing");
  if (table == kernels_local_table) object.refuse(table_key, "255 is the kernel's own");
  name.context = context.value_or(otherwise != nullptr && !table ? otherwise : "");
  name.table = static_cast<uint32_t>(table.value_or(0));
  // One name for one table.
  if (name.table == main_table) name = {.context = default_context_name, .table = 0};
  return name;
}

void read_prefix(const JsonObject &object, uint32_t &addr, uint8_t &len) {
  const std::string text = object.required_text("prefix", 18);
  const auto prefix = parse_prefix(text);
  if (!prefix) object.refuse("prefix", "must be a prefix such as \"10.0.0.0/8\", without bits beyond its length");
  addr = prefix->first;
  len = prefix->second;
}

bool multicast(uint32_t addr) {
  return (addr >> 28) == 14;
}

MulticastNextHop read_next_hop(const JsonObject &object) {
  MulticastNextHop hop;
  const auto interface = object.text("interface", longest_interface_name);
  const auto address = object.address("address");
  if (!interface && !address) object.refuse("address", "missing; a next hop needs an address, an interface or both");
  if (address && (*address == 0 || (*address >> 24) == 127 || (*address >> 24) >= 224)) {
    object.refuse("address", "is not an address that a host can have");
  }
  hop.interface = interface.value_or("");
  hop.address = address.value_or(0);
  return hop;
}

std::string print_prefix(uint32_t addr, uint8_t len) {
  return print_address(addr) + "/" + std::to_string(len);
}

std::string print_table(const TableName &name) {
  return name.context.empty() ? "table " + std::to_string(name.table) : "context " + name.context;
}

}  // namespace

void read_multicast_route(const JsonObject &object, Configuration &configuration) {
  MulticastRouteRule rule;
  rule.table = read_table(object, "context", "table", default_context_name);
  read_prefix(object, rule.addr, rule.len);
  if (rule.len >= 4 && multicast(rule.addr)) object.refuse("prefix", "sources are wanted, not groups");
  rule.metric = static_cast<uint32_t>(object.number("metric", 0, 0xffffffff).value_or(0));
  size_t index = 0;
  for (const auto &item : object.array("next_hops")) {
    const std::string key = "next_hops[" + std::to_string(index++) + "]";
    rule.next_hops.push_back(read_next_hop(JsonObject(item, object.path(key.c_str()), {"interface", "address"})));
    const auto &hops = rule.next_hops;
    if (std::find(hops.begin(), hops.end() - 1, hops.back()) != hops.end() - 1)
      object.refuse(key.c_str(), "given twice");
    if (hops.size() > most_next_hops) object.refuse("next_hops", "more than 256");
  }
  if (rule.next_hops.empty()) object.refuse("next_hops", "must name at least one");
  for (const MulticastRouteRule &other : configuration.multicast_routes) {
    if (other.table == rule.table && other.addr == rule.addr && other.len == rule.len) {
      object.refuse("prefix", "given twice for this table");
    }
  }
  configuration.multicast_routes.push_back(std::move(rule));
}

void read_leak(const JsonObject &object, Configuration &configuration) {
  LeakRule rule;
  read_prefix(object, rule.addr, rule.len);
  rule.from = read_table(object, "from", "from_table", nullptr);
  rule.to = read_table(object, "to", "to_table", nullptr);
  if (rule.from == rule.to) object.refuse("to", "must be another table");
  for (const LeakRule &other : configuration.leaks) {
    if (other.addr != rule.addr || other.len != rule.len) continue;
    if (other.to == rule.to) object.refuse("prefix", "is leaked to this table already");
    if (other.to == rule.from && other.from == rule.to) object.refuse("prefix", "is leaked the other way already");
  }
  configuration.leaks.push_back(std::move(rule));
}

std::string describe_routes(const Configuration &configuration) {
  std::string out;
  for (const MulticastRouteRule &rule : configuration.multicast_routes) {
    out += "multicast route " + print_prefix(rule.addr, rule.len) + " in " + print_table(rule.table);
    if (rule.metric != 0) out += " metric " + std::to_string(rule.metric);
    for (const MulticastNextHop &hop : rule.next_hops) {
      out += " via";
      if (hop.address != 0) out += " " + print_address(hop.address);
      if (!hop.interface.empty()) out += " " + hop.interface;
    }
    out += "\n";
  }
  for (const LeakRule &rule : configuration.leaks) {
    out += "leak " + print_prefix(rule.addr, rule.len) + " from " + print_table(rule.from) + " to " +
           print_table(rule.to) + "\n";
  }
  return out;
}

}  // namespace ipd
