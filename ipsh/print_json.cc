// SPDX-License-Identifier: Apache-2.0
// JSON for programs: one object per line, each with "version" (of this form, 1) and "kind". Addresses are dotted text,
// what is not there is null, numbers are numbers. The schemas in schema/ say every member, and a member once given
// stays: what is new gets a new member, what changes its meaning raises the version.
//
// A name is the kernel's bytes and need not be UTF-8: bytes that are not become U+FFFD.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "printers.h"

namespace ipsh {
namespace {

using Json = nlohmann::ordered_json;

Json object(const char *kind) {
  return Json{{"version", 1}, {"kind", kind}};
}

void write(const Json &value) {
  const std::string line = value.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  std::fputs(line.c_str(), stdout);
  std::fflush(stdout);
}

Json address_or_null(uint32_t addr) {
  return addr == 0 ? Json(nullptr) : Json(address_text(addr));
}
Json text_or_null(const std::string &text) {
  return text.empty() ? Json(nullptr) : Json(text);
}
Json number_or_null(uint32_t number) {
  return number == 0 ? Json(nullptr) : Json(number);
}

template <class Row, class ToJson>
Json array_of(const std::vector<Row> &rows, ToJson to_json) {
  Json array = Json::array();
  for (const Row &row : rows) array.push_back(to_json(row));
  return array;
}

struct RowJson {
  Json operator()(const IpdRow &row) const { return {{"pid", row.pid}, {"instance", row.instance}}; }
  Json operator()(const ContextRow &row) const {
    return {{"id", row.id},
            {"name", row.name},
            {"table_id", row.table_id},
            {"router_id", address_or_null(row.router_id)},
            {"router_id_iod", number_or_null(row.router_id_iod)},
            {"router_id_interface", text_or_null(row.router_id_interface)}};
  }
  Json operator()(const InterfaceRow &row) const {
    return {{"iod", row.iod},
            {"ifindex", row.ifindex},
            {"name", row.name},
            {"context_id", row.context_id},
            {"context", text_or_null(row.context)},
            {"table_id", row.table_id},
            {"up", row.up},
            {"admin_up", row.admin_up},
            {"loopback", row.loopback},
            {"mtu", row.mtu},
            {"ip", row.has_ip},
            {"primary_address", address_or_null(row.primary)},
            {"primary_mask_len", row.primary == 0 ? Json(nullptr) : Json(row.primary_mask_len)},
            {"secondary_count", row.secondary_count},
            {"virtual_count", row.virtual_count},
            {"group_count", row.group_count},
            {"multicast", row.multicast},
            {"forwarding", row.forwarding},
            {"directed_broadcast", row.directed_broadcast},
            {"unnumbered", row.unnumbered},
            {"unnumbered_source", text_or_null(row.unnumbered_source)}};
  }
  Json operator()(const AddressRow &row) const {
    return {{"address", address_text(row.addr)},   {"mask_len", row.mask_len},
            {"kind", to_text(row.kind)},           {"iod", row.iod},
            {"interface", row.interface},          {"context_id", row.context_id},
            {"context", text_or_null(row.context)}};
  }
  Json operator()(const rsw::MemoryUse &row) const {
    return {{"pid", row.pid},
            {"command", row.command},
            {"component", row.component},
            {"description", row.description},
            {"shared", row.shared},
            {"type", row.type},
            {"type_name", row.type_name},
            {"blocks", row.blocks},
            {"bytes", row.bytes},
            {"allocations", row.allocations},
            {"failures", row.failures}};
  }
  Json operator()(const rsw::EpochClient &row) const {
    return {{"pid", row.pid}, {"command", row.command}, {"threads", row.threads}, {"in_query", row.inside}};
  }
};

struct ObjectName {
  const char *operator()(const IpdRow &) const { return "ipd"; }
  const char *operator()(const ContextRow &) const { return "context"; }
  const char *operator()(const InterfaceRow &) const { return "interface"; }
  const char *operator()(const AddressRow &) const { return "address"; }
};

void contexts(const std::vector<ContextRow> &rows) {
  Json json = object("contexts");
  json["contexts"] = array_of(rows, RowJson{});
  write(json);
}

void interfaces(const std::vector<InterfaceRow> &rows) {
  Json json = object("interfaces");
  json["interfaces"] = array_of(rows, RowJson{});
  write(json);
}

void addresses(const std::vector<AddressRow> &rows) {
  Json json = object("addresses");
  json["addresses"] = array_of(rows, RowJson{});
  write(json);
}

void memory(const std::vector<rsw::MemoryUse> &rows) {
  Json json = object("memory");
  json["memory"] = array_of(rows, RowJson{});
  write(json);
}

void clients(const std::vector<rsw::EpochClient> &rows) {
  Json json = object("clients");
  json["clients"] = array_of(rows, RowJson{});
  write(json);
}

void system(const SystemState &state) {
  Json json = object("system");
  json["run_directory"] = state.run_directory;
  json["ipd_pid"] = number_or_null(state.ipd_pid);
  json["ipd_running"] = state.ipd_runs;
  json["supervisor"] = supervisor_text(state.supervisor);
  json["uuid"] = state.uuid;
  json["instance"] = state.instance;
  json["generation"] = state.generation;
  json["database_bytes"] = state.database_bytes;
  json["database_window"] = state.database_window;
  json["contexts"] = state.contexts;
  json["interfaces"] = state.interfaces;
  json["addresses"] = state.addresses;
  write(json);
}

void supervisor(uint32_t state) {
  Json json = object("supervisor");
  json["supervisor"] = supervisor_text(state);
  write(json);
}

// The raw value, as the function returns it: a text, a number, or null.
Json raw(const ResultValue &value) {
  if (value.text) return *value.text;
  switch (value.type) {
    case ResultType::nothing:
    case ResultType::text:
    case ResultType::mac:
      return nullptr;
    case ResultType::record:
      return value.number == 0 ? Json(nullptr) : Json(value.number);
    default:
      return value.number;
  }
}

Json value_object(const ShownValue &shown) {
  return {{"type", type_name(shown.value.type)}, {"value", raw(shown.value)}, {"text", shown.text}};
}

void query(const QueryResult &result) {
  Json json = object("query");
  json["query"] = result.query->name;
  json["arguments"] = Json::object();
  for (const auto &[name, value] : result.arguments) json["arguments"][name] = value;
  json["found"] = result.found;
  json["result"] = value_object(result.result);
  json["outputs"] = Json::object();
  for (const ShownValue &output : result.outputs) json["outputs"][output.name] = value_object(output);
  json["calls"] = Json::array();
  for (const std::vector<ShownValue> &call : result.calls) {
    Json arguments = Json::object();
    for (const ShownValue &argument : call) arguments[argument.name] = value_object(argument);
    json["calls"].push_back(std::move(arguments));
  }
  json["reads_as"] = result.reads_as;
  json["error_text"] = text_or_null(result.error_text);
  write(json);
}

void query_list() {
  Json json = object("query-list");
  json["queries"] = Json::array();
  for (const QueryGroup &group : query_groups()) {
    for (const Query &row : group.queries) {
      Json arguments = Json::array();
      for (const Argument &argument : row.arguments) {
        const ArgumentTypeInfo &type = type_info(argument.type);
        arguments.push_back({{"name", argument.name},
                             {"type", type.name},
                             {"accepts", type.accepts},
                             {"what", argument.what},
                             {"required", !argument.preset.has_value()}});
      }
      json["queries"].push_back({{"name", row.name},
                                 {"group", group.title},
                                 {"what", row.what},
                                 {"arguments", std::move(arguments)},
                                 {"result", type_name(row.result)},
                                 {"needs_ipd", row.needs_database},
                                 {"example", row.example}});
    }
  }
  write(json);
}

void watch_start(const Picture &picture) {
  Json json = object("watch-start");
  json["contexts"] = picture.contexts.size();
  json["interfaces"] = picture.interfaces.size();
  json["addresses"] = picture.addresses.size();
  write(json);
}

void watch_event(const Event &event) {
  Json json = object("event");
  json["event"] = to_text(event.change);
  json["object"] = std::visit(ObjectName{}, event.row);
  json["now"] = event.change == Change::removed ? Json(nullptr) : std::visit(RowJson{}, event.row);
  json["before"] = event.change == Change::removed ? std::visit(RowJson{}, event.row)
                   : event.before                  ? std::visit(RowJson{}, *event.before)
                                                   : Json(nullptr);
  write(json);
}

void failure(const Failure &failure) {
  Json json = object("failure");
  json["exit_code"] = static_cast<int>(failure.code);
  json["message"] = failure.message;
  json["advice"] = text_or_null(failure.advice);
  write(json);
}

}  // namespace

const Printers json_printers{
    .contexts = contexts,
    .interfaces = interfaces,
    .addresses = addresses,
    .memory = memory,
    .clients = clients,
    .system = system,
    .supervisor = supervisor,
    .query = query,
    .query_list = query_list,
    .watch = {watch_start, watch_event},
    .failure = failure,
};

}  // namespace ipsh
