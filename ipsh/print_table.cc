// SPDX-License-Identifier: Apache-2.0
// Tables and lines for people.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "printers.h"
#include "progress.h"
#include "text_columns.h"
#include "text_table.h"

namespace ipsh {
namespace {

void write(const std::string &text) {
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

// "name value" lines, names as wide as the widest.
void write_fields(const std::vector<std::pair<std::string, std::string>> &fields) {
  size_t width = 0;
  for (const auto &[name, value] : fields) width = std::max(width, name.size());
  std::string text;
  for (const auto &[name, value] : fields) text += fmt::format("{:<{}}  {}\n", name, width, value);
  write(text);
}

// Two passes over the rows, as wide columns want: a full table of routes is never in memory as text.
template <class Row>
void list(const std::vector<Row> &rows) {
  const std::span<const TextColumn<Row>> columns = text_columns<Row>();
  std::vector<Column> titles;
  for (const TextColumn<Row> &column : columns) titles.push_back({column.title, column.align});
  TableLayout layout(std::move(titles));
  std::vector<std::string> cells(columns.size());
  const auto cells_of = [&](const Row &row) -> const std::vector<std::string> & {
    for (size_t i = 0; i < columns.size(); ++i) cells[i] = columns[i].text(row);
    return cells;
  };
  std::vector<Style> styles(columns.size(), Style::plain);
  const auto styles_of = [&](const Row &row) -> const std::vector<Style> & {
    for (size_t i = 0; i < columns.size(); ++i) {
      if (columns[i].style != nullptr) styles[i] = columns[i].style(row);
    }
    return styles;
  };
  for (const Row &row : rows) layout.measure(cells_of(row));
  std::fputs(layout.titles().c_str(), stdout);
  Progress progress(rows.size());
  for (const Row &row : rows) {
    std::fputs(layout.line(cells_of(row), styles_of(row)).c_str(), stdout);
    progress.step();
  }
  std::fflush(stdout);
}

void routes(const RouteListing &listing) {
  list(listing.rows);
  if (listing.left_out != 0) {
    fmt::print(stderr, "ipsh: {} of {} routes are shown\n", listing.rows.size(),
               listing.rows.size() + listing.left_out);
  }
}

void counters(const std::vector<CounterRow> &rows, const std::optional<LoadShare> &share) {
  list(rows);
  if (share) write(fmt::format("load sharing: mode {}, value {}\n", share->mode, share->value));
}

// A subject with several sentences is named once.
void explanation(const Explanation &explanation) {
  std::vector<std::pair<std::string, std::string>> fields;
  fields.emplace_back("asked", fmt::format("{} in context {} (table {})", address_text(explanation.addr),
                                           explanation.context, explanation.table));
  std::string subject;
  for (const ExplainedLine &line : sentences_of(explanation)) {
    fields.emplace_back(line.subject == subject ? "" : line.subject, line.sentence);
    subject = line.subject;
  }
  write_fields(fields);
}

void mbufs(const rsw::PoolReport &report) {
  write_fields({
      {"buffers", number_text(report.total)},
      {"in use", number_text(report.in_use)},
      {"cached", number_text(report.cached)},
      {"free", number_text(report.free)},
      {"high water", number_text(report.high_water)},
      {"refused", number_text(report.refused)},
      {"taken back", number_text(report.reclaimed)},
      {"damaged words", number_text(report.damaged)},
  });
  list(report.owners);
}

void system(const SystemState &state) {
  write_fields({
      {"run directory", state.run_directory},
      {"ipd", state.ipd_runs
                  ? fmt::format("{}, process {}", painted(Style::good, "running"), state.ipd_pid)
                  : fmt::format("{}, last was process {}", painted(Style::bad, "not running"), state.ipd_pid)},
      {"supervisor", supervisor_text(state.supervisor)},
      {"uuid", fmt::format("0x{:08x}", state.uuid)},
      {"instance", number_text(state.instance)},
      {"generation", number_text(state.generation)},
      {"database", fmt::format("{} bytes of {}", state.database_bytes, state.database_window)},
      {"contexts", number_text(state.contexts)},
      {"interfaces", number_text(state.interfaces)},
      {"addresses", number_text(state.addresses)},
  });
}

// The remedy stands under its finding: side by side, they would be wider than a terminal.
void diagnosis(const Diagnosis &diagnosis) {
  TableLayout layout({{"CHECK"}, {"STATE"}, {"FINDING"}});
  constexpr std::array<Health, 3> healths{Health::ok, Health::warning, Health::failed};
  const auto cells_of = [](const Finding &row) {
    return std::array{row.check, std::string(to_text(row.health)), row.finding};
  };
  for (const Finding &row : diagnosis.findings) layout.measure(cells_of(row));
  std::string text = layout.titles();
  for (const Finding &row : diagnosis.findings) {
    text += layout.line(cells_of(row), std::array{Style::plain, style_of(row.health)});
    if (!row.remedy.empty()) text += layout.line(std::array{std::string(), std::string(), "remedy: " + row.remedy});
  }
  for (const Health health : healths) {
    text += fmt::format("{}{} {}", health == Health::ok ? "\n" : ", ", diagnosis.count(health), to_text(health));
  }
  if (!diagnosis.not_made.empty()) {
    text += fmt::format("; after what failed, not made: {}", fmt::join(diagnosis.not_made, ", "));
  }
  write(text + "\n");
}

void supervisor(uint32_t state) {
  write_fields({{"supervisor", supervisor_text(state)}});
}

std::string state_text(const RequestRow &row) {
  switch (row.state) {
    case RequestState::held:
      return "held until this ends";
    case RequestState::none:
      return "no ipsh holds it";
    default:
      return row.status ? status_text(*row.status, row.result) : to_text(row.state);
  }
}

void request(const RequestRow &row) {
  write_fields({{to_text(row.kind), subject_text(row)}, {"state", state_text(row)}});
}

void query(const QueryResult &result) {
  std::string call = fmt::format("{}(", result.query->name);
  for (size_t i = 0; i < result.arguments.size(); ++i) {
    const auto &[name, value] = result.arguments[i];
    call += fmt::format("{}{}={}", i == 0 ? "" : ", ", name, value);
  }
  std::vector<std::pair<std::string, std::string>> fields{{"call", call + ")"}};
  if (result.query->result != ResultType::nothing) fields.emplace_back("value", result.result.text);
  for (const ShownValue &output : result.outputs) fields.emplace_back("  " + output.name, output.text);
  for (const std::vector<ShownValue> &arguments : result.calls) {
    std::string text;
    for (const ShownValue &argument : arguments) {
      text += fmt::format("{}{}={}", text.empty() ? "" : ", ", argument.name, argument.text);
    }
    fields.emplace_back("  called", text);
  }
  fields.emplace_back("reads as", result.reads_as);
  if (!result.error_text.empty()) fields.emplace_back("error text", result.error_text);
  write_fields(fields);
}

void query_list() {
  std::string text;
  for (const QueryGroup &group : query_groups()) {
    text += text.empty() ? "" : "\n";
    text += painted(Style::heading, group.title) + ":\n";
    TextTable table({{"NAME"}, {"ARGUMENTS"}, {"ANSWERS"}});
    for (const Query &row : group.queries) {
      std::string arguments;
      for (const Argument &argument : row.arguments) {
        const std::string one = fmt::format("--{} <{}>", argument.name, type_info(argument.type).name);
        arguments += (arguments.empty() ? "" : " ") + (argument.preset ? fmt::format("[{}]", one) : one);
      }
      table.add({std::string(row.name), arguments, std::string(row.what)});
    }
    text += table.text();
  }
  write(text);
}

struct EventText {
  std::string operator()(const IpdRow &row) const {
    return fmt::format("ipd        process {}, instance {}", row.pid, row.instance);
  }
  std::string operator()(const ContextRow &row) const {
    return fmt::format("context    {} (id {}), table {}, router id {}", row.name, row.id, row.table_id,
                       address_or_dash(row.router_id));
  }
  std::string operator()(const InterfaceRow &row) const {
    return fmt::format("interface  {} (iod {}), context {}, {}, mtu {}, {}, {} secondary, {} virtual, {}", row.name,
                       row.iod, or_dash(row.context), painted(state_style(row), state_text(row)), row.mtu,
                       row.primary == 0 ? "no address" : prefix_text(row.primary, row.primary_mask_len),
                       row.secondary_count, row.virtual_count, flags_text(row));
  }
  std::string operator()(const AddressRow &row) const {
    return fmt::format("address    {} {} on {} (iod {}), context {}", prefix_text(row.addr, row.mask_len),
                       to_text(row.kind), row.interface, row.iod, or_dash(row.context));
  }
};

void watch_start(const Picture &picture) {
  write(fmt::format("watching {} contexts, {} interfaces, {} addresses\n", picture.contexts.size(),
                    picture.interfaces.size(), picture.addresses.size()));
}

void watch_event(const Event &event) {
  write(fmt::format("{:<7}  {}\n", to_text(event.change), std::visit(EventText{}, event.row)));
}

void captured(const CapturedRow &row) {
  write(line_text(row) + "\n");
}

void ping_start(const PingOrder &order) {
  write(fmt::format("ping {}: {} bytes of data\n", address_text(order.destination), order.data));
}

void ping_event(const PingEvent &event) {
  const EchoNews &news = event.news;
  switch (event.kind) {
    case PingEventKind::reply:
    case PingEventKind::duplicate:
      return write(fmt::format("{} bytes from {}: sequence {}, ttl {}, {:.3f} ms{}\n", news.length,
                               address_text(news.from), news.sequence, news.ttl, event.milliseconds,
                               event.kind == PingEventKind::duplicate ? ", duplicate" : ""));
    case PingEventKind::error:
      return write(fmt::format("from {}: sequence {}, {} (type {}, code {})\n", address_text(news.from), news.sequence,
                               icmp_type_text(news.type), news.type, news.code));
    case PingEventKind::not_sent:
      return write(
          fmt::format("sequence {}: ipd did not send it: {}\n", news.sequence, packet_outcome_name(event.outcome)));
  }
}

void ping_end(const PingOrder &order, const EchoStatistics &statistics) {
  const uint64_t lost = statistics.sent - statistics.answered;
  std::string text = fmt::format("{}: {} sent, {} answered, {}% lost, {} duplicates, {} errors, {} not sent by ipd\n",
                                 address_text(order.destination), statistics.sent, statistics.answered,
                                 statistics.sent == 0 ? 0 : lost * 100 / statistics.sent, statistics.duplicates,
                                 statistics.errors, statistics.not_sent);
  if (statistics.answered != 0) {
    text += fmt::format("round trip: least {:.3f}, mean {:.3f}, most {:.3f}, deviation {:.3f} ms\n", statistics.least,
                        statistics.mean, statistics.most, statistics.deviation);
  }
  write(text);
}

// The line on standard error is all that people get.
void failure(const Failure &) {}

}  // namespace

const Printers table_printers{
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
