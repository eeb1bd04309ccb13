// SPDX-License-Identifier: Apache-2.0
// The command tree: what can be written on the command line, and what each command runs.
#ifndef IPSH_COMMANDS_H
#define IPSH_COMMANDS_H

#include <CLI/CLI.hpp>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "exit_code.h"
#include "printers.h"

namespace ipsh {

// What the options hold after parsing; an empty text is an option that was left out.
struct Options {
  bool json = false;
  bool list = false;
  std::string run_directory, color;
  std::string context, interface, table, view, limit;
  std::string address;
  std::string count, seconds;
  std::string group, source, prefix, lender, hold_seconds;
  std::string file, protocol, direction, snap_length, data_size, wait, interval;
  std::map<std::string, std::string, std::less<>> query_words;  // by argument name
};

// Runs a command and returns its exit code. With a code of 2 and above *failure says why.
using Run = std::function<ExitCode(const Options &options, const Printers &printers, Failure *failure)>;

// A command that does something.
struct Leaf {
  Run run;
  std::vector<std::string> kinds;  // of the objects that it prints with --json; each has a schema of that name
};

struct CommandTree {
  CLI::App app;
  Options options;
  std::map<const CLI::App *, Leaf> leaves;
  // Says the kinds in the command's help, too.
  void add_leaf(CLI::App *command, Run run, std::vector<std::string> kinds);
  CommandTree();
  CommandTree(const CommandTree &) = delete;
  CommandTree &operator=(const CommandTree &) = delete;
};

// The innermost command that was named on the command line.
[[nodiscard]] const CLI::App *named_command(const CLI::App &app);

}  // namespace ipsh

#endif
