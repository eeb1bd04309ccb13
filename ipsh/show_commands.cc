// SPDX-License-Identifier: Apache-2.0
#include "show_commands.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <utility>

#include "arguments.h"
#include "control_state.h"
#include "routes.h"
#include "services.h"

namespace ipsh {

// Attached, with a word of warning when nobody keeps the database current.
std::unique_ptr<Attachment> attach(Failure *failure) {
  std::unique_ptr<Attachment> attachment = Attachment::open(failure);
  if (attachment && !attachment->writer_runs()) {
    fmt::print(stderr, "ipsh: ipd is not running: this is the last state that it published\n");
  }
  return attachment;
}

bool select(const Options &options, Selection *selection, Failure *failure) {
  ArgumentValue value;
  if (!options.context.empty()) {
    if (!decode_argument(ArgumentType::context_id, "--context", options.context, true, &value, failure)) return false;
    selection->context_id = value.number;
  }
  if (!options.interface.empty()) {
    if (!decode_argument(ArgumentType::interface, "--interface", options.interface, true, &value, failure)) {
      return false;
    }
    selection->iod = value.number;
  }
  return true;
}

std::string examples(std::string_view lines) {
  return fmt::format("Examples:\n  {}\n\n--json and --run-dir DIR are accepted here too (see ipsh --help).", lines);
}

namespace {

// The common shape of the listings: attach, select, read, print. An empty listing is the answer "none".
template <class Read, class Print>
ExitCode show(const Options &options, Failure *failure, Read read, Print print) {
  const std::unique_ptr<Attachment> attachment = attach(failure);
  if (!attachment) return failure->code;
  Selection selection;
  if (!select(options, &selection, failure)) return failure->code;
  const auto rows = read(selection);
  print(rows);
  return rows.empty() ? ExitCode::none : ExitCode::found;
}

ExitCode show_contexts(const Options &options, const Printers &printers, Failure *failure) {
  return show(
      options, failure, [](const Selection &) { return read_contexts(); }, printers.contexts);
}

ExitCode show_interfaces(const Options &options, const Printers &printers, Failure *failure) {
  return show(options, failure, read_interfaces, printers.interfaces);
}

ExitCode show_addresses(const Options &options, const Printers &printers, Failure *failure) {
  return show(options, failure, read_addresses, printers.addresses);
}

ExitCode show_memory(const Options &options, const Printers &printers, Failure *failure) {
  return show(
      options, failure, [](const Selection &) { return read_memory(); }, printers.memory);
}

// Who reads the database is known without ipd. Its silence is told by the attachment already when it does not run.
ExitCode show_clients(const Options &, const Printers &printers, Failure *failure) {
  const std::unique_ptr<Attachment> attachment = attach(failure);
  if (!attachment) return failure->code;
  Failure silence;
  const std::vector<ClientRow> rows = read_clients(&silence);
  if (!silence.message.empty() && attachment->writer_runs()) {
    fmt::print(stderr, "ipsh: {}: only who reads the database is shown\n", silence.message);
  }
  printers.clients(rows);
  return rows.empty() ? ExitCode::none : ExitCode::found;
}

ExitCode show_messages(const Options &, const Printers &printers, Failure *failure) {
  const auto rows = read_messages(failure);
  if (!rows) return failure->code;
  printers.messages(*rows);
  return ExitCode::found;
}

ExitCode show_packets(const Options &, const Printers &printers, Failure *failure) {
  const auto rows = read_packets(failure);
  if (!rows) return failure->code;
  printers.packets(*rows);
  return ExitCode::found;
}

// Buffers are there without ipd too.
ExitCode show_mbufs(const Options &, const Printers &printers, Failure *failure) {
  rsw::PoolReport report;
  std::string reason;
  errno = 0;
  if (!rsw::report_pool(&report, &reason)) {
    const bool is_forbidden = errno == EACCES || errno == EPERM;
    *failure = {is_forbidden ? ExitCode::permission : ExitCode::unavailable, "no pool of packet buffers: " + reason,
                is_forbidden ? "it is for those who may send packets" : "start ipd, or set RSW_RUN_DIR"};
    return failure->code;
  }
  printers.mbufs(report);
  return ExitCode::found;
}

// Queues are there without a database too; without either there is no system.
ExitCode show_queues(const Options &, const Printers &printers, Failure *failure) {
  const std::vector<rsw::MtsQueueUse> rows = rsw::mts_queues();
  if (rows.empty() && Attachment::open(failure) == nullptr) return failure->code;
  printers.queues(rows);
  return rows.empty() ? ExitCode::none : ExitCode::found;
}

ExitCode show_system(const Options &, const Printers &printers, Failure *failure) {
  const std::unique_ptr<Attachment> attachment = attach(failure);
  if (!attachment) return failure->code;
  printers.system(read_system(*attachment));
  return ExitCode::found;
}

ExitCode show_vips(const Options &options, const Printers &printers, Failure *failure) {
  return show(options, failure, read_vips, printers.vips);
}

ExitCode show_groups(const Options &options, const Printers &printers, Failure *failure) {
  return show(options, failure, read_groups, printers.groups);
}

ExitCode show_router_ids(const Options &options, const Printers &printers, Failure *failure) {
  return show(options, failure, read_router_ids, printers.router_ids);
}

ExitCode show_counters(const Options &options, const Printers &printers, Failure *failure) {
  return show(options, failure, read_counters,
              [&](const std::vector<CounterRow> &rows) { printers.counters(rows, read_load_share()); });
}

bool refuse(const char *option, const std::string &given, const char *accepts, Failure *failure) {
  *failure = {ExitCode::usage, fmt::format("{}: '{}' is not accepted here", option, given), accepts};
  return false;
}

// What restricts the routes, beside --interface. A context stands for its table.
bool select_routes(const Options &options, RouteSelection *routes, Failure *failure) {
  Selection selection;
  ArgumentValue value;
  if (!select(options, &selection, failure)) return false;
  routes->iod = selection.iod;
  if (!options.context.empty()) {
    for (const ContextRow &context : read_contexts()) {
      if (context.id == selection.context_id) routes->table = context.table_id;
    }
    if (!routes->table) return refuse("--context", options.context, "ipsh show contexts lists them", failure);
  }
  if (!options.table.empty()) {
    if (!options.context.empty()) {
      return refuse("--table", options.table, "give either --table or --context", failure);
    }
    if (!decode_argument(ArgumentType::table_id, "--table", options.table, true, &value, failure)) return false;
    routes->table = value.number;
  }
  if (options.view == "multicast") {
    routes->view = rsw::RouteView::multicast;
  } else if (!options.view.empty() && options.view != "unicast") {
    return refuse("--view", options.view, "give unicast or multicast", failure);
  }
  if (!options.limit.empty()) {
    if (!decode_argument(ArgumentType::number, "--limit", options.limit, true, &value, failure)) return false;
    routes->limit = value.number;
  }
  return true;
}

ExitCode show_routes(const Options &options, const Printers &printers, Failure *failure) {
  const std::unique_ptr<Attachment> attachment = attach(failure);
  if (!attachment) return failure->code;
  RouteSelection selection;
  RouteListing listing;
  if (!select_routes(options, &selection, failure) || !read_routes(selection, &listing, failure)) return failure->code;
  printers.routes(listing);
  return listing.rows.empty() ? ExitCode::none : ExitCode::found;
}

enum Selector : unsigned { by_context = 1, by_interface = 2, by_route = 4 };

struct Listing {
  const char *name;
  const char *what;
  unsigned selectors;  // the options that it takes
  const char *kind;    // of its JSON
  const char *examples;
  ExitCode (*run)(const Options &, const Printers &, Failure *);
};

constexpr std::array<Listing, 15> listings{{
    {"contexts", "routing contexts (VRFs): id, name, route table, router id", 0, "contexts", "ipsh show contexts",
     show_contexts},
    {"interfaces", "interfaces: state, MTU, primary address, flags", by_context | by_interface, "interfaces",
     "ipsh show interfaces\n  ipsh show interfaces --context red --json", show_interfaces},
    {"addresses", "local addresses: primary, secondary and virtual", by_context | by_interface, "addresses",
     "ipsh show addresses --interface eth0\n  ipsh show addresses --json | jq -r '.addresses[].address'",
     show_addresses},
    {"routes", "the route tables: prefix, kind, who made it, next hops", by_context | by_interface | by_route, "routes",
     "ipsh show routes --context default\n  ipsh show routes --table 100 --limit 20\n"
     "  ipsh show routes --view multicast --json | jq -c '.routes[]'",
     show_routes},
    {"vips", "virtual addresses, and whether they are active here", by_context | by_interface, "vips",
     "ipsh show vips\n  ipsh show vips --json | jq -r '.vips[] | select(.active) | .address'", show_vips},
    {"groups", "multicast groups that are joined on the interfaces", by_context | by_interface, "groups",
     "ipsh show groups --interface eth0", show_groups},
    {"router-id", "router ids of the contexts, and the interfaces that they were taken from", by_context | by_interface,
     "router-ids", "ipsh show router-id --context red", show_router_ids},
    {"counters", "multicast counters and PIM asserts of the interfaces, and the load-sharing setting",
     by_context | by_interface, "counters", "ipsh show counters --interface eth0", show_counters},
    {"memory", "memory in use, by process and type", 0, "memory", "ipsh show memory", show_memory},
    {"clients", "processes that read the shared database or use ipd's control service", 0, "clients",
     "ipsh show clients\n  ipsh show clients --json | jq -r '.clients[].registrations[]?.name'", show_clients},
    {"messages", "messages to ipd's control service: done and refused, by kind", 0, "messages",
     "ipsh show messages\n  ipsh show messages --json | jq '.messages[] | select(.name == \"register\")'",
     show_messages},
    {"packets", "packets from and to clients: done and refused, by kind of message", 0, "packets",
     "ipsh show packets\n  ipsh show packets --json | jq '.packets[] | select(.name == \"output\") | .refused'",
     show_packets},
    {"queues", "message queues of all processes: what waits in them, what came and went", 0, "queues",
     "ipsh show queues\n  ipsh show queues --json | jq '.queues[] | select(.sap == 263)'", show_queues},
    {"mbufs", "packet buffers that processes share: in use, cached and free, and whose they are", 0, "mbufs",
     "ipsh show mbufs\n  ipsh show mbufs --json | jq .in_use", show_mbufs},
    {"system", "ipd, the supervisor state and the shared database", 0, "system", "ipsh show system", show_system},
}};

}  // namespace

void add_show(CommandTree *tree) {
  CLI::App *show_command = tree->app.add_subcommand("show", "list what the running system knows");
  show_command->require_subcommand(1);
  show_command->footer(examples("ipsh show interfaces\n  ipsh show system --json"));
  for (const Listing &listing : listings) {
    CLI::App *command = show_command->add_subcommand(listing.name, listing.what);
    const auto add = [&](Selector selector, const char *option, std::string *value, const char *what,
                         const char *type) {
      if ((listing.selectors & selector) != 0) command->add_option(option, *value, what)->type_name(type);
    };
    add(by_context, "--context", &tree->options.context, "only of this context: its id or name", "<context-id>");
    add(by_interface, "--interface", &tree->options.interface, "only of this interface: its iod or name",
        "<interface>");
    add(by_route, "--table", &tree->options.table, "only of this table: its id or the name of a context", "<table-id>");
    add(by_route, "--view", &tree->options.view, "unicast (else) or multicast", "<view>");
    add(by_route, "--limit", &tree->options.limit, "so many routes at most", "<number>");
    command->footer(examples(listing.examples));
    tree->add_leaf(command, listing.run, {listing.kind});
  }
}

}  // namespace ipsh
