// SPDX-License-Identifier: Apache-2.0
// How the rows of each listing look to programs: the members of its objects, as data.
#ifndef IPSH_JSON_MEMBERS_H
#define IPSH_JSON_MEMBERS_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "control_state.h"
#include "explain.h"
#include "mbuf/pool.h"
#include "mtrack/mtrack_writer.h"
#include "mts/mts_server.h"
#include "routes.h"
#include "services.h"
#include "snapshot.h"

namespace ipsh {

using Json = nlohmann::ordered_json;

template <class Row>
struct JsonMember {
  const char *name;
  Json (*value)(const Row &row);
};

template <class Row>
struct JsonForm {
  const char *kind;   // of the object that holds the listing
  const char *array;  // its member with the rows
  std::span<const JsonMember<Row>> members;
};

// One specialisation for each type of row.
template <class Row>
JsonForm<Row> json_form();
template <>
JsonForm<ContextRow> json_form();
template <>
JsonForm<InterfaceRow> json_form();
template <>
JsonForm<AddressRow> json_form();
template <>
JsonForm<rsw::MemoryUse> json_form();
template <>
JsonForm<ClientRow> json_form();
template <>
JsonForm<MessageRow> json_form();
template <>
JsonForm<PacketRow> json_form();
template <>
JsonForm<rsw::MtsQueueUse> json_form();
template <>
JsonForm<rsw::PoolOwner> json_form();
template <>
JsonForm<RouteRow> json_form();
template <>
JsonForm<VipRow> json_form();
template <>
JsonForm<GroupRow> json_form();
template <>
JsonForm<RouterIdRow> json_form();
template <>
JsonForm<CounterRow> json_form();

template <class Row>
Json json_of(const Row &row) {
  Json object = Json::object();
  for (const JsonMember<Row> &member : json_form<Row>().members) object[member.name] = member.value(row);
  return object;
}

// The members of an explanation.
[[nodiscard]] Json json_of_explanation(const Explanation &explanation);

// Members.
[[nodiscard]] Json address_or_null(uint32_t addr);
[[nodiscard]] Json text_or_null(const std::string &text);
[[nodiscard]] Json number_or_null(uint32_t number);

}  // namespace ipsh

#endif
