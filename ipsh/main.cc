// SPDX-License-Identifier: Apache-2.0
// ipsh: the command line of the IPv4 service.
//
// Parse the whole line, then run the one command that it names. Whatever is refused is one line on standard error,
// naming the argument and what is accepted, and an exit code that says which kind of refusal it is; with --json the
// same is an object on standard output, so that a program which reads JSON always gets some.
#include <fmt/format.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "commands.h"
#include "complete.h"
#include "nearest.h"
#include "style.h"

namespace {

using ipsh::CommandTree;
using ipsh::ExitCode;
using ipsh::Failure;

std::string path_of(const CLI::App *command) {
  std::string path = command->get_name();
  for (const CLI::App *at = command->get_parent(); at != nullptr; at = at->get_parent()) {
    path = at->get_name() + " " + path;
  }
  return path;
}

std::vector<std::string> names_of(const CLI::App *command) {
  std::vector<std::string> names;
  for (const CLI::App *child : command->get_subcommands([](const CLI::App *) { return true; })) {
    names.push_back(child->get_name());
  }
  return names;
}

// The first word that the parser could make nothing of; an option before anything else. Empty: all words were good.
std::string stray_word(const CommandTree &tree) {
  const std::vector<std::string> strays = tree.app.remaining(true);
  const auto option = std::ranges::find_if(strays, [](const std::string &word) { return word.starts_with('-'); });
  return strays.empty() ? "" : option != strays.end() ? *option : strays.front();
}

// The long names of the options that a command takes, of the levels above too.
std::vector<std::string> options_of(const CLI::App *command) {
  std::vector<std::string> names;
  for (const CLI::App *at = command; at != nullptr; at = at->get_parent()) {
    for (const CLI::Option *option : at->get_options()) {
      for (const std::string &name : option->get_lnames()) names.push_back("--" + name);
    }
  }
  return names;
}

// "did you mean 'NAME'? ", or nothing.
std::string guess(const std::string &stray, const std::vector<std::string> &names) {
  const std::string meant = ipsh::nearest(stray, names);
  return meant.empty() ? "" : fmt::format("did you mean '{}'? ", meant);
}

// What the parser found wrong, in our words and on one line.
Failure usage_failure(const CLI::ParseError &error, const CommandTree &tree) {
  const CLI::App *command = ipsh::named_command(tree.app);
  const std::string path = path_of(command);
  const std::vector<std::string> names = names_of(command);
  const bool many = names.size() > 20;
  const std::string stray = stray_word(tree);
  Failure failure{ExitCode::usage, "", fmt::format("see {} {}", path, many ? "--list" : "--help")};
  if (!stray.empty() && (stray.starts_with('-') || names.empty())) {
    failure.message = fmt::format("{}: '{}' is not accepted here", path, stray);
    if (stray.starts_with('-'))
      failure.advice = guess(stray.substr(0, stray.find('=')), options_of(command)) + failure.advice;
  } else if (!names.empty() && dynamic_cast<const CLI::ArgumentMismatch *>(&error) == nullptr) {
    failure.message = stray.empty() ? fmt::format("{}: a command is missing", path)
                                    : fmt::format("{}: there is no '{}'", path, stray);
    if (!many) failure.advice = fmt::format("give one of {}", fmt::join(names, ", "));
    if (!stray.empty()) failure.advice = guess(stray, names) + failure.advice;
  } else {
    failure.message = fmt::format("{}: {}", path, error.what());
    std::ranges::replace(failure.message, '\n', ' ');
  }
  return failure;
}

// The library's argument names have underscores, options have dashes: on the command line they are the same.
void take_underscores_for_dashes(std::vector<std::string> *words) {
  for (std::string &word : *words) {
    if (!word.starts_with("--")) continue;
    const auto name_end = word.begin() + static_cast<std::ptrdiff_t>(std::min(word.find('='), word.size()));
    std::replace(word.begin(), name_end, '_', '-');
  }
}

int finish(const Failure &failure, const ipsh::Printers &printers) {
  // One about the line begins with the words that were good.
  const char *program = failure.message.starts_with("ipsh") ? "" : "ipsh: ";
  fmt::print(stderr, "{}{}{}{}\n", program, failure.message, failure.advice.empty() ? "" : "; ", failure.advice);
  printers.failure(failure);
  return static_cast<int>(failure.code);
}

int run(std::vector<std::string> words) {
  CommandTree tree;
  if (!words.empty() && words.front() == "__complete") {
    for (const std::string &candidate : ipsh::complete(tree, std::span(words).subspan(1))) {
      fmt::print("{}\n", candidate);
    }
    return 0;
  }
  take_underscores_for_dashes(&words);
  const bool json = std::ranges::find(words, "--json") != words.end();
  const ipsh::Printers &printers = json ? ipsh::json_printers : ipsh::table_printers;
  try {
    std::ranges::reverse(words);  // the parser takes them from the end
    tree.app.parse(words);
  } catch (const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) return tree.app.exit(error);
    return finish(usage_failure(error, tree), printers);
  }
  if (!tree.options.run_directory.empty()) setenv("RSW_RUN_DIR", tree.options.run_directory.c_str(), 1);
  if (!ipsh::choose_colors(tree.options.color)) {
    return finish({ExitCode::usage, fmt::format("--color: '{}' is not accepted here", tree.options.color),
                   "give auto, always or never"},
                  printers);
  }
  Failure failure;
  const ExitCode code = tree.leaves.at(ipsh::named_command(tree.app)).run(tree.options, printers, &failure);
  return failure.code == ExitCode::found ? static_cast<int>(code) : finish(failure, printers);
}

// Output that is lost is a failure. A reader that has gone is another matter: the signal has ended ipsh then.
int flushed(int status) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  fmt::print(stderr, "ipsh: not all of the output could be written\n");
  return static_cast<int>(ExitCode::unavailable);
}

}  // namespace

int main(int argc, char **argv) {
  // Whoever started ipsh may ignore the signal, and a watch would go on for nobody.
  signal(SIGPIPE, SIG_DFL);
  try {
    return flushed(run(std::vector<std::string>(argv + 1, argv + argc)));
  } catch (const std::exception &error) {
    fmt::print(stderr, "ipsh: {}\n", error.what());
    return static_cast<int>(ExitCode::unavailable);
  }
}
