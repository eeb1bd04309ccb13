// SPDX-License-Identifier: Apache-2.0
// JSON for programs: one object per line, each with "version" (of this form, 1) and "kind". Addresses are dotted text,
// what is not there is null, numbers are numbers. The schemas in schema/ say every member, and a member once given
// stays: what is new gets a new member, what changes its meaning raises the version.
//
// A name is the kernel's bytes and need not be UTF-8: bytes that are not become U+FFFD.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdio>

#include "json_members.h"
#include "printers.h"
#include "progress.h"

namespace ipsh {
namespace {

Json object(const char *kind) {
  return Json{{"version", 1}, {"kind", kind}};
}

std::string text_of(const Json &value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void write(const Json &value) {
  std::fputs((text_of(value) + "\n").c_str(), stdout);
  std::fflush(stdout);
}

// A listing, row by row: a full table of routes is never in memory as JSON. `more`: members that follow the rows.
template <class Row>
void write_list(const std::vector<Row> &rows, const Json &more = Json::object()) {
  const JsonForm<Row> form = json_form<Row>();
  std::string text = text_of(object(form.kind));
  text.back() = ',';
  std::fputs((text + text_of(form.array) + ":[").c_str(), stdout);
  Progress progress(rows.size());
  for (const Row &row : rows) {
    std::fputs(((&row == rows.data() ? "" : ",") + text_of(json_of(row))).c_str(), stdout);
    progress.step();
  }
  std::fputs("]", stdout);
  for (const auto &[name, value] : more.items())
    std::fputs(("," + text_of(name) + ":" + text_of(value)).c_str(), stdout);
  std::fputs("}\n", stdout);
  std::fflush(stdout);
}

template <class Row>
void list(const std::vector<Row> &rows) {
  write_list(rows);
}

struct WatchedJson {
  Json operator()(const IpdRow &row) const { return {{"pid", row.pid}, {"instance", row.instance}}; }
  template <class Row>
  Json operator()(const Row &row) const {
    return json_of(row);
  }
};

struct ObjectName {
  const char *operator()(const IpdRow &) const { return "ipd"; }
  const char *operator()(const ContextRow &) const { return "context"; }
  const char *operator()(const InterfaceRow &) const { return "interface"; }
  const char *operator()(const AddressRow &) const { return "address"; }
};

void routes(const RouteListing &listing) {
  write_list(listing.rows, {{"view", to_text(listing.view)}, {"left_out", listing.left_out}});
}

void counters(const std::vector<CounterRow> &rows, const std::optional<LoadShare> &share) {
  Json more = Json::object();
  more["load_share"] = nullptr;
  if (share) more["load_share"] = {{"mode", share->mode}, {"value", share->value}};
  write_list(rows, more);
}

void explanation(const Explanation &explanation) {
  Json json = object("explanation");
  json.update(json_of_explanation(explanation));
  write(json);
}

void mbufs(const rsw::PoolReport &report) {
  write_list(report.owners, {{"total", report.total},
                             {"in_use", report.in_use},
                             {"cached", report.cached},
                             {"free", report.free},
                             {"high_water", report.high_water},
                             {"refused", report.refused},
                             {"reclaimed", report.reclaimed},
                             {"damaged", report.damaged}});
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

void diagnosis(const Diagnosis &diagnosis) {
  Json json = object("diagnosis");
  json["healthy"] = diagnosis.count(Health::failed) == 0;
  json["checks"] = Json::array();
  for (const Finding &row : diagnosis.findings) {
    json["checks"].push_back({{"check", row.check},
                              {"state", to_text(row.health)},
                              {"finding", row.finding},
                              {"remedy", text_or_null(row.remedy)}});
  }
  json["not_made"] = diagnosis.not_made;
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

void request(const RequestRow &row) {
  Json json = object("request");
  json["request"] = to_text(row.kind);
  json["state"] = to_text(row.state);
  json["iod"] = row.iod;
  json["interface"] = row.interface;
  json["group"] = address_or_null(row.group);
  json["source"] = address_or_null(row.source);
  json["address"] = address_or_null(row.addr);
  json["mask_len"] = number_or_null(row.mask_len);
  json["lender"] = text_or_null(row.lender);
  json["status"] = row.status ? Json(*row.status) : Json(nullptr);
  json["status_text"] = row.status ? Json(status_text(*row.status, row.result)) : Json(nullptr);
  json["result"] = row.status ? Json(row.result) : Json(nullptr);
  write(json);
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
  json["now"] = event.change == Change::removed ? Json(nullptr) : std::visit(WatchedJson{}, event.row);
  json["before"] = event.change == Change::removed ? std::visit(WatchedJson{}, event.row)
                   : event.before                  ? std::visit(WatchedJson{}, *event.before)
                                                   : Json(nullptr);
  write(json);
}

void captured(const CapturedRow &row) {
  const CapturedPacket &packet = row.packet;
  Json json = object("captured");
  json["seconds"] = packet.seconds;
  json["nanoseconds"] = packet.nanoseconds;
  json["direction"] = packet.to_client ? "to-client" : "from-client";
  json["client"] = packet.client;
  json["type"] = packet.minor;
  json["name"] = packet_message_name(packet.minor);
  json["iod"] = number_or_null(packet.iod);
  json["interface"] = text_or_null(row.interface);
  json["outcome"] = packet_outcome_name(packet.outcome);
  json["source"] = row.has_header ? Json(address_text(row.source)) : Json(nullptr);
  json["destination"] = row.has_header ? Json(address_text(row.destination)) : Json(nullptr);
  json["protocol"] = row.has_header ? Json(row.protocol) : Json(nullptr);
  json["length"] = packet.length;
  json["bytes"] = fmt::format("{:02x}", fmt::join(packet.bytes, ""));
  json["dropped"] = packet.dropped;
  write(json);
}

void ping_start(const PingOrder &) {}

void ping_event(const PingEvent &event) {
  const bool answered = event.kind == PingEventKind::reply || event.kind == PingEventKind::duplicate;
  const bool sent = event.kind != PingEventKind::not_sent;
  Json json = object("ping-event");
  json["event"] = to_text(event.kind);
  json["sequence"] = event.news.sequence;
  json["from"] = sent ? Json(address_text(event.news.from)) : Json(nullptr);
  json["ttl"] = sent ? Json(event.news.ttl) : Json(nullptr);
  json["length"] = sent ? Json(event.news.length) : Json(nullptr);
  json["milliseconds"] = answered ? Json(event.milliseconds) : Json(nullptr);
  json["icmp_type"] = sent ? Json(event.news.type) : Json(nullptr);
  json["icmp_code"] = sent ? Json(event.news.code) : Json(nullptr);
  json["outcome"] = sent ? Json(nullptr) : Json(packet_outcome_name(event.outcome));
  write(json);
}

void ping_end(const PingOrder &order, const EchoStatistics &statistics) {
  const bool any = statistics.answered != 0;
  Json json = object("ping");
  json["destination"] = address_text(order.destination);
  json["iod"] = number_or_null(order.iod);
  json["sent"] = statistics.sent;
  json["answered"] = statistics.answered;
  json["duplicates"] = statistics.duplicates;
  json["errors"] = statistics.errors;
  json["not_sent"] = statistics.not_sent;
  json["least_milliseconds"] = any ? Json(statistics.least) : Json(nullptr);
  json["mean_milliseconds"] = any ? Json(statistics.mean) : Json(nullptr);
  json["most_milliseconds"] = any ? Json(statistics.most) : Json(nullptr);
  json["deviation_milliseconds"] = any ? Json(statistics.deviation) : Json(nullptr);
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
    .contexts = list<ContextRow>,
    .interfaces = list<InterfaceRow>,
    .addresses = list<AddressRow>,
    .memory = list<rsw::MemoryUse>,
    .clients = list<ClientRow>,
    .messages = list<MessageRow>,
    .packets = list<PacketRow>,
    .queues = list<rsw::MtsQueueUse>,
    .mbufs = mbufs,
    .routes = routes,
    .vips = list<VipRow>,
    .groups = list<GroupRow>,
    .router_ids = list<RouterIdRow>,
    .counters = counters,
    .explanation = explanation,
    .system = system,
    .diagnosis = diagnosis,
    .supervisor = supervisor,
    .request = request,
    .query = query,
    .query_list = query_list,
    .watch = {watch_start, watch_event},
    .captured = captured,
    .ping = {ping_start, ping_event, ping_end},
    .failure = failure,
};

}  // namespace ipsh
