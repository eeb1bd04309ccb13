// SPDX-License-Identifier: Apache-2.0
// Tables for people. Where there is nothing to say a cell holds "-", so that columns can be cut by scripts too.
#include <fmt/format.h>

#include <cstdio>

#include "printers.h"
#include "text_table.h"

namespace ipsh {
namespace {

constexpr Align right = Align::right;

std::string number(uint64_t value) {
  return fmt::format("{}", value);
}
std::string or_dash(const std::string &text) {
  return text.empty() ? "-" : text;
}
std::string address_or_dash(uint32_t addr) {
  return addr == 0 ? "-" : address_text(addr);
}

std::string prefix_text(uint32_t addr, uint8_t mask_len) {
  return fmt::format("{}/{}", address_text(addr), mask_len);
}

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

std::string state_text(const InterfaceRow &row) {
  if (!row.admin_up) return "admin-down";
  return row.up ? "up" : "down";
}

std::string flags_text(const InterfaceRow &row) {
  std::string text;
  const auto add = [&](bool on, const std::string &flag) {
    if (on) text += (text.empty() ? "" : ",") + flag;
  };
  add(row.loopback, "loopback");
  add(row.multicast, "multicast");
  add(row.forwarding, "forwarding");
  add(row.directed_broadcast, "directed-broadcast");
  add(row.unnumbered, fmt::format("unnumbered({})", row.unnumbered_source));
  return or_dash(text);
}

void contexts(const std::vector<ContextRow> &rows) {
  TextTable table({{"ID", right}, {"NAME"}, {"TABLE", right}, {"ROUTER-ID"}, {"FROM"}});
  for (const ContextRow &row : rows) {
    table.add({number(row.id), or_dash(row.name), number(row.table_id), address_or_dash(row.router_id),
               or_dash(row.router_id_interface)});
  }
  write(table.text());
}

void interfaces(const std::vector<InterfaceRow> &rows) {
  TextTable table({{"IOD", right},
                   {"NAME"},
                   {"IFINDEX", right},
                   {"CONTEXT"},
                   {"STATE"},
                   {"MTU", right},
                   {"PRIMARY"},
                   {"SEC", right},
                   {"VIRT", right},
                   {"FLAGS"}});
  for (const InterfaceRow &row : rows) {
    table.add({number(row.iod), or_dash(row.name), number(row.ifindex), or_dash(row.context), state_text(row),
               number(row.mtu), row.primary == 0 ? "-" : prefix_text(row.primary, row.primary_mask_len),
               number(row.secondary_count), number(row.virtual_count), flags_text(row)});
  }
  write(table.text());
}

void addresses(const std::vector<AddressRow> &rows) {
  TextTable table({{"ADDRESS"}, {"KIND"}, {"INTERFACE"}, {"IOD", right}, {"CONTEXT"}});
  for (const AddressRow &row : rows) {
    table.add({prefix_text(row.addr, row.mask_len), to_text(row.kind), or_dash(row.interface), number(row.iod),
               or_dash(row.context)});
  }
  write(table.text());
}

void memory(const std::vector<rsw::MemoryUse> &rows) {
  TextTable table({{"PID", right},
                   {"COMMAND"},
                   {"COMPONENT", right},
                   {"KIND"},
                   {"TYPE"},
                   {"BLOCKS", right},
                   {"BYTES", right},
                   {"ALLOCATIONS", right},
                   {"FAILURES", right}});
  for (const rsw::MemoryUse &row : rows) {
    table.add({fmt::format("{}", row.pid), or_dash(row.command), number(row.component),
               row.shared ? "shared" : "private", or_dash(row.type_name), number(row.blocks), number(row.bytes),
               number(row.allocations), number(row.failures)});
  }
  write(table.text());
}

void clients(const std::vector<rsw::EpochClient> &rows) {
  TextTable table({{"PID", right}, {"COMMAND"}, {"THREADS", right}, {"NOW"}});
  for (const rsw::EpochClient &row : rows) {
    table.add(
        {fmt::format("{}", row.pid), or_dash(row.command), number(row.threads), row.inside ? "in a query" : "outside"});
  }
  write(table.text());
}

void system(const SystemState &state) {
  write_fields({
      {"run directory", state.run_directory},
      {"ipd", state.ipd_runs ? fmt::format("running, process {}", state.ipd_pid)
                             : fmt::format("not running, last was process {}", state.ipd_pid)},
      {"supervisor", supervisor_text(state.supervisor)},
      {"uuid", fmt::format("0x{:08x}", state.uuid)},
      {"instance", number(state.instance)},
      {"generation", number(state.generation)},
      {"database", fmt::format("{} bytes of {}", state.database_bytes, state.database_window)},
      {"contexts", number(state.contexts)},
      {"interfaces", number(state.interfaces)},
      {"addresses", number(state.addresses)},
  });
}

void supervisor(uint32_t state) {
  write_fields({{"supervisor", supervisor_text(state)}});
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
    text += fmt::format("{}{}:\n", text.empty() ? "" : "\n", group.title);
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
                       row.iod, or_dash(row.context), state_text(row), row.mtu,
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

// The line on standard error is all that people get.
void failure(const Failure &) {}

}  // namespace

const Printers table_printers{
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
