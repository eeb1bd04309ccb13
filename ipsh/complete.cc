// SPDX-License-Identifier: Apache-2.0
// The line is followed through the tree as far as it goes: a command's name descends, an option that takes a value
// swallows the next word. Then the word under the cursor is one of three things: the value of an option, an option, or
// a command. Values that name something of the running system are asked from it; without one there are none to offer.
#include "complete.h"

#include <fmt/format.h>
#include <stdlib.h>

#include <algorithm>

#include "attachment.h"
#include "snapshot.h"

namespace ipsh {
namespace {

const CLI::Option *find_option(const CLI::App *command, const std::string &word) {
  for (const CLI::App *at = command; at != nullptr; at = at->get_parent()) {
    const CLI::Option *option = at->get_option_no_throw(word);
    if (option != nullptr) return option;
  }
  return nullptr;
}

bool takes_value(const CLI::Option *option) {
  return option != nullptr && option->get_items_expected_max() > 0;
}

const CLI::App *find_command(const CLI::App *parent, const std::string &word) {
  for (const CLI::App *child : parent->get_subcommands([](const CLI::App *) { return true; })) {
    if (child->get_name() == word) return child;
  }
  return nullptr;
}

std::vector<std::string> values_of(const std::string &type, const std::string &run_directory) {
  const bool interfaces = type == "<interface>";
  const bool contexts =
      type == "<context-id>" || type == "<context-name>" || type == "<context-record>" || type == "<table-id>";
  if (type == "<view>") return {"multicast", "unicast"};
  if (type == "<direction>") return {"in", "out"};
  if (type == "<when>") return {"always", "auto", "never"};
  std::vector<std::string> values;
  if (!interfaces && !contexts) return values;
  if (!run_directory.empty()) setenv("RSW_RUN_DIR", run_directory.c_str(), 1);
  Failure unused;
  const std::unique_ptr<Attachment> attachment = Attachment::open(&unused);
  if (!attachment) return values;
  if (interfaces) {
    for (const InterfaceRow &row : read_interfaces({})) values.push_back(row.name);
  } else {
    for (const ContextRow &row : read_contexts()) values.push_back(row.name);
  }
  return values;
}

// The command's own options, and those of the levels above that may stand anywhere: all but what asks a level about
// itself.
void add_options(const CLI::App *command, std::vector<std::string> *candidates) {
  for (const CLI::App *at = command; at != nullptr; at = at->get_parent()) {
    for (const CLI::Option *option : at->get_options()) {
      for (const std::string &name : option->get_lnames()) {
        if (at == command || name == "json" || name == "run-dir" || name == "color") candidates->push_back("--" + name);
      }
    }
  }
}

void add_commands(const CLI::App *command, std::vector<std::string> *candidates) {
  for (const CLI::App *child : command->get_subcommands([](const CLI::App *) { return true; })) {
    candidates->push_back(child->get_name());
  }
}

}  // namespace

std::vector<std::string> complete(const CommandTree &tree, std::span<const std::string> words) {
  const std::string current = words.empty() ? "" : words.back();
  const CLI::App *command = &tree.app;
  const CLI::Option *open_option = nullptr;  // waits for its value
  std::string run_directory;
  const std::span<const std::string> before = words.first(words.empty() ? 0 : words.size() - 1);
  for (const std::string &word : before) {
    if (word == "=") continue;  // the shell cuts --option=value in three
    if (open_option != nullptr) {
      if (open_option->get_name() == "--run-dir") run_directory = word;
      open_option = nullptr;
    } else if (const CLI::Option *option = word.starts_with('-') ? find_option(command, word) : nullptr) {
      if (takes_value(option)) open_option = option;
    } else if (const CLI::App *child = find_command(command, word)) {
      command = child;
    }
  }

  std::vector<std::string> candidates;
  const std::string prefix = current == "=" ? "" : current;
  if (open_option != nullptr) {
    candidates = values_of(open_option->get_type_name(), run_directory);
  } else {
    add_commands(command, &candidates);
    if (candidates.empty() || prefix.starts_with('-')) add_options(command, &candidates);
  }
  // An option stands on a line once.
  std::erase_if(candidates, [&](const std::string &candidate) {
    return !candidate.starts_with(prefix) ||
           (candidate.starts_with("--") && std::ranges::find(before, candidate) != before.end());
  });
  std::ranges::sort(candidates);
  candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
  return candidates;
}

}  // namespace ipsh
