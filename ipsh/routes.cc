// SPDX-License-Identifier: Apache-2.0
// Routes are read a table at a time and stay as the platform gives them: a listing of a full table points at them
// instead of copying each into a row with texts, which are made when the row is printed.
#include "routes.h"

#include <fmt/format.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "arguments.h"
#include "snapshot.h"

namespace ipsh {
namespace {

struct ProtocolName {
  uint8_t number;
  std::string_view name;
};
constexpr std::array<ProtocolName, 20> protocol_names{{
    {RTPROT_REDIRECT, "redirect"}, {RTPROT_KERNEL, "kernel"},
    {RTPROT_BOOT, "boot"},         {RTPROT_STATIC, "static"},
    {RTPROT_GATED, "gated"},       {RTPROT_RA, "ra"},
    {RTPROT_MRT, "mrt"},           {RTPROT_ZEBRA, "zebra"},
    {RTPROT_BIRD, "bird"},         {RTPROT_DNROUTED, "dnrouted"},
    {RTPROT_XORP, "xorp"},         {RTPROT_NTK, "ntk"},
    {RTPROT_DHCP, "dhcp"},         {RTPROT_KEEPALIVED, "keepalived"},
    {RTPROT_BABEL, "babel"},       {RTPROT_BGP, "bgp"},
    {RTPROT_ISIS, "isis"},         {RTPROT_OSPF, "ospf"},
    {RTPROT_RIP, "rip"},           {RTPROT_EIGRP, "eigrp"},
}};

bool leaves_by(const rsw::Route &route, uint32_t iod) {
  return std::ranges::find(route.next_hops, iod, &rsw::RouteNextHop::iod) != route.next_hops.end();
}

}  // namespace

RouteNames read_route_names() {
  RouteNames names;
  for (const InterfaceRow &interface : read_interfaces({})) names.interfaces.emplace(interface.iod, interface.name);
  for (const ContextRow &context : read_contexts()) names.contexts.emplace(context.table_id, context.name);
  return names;
}

std::string name_of(const std::map<uint32_t, std::string> &names, uint32_t number) {
  const auto known = names.find(number);
  return known == names.end() ? "" : known->second;
}

const char *to_text(rsw::RouteKind kind) {
  switch (kind) {
    case rsw::RouteKind::local:
      return "local";
    case rsw::RouteKind::attached:
      return "attached";
    case rsw::RouteKind::direct:
      return "direct";
    case rsw::RouteKind::static_:
      return "static";
    case rsw::RouteKind::multicast_static:
      return "multicast-static";
    case rsw::RouteKind::other:
      return "other";
  }
  return "other";
}

const char *to_text(rsw::RouteAction action) {
  switch (action) {
    case rsw::RouteAction::forward:
      return "forward";
    case rsw::RouteAction::broadcast:
      return "broadcast";
    case rsw::RouteAction::blackhole:
      return "blackhole";
    case rsw::RouteAction::unreachable:
      return "unreachable";
    case rsw::RouteAction::prohibit:
      return "prohibit";
    case rsw::RouteAction::pass_on:
      return "pass-on";
  }
  return "forward";
}

const char *to_text(rsw::RouteView view) {
  return view == rsw::RouteView::multicast ? "multicast" : "unicast";
}

std::string protocol_name(uint8_t protocol) {
  const auto known = std::ranges::find(protocol_names, protocol, &ProtocolName::number);
  return known == protocol_names.end() ? "" : std::string(known->name);
}

std::string next_hop_text(const rsw::RouteNextHop &next_hop, const RouteNames &names) {
  std::string text = next_hop.via_ipv6 ? "an IPv6 neighbour" : next_hop.addr == 0 ? "" : address_text(next_hop.addr);
  if (next_hop.iod != 0) {
    const std::string name = name_of(names.interfaces, next_hop.iod);
    text += fmt::format("{}on {}", text.empty() ? "" : " ", name.empty() ? fmt::format("{}", next_hop.iod) : name);
  } else if (next_hop.table != 0) {
    text += fmt::format("{}in table {}", text.empty() ? "" : " ", next_hop.table);
  }
  if (next_hop.weight != 1) text += fmt::format(" weight {}", next_hop.weight);
  if (next_hop.data == rsw::inactive_next_hop) text += " inactive";
  return text;
}

bool routes_are_published(Failure *failure) {
  if (rsw::urib_header() != nullptr) return true;
  *failure = {ExitCode::unavailable, "ipd has published no route tables", "restart ipd, of the same version as ipsh"};
  return false;
}

bool read_routes(const RouteSelection &selection, RouteListing *listing, Failure *failure) {
  if (!routes_are_published(failure)) return false;
  *listing = {selection.view, {}, 0, {}, std::make_unique<RouteNames>(read_route_names())};
  for (const uint32_t table : rsw::urib_tables()) {
    if (selection.table && table != *selection.table) continue;
    listing->tables.emplace_back(table, rsw::urib_routes(table, selection.view));
    for (const rsw::Route &route : listing->tables.back().second) {
      if (selection.iod && !leaves_by(route, *selection.iod)) continue;
      if (selection.limit && listing->rows.size() == *selection.limit) {
        ++listing->left_out;
      } else {
        listing->rows.push_back({table, &route, listing->names.get()});
      }
    }
  }
  return true;
}

}  // namespace ipsh
