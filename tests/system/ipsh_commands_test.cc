// SPDX-License-Identifier: Apache-2.0
// Every command that ipsh has is documented, completed, and has a schema: the list is the program's own, so a new
// command is missed here until it has them all.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "commands.h"
#include "complete.h"
#include "ipsh_fixture.h"
#include "nearest.h"

namespace ipsh_test {
namespace {

struct NamedCommand {
  std::vector<std::string> words;  // after "ipsh"
  const CLI::App *command;
};

std::vector<NamedCommand> commands_below(const CLI::App &app, const std::vector<std::string> &path = {}) {
  std::vector<NamedCommand> commands;
  for (const CLI::App *child : app.get_subcommands([](const CLI::App *) { return true; })) {
    std::vector<std::string> words = path;
    words.push_back(child->get_name());
    commands.push_back({words, child});
    std::ranges::move(commands_below(*child, words), std::back_inserter(commands));
  }
  return commands;
}

// Those that do something. The queries are one command to people: they are listed by `ipsh query --list`.
std::vector<NamedCommand> leaves_of(const ipsh::CommandTree &tree) {
  std::vector<NamedCommand> leaves;
  for (NamedCommand &each : commands_below(tree.app)) {
    const bool is_query = each.words.size() == 2 && each.words.front() == "query";
    if (tree.leaves.contains(each.command) && !is_query) leaves.push_back(std::move(each));
  }
  return leaves;
}

std::string joined(const std::vector<std::string> &words) {
  std::string text;
  for (const std::string &word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

std::vector<std::string> options_of(const CLI::App *command) {
  std::vector<std::string> names;
  for (const CLI::Option *option : command->get_options()) {
    for (const std::string &name : option->get_lnames()) {
      if (name != "help") names.push_back(name);
    }
  }
  return names;
}

std::string contents_of(const std::string &file) {
  std::stringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

std::string section_of(const std::string &page, const std::string &title) {
  const size_t begin = page.find(".Sh " + title + "\n");
  if (begin == std::string::npos) return "";
  return page.substr(begin, page.find("\n.Sh ", begin) - begin);
}

// Whether the first line of an entry of the synopsis, ".Cm show a | b | c", names the command.
bool names(const std::string &entry, const std::vector<std::string> &words) {
  std::istringstream line(entry.substr(0, entry.find('\n')));
  std::set<std::string> named;
  for (std::string word; line >> word;) named.insert(word);
  return named.contains(".Cm") &&
         std::ranges::all_of(words, [&](const std::string &word) { return named.contains(word); });
}

// The synopsis of a command and what is written about it.
std::string page_about(const std::string &page, const std::vector<std::string> &words) {
  std::string about;
  const std::string synopsis = section_of(page, "SYNOPSIS");
  for (size_t at = 0; (at = synopsis.find(".Nm\n", at)) != std::string::npos;) {
    at += 4;
    const std::string entry = synopsis.substr(at, synopsis.find(".Nm\n", at) - at);
    if (names(entry, words)) about += entry;
  }
  const std::string description = section_of(page, "DESCRIPTION");
  const std::string item = ".It Cm " + joined(words);
  for (size_t at = 0; (at = description.find(item, at)) != std::string::npos;) {
    at += item.size();
    if (description[at] == '\n' || description[at] == ' ') {
      about += ".It" + description.substr(at, description.find("\n.It Cm ", at) - at);
    }
  }
  return about;
}

TEST(IpshCommands, EachStandsInTheManPageWithItsOptions) {
  const std::string page = contents_of(IPSH_MAN);
  const ipsh::CommandTree tree;
  const std::vector<NamedCommand> leaves = leaves_of(tree);
  EXPECT_GT(leaves.size(), 29u);
  for (const NamedCommand &leaf : leaves) {
    const std::string about = page_about(page, leaf.words);
    EXPECT_NE(about.find(".Cm "), std::string::npos) << joined(leaf.words) << " is not in the synopsis";
    EXPECT_NE(about.find(".It"), std::string::npos) << joined(leaf.words) << " is not described";
    for (const std::string &option : options_of(leaf.command)) {
      EXPECT_NE(about.find("Fl -" + option), std::string::npos) << joined(leaf.words) << " --" << option;
    }
  }
}

TEST(IpshCommands, WhatMayStandAnywhereIsInTheManPage) {
  const ipsh::CommandTree tree;
  const std::string description = section_of(contents_of(IPSH_MAN), "DESCRIPTION");
  for (const std::string &option : options_of(&tree.app)) {
    EXPECT_NE(description.find(".It Fl -" + option), std::string::npos) << option;
  }
}

TEST(IpshCommands, AnUnknownCommandWouldBeMissedInTheManPage) {
  const std::string page = contents_of(IPSH_MAN);
  EXPECT_EQ(page_about(page, {"show", "nothing"}), "");
  EXPECT_EQ(page_about(page, {"show", "context"}), "");
}

TEST(IpshCommands, EachIsCompletedWithItsOptions) {
  const ipsh::CommandTree tree;
  for (const NamedCommand &each : commands_below(tree.app)) {
    std::vector<std::string> words = each.words;
    const std::vector<std::string> offered = ipsh::complete(tree, words);
    EXPECT_TRUE(std::ranges::find(offered, words.back()) != offered.end()) << joined(words);
    words.emplace_back("--");
    const std::vector<std::string> options = ipsh::complete(tree, words);
    for (const std::string &name : options_of(each.command)) {
      EXPECT_TRUE(std::ranges::find(options, "--" + name) != options.end()) << joined(words) << name;
    }
  }
}

TEST(IpshCommands, EachHelpGivesAnExampleOfThatCommand) {
  const ipsh::CommandTree tree;
  for (const NamedCommand &each : commands_below(tree.app)) {
    const std::string help = each.command->help("ipsh");
    EXPECT_NE(help.find("\n  ipsh " + joined(each.words)), std::string::npos) << help;
  }
}

TEST(IpshCommands, EachHasASchemaForEachKindThatItPrints) {
  const ipsh::CommandTree tree;
  const std::string page = contents_of(IPSH_MAN);
  EXPECT_GT(tree.leaves.size(), 60u);
  for (const auto &[command, leaf] : tree.leaves) {
    EXPECT_FALSE(leaf.kinds.empty()) << command->get_name();
    for (const std::string &kind : leaf.kinds) {
      EXPECT_TRUE(std::filesystem::exists(std::string(IPSH_SCHEMA_DIRECTORY) + "/" + kind + ".json")) << kind;
      EXPECT_NE(page.find(".Ql " + kind), std::string::npos) << kind;
    }
  }
}

TEST(IpshCommands, NoSchemaIsOfNoCommand) {
  const ipsh::CommandTree tree;
  std::set<std::string> kinds{"failure", "rows"};  // of every command; and what schemas share
  for (const auto &[command, leaf] : tree.leaves) kinds.insert(leaf.kinds.begin(), leaf.kinds.end());
  for (const auto &file : std::filesystem::directory_iterator(IPSH_SCHEMA_DIRECTORY)) {
    EXPECT_TRUE(kinds.contains(file.path().stem())) << file.path();
  }
}

TEST(Nearest, CountsEditsWithASwapAsOne) {
  EXPECT_EQ(ipsh::edits_between("", ""), 0u);
  EXPECT_EQ(ipsh::edits_between("show", "show"), 0u);
  EXPECT_EQ(ipsh::edits_between("shwo", "show"), 1u);
  EXPECT_EQ(ipsh::edits_between("", "abc"), 3u);
  EXPECT_EQ(ipsh::edits_between("kitten", "sitting"), 3u);
  EXPECT_EQ(ipsh::edits_between("adresses", "addresses"), 1u);
}

TEST(Nearest, IsNothingWhenNoNameIsNear) {
  const std::vector<std::string> names{"show", "query", "watch"};
  EXPECT_EQ(ipsh::nearest("qurey", names), "query");
  EXPECT_EQ(ipsh::nearest("xyz", names), "");
  EXPECT_EQ(ipsh::nearest("", names), "");
  EXPECT_EQ(ipsh::nearest("s", std::vector<std::string>{"a"}), "");
  EXPECT_EQ(ipsh::nearest(std::string(100000, 'a'), names), "");
}

}  // namespace
}  // namespace ipsh_test
