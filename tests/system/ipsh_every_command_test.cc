// SPDX-License-Identifier: Apache-2.0
// Every command that ipsh has runs against a real ipd, and what it prints with --json is of the kinds that it says,
// each of them valid. A command that needs words has them in the table below; a new one that has none there fails.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "commands.h"
#include "ipd_fixture.h"
#include "ipsh_fixture.h"
#include "ipsh_schema_problems.h"
#include "query_table.h"
#include "support/peer_namespace.h"

namespace {

using ipsh_test::ipsh;
using ipsh_test::Outcome;
using ipsh_test::words_of;
using test_support::Process;
using test_support::wait_until;

constexpr std::chrono::seconds long_wait(60);

const std::map<std::string, std::string> words_for{
    {"query", "--list"},
    {"explain", "198.51.100.7"},
    {"join", "239.1.1.1 --interface eth0 --for 0.1 --timeout 60"},
    {"leave", "239.1.1.1 --interface eth0"},
    {"configure", "10.0.0.9/24 --interface eth0 --timeout 60"},
    {"unnumbered set", "--interface lo --from eth0 --for 0.1 --timeout 60"},
    {"unnumbered unset", "--interface lo --timeout 60"},
    {"multicast on", "--interface eth0 --for 0.1 --timeout 60"},
    {"multicast off", "--interface eth0"},
    {"ping", "10.0.0.2 -c 1 -W 60"},
};
// These wait for something to happen, which other commands here do.
const std::map<std::string, std::string> words_of_followers{
    {"capture", "-c 1"},
    {"watch", "--count 1 --timeout 120"},
};

struct NamedLeaf {
  std::string name;  // "show contexts"
  const ipsh::Leaf *leaf;
};

void add_leaves(const ipsh::CommandTree &tree, const CLI::App &app, const std::string &path,
                std::vector<NamedLeaf> *leaves) {
  for (const CLI::App *child : app.get_subcommands([](const CLI::App *) { return true; })) {
    const std::string name = path.empty() ? child->get_name() : path + " " + child->get_name();
    const auto leaf = tree.leaves.find(child);
    if (leaf != tree.leaves.end()) leaves->push_back({name, &leaf->second});
    add_leaves(tree, *child, name, leaves);
  }
}

std::set<std::string> kinds_in(const std::string &lines) {
  std::set<std::string> kinds;
  std::istringstream stream(lines);
  for (std::string line; std::getline(stream, line);) {
    const auto json = nlohmann::json::parse(line, nullptr, false);
    kinds.insert(json.is_object() ? json.value("kind", "without a kind") : "no JSON");
  }
  return kinds;
}

std::string words_of_query(const std::string &name) {
  const ipsh::Query *query = ipsh::find_query(name);
  return query == nullptr ? "" : std::string(query->example);
}

class IpshEveryCommand : public ipd_test::IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    peer_ = std::make_unique<test_support::PeerNamespace>();
    ASSERT_EQ(test_support::connect("eth0", "10.0.0.1/24", *peer_, "peer0", "10.0.0.2/24"), "");
    ip("route add 198.51.100.0/24 via 10.0.0.2");
    ip("link add tun0 type veth peer name tun1");  // the examples of queries ask about it
    start_ipd();
  }
  static std::vector<std::string> command_line(const std::string &name, const std::string &more) {
    std::vector<std::string> words = words_of(name + " " + more);
    words.emplace_back("--json");
    return words;
  }
  void expect_good(const NamedLeaf &command, const std::string &printed) {
    const std::set<std::string> said(command.leaf->kinds.begin(), command.leaf->kinds.end());
    EXPECT_EQ(kinds_in(printed), said) << command.name << ": " << printed;
    EXPECT_EQ(ipsh_test::schema_problems(run_directory_.path(), printed), "") << command.name << ": " << printed;
  }
  std::unique_ptr<test_support::PeerNamespace> peer_;
};

TEST_F(IpshEveryCommand, PrintsValidJsonOfTheKindsThatItSays) {
  const ipsh::CommandTree tree;
  std::vector<NamedLeaf> leaves;
  add_leaves(tree, tree.app, "", &leaves);
  EXPECT_GT(leaves.size(), 60u);
  std::map<std::string, Process> followers;
  for (const auto &[name, words] : words_of_followers) {
    std::vector<std::string> argv = command_line(name, words);
    argv.insert(argv.begin(), {"/bin/sh", "-c", "exec \"$@\" 2>/dev/null", "sh", IPSH});
    followers[name] = Process(argv);
  }
  ASSERT_TRUE(
      wait_until([&] { return followers["watch"].output().find("watch-start") != std::string::npos; }, long_wait));
  std::string of_queries;  // of one kind, so one look at all of them does
  for (const NamedLeaf &command : leaves) {
    if (words_of_followers.contains(command.name)) continue;
    const auto words = words_for.find(command.name);
    const bool is_query = command.name.starts_with("query ");
    const Outcome outcome = ipsh(command_line(command.name, is_query ? words_of_query(command.name.substr(6))
                                                            : words != words_for.end() ? words->second
                                                                                       : ""));
    if (is_query) {
      EXPECT_EQ(kinds_in(outcome.out), std::set<std::string>{"query"}) << command.name << outcome.out << outcome.err;
      of_queries += outcome.out;
    } else {
      expect_good(command, outcome.out);
    }
  }
  EXPECT_EQ(ipsh_test::schema_problems(run_directory_.path(), of_queries), "");
  // The capture may have begun after the ping: more of them, until it has seen one.
  EXPECT_TRUE(wait_until(
      [&] {
        if (followers["capture"].running()) ipsh(words_of("ping 10.0.0.2 -c 1 -W 1"));
        return !followers["capture"].running();
      },
      long_wait));
  for (const NamedLeaf &command : leaves) {
    if (!words_of_followers.contains(command.name)) continue;
    Process &follower = followers[command.name];
    EXPECT_EQ(follower.wait(), 0) << command.name << ": " << follower.output();
    expect_good(command, follower.output());
  }
}

}  // namespace
