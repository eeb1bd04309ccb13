// SPDX-License-Identifier: Apache-2.0
// Three of them hold what they ask for, because ipd takes it back when the process that asked ends; three others end
// that; and a configured address stays where it is.
#include "request_commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "arguments.h"
#include "holder.h"
#include "ip_api.h"
#include "limit_option.h"
#include "requests.h"
#include "services.h"
#include "show_commands.h"

namespace ipsh {
namespace {

constexpr uint32_t default_timeout = 10;

bool refuse(std::string_view option, const std::string &given, const char *accepts, Failure *failure) {
  *failure = {ExitCode::usage, fmt::format("{}: '{}' is not accepted here", option, given), accepts};
  return false;
}

bool is_group(uint32_t addr) {
  return addr >> 28 == 0xe;
}

bool decode_group(const Options &options, RequestRow *row, Failure *failure) {
  ArgumentValue value;
  if (options.group.empty()) {
    *failure = {ExitCode::usage, fmt::format("{}: the group is missing", to_text(row->kind)),
                "give a multicast group: 224.0.0.0 to 239.255.255.255"};
    return false;
  }
  if (!decode_argument(ArgumentType::address, "group", options.group, false, &value, failure)) return false;
  row->group = value.number;
  if (!is_group(row->group)) {
    return refuse("group", options.group, "give a multicast group: 224.0.0.0 to 239.255.255.255", failure);
  }
  if (options.source.empty()) return true;
  if (!decode_argument(ArgumentType::address, "--source", options.source, false, &value, failure)) return false;
  row->source = value.number;
  return (row->source != 0 && row->source >> 28 < 0xe) ||
         refuse("--source", options.source, "give the address of a host", failure);
}

bool decode_address_to_configure(const Options &options, RequestRow *row, Failure *failure) {
  ArgumentValue value;
  if (options.prefix.empty()) {
    *failure = {ExitCode::usage, "configure: the address is missing",
                "give an address and its mask length: 10.0.0.1/24"};
    return false;
  }
  if (!decode_argument(ArgumentType::prefix, "address", options.prefix, false, &value, failure)) return false;
  row->addr = value.prefix.addr;
  row->mask_len = value.prefix.mask_len;
  return (row->mask_len != 0 && ip_address_martian(row->addr) == 0) ||
         refuse("address", options.prefix, "give an address that a host may have, and 1 to 32 bits", failure);
}

bool names_interface(const Options &options, const RequestRow &row, Failure *failure) {
  if (!options.interface.empty()) return true;
  *failure = {ExitCode::usage, fmt::format("{}: --interface is missing", to_text(row.kind)),
              "ipsh show interfaces lists them"};
  return false;
}

bool decode_interface_of(const Options &options, RequestRow *row, Failure *failure) {
  ArgumentValue value;
  if (!decode_argument(ArgumentType::interface, "--interface", options.interface, true, &value, failure)) return false;
  row->iod = value.number;
  row->interface = interface_name(row->iod);
  return !row->interface.empty() || refuse("--interface", options.interface,
                                           "no interface has this iod: ipsh show interfaces lists them", failure);
}

struct Timing {
  uint32_t timeout = default_timeout;
  std::optional<double> hold;
};

bool decode_timing(const Options &options, Timing *timing, Failure *failure) {
  std::optional<uint32_t> timeout;
  if (!decode_limit("--timeout", options.seconds, "give whole seconds, 1 or more", &timeout, failure) ||
      !decode_limit("--for", options.hold_seconds, "give seconds, above 0, such as 5 or 0.5", &timing->hold, failure)) {
    return false;
  }
  timing->timeout = timeout.value_or(default_timeout);
  return true;
}

// Interfaces have names only where there is a database. ipd hears nothing of a line that makes no sense.
bool decode_interface(const Options &options, RequestRow *row, Failure *failure) {
  if (!names_interface(options, *row, failure)) return false;
  const std::unique_ptr<Attachment> attachment = Attachment::open(failure);
  return attachment != nullptr && decode_interface_of(options, row, failure);
}

// ------------------------------------------------------------------------------------------------- what ends with ipsh

// Something that is held: how it is asked for, how it is given back, and how it shows.
struct Holding {
  bool (*ask)(const RequestRow &row);
  void (*release)(const RequestRow &row);
  bool (*shows)(const RequestRow &row);
};

std::optional<InterfaceRow> interface_of(const RequestRow &row) {
  const std::vector<InterfaceRow> rows = read_interfaces({.context_id = {}, .iod = row.iod});
  return rows.empty() ? std::nullopt : std::optional(rows.front());
}

constexpr Holding membership{
    [](const RequestRow &row) {
      return (row.source == 0 ? ip_join_group(row.group, row.iod) : ip_join_channel(row.group, row.source, row.iod)) !=
             0;
    },
    [](const RequestRow &row) {
      if (row.source == 0) {
        ip_leave_group(row.group, row.iod);
      } else {
        ip_leave_channel(row.group, row.source, row.iod);
      }
    },
    [](const RequestRow &row) {
      const std::vector<GroupRow> groups = read_groups({.context_id = {}, .iod = row.iod});
      return std::ranges::find(groups, row.group, &GroupRow::group) != groups.end();
    },
};

constexpr Holding all_multicast{
    [](const RequestRow &row) { return ip_enable_multicast(row.iod) != 0; },
    [](const RequestRow &row) { ip_disable_multicast(row.iod); },
    [](const RequestRow &row) {
      const std::optional<InterfaceRow> interface = interface_of(row);
      return interface && interface->multicast;
    },
};

constexpr Holding loan{
    [](const RequestRow &row) { return ip_set_unnumbered(row.iod, row.lender.c_str()) != 0; },
    // Nothing is sent: that would end the loan of whoever asked later, too. ipd sees that this process ends.
    [](const RequestRow &) {},
    [](const RequestRow &row) {
      const std::optional<InterfaceRow> interface = interface_of(row);
      return interface && interface->unnumbered && interface->unnumbered_source == row.lender;
    },
};

ExitCode ask_and_hold(RequestRow row, const Holding &holding, const Options &options, const Printers &printers,
                      Failure *failure) {
  Timing timing;
  if (!decode_timing(options, &timing, failure)) return failure->code;
  const std::unique_ptr<Client> client = Client::open(holder_queue_name, timing.timeout, failure);
  if (client == nullptr) return failure->code;
  const EndSignals signals;
  if (!holding.ask(row)) {
    *failure = not_sent(row);
    return failure->code;
  }
  if (client->was_refused().value_or(false)) {
    *failure = refused(row);
    return failure->code;
  }
  if (!client->wait_until([&] { return holding.shows(row) || signals.pending(); }, timing.timeout)) {
    holding.release(row);
    *failure = not_done(row, timing.timeout);
    return failure->code;
  }
  row.state = RequestState::held;
  printers.request(row);
  if (hold(*client, signals, row, timing.hold, holding.release) == HoldEnd::ipd_gone) {
    *failure = {ExitCode::unavailable,
                fmt::format("{}: ipd is gone, and with it {}", to_text(row.kind), subject_text(row)),
                "ask again when it is back"};
    return failure->code;
  }
  row.state = RequestState::ended;
  printers.request(row);
  return ExitCode::found;
}

// Ends what another ipsh holds.
ExitCode end_of(RequestKind held, RequestRow row, const Options &options, const Printers &printers, Failure *failure) {
  if (!decode_interface(options, &row, failure)) return failure->code;
  const std::unique_ptr<Client> client = Client::open("ipsh asking", default_timeout, failure);
  if (client == nullptr) return failure->code;
  RequestRow wanted = row;
  wanted.kind = held;
  bool denied = false;
  const uint32_t count = end_holders(client->queue(), wanted, &denied);
  if (count == 0 && denied) {
    *failure = {ExitCode::permission,
                fmt::format("{}: another user's ipsh holds {}", to_text(row.kind), subject_text(row)),
                "ask as that user or as root"};
    return failure->code;
  }
  row.state = count == 0 ? RequestState::none : RequestState::ended;
  printers.request(row);
  return count == 0 ? ExitCode::none : ExitCode::found;
}

ExitCode join(const Options &options, const Printers &printers, Failure *failure) {
  RequestRow row(RequestKind::join);
  if (!decode_group(options, &row, failure) || !decode_interface(options, &row, failure)) return failure->code;
  return ask_and_hold(std::move(row), membership, options, printers, failure);
}

ExitCode leave(const Options &options, const Printers &printers, Failure *failure) {
  RequestRow row(RequestKind::leave);
  if (!decode_group(options, &row, failure)) return failure->code;
  return end_of(RequestKind::join, std::move(row), options, printers, failure);
}

ExitCode multicast_on(const Options &options, const Printers &printers, Failure *failure) {
  RequestRow row(RequestKind::multicast_on);
  if (!decode_interface(options, &row, failure)) return failure->code;
  return ask_and_hold(std::move(row), all_multicast, options, printers, failure);
}

ExitCode multicast_off(const Options &options, const Printers &printers, Failure *failure) {
  return end_of(RequestKind::multicast_on, RequestRow(RequestKind::multicast_off), options, printers, failure);
}

bool decode_lender(const Options &options, RequestRow *row, Failure *failure) {
  ArgumentValue value;
  if (!decode_argument(ArgumentType::interface, "--from", options.lender, true, &value, failure)) return false;
  row->lender = interface_name(value.number);
  return (!row->lender.empty() && row->lender != row->interface) ||
         refuse("--from", options.lender, "give another interface: ipsh show interfaces lists them", failure);
}

ExitCode unnumbered_set(const Options &options, const Printers &printers, Failure *failure) {
  RequestRow row(RequestKind::unnumbered_set);
  if (!names_interface(options, row, failure)) return failure->code;
  if (options.lender.empty()) {
    *failure = {ExitCode::usage, "unnumbered set: --from is missing", "name the interface whose address is borrowed"};
    return failure->code;
  }
  {
    const std::unique_ptr<Attachment> attachment = Attachment::open(failure);
    if (attachment == nullptr || !decode_interface_of(options, &row, failure) ||
        !decode_lender(options, &row, failure)) {
      return failure->code;
    }
  }
  return ask_and_hold(std::move(row), loan, options, printers, failure);
}

bool is_unnumbered(const RequestRow &row) {
  const std::optional<InterfaceRow> interface = interface_of(row);
  return interface && interface->unnumbered;
}

// Anybody who may configure can end a loan, whoever asked for it; what the configuration says stays.
ExitCode unnumbered_unset(const Options &options, const Printers &printers, Failure *failure) {
  RequestRow row(RequestKind::unnumbered_unset);
  Timing timing;
  if (!decode_timing(options, &timing, failure)) return failure->code;
  if (!decode_interface(options, &row, failure)) return failure->code;
  const std::unique_ptr<Client> client = Client::open("ipsh asking", timing.timeout, failure);
  if (client == nullptr) return failure->code;
  if (is_unnumbered(row)) {
    RequestRow held = row;
    held.kind = RequestKind::unnumbered_set;
    bool denied = false;
    end_holders(client->queue(), held, &denied);
    if (ip_unset_unnumbered(row.iod) == 0) {
      *failure = not_sent(row);
      return failure->code;
    }
    if (client->was_refused().value_or(false)) {
      *failure = refused(row);
      return failure->code;
    }
    if (!client->wait_until([&] { return !is_unnumbered(row); }, timing.timeout)) {
      *failure = not_done(row, timing.timeout);
      return failure->code;
    }
    row.state = RequestState::ended;
  }
  printers.request(row);
  return row.state == RequestState::none ? ExitCode::none : ExitCode::found;
}

// ----------------------------------------------------------------------------------------------------- what stays

ExitCode configure(const Options &options, const Printers &printers, Failure *failure) {
  RequestRow row(RequestKind::configure);
  Timing timing;
  if (!decode_address_to_configure(options, &row, failure) || !decode_timing(options, &timing, failure) ||
      !decode_interface(options, &row, failure)) {
    return failure->code;
  }
  const std::unique_ptr<Client> client = Client::open("ipsh configuring", timing.timeout, failure);
  if (client == nullptr) return failure->code;
  const uint32_t status = ip_configure_address(row.iod, row.addr, row.mask_len, &row.result, 0, timing.timeout);
  row.status = status;
  row.state = status == IP_CONFIG_STATUS_DONE ? RequestState::done : RequestState::refused;
  const ExitCode code = exit_code_of_status(status);
  if (code == ExitCode::found || code == ExitCode::none) {
    printers.request(row);
  } else {
    *failure = {code, fmt::format("configure: {}: {}", subject_text(row), status_text(status, row.result)), ""};
  }
  return code;
}

// ------------------------------------------------------------------------------------------------------ the commands

void add_interface(CommandTree *tree, CLI::App *command) {
  command->add_option("--interface", tree->options.interface, "on this interface: its iod or name")
      ->type_name("<interface>");
}

void add_timeout(CommandTree *tree, CLI::App *command, const char *what) {
  command->add_option("--timeout", tree->options.seconds, what)->type_name("<seconds>");
}

void add_hold(CommandTree *tree, CLI::App *command) {
  command->add_option("--for", tree->options.hold_seconds, "hold it for so long (else until interrupted)")
      ->type_name("<seconds>");
  add_timeout(tree, command, "wait so many seconds for ipd to do it (else 10)");
}

void add_group(CommandTree *tree, CLI::App *command) {
  command->add_option("group", tree->options.group, "the group, such as 239.1.1.1")->type_name("<address>");
  add_interface(tree, command);
  command->add_option("--source", tree->options.source, "only what this host sends (else from any source)")
      ->type_name("<address>");
}

std::string held_footer(const char *subject, const char *ends, const char *lines) {
  return fmt::format(
      "ipd takes {} back when the process that asked for it ends, so this command stays in the\n"
      "foreground and holds it until it is interrupted, or for --for seconds, or until\n"
      "{} ends it.\n\n{}",
      subject, ends, examples(lines));
}

CLI::App *add_pair(CommandTree *tree, const char *name, const char *what, const char *example) {
  CLI::App *command = tree->app.add_subcommand(name, what);
  command->require_subcommand(1);
  command->footer(examples(example));
  return command;
}

}  // namespace

void add_requests(CommandTree *tree) {
  CLI::App *command = tree->app.add_subcommand("join", "be a member of a multicast group or channel on an interface");
  add_group(tree, command);
  add_hold(tree, command);
  command->footer(held_footer("a membership", "ipsh leave",
                              "ipsh join 239.1.1.1 --interface eth0\n"
                              "  ipsh join 232.1.1.1 --interface eth0 --source 192.0.2.1 --for 60"));
  tree->add_leaf(command, join, {"request"});

  command = tree->app.add_subcommand("leave", "end the memberships that ipsh join holds");
  add_group(tree, command);
  command->footer(examples("ipsh leave 239.1.1.1 --interface eth0"));
  tree->add_leaf(command, leave, {"request"});

  command = tree->app.add_subcommand("configure", "put an address on an interface");
  command->add_option("address", tree->options.prefix, "the address and its mask length, such as 10.0.0.1/24")
      ->type_name("<prefix>");
  add_interface(tree, command);
  add_timeout(tree, command, "wait so many seconds for the answer (else 10)");
  command->footer(
      examples("ipsh configure 10.0.0.1/24 --interface eth0\n"
               "  ipsh configure 10.0.0.1/24 --interface eth0 --timeout 3 --json"));
  tree->add_leaf(command, configure, {"request"});

  CLI::App *pair = add_pair(tree, "unnumbered", "let an interface borrow another one's address",
                            "ipsh unnumbered set --interface tun0 --from lo");
  command = pair->add_subcommand("set", "borrow the address of another interface");
  add_interface(tree, command);
  command->add_option("--from", tree->options.lender, "the name of the interface whose address is borrowed")
      ->type_name("<interface>");
  add_hold(tree, command);
  command->footer(
      held_footer("a loan", "ipsh unnumbered unset", "ipsh unnumbered set --interface tun0 --from lo --for 60"));
  tree->add_leaf(command, unnumbered_set, {"request"});
  command = pair->add_subcommand("unset", "end a loan, whoever asked ipd for it");
  add_interface(tree, command);
  add_timeout(tree, command, "wait so many seconds for ipd to do it (else 10)");
  command->footer(examples("ipsh unnumbered unset --interface tun0"));
  tree->add_leaf(command, unnumbered_unset, {"request"});

  pair = add_pair(tree, "multicast", "receive all multicast packets on an interface",
                  "ipsh multicast on --interface eth0");
  command = pair->add_subcommand("on", "receive every group's packets");
  add_interface(tree, command);
  add_hold(tree, command);
  command->footer(held_footer("this", "ipsh multicast off", "ipsh multicast on --interface eth0"));
  tree->add_leaf(command, multicast_on, {"request"});
  command = pair->add_subcommand("off", "end what ipsh multicast on holds");
  add_interface(tree, command);
  command->footer(examples("ipsh multicast off --interface eth0"));
  tree->add_leaf(command, multicast_off, {"request"});
}

}  // namespace ipsh
