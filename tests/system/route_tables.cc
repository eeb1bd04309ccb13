// SPDX-License-Identifier: Apache-2.0
// The kernel's side is written from what ip(8) prints and shares no line with ipd.
#include "route_tables.h"

#include <arpa/inet.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "im.h"
#include "support/process.h"
#include "urib/urib_view.h"

namespace test_support {
namespace {

using nlohmann::json;
using Prefix = std::pair<uint32_t, unsigned>;

uint32_t host_order(const std::string &text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1 ? ntohl(address.s_addr) : 0;
}

Prefix prefix_of(const std::string &text) {
  if (text == "default") return {0, 0};
  const size_t slash = text.find('/');
  return {host_order(text.substr(0, slash)),
          slash == std::string::npos ? 32u : static_cast<unsigned>(std::stoul(text.substr(slash + 1)))};
}

uint32_t number_of(const std::string &text, const std::map<std::string, uint32_t> &names) {
  const auto name = names.find(text);
  return name != names.end() ? name->second : static_cast<uint32_t>(std::stoul(text));
}

uint32_t table_number(const json &route) {
  return number_of(route.value("table", "main"), {{"main", 254}, {"local", 255}, {"default", 253}});
}

uint32_t protocol_number(const json &route) {
  return number_of(route.value("protocol", "boot"),
                   {{"unspec", 0}, {"kernel", 2}, {"boot", 3}, {"static", 4}, {"bgp", 186}, {"ospf", 188}});
}

bool has_flag(const json &object, const char *flag) {
  const json flags = object.value("flags", json::array());
  return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

std::string hop_line(const json &hop, uint32_t weight) {
  const bool ipv6 = hop.contains("via") && hop["via"].value("family", "") == "inet6";
  return "\n    " + hop.value("dev", "?") + " " + std::to_string(host_order(hop.value("gateway", ""))) + " weight " +
         std::to_string(weight) + (ipv6 ? " ipv6" : "");
}

// Of a single hop ip(8) does not always know the weight, and it means nothing.
std::vector<std::string> live_hops(const json &route) {
  std::vector<json> live;
  if (route.contains("nexthops")) {
    for (const json &hop : route["nexthops"]) {
      if (!has_flag(hop, "dead")) live.push_back(hop);
    }
  } else if (!has_flag(route, "dead")) {
    live.push_back(route);
  }
  std::vector<std::string> lines;
  for (const json &hop : live) lines.push_back(hop_line(hop, live.size() == 1 ? 1 : hop.value("weight", 1u)));
  return lines;
}

std::string kind_of(const json &route, const Prefix &prefix) {
  const std::string type = route["type"];
  if (type == "local") return "local";
  if (type == "broadcast" || type == "multicast" || type == "anycast") return "other";
  const uint32_t protocol = protocol_number(route);
  if (type == "unicast" && route.value("scope", "global") == "link") {
    const uint32_t mask = prefix.second == 0 ? 0 : 0xffffffffu << (32 - prefix.second);
    const uint32_t source = host_order(route.value("prefsrc", ""));
    return protocol == 2 && source != 0 && (source & mask) == prefix.first ? "attached" : "direct";
  }
  return protocol == 3 || protocol == 4 ? "static" : "other";
}

std::string head_line(uint32_t table, const Prefix &prefix, const std::string &kind, const std::string &action,
                      uint32_t protocol, uint32_t metric, uint32_t origin, uint32_t source) {
  in_addr address{.s_addr = htonl(prefix.first)};
  std::string out = std::to_string(table) + " " + inet_ntoa(address) + "/" + std::to_string(prefix.second);
  out += " " + kind + " " + action + " protocol " + std::to_string(protocol) + " metric " + std::to_string(metric);
  return out + " from " + std::to_string(origin) + " source " + std::to_string(source);
}

struct Candidate {
  int rank;
  uint32_t metric;
  std::string text;
};

std::optional<std::string> text_of(const json &route, uint32_t table, const Prefix &prefix) {
  static const std::map<std::string, std::string> actions = {
      {"unicast", "forward"},   {"local", "forward"},           {"anycast", "forward"},
      {"multicast", "forward"}, {"broadcast", "broadcast"},     {"blackhole", "blackhole"},
      {"prohibit", "prohibit"}, {"unreachable", "unreachable"}, {"throw", "pass_on"}};
  const auto action = actions.find(route["type"]);
  if (action == actions.end() || route.contains("tos")) return std::nullopt;
  std::string out = head_line(table, prefix, kind_of(route, prefix), action->second, protocol_number(route),
                              route.value("metric", 0u), table_number(route), host_order(route.value("prefsrc", "")));
  if (action->second != "forward" && action->second != "broadcast") return out;
  const auto hops = live_hops(route);
  if (hops.empty()) return std::nullopt;
  for (const std::string &hop : hops) out += hop;
  return out;
}

const char *name_of(rsw::RouteKind kind) {
  constexpr const char *names[] = {"?", "local", "attached", "direct", "static", "multicast", "other"};
  return names[static_cast<size_t>(kind)];
}

const char *name_of(rsw::RouteAction action) {
  constexpr const char *names[] = {"forward", "broadcast", "blackhole", "unreachable", "prohibit", "pass_on"};
  return names[static_cast<size_t>(action)];
}

}  // namespace

std::string kernels_routes(const TableOfInterface &interfaces) {
  std::string text;
  if (run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -4 -j -d route show table all"}, &text) != 0) return "";
  const json all = json::parse(text, nullptr, false);
  if (!all.is_array()) return "";
  std::map<std::pair<uint32_t, Prefix>, std::vector<Candidate>> candidates;
  for (const json &route : all) {
    if (!route.contains("dst")) continue;
    const Prefix prefix = prefix_of(route["dst"]);
    const uint32_t origin = table_number(route);
    const auto named = interfaces.find(route.value("dev", ""));
    const uint32_t of_interface = named == interfaces.end() ? 254 : named->second;
    const auto add = [&](uint32_t table, int rank) {
      if (const auto line = text_of(route, table, prefix)) {
        candidates[{table, prefix}].push_back({rank, route.value("metric", 0u), *line});
      }
    };
    if (origin == 255) {
      add(of_interface, 0);
      continue;
    }
    add(origin, 1);
    const bool connected =
        route["type"] == "unicast" && protocol_number(route) == 2 && route.value("scope", "") == "link";
    if (origin == 254 && connected && of_interface != 254) add(of_interface, 2);
  }
  std::string out;
  for (auto &[place, list] : candidates) {
    const auto best = std::min_element(list.begin(), list.end(), [](const Candidate &a, const Candidate &b) {
      return std::pair(a.rank, a.metric) < std::pair(b.rank, b.metric);
    });
    out += best->text + "\n";
  }
  return out;
}

std::string published_routes() {
  std::string out;
  for (const uint32_t table : rsw::urib_tables()) {
    for (const rsw::Route &route : rsw::urib_routes(table, rsw::RouteView::unicast)) {
      if (route.origin == 0) continue;
      out += head_line(table, {route.addr, route.len}, name_of(route.kind), name_of(route.action), route.protocol,
                       route.metric, route.origin, route.pref_src);
      for (const rsw::RouteNextHop &hop : route.next_hops) {
        const char *name = im_get_if_name(hop.iod);
        out += std::string("\n    ") + (name == nullptr ? "?" : name) + " " + std::to_string(hop.addr) + " weight " +
               std::to_string(hop.weight) + (hop.via_ipv6 ? " ipv6" : "");
      }
      out += "\n";
    }
  }
  return out;
}

}  // namespace test_support
