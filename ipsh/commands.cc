// SPDX-License-Identifier: Apache-2.0
// One place builds the tree, and everything else is read from it: help on every level, the check of the words, and the
// shell's completion (complete.cc). A leaf has a function that runs after the whole line was parsed, since --run-dir
// and --json may stand anywhere on it.
#include "commands.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <array>
#include <utility>

#include "attachment.h"
#include "doctor_command.h"
#include "explain.h"
#include "limit_option.h"
#include "packet_commands.h"
#include "query_run.h"
#include "request_commands.h"
#include "show_commands.h"
#include "sysmgr/sysmgr_writer.h"

namespace ipsh {
namespace {

ExitCode query_list(const Options &options, const Printers &printers, Failure *failure) {
  if (!options.list) {
    *failure = {ExitCode::usage, "query: the name of a query is missing", "ipsh query --list shows them"};
    return failure->code;
  }
  printers.query_list();
  return ExitCode::found;
}

Run query_runner(const Query &query) {
  return [&query](const Options &options, const Printers &printers, Failure *failure) {
    if (!has_all_arguments(query, options.query_words, failure)) return failure->code;
    std::unique_ptr<Attachment> attachment;
    if (query.needs_database) {
      attachment = attach(failure);
      if (!attachment) return failure->code;
    }
    QueryResult result;
    if (!run_query(query, options.query_words, attachment != nullptr, &result, failure)) return failure->code;
    printers.query(result);
    return result.found ? ExitCode::found : ExitCode::none;
  };
}

ExitCode explain_address(const Options &options, const Printers &printers, Failure *failure) {
  if (options.address.empty()) {
    *failure = {ExitCode::usage, "explain: the address is missing", "give an IPv4 address: 10.1.2.3 or 0x0a010203"};
    return failure->code;
  }
  ArgumentValue address;
  if (!decode_argument(ArgumentType::address, "address", options.address, false, &address, failure)) {
    return failure->code;
  }
  const std::unique_ptr<Attachment> attachment = attach(failure);
  if (!attachment) return failure->code;
  Selection selection;
  if (!select(options, &selection, failure)) return failure->code;
  constexpr uint32_t default_context = 1;
  Explanation explanation;
  if (!explain(address.number, selection.context_id.value_or(default_context), &explanation, failure)) {
    return failure->code;
  }
  printers.explanation(explanation);
  return explanation.reachable || explanation.facts.local.iod != 0 ? ExitCode::found : ExitCode::none;
}

ExitCode watch_changes(const Options &options, const Printers &printers, Failure *failure) {
  WatchLimits limits;
  if (!decode_limit("--count", options.count, "give a number of changes, 1 or more", &limits.count, failure) ||
      !decode_limit("--timeout", options.seconds, "give seconds, above 0, such as 5 or 0.5", &limits.seconds,
                    failure)) {
    return failure->code;
  }
  const std::unique_ptr<Attachment> attachment = attach(failure);
  if (!attachment) return failure->code;
  return watch(*attachment, limits, printers.watch, failure);
}

Run supervisor_setter(uint32_t state) {
  return [state](const Options &, const Printers &printers, Failure *failure) {
    if (!set_supervisor(state, failure)) return failure->code;
    printers.supervisor(state);
    return ExitCode::found;
  };
}

// The parser takes every word for one that may be left out, so that it is our own message that names a missing one.
class HelpText : public CLI::Formatter {
 public:
  std::string make_option_usage(const CLI::Option *option) const override { return make_option_name(option, true); }
};

constexpr const char *exit_codes =
    "Exit codes: 0 yes, found or done; 1 the answer is 0 or none; 2 wrong usage;\n"
    "            3 no ipd, or it cannot be attached; 4 not permitted.";
void add_query(CommandTree *tree) {
  CLI::App *query_command = tree->app.add_subcommand("query", "ask the library one of its queries, by exported name");
  query_command->require_subcommand(0, 1);
  query_command->add_flag("--list", tree->options.list, "list all queries with their arguments");
  query_command->footer(
      examples("ipsh query ip_get_iod_for_local_address --name default --addr 127.0.0.1\n"
               "  ipsh query ip_bits2mask --len 24 --json\n  ipsh query --list"));
  tree->add_leaf(query_command, query_list, {"query-list"});
  for (const QueryGroup &group : query_groups()) {
    for (const Query &query : group.queries) {
      CLI::App *command = query_command->add_subcommand(std::string(query.name), std::string(query.what));
      command->group(std::string(group.title));
      for (const Argument &argument : query.arguments) {
        const auto keep = [tree, name = std::string(argument.name)](const std::string &word) {
          tree->options.query_words[name] = word;
        };
        const ArgumentTypeInfo &type = type_info(argument.type);
        command
            ->add_option_function<std::string>(
                fmt::format("--{}", argument.name), keep,
                fmt::format("{} ({}{})", argument.what, type.accepts, argument.preset ? "; may be left out" : ""))
            ->type_name(fmt::format("<{}>", type.name));
      }
      command->footer(fmt::format("Answers:\n  {}{}{}\n\n{}", query.reads_found,
                                  query.reads_none.empty() ? "" : "\n  or 0: ", query.reads_none,
                                  examples(fmt::format("ipsh query {} {}", query.name, query.example))));
      tree->add_leaf(command, query_runner(query), {"query"});
    }
  }
}

void add_explain(CommandTree *tree) {
  CLI::App *command = tree->app.add_subcommand("explain", "say why an address is treated as it is: route, source, why");
  command->add_option("address", tree->options.address, "the address, such as 10.1.2.3")->type_name("<address>");
  command->add_option("--context", tree->options.context, "in this context: its id or name (else the default one)")
      ->type_name("<context-id>");
  command->footer(examples("ipsh explain 198.51.100.7\n  ipsh explain 10.1.2.3 --context red --json"));
  tree->add_leaf(command, explain_address, {"explanation"});
}

void add_watch(CommandTree *tree) {
  CLI::App *command = tree->app.add_subcommand("watch", "print contexts, interfaces and addresses as they change");
  command->add_option("--count", tree->options.count, "end after so many changes")->type_name("<number>");
  command->add_option("--timeout", tree->options.seconds, "end after so many seconds")->type_name("<seconds>");
  command->footer(examples(
      "ipsh watch\n  ipsh watch --count 1 --timeout 10\n  ipsh watch --json | jq -c 'select(.object == \"address\")'"));
  tree->add_leaf(command, watch_changes, {"watch-start", "event"});
}

void add_system(CommandTree *tree) {
  CLI::App *system_command = tree->app.add_subcommand("system", "change the state of the system");
  system_command->require_subcommand(1);
  system_command->footer(examples("ipsh system standby"));
  CLI::App *active = system_command->add_subcommand("active", "make this supervisor the active one");
  active->footer(examples("ipsh system active"));
  tree->add_leaf(active, supervisor_setter(rsw::supervisor_active), {"supervisor"});
  CLI::App *standby = system_command->add_subcommand("standby", "make this supervisor the standby one");
  standby->footer(examples("ipsh system standby"));
  tree->add_leaf(standby, supervisor_setter(rsw::supervisor_standby), {"supervisor"});
}

}  // namespace

CommandTree::CommandTree() : app("Ask the IPv4 state of this system, and ipd to change it.", "ipsh") {
  app.formatter(std::make_shared<HelpText>());
  app.fallthrough();
  app.set_help_flag("-h,--help", "print this help and exit");
  app.set_version_flag("--version", "ipsh " IPSH_VERSION, "print the version and exit");
  app.add_flag("--json", options.json, "print JSON instead of tables");
  app.add_option("--run-dir", options.run_directory, "the run directory of ipd (else RSW_RUN_DIR, else the default)")
      ->type_name("<directory>");
  app.add_option("--color", options.color, "colours: auto (else; on a terminal), always or never")->type_name("<when>");
  app.require_subcommand(1);
  app.footer(
      fmt::format("Examples:\n  ipsh show interfaces\n  ipsh query ip_get_mtu --iod eth0\n"
                  "  ipsh explain 198.51.100.7\n"
                  "  ipsh watch --timeout 60\n  ipsh doctor\n\n{}",
                  exit_codes));
  add_show(this);
  add_query(this);
  add_explain(this);
  add_watch(this);
  add_requests(this);
  add_packets(this);
  add_system(this);
  add_doctor(this);
}

void CommandTree::add_leaf(CLI::App *command, Run run, std::vector<std::string> kinds) {
  command->footer(fmt::format("{}\nWith --json the output is of kind {}: see the schemas.", command->get_footer(),
                              fmt::join(kinds, ", ")));
  leaves[command] = {std::move(run), std::move(kinds)};
}

const CLI::App *named_command(const CLI::App &app) {
  const CLI::App *command = &app;
  while (!command->get_subcommands().empty()) command = command->get_subcommands().back();
  return command;
}

}  // namespace ipsh
