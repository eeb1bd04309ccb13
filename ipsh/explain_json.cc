// SPDX-License-Identifier: Apache-2.0
// An explanation for programs: the same facts as the sentences, which it holds as well.
#include "arguments.h"
#include "json_members.h"

namespace ipsh {
namespace {

Json interface_or_null(const NamedInterface &interface) {
  if (interface.iod == 0) return nullptr;
  return {{"iod", interface.iod}, {"interface", text_or_null(interface.name)}};
}

Json address_facts(const AddressFacts &facts) {
  Json json = {{"multicast", facts.multicast}, {"martian", facts.martian}};
  json["local"] = interface_or_null(facts.local);
  if (facts.local.iod != 0) {
    json["local"]["virtual"] = facts.is_virtual;
    json["local"]["active"] = facts.active;
  }
  json["attached"] = interface_or_null(facts.attached);
  json["broadcast_of"] = Json::array();
  for (const NamedInterface &interface : facts.broadcast_of) {
    json["broadcast_of"].push_back(interface_or_null(interface));
  }
  return json;
}

Json step_json(const rsw::PathStep &step, const RouteNames &names) {
  Json json = Json::object();
  json["address"] = address_text(step.addr);
  json["route"] = json_of(RouteRow{step.table, &step.route, &names});
  json["taken"] = step.next_hop < step.route.next_hops.size() ? Json(step.next_hop) : Json(nullptr);
  return json;
}

Json path_json(const Explanation &about) {
  if (!about.reachable) return nullptr;
  Json json = Json::object();
  json["iod"] = about.path.iod;
  json["interface"] = text_or_null(name_of(about.names.interfaces, about.path.iod));
  json["next_hop"] = address_or_null(about.path.next_hop);
  json["table"] = about.path.table_id;
  return json;
}

Json source_json(const SourceFacts &source) {
  Json json = Json::object();
  json["rule"] = to_text(source.rule);
  json["address"] = address_or_null(source.addr);
  const bool has_length = source.rule == SourceRule::longest_subnet || source.rule == SourceRule::primary;
  json["mask_len"] = has_length ? Json(source.mask_len) : Json(nullptr);
  json["lender"] = text_or_null(source.lender.name);
  return json;
}

Json reverse_json(const Explanation &about) {
  const ReversePathFacts &reverse = about.reverse;
  Json json = Json::object();
  json["rule"] = to_text(reverse.rule);
  json["in_by"] = interface_or_null(reverse.interface);
  json["neighbour"] = address_or_null(reverse.neighbour);
  json["multicast_static"] = nullptr;
  if (reverse.mstatic) json["multicast_static"] = json_of(RouteRow{about.table, &*reverse.mstatic, &about.names});
  return json;
}

}  // namespace

Json json_of_explanation(const Explanation &explanation) {
  Json json = Json::object();
  json["address"] = address_text(explanation.addr);
  json["context_id"] = explanation.context_id;
  json["context"] = explanation.context;
  json["table"] = explanation.table;
  json["facts"] = address_facts(explanation.facts);
  json["steps"] = Json::array();
  for (const rsw::PathStep &step : explanation.steps) {
    json["steps"].push_back(step_json(step, explanation.names));
  }
  json["path"] = path_json(explanation);
  json["source"] = source_json(explanation.source);
  json["reverse_path"] = reverse_json(explanation);
  json["sentences"] = Json::array();
  for (const ExplainedLine &line : sentences_of(explanation)) {
    json["sentences"].push_back({{"subject", line.subject}, {"sentence", line.sentence}});
  }
  return json;
}

}  // namespace ipsh
