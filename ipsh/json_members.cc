// SPDX-License-Identifier: Apache-2.0
// Each member has its place in the schema of its kind (schema/rows.json), too.
#include "json_members.h"

#include <array>

#include "arguments.h"

namespace ipsh {
namespace {

Json next_hops(const RouteRow &row) {
  Json array = Json::array();
  for (const rsw::RouteNextHop &next_hop : row.route->next_hops) {
    array.push_back({{"iod", number_or_null(next_hop.iod)},
                     {"interface", text_or_null(name_of(row.names->interfaces, next_hop.iod))},
                     {"address", address_or_null(next_hop.addr)},
                     {"via_ipv6", next_hop.via_ipv6},
                     {"table", number_or_null(next_hop.table)},
                     {"weight", next_hop.weight},
                     {"active", next_hop.data != rsw::inactive_next_hop},
                     {"data", next_hop.data}});
  }
  return array;
}

template <size_t index>
Json packet_counter(const CounterRow &row) {
  return row.packets ? Json(row.packets->at(index)) : Json(nullptr);
}
template <size_t index>
Json byte_counter(const CounterRow &row) {
  return row.bytes ? Json(row.bytes->at(index)) : Json(nullptr);
}

Json of_ipd(const ClientRow &row, uint32_t ClientOfIpd::*number) {
  return row.of_ipd ? Json(*row.of_ipd.*number) : Json(nullptr);
}

Json last_report(const ClientRow &row) {
  if (!row.of_ipd || row.of_ipd->link_local_reports == 0) return nullptr;
  return {{"ref", row.of_ipd->link_local_ref}, {"value", row.of_ipd->link_local_value}};
}

Json registrations(const ClientRow &row) {
  if (!row.of_ipd) return nullptr;
  Json array = Json::array();
  for (const RegistrationRow &registration : row.of_ipd->registrations) {
    array.push_back({{"name", registration.name},
                     {"key", registration.key},
                     {"mode", registration.mode},
                     {"arg1", registration.arg1},
                     {"arg2", registration.arg2},
                     {"data_sap", number_or_null(registration.data_sap)},
                     {"flags", registration.flags},
                     {"receive_function", text_or_null(registration.receive_function)}});
  }
  return array;
}

Json refusals(const MessageRow &row) {
  Json object = Json::object();
  for (size_t i = IP_SHOW_DONE + 1; i < row.counts.size(); ++i) object[outcome_name(i)] = row.counts[i];
  return object;
}

Json packet_refusals(const PacketRow &row) {
  Json object = Json::object();
  for (size_t i = IP_SHOW_PACKET_DONE + 1; i < row.counts.size(); ++i) object[packet_outcome_name(i)] = row.counts[i];
  return object;
}

}  // namespace

Json address_or_null(uint32_t addr) {
  return addr == 0 ? Json(nullptr) : Json(address_text(addr));
}
Json text_or_null(const std::string &text) {
  return text.empty() ? Json(nullptr) : Json(text);
}
Json number_or_null(uint32_t number) {
  return number == 0 ? Json(nullptr) : Json(number);
}

template <>
JsonForm<ContextRow> json_form() {
  using Row = ContextRow;
  static constexpr std::array<JsonMember<Row>, 6> members{{
      {"id", [](const Row &row) { return Json(row.id); }},
      {"name", [](const Row &row) { return Json(row.name); }},
      {"table_id", [](const Row &row) { return Json(row.table_id); }},
      {"router_id", [](const Row &row) { return address_or_null(row.router_id); }},
      {"router_id_iod", [](const Row &row) { return number_or_null(row.router_id_iod); }},
      {"router_id_interface", [](const Row &row) { return text_or_null(row.router_id_interface); }},
  }};
  return {"contexts", "contexts", members};
}

template <>
JsonForm<InterfaceRow> json_form() {
  using Row = InterfaceRow;
  static constexpr std::array<JsonMember<Row>, 21> members{{
      {"iod", [](const Row &row) { return Json(row.iod); }},
      {"ifindex", [](const Row &row) { return Json(row.ifindex); }},
      {"name", [](const Row &row) { return Json(row.name); }},
      {"context_id", [](const Row &row) { return Json(row.context_id); }},
      {"context", [](const Row &row) { return text_or_null(row.context); }},
      {"table_id", [](const Row &row) { return Json(row.table_id); }},
      {"up", [](const Row &row) { return Json(row.up); }},
      {"admin_up", [](const Row &row) { return Json(row.admin_up); }},
      {"loopback", [](const Row &row) { return Json(row.loopback); }},
      {"mtu", [](const Row &row) { return Json(row.mtu); }},
      {"ip", [](const Row &row) { return Json(row.has_ip); }},
      {"primary_address", [](const Row &row) { return address_or_null(row.primary); }},
      {"primary_mask_len",
       [](const Row &row) { return row.primary == 0 ? Json(nullptr) : Json(row.primary_mask_len); }},
      {"secondary_count", [](const Row &row) { return Json(row.secondary_count); }},
      {"virtual_count", [](const Row &row) { return Json(row.virtual_count); }},
      {"group_count", [](const Row &row) { return Json(row.group_count); }},
      {"multicast", [](const Row &row) { return Json(row.multicast); }},
      {"forwarding", [](const Row &row) { return Json(row.forwarding); }},
      {"directed_broadcast", [](const Row &row) { return Json(row.directed_broadcast); }},
      {"unnumbered", [](const Row &row) { return Json(row.unnumbered); }},
      {"unnumbered_source", [](const Row &row) { return text_or_null(row.unnumbered_source); }},
  }};
  return {"interfaces", "interfaces", members};
}

template <>
JsonForm<AddressRow> json_form() {
  using Row = AddressRow;
  static constexpr std::array<JsonMember<Row>, 7> members{{
      {"address", [](const Row &row) { return Json(address_text(row.addr)); }},
      {"mask_len", [](const Row &row) { return Json(row.mask_len); }},
      {"kind", [](const Row &row) { return Json(to_text(row.kind)); }},
      {"iod", [](const Row &row) { return Json(row.iod); }},
      {"interface", [](const Row &row) { return Json(row.interface); }},
      {"context_id", [](const Row &row) { return Json(row.context_id); }},
      {"context", [](const Row &row) { return text_or_null(row.context); }},
  }};
  return {"addresses", "addresses", members};
}

template <>
JsonForm<rsw::MemoryUse> json_form() {
  using Row = rsw::MemoryUse;
  static constexpr std::array<JsonMember<Row>, 11> members{{
      {"pid", [](const Row &row) { return Json(row.pid); }},
      {"command", [](const Row &row) { return Json(row.command); }},
      {"component", [](const Row &row) { return Json(row.component); }},
      {"description", [](const Row &row) { return Json(row.description); }},
      {"shared", [](const Row &row) { return Json(row.shared); }},
      {"type", [](const Row &row) { return Json(row.type); }},
      {"type_name", [](const Row &row) { return Json(row.type_name); }},
      {"blocks", [](const Row &row) { return Json(row.blocks); }},
      {"bytes", [](const Row &row) { return Json(row.bytes); }},
      {"allocations", [](const Row &row) { return Json(row.allocations); }},
      {"failures", [](const Row &row) { return Json(row.failures); }},
  }};
  return {"memory", "memory", members};
}

template <>
JsonForm<ClientRow> json_form() {
  using Row = ClientRow;
  static constexpr std::array<JsonMember<Row>, 13> members{{
      {"pid", [](const Row &row) { return Json(row.pid); }},
      {"command", [](const Row &row) { return Json(row.command); }},
      {"threads", [](const Row &row) { return Json(row.threads); }},
      {"in_query", [](const Row &row) { return Json(row.in_query); }},
      {"user", [](const Row &row) { return of_ipd(row, &ClientOfIpd::uid); }},
      {"messages", [](const Row &row) { return of_ipd(row, &ClientOfIpd::received); }},
      {"refused", [](const Row &row) { return of_ipd(row, &ClientOfIpd::refused); }},
      {"memberships", [](const Row &row) { return of_ipd(row, &ClientOfIpd::memberships); }},
      {"loans", [](const Row &row) { return of_ipd(row, &ClientOfIpd::loans); }},
      {"downloads", [](const Row &row) { return of_ipd(row, &ClientOfIpd::downloads); }},
      {"link_local_reports", [](const Row &row) { return of_ipd(row, &ClientOfIpd::link_local_reports); }},
      {"link_local", last_report},
      {"registrations", registrations},
  }};
  return {"clients", "clients", members};
}

template <>
JsonForm<MessageRow> json_form() {
  using Row = MessageRow;
  static constexpr std::array<JsonMember<Row>, 4> members{{
      {"type", [](const Row &row) { return number_or_null(row.minor); }},
      {"name", [](const Row &row) { return Json(row.name); }},
      {"done", [](const Row &row) { return Json(row.counts[IP_SHOW_DONE]); }},
      {"refused", refusals},
  }};
  return {"messages", "messages", members};
}

template <>
JsonForm<PacketRow> json_form() {
  using Row = PacketRow;
  static constexpr std::array<JsonMember<Row>, 7> members{{
      {"type", [](const Row &row) { return number_or_null(row.minor); }},
      {"name", [](const Row &row) { return Json(row.name); }},
      {"direction", [](const Row &row) { return Json(row.to_client ? "to-client" : "from-client"); }},
      {"messages", [](const Row &row) { return Json(row.received); }},
      {"bytes", [](const Row &row) { return Json(row.bytes); }},
      {"done", [](const Row &row) { return Json(row.counts[IP_SHOW_PACKET_DONE]); }},
      {"refused", packet_refusals},
  }};
  return {"packets", "packets", members};
}

template <>
JsonForm<rsw::MtsQueueUse> json_form() {
  using Row = rsw::MtsQueueUse;
  static constexpr std::array<JsonMember<Row>, 12> members{{
      {"sap", [](const Row &row) { return Json(row.sap); }},
      {"pid", [](const Row &row) { return Json(row.pid); }},
      {"component", [](const Row &row) { return Json(row.module); }},
      {"name", [](const Row &row) { return Json(row.name); }},
      {"waiting", [](const Row &row) { return Json(row.waiting); }},
      {"waiting_bytes", [](const Row &row) { return Json(row.waiting_bytes); }},
      {"most_waiting", [](const Row &row) { return Json(row.high_water); }},
      {"received", [](const Row &row) { return Json(row.received); }},
      {"sent", [](const Row &row) { return Json(row.sent); }},
      {"refused", [](const Row &row) { return Json(row.refused); }},
      {"send_failures", [](const Row &row) { return Json(row.send_failures); }},
      {"connections", [](const Row &row) { return Json(row.connections); }},
  }};
  return {"queues", "queues", members};
}

template <>
JsonForm<rsw::PoolOwner> json_form() {
  using Row = rsw::PoolOwner;
  static constexpr std::array<JsonMember<Row>, 4> members{{
      {"pid", [](const Row &row) { return Json(row.pid); }},
      {"command", [](const Row &row) { return row.command.empty() ? Json(nullptr) : Json(row.command); }},
      {"in_use", [](const Row &row) { return Json(row.in_use); }},
      {"cached", [](const Row &row) { return Json(row.cached); }},
  }};
  return {"mbufs", "owners", members};
}

template <>
JsonForm<RouteRow> json_form() {
  using Row = RouteRow;
  static constexpr std::array<JsonMember<Row>, 12> members{{
      {"table", [](const Row &row) { return Json(row.table); }},
      {"context", [](const Row &row) { return text_or_null(name_of(row.names->contexts, row.table)); }},
      {"address", [](const Row &row) { return Json(address_text(row.route->addr)); }},
      {"mask_len", [](const Row &row) { return Json(row.route->len); }},
      {"kind", [](const Row &row) { return Json(to_text(row.route->kind)); }},
      {"action", [](const Row &row) { return Json(to_text(row.route->action)); }},
      {"protocol", [](const Row &row) { return Json(row.route->protocol); }},
      {"protocol_name", [](const Row &row) { return text_or_null(protocol_name(row.route->protocol)); }},
      {"metric", [](const Row &row) { return Json(row.route->metric); }},
      {"kernel_table", [](const Row &row) { return number_or_null(row.route->origin); }},
      {"preferred_source", [](const Row &row) { return address_or_null(row.route->pref_src); }},
      {"next_hops", next_hops},
  }};
  return {"routes", "routes", members};
}

template <>
JsonForm<VipRow> json_form() {
  using Row = VipRow;
  static constexpr std::array<JsonMember<Row>, 7> members{{
      {"address", [](const Row &row) { return Json(address_text(row.address.addr)); }},
      {"active", [](const Row &row) { return Json(row.active); }},
      {"iod", [](const Row &row) { return Json(row.address.iod); }},
      {"interface", [](const Row &row) { return Json(row.address.interface); }},
      {"context_id", [](const Row &row) { return Json(row.address.context_id); }},
      {"context", [](const Row &row) { return text_or_null(row.address.context); }},
      {"table_id", [](const Row &row) { return Json(row.table_id); }},
  }};
  return {"vips", "vips", members};
}

template <>
JsonForm<GroupRow> json_form() {
  using Row = GroupRow;
  static constexpr std::array<JsonMember<Row>, 6> members{{
      {"group", [](const Row &row) { return Json(address_text(row.group)); }},
      {"group_data", [](const Row &row) { return Json(row.group_data); }},
      {"iod", [](const Row &row) { return Json(row.iod); }},
      {"interface", [](const Row &row) { return Json(row.interface); }},
      {"context_id", [](const Row &row) { return Json(row.context_id); }},
      {"context", [](const Row &row) { return text_or_null(row.context); }},
  }};
  return {"groups", "groups", members};
}

template <>
JsonForm<RouterIdRow> json_form() {
  using Row = RouterIdRow;
  static constexpr std::array<JsonMember<Row>, 5> members{{
      {"context_id", [](const Row &row) { return Json(row.context.id); }},
      {"context", [](const Row &row) { return Json(row.context.name); }},
      {"router_id", [](const Row &row) { return Json(address_text(row.context.router_id)); }},
      {"iod", [](const Row &row) { return number_or_null(row.context.router_id_iod); }},
      {"interface", [](const Row &row) { return text_or_null(row.context.router_id_interface); }},
  }};
  return {"router-ids", "router_ids", members};
}

template <>
JsonForm<CounterRow> json_form() {
  using Row = CounterRow;
  static constexpr std::array<JsonMember<Row>, 12> members{{
      {"iod", [](const Row &row) { return Json(row.iod); }},
      {"interface", [](const Row &row) { return Json(row.interface); }},
      {"context_id", [](const Row &row) { return Json(row.context_id); }},
      {"context", [](const Row &row) { return text_or_null(row.context); }},
      {"c1", packet_counter<0>},
      {"c2", packet_counter<1>},
      {"c3", packet_counter<2>},
      {"c4", packet_counter<3>},
      {"c5", packet_counter<4>},
      {"b1", byte_counter<0>},
      {"b2", byte_counter<1>},
      {"pim_asserts_sent", [](const Row &row) { return Json(row.pim_asserts_sent); }},
  }};
  return {"counters", "counters", members};
}

}  // namespace ipsh
