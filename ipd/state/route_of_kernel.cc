// SPDX-License-Identifier: Apache-2.0
// One route of the kernel as a URIB table has it: what kind it is, what becomes of a packet, and where it leads.
#include <linux/rtnetlink.h>

#include <algorithm>

#include "ipd/state/routes.h"

namespace ipd {
namespace {

using kernel::RouteHop;
using kernel::RouteInfo;
using kernel::RouteKey;
using kernel::RoutePicture;
using rsw::Route;
using rsw::RouteAction;
using rsw::RouteKind;

constexpr size_t most_next_hops = 256;
constexpr uint32_t heaviest = 256;

uint32_t mask_of(uint8_t len) {
  return len == 0 ? 0 : 0xffffffffu << (32 - len);
}

std::optional<RouteAction> action_of(uint8_t type) {
  switch (type) {
    case RTN_UNICAST:
    case RTN_LOCAL:
    case RTN_ANYCAST:
    case RTN_MULTICAST:
      return RouteAction::forward;
    case RTN_BROADCAST:
      return RouteAction::broadcast;
    case RTN_BLACKHOLE:
      return RouteAction::blackhole;
    case RTN_UNREACHABLE:
      return RouteAction::unreachable;
    case RTN_PROHIBIT:
      return RouteAction::prohibit;
    case RTN_THROW:
      return RouteAction::pass_on;
    default:
      return std::nullopt;
  }
}

bool configured(uint8_t protocol) {
  return protocol == RTPROT_STATIC || protocol == RTPROT_BOOT;
}

// A connected route is the subnet of an address when it contains the address; with a peer it is the peer's.
RouteKind kind_of(const RouteInfo &info, const RouteKey &key) {
  if (info.type == RTN_LOCAL) return RouteKind::local;
  const bool drops = info.type != RTN_UNICAST;
  if (info.type == RTN_UNICAST && info.scope == RT_SCOPE_LINK) {
    const bool own = info.pref_src != 0 && ((info.pref_src ^ key.addr) & mask_of(key.len)) == 0;
    return info.protocol == RTPROT_KERNEL && own ? RouteKind::attached : RouteKind::direct;
  }
  if (drops && (info.type == RTN_BROADCAST || info.type == RTN_ANYCAST || info.type == RTN_MULTICAST)) {
    return RouteKind::other;
  }
  return configured(info.protocol) ? RouteKind::static_ : RouteKind::other;
}

// Newer kernels have weights beyond those of a route.
void limit_weights(std::vector<RouteHop> &hops) {
  uint32_t most = 0;
  for (const RouteHop &hop : hops) most = std::max(most, hop.weight);
  if (most <= heaviest) return;
  for (RouteHop &hop : hops) {
    hop.weight = std::max(uint32_t{1}, static_cast<uint32_t>(uint64_t{hop.weight} * heaviest / most));
  }
}

}  // namespace

uint32_t Routes::table_of(uint32_t ifindex) const {
  const auto found = now_.interfaces.find(ifindex);
  return found == now_.interfaces.end() ? 0 : found->second.table;
}

Routes::Hop Routes::hop_of(const RouteHop &hop, uint32_t table) const {
  const auto found = now_.interfaces.find(hop.ifindex);
  if (found == now_.interfaces.end() || found->second.iod == 0) return {};
  const RouteInterface &interface = found->second;
  Hop out{.known = true, .hop = {.iod = interface.iod, .addr = hop.gateway, .via_ipv6 = hop.via_ipv6}};
  out.hop.weight = static_cast<uint16_t>(hop.weight);
  // Out of a VRF device means: look it up in that VRF's table.
  if (interface.vrf_table != 0 && interface.vrf_table != table && !hop.via_ipv6) {
    out.hop.iod = 0;
    out.hop.table = interface.vrf_table;
  }
  return out;
}

std::optional<Route> Routes::route_of(const RoutePicture &picture, uint32_t kernel_table, uint32_t table,
                                      const RouteKey &key, uint32_t id) const {
  const RouteInfo &info = picture.info(id);
  const auto action = action_of(info.type);
  kernel::ResolvedRoute resolved = picture.resolve(id);
  if (!action || !resolved.usable || key.tos != 0) return std::nullopt;
  Route route{.addr = key.addr,
              .len = key.len,
              .kind = kind_of(info, key),
              .action = resolved.blackhole ? RouteAction::blackhole : *action,
              .protocol = info.protocol,
              .metric = key.metric,
              .origin = kernel_table,
              .pref_src = info.pref_src,
              .next_hops = {}};
  if (resolved.hops.empty()) return route;
  limit_weights(resolved.hops);
  for (const RouteHop &hop : resolved.hops) {
    const Hop found = hop_of(hop, table);
    if (found.known && route.next_hops.size() < most_next_hops) route.next_hops.push_back(found.hop);
  }
  if (route.next_hops.empty()) return std::nullopt;
  if (route.next_hops.size() == 1) route.next_hops[0].weight = 1;  // it shares with nobody
  return route;
}

}  // namespace ipd
