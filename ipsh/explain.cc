// SPDX-License-Identifier: Apache-2.0
// Each fact is what the library answers; what the library does not say, the rule behind the answer, is found by looking
// at the same records that it looked at. The two are compared: when the address that the rule leads to is not the one
// that the library chose, the system changed in between, and everything is asked again, a few times.
#include "explain.h"

#include <netinet/in.h>

#include "ip_api.h"
#include "snapshot.h"

namespace ipsh {
namespace {

constexpr int most_attempts = 5;

NamedInterface named(uint32_t iod) {
  return {iod, iod == 0 ? "" : interface_name(iod)};
}

AddressFacts read_facts(const Explanation &about) {
  const char *context = about.context.c_str();
  AddressFacts facts;
  facts.multicast = ip_is_addr_multicast(about.addr) != 0;
  facts.martian = ip_address_martian(about.addr) != 0;
  facts.local = named(ip_is_addr_local_intf(about.context_id, about.addr));
  facts.is_virtual = ip_is_addr_local_vip(about.context_id, about.addr) != 0;
  facts.active = ip_is_addr_local_active(context, about.addr) != 0;
  facts.attached = named(ip_is_addr_attached(context, about.addr));
  for (const InterfaceRow &interface : read_interfaces({.context_id = about.context_id, .iod = {}})) {
    if (ip_is_addr_directed_broadcast(about.addr, interface.iod) == 0) continue;
    facts.broadcast_of.push_back({interface.iod, interface.name});
  }
  return facts;
}

uint32_t lowest_active(const Explanation &about) {
  return ip_get_active_local_address(about.context_id);
}

// The rule and the address that it leads to, from the interface's own records.
SourceFacts expected_source(const Explanation &about) {
  if (about.facts.multicast) return {.rule = SourceRule::multicast_destination, .lender = {}};
  if (!about.reachable) return {.rule = SourceRule::no_path, .lender = {}};
  if (about.path.table_id != about.table) {
    return {.rule = SourceRule::leaked, .addr = lowest_active(about), .lender = {}};
  }
  const Selection outgoing{.context_id = {}, .iod = about.path.iod};
  for (const InterfaceRow &interface : read_interfaces(outgoing)) {
    if (!interface.unnumbered) continue;
    const NamedInterface lender{find_interface(interface.unnumbered_source), interface.unnumbered_source};
    const uint32_t addr = ip_get_local_addr(about.path.iod);
    if (addr == 0) return {.rule = SourceRule::no_interface_address, .addr = lowest_active(about), .lender = {}};
    return {.rule = SourceRule::borrowed, .addr = addr, .lender = lender};
  }
  SourceFacts best{.rule = SourceRule::no_interface_address, .lender = {}};
  for (const AddressRow &own : read_addresses(outgoing)) {
    if (own.kind == AddressKind::virtual_address) continue;
    const bool holds = own.mask_len != 0 && ip_is_addr_in_prefix(about.addr, own.addr, own.mask_len) != 0;
    if (own.kind == AddressKind::primary) {
      best = {.rule = SourceRule::primary, .addr = own.addr, .mask_len = own.mask_len, .lender = {}};
    }
    if (holds && (best.rule != SourceRule::longest_subnet || own.mask_len > best.mask_len)) {
      best = {.rule = SourceRule::longest_subnet, .addr = own.addr, .mask_len = own.mask_len, .lender = {}};
    }
  }
  if (best.addr == 0) best.addr = lowest_active(about);
  return best;
}

ReversePathFacts read_reverse_path(const Explanation &about) {
  constexpr uint32_t first_selector = 0;
  const char *context = about.context.c_str();
  ReversePathFacts facts;
  if (about.facts.multicast) return facts;
  facts.mstatic = rsw::urib_best(about.table, rsw::RouteView::multicast, about.addr);
  facts.interface = named(ip_is_addr_mattached(context, about.addr, first_selector));
  if (facts.interface.iod == 0) return facts;
  facts.rule = about.facts.attached.iod != 0 ? ReversePathRule::attached : ReversePathRule::multicast_static;
  facts.neighbour = ip_get_mstatic_rpf(context, about.addr, first_selector);
  return facts;
}

void read_path(Explanation *about) {
  uint32_t platform_words[2] = {};
  about->path = {};
  about->steps = rsw::urib_path(about->table, about->addr);
  about->reachable = urib_get_path_v2(about->table, about->addr, 0, 0, 0, &about->path, &platform_words[0],
                                      &platform_words[1], 1) != 0;
  if (!about->reachable) about->path = {};
}

}  // namespace

const char *to_text(SourceRule rule) {
  switch (rule) {
    case SourceRule::multicast_destination:
      return "multicast-destination";
    case SourceRule::no_path:
      return "no-path";
    case SourceRule::longest_subnet:
      return "longest-subnet";
    case SourceRule::primary:
      return "primary";
    case SourceRule::borrowed:
      return "borrowed";
    case SourceRule::leaked:
      return "leaked";
    case SourceRule::no_interface_address:
      return "no-interface-address";
    case SourceRule::changed:
      return "changed";
  }
  return "changed";
}

const char *to_text(ReversePathRule rule) {
  switch (rule) {
    case ReversePathRule::none:
      return "none";
    case ReversePathRule::attached:
      return "attached";
    case ReversePathRule::multicast_static:
      return "multicast-static";
  }
  return "none";
}

bool explain(uint32_t addr, uint32_t context_id, Explanation *explanation, Failure *failure) {
  if (!routes_are_published(failure)) return false;
  Explanation about{};
  bool known = false;
  for (const ContextRow &context : read_contexts()) {
    if (context.id != context_id) continue;
    about.context = context.name;
    about.table = context.table_id;
    known = true;
  }
  if (!known) {
    *failure = {ExitCode::usage, "there is no such context", "ipsh show contexts lists them"};
    return false;
  }
  about.addr = addr;
  about.context_id = context_id;
  about.names = read_route_names();
  for (int attempt = 0; attempt < most_attempts; ++attempt) {
    about.facts = read_facts(about);
    read_path(&about);
    about.source = expected_source(about);
    about.reverse = read_reverse_path(about);
    uint32_t iod = 0;
    const uint32_t chosen = ip_get_route(context_id, htonl(addr), &iod);
    if (chosen == about.source.addr && iod == (about.facts.multicast ? 0 : about.path.iod)) break;
    about.source = {.rule = SourceRule::changed, .addr = chosen, .lender = {}};
  }
  *explanation = std::move(about);
  return true;
}

}  // namespace ipsh
