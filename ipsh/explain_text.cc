// SPDX-License-Identifier: Apache-2.0
// An explanation in sentences.
#include <fmt/format.h>

#include "arguments.h"
#include "explain.h"

namespace ipsh {
namespace {

std::string prefix_of(const rsw::Route &route) {
  return fmt::format("{}/{}", address_text(route.addr), route.len);
}

std::string table_text(uint32_t table, const RouteNames &names) {
  const std::string context = name_of(names.contexts, table);
  return context.empty() ? fmt::format("table {}", table) : fmt::format("table {} ({})", table, context);
}

std::string interface_text(uint32_t iod, const RouteNames &names) {
  const std::string name = name_of(names.interfaces, iod);
  return name.empty() ? fmt::format("interface {}", iod) : name;
}

std::string list_of(const std::vector<NamedInterface> &interfaces) {
  std::string text;
  for (const NamedInterface &interface : interfaces) text += (text.empty() ? "" : ", ") + interface.name;
  return text;
}

// What the address is, one sentence for each thing that is true of it.
std::vector<std::string> address_sentences(const Explanation &about) {
  const AddressFacts &facts = about.facts;
  std::vector<std::string> sentences;
  if (facts.multicast) sentences.emplace_back("It is a multicast group.");
  if (facts.martian) sentences.emplace_back("No host may have it as its address.");
  if (facts.local.iod != 0 && facts.is_virtual) {
    sentences.push_back(fmt::format("It is a virtual address of {}, {}.", facts.local.name,
                                    facts.active ? "active here" : "not active here: another system may hold it"));
  } else if (facts.local.iod != 0) {
    sentences.push_back(fmt::format("It is an address of this system, on {}.", facts.local.name));
  }
  if (!facts.broadcast_of.empty()) {
    sentences.push_back(fmt::format("It is a directed broadcast address of {}.", list_of(facts.broadcast_of)));
  }
  if (facts.attached.iod != 0) sentences.push_back(fmt::format("It is on the subnet of {}.", facts.attached.name));
  if (sentences.empty()) sentences.emplace_back("It is no address of this system and on no attached subnet.");
  return sentences;
}

// What the routes of a step say happens next.
std::string consequence(const rsw::PathStep &step, const RouteNames &names) {
  const rsw::Route &route = step.route;
  switch (route.action) {
    case rsw::RouteAction::blackhole:
      return "packets are dropped";
    case rsw::RouteAction::unreachable:
      return "packets are dropped, and the sender is told that the destination is unreachable";
    case rsw::RouteAction::prohibit:
      return "packets are dropped, and the sender is told that this is prohibited";
    case rsw::RouteAction::pass_on:
      return "the search in this table ends without a route";
    case rsw::RouteAction::forward:
    case rsw::RouteAction::broadcast:
      break;
  }
  if (step.next_hop >= route.next_hops.size()) return "none of its next hops can be used";
  const rsw::RouteNextHop &next_hop = route.next_hops[step.next_hop];
  std::string text;
  if (route.next_hops.size() > 1) text = fmt::format("of its {} next hops ", route.next_hops.size());
  if (next_hop.iod == 0) {
    const uint32_t table = next_hop.table == 0 ? step.table : next_hop.table;
    return text + fmt::format("{} has to be found in {}",
                              next_hop.addr == 0 ? "the destination" : address_text(next_hop.addr),
                              table_text(table, names));
  }
  if (next_hop.addr == 0 && !next_hop.via_ipv6) {
    text += fmt::format("straight out of {}", interface_text(next_hop.iod, names));
  } else {
    text += fmt::format("the next hop is {}", next_hop_text(next_hop, names));
  }
  return text;
}

void add_path(const Explanation &about, std::vector<ExplainedLine> *lines) {
  for (const rsw::PathStep &step : about.steps) {
    std::string sentence = fmt::format("In {}, {} matches {}, ", table_text(step.table, about.names),
                                       address_text(step.addr), prefix_of(step.route));
    sentence += fmt::format("{}: {}.", to_text(step.route.kind), consequence(step, about.names));
    lines->push_back({"route", sentence});
  }
  if (about.steps.empty()) {
    lines->push_back({"route", fmt::format("{} has no route for it.", table_text(about.table, about.names))});
    lines->back().sentence.front() = 'T';
  }
  if (!about.reachable) {
    lines->push_back({"path", "It cannot be reached."});
    return;
  }
  lines->push_back({"path", fmt::format("Packets leave by {}{}.", interface_text(about.path.iod, about.names),
                                        about.path.next_hop == 0
                                            ? ", straight to the destination"
                                            : fmt::format(" to the next hop {}", address_text(about.path.next_hop)))});
}

std::string source_sentence(const Explanation &about) {
  const SourceFacts &source = about.source;
  const std::string outgoing = interface_text(about.path.iod, about.names);
  const std::string addr = address_text(source.addr);
  const auto context_address = [&](const std::string &reason) {
    return source.addr == 0
               ? fmt::format("None: {}, and no address of context {} is active.", reason, about.context)
               : fmt::format("{}: {}, so it is the lowest active address of context {}.", addr, reason, about.context);
  };
  switch (source.rule) {
    case SourceRule::multicast_destination:
      return "None: a multicast destination has no path in the unicast routes.";
    case SourceRule::no_path:
      return "None: there is no path.";
    case SourceRule::longest_subnet:
      return fmt::format("{}: of the addresses of {}, its subnet (/{}) holds the destination and is the longest.", addr,
                         outgoing, source.mask_len);
    case SourceRule::primary:
      return fmt::format("{}: no subnet of {} holds the destination, so it is the primary address.", addr, outgoing);
    case SourceRule::borrowed:
      return fmt::format("{}: {} is unnumbered and borrows the primary address of {}.", addr, outgoing,
                         source.lender.name);
    case SourceRule::leaked:
      return context_address(
          fmt::format("the path ends in {}, that of another context", table_text(about.path.table_id, about.names)));
    case SourceRule::no_interface_address:
      return context_address(fmt::format("{} has no address", outgoing));
    case SourceRule::changed:
      return fmt::format("{}: the system changes while it is asked, ask again for the reason.", addr);
  }
  return "";
}

std::string reverse_sentence(const Explanation &about) {
  const ReversePathFacts &reverse = about.reverse;
  if (about.facts.multicast) return "No multicast traffic can come from it: it is a group.";
  std::string text;
  switch (reverse.rule) {
    case ReversePathRule::none:
      text =
          "Nothing says where multicast traffic from it has to come in: no attached subnet, no multicast static "
          "route.";
      break;
    case ReversePathRule::attached:
      text =
          fmt::format("Multicast traffic from it has to come in by {}, whose subnet it is on.", reverse.interface.name);
      break;
    case ReversePathRule::multicast_static:
      text = fmt::format("Multicast traffic from it has to come in by {}", reverse.interface.name);
      if (reverse.neighbour != 0) text += fmt::format(" from {}", address_text(reverse.neighbour));
      if (reverse.mstatic) text += fmt::format(": the multicast static route {} says so", prefix_of(*reverse.mstatic));
      return text + ".";
  }
  if (reverse.mstatic) {
    text += fmt::format(" The multicast static route {} covers it, but does not count for a connected source.",
                        prefix_of(*reverse.mstatic));
  }
  return text;
}

}  // namespace

std::vector<ExplainedLine> sentences_of(const Explanation &explanation) {
  std::vector<ExplainedLine> lines;
  for (const std::string &sentence : address_sentences(explanation)) lines.push_back({"address", sentence});
  add_path(explanation, &lines);
  lines.push_back({"source", source_sentence(explanation)});
  lines.push_back({"multicast", reverse_sentence(explanation)});
  return lines;
}

}  // namespace ipsh
