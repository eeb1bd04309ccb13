// SPDX-License-Identifier: Apache-2.0
// What ipsh says to a command line: help on every level, clear refusals, exit codes, the man page.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "commands.h"
#include "ipsh_fixture.h"
#include "support/process.h"

namespace ipsh_test {
namespace {

// Each command's words after "ipsh", the root's being none.
std::vector<std::vector<std::string>> all_commands(const CLI::App &app, const std::vector<std::string> &path = {}) {
  std::vector<std::vector<std::string>> paths{path};
  for (const CLI::App *child : app.get_subcommands([](const CLI::App *) { return true; })) {
    std::vector<std::string> longer = path;
    longer.push_back(child->get_name());
    std::ranges::move(all_commands(*child, longer), std::back_inserter(paths));
  }
  return paths;
}

std::string joined(const std::vector<std::string> &words) {
  std::string text;
  for (const std::string &word : words) text += " " + word;
  return text;
}

TEST_F(IpshWithoutIpd, HelpOnEveryLevelExplainsAndGivesExamples) {
  const ipsh::CommandTree tree;
  const std::vector<std::vector<std::string>> commands = all_commands(tree.app);
  EXPECT_GT(commands.size(), 45u);
  for (std::vector<std::string> command : commands) {
    const std::string name = "ipsh" + joined(command);
    command.push_back("--help");
    const Outcome help = ipsh(command);
    EXPECT_EQ(help.exit_code, 0) << name;
    EXPECT_EQ(help.err, "") << name;
    EXPECT_NE(help.out.find("Usage: " + name), std::string::npos) << help.out;
    EXPECT_NE(help.out.find("Examples:\n  ipsh "), std::string::npos) << help.out;
    EXPECT_GT(help.out.find('\n'), 10u) << name << " has no one-line description";
  }
}

TEST_F(IpshWithoutIpd, VersionIsPrinted) {
  const Outcome outcome = ipsh({"--version"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_TRUE(outcome.out.starts_with("ipsh 0.")) << outcome.out;
}

struct Refusal {
  const char *line;
  const char *err;
};

void PrintTo(const Refusal &refusal, std::ostream *stream) {
  *stream << "ipsh " << refusal.line;
}

class IpshRefusal : public IpshWithoutIpd, public ::testing::WithParamInterface<Refusal> {};

TEST_P(IpshRefusal, IsOneLineThatNamesTheArgumentAndWhatIsAccepted) {
  const Outcome outcome = ipsh(words_of(GetParam().line));
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_EQ(outcome.err, std::string(GetParam().err) + "\n");
  EXPECT_EQ(outcome.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    OfBadInput, IpshRefusal,
    ::testing::Values(
        Refusal{"",
                "ipsh: a command is missing; give one of show, query, explain, watch, join, leave, configure, "
                "unnumbered, multicast, capture, ping, system, doctor"},
        Refusal{"shwo",
                "ipsh: there is no 'shwo'; did you mean 'show'? give one of show, query, explain, watch, join, "
                "leave, configure, "
                "unnumbered, multicast, capture, ping, system, doctor"},
        Refusal{"show",
                "ipsh show: a command is missing; give one of contexts, interfaces, addresses, routes, vips, "
                "groups, router-id, counters, memory, clients, messages, packets, queues, mbufs, system"},
        Refusal{"show adresses",
                "ipsh show: there is no 'adresses'; did you mean 'addresses'? give one of contexts, interfaces, "
                "addresses, routes, "
                "vips, groups, router-id, counters, memory, clients, messages, packets, queues, mbufs, system"},
        Refusal{"show contexts memory",
                "ipsh show contexts: 'memory' is not accepted here; see ipsh show contexts --help"},
        Refusal{"show contexts --jsn",
                "ipsh show contexts: '--jsn' is not accepted here; did you mean '--json'? see ipsh show contexts "
                "--help"},
        Refusal{"query", "ipsh: query: the name of a query is missing; ipsh query --list shows them"},
        Refusal{"query ip_nothing", "ipsh query: there is no 'ip_nothing'; see ipsh query --list"},
        Refusal{"query ip_get_mt",
                "ipsh query: there is no 'ip_get_mt'; did you mean 'ip_get_mtu'? see ipsh query --list"},
        Refusal{"show routes --veiw=unicast",
                "ipsh show routes: '--veiw=unicast' is not accepted here; did you mean '--view'? see ipsh show "
                "routes --help"},
        Refusal{"query ip_bits2mask", "ipsh: ip_bits2mask needs --len; give a mask length: 0 to 32"},
        Refusal{"query ip_get_mtu",
                "ipsh: ip_get_mtu needs --iod; give an interface: its iod number or its name (ipsh show interfaces "
                "lists them)"},
        Refusal{"join 239.1.1.1", "ipsh: join: --interface is missing; ipsh show interfaces lists them"},
        Refusal{"unnumbered set --interface tun0",
                "ipsh: unnumbered set: --from is missing; name the interface whose address is borrowed"},
        Refusal{"query ip_bits2mask --len 33", "ipsh: --len: '33' is not accepted here; give a mask length: 0 to 32"},
        Refusal{"query ip_bits2mask --len -1", "ipsh: --len: '-1' is not accepted here; give a mask length: 0 to 32"},
        Refusal{"query ip_bits2mask --length 3",
                "ipsh query ip_bits2mask: '--length' is not accepted here; see ipsh query ip_bits2mask --help"},
        Refusal{"query ip_is_addr_multicast --addr 10.0.0.256",
                "ipsh: --addr: '10.0.0.256' is not accepted here; give an IPv4 address: 10.1.2.3 or 0x0a010203"},
        Refusal{"query ip_is_addr_multicast --addr 10.0.0.01",
                "ipsh: --addr: '10.0.0.01' is not accepted here; give an IPv4 address: 10.1.2.3 or 0x0a010203"},
        Refusal{"query ip_is_addr_multicast --addr 10.0.0.1.2",
                "ipsh: --addr: '10.0.0.1.2' is not accepted here; give an IPv4 address: 10.1.2.3 or 0x0a010203"},
        Refusal{"query ip_is_addr_multicast --addr 0x1ffffffff",
                "ipsh: --addr: '0x1ffffffff' is not accepted here; give an IPv4 address: 10.1.2.3 or 0x0a010203"},
        Refusal{"query ip_mask2bits --mask /33",
                "ipsh: --mask: '/33' is not accepted here; give a mask: 255.255.255.0, 0xffffff00 or /24"},
        Refusal{"query ip_print_prefix --prefix 10.0.0.0",
                "ipsh: --prefix: '10.0.0.0' is not accepted here; give a prefix: 10.0.0.0/8"},
        Refusal{"query ip_print_prefix --prefix 10.0.0.0/8/8",
                "ipsh: --prefix: '10.0.0.0/8/8' is not accepted here; give a prefix: 10.0.0.0/8"},
        Refusal{"explain", "ipsh: explain: the address is missing; give an IPv4 address: 10.1.2.3 or 0x0a010203"},
        Refusal{"explain 10.0.0",
                "ipsh: address: '10.0.0' is not accepted here; give an IPv4 address: 10.1.2.3 or "
                "0x0a010203"},
        Refusal{"explain 10.0.0.1 10.0.0.2", "ipsh explain: '10.0.0.2' is not accepted here; see ipsh explain --help"},
        Refusal{"watch --count 0", "ipsh: --count: '0' is not accepted here; give a number of changes, 1 or more"},
        Refusal{"watch --timeout soon",
                "ipsh: --timeout: 'soon' is not accepted here; give seconds, above 0, such as 5 or 0.5"}),
    [](const auto &test) { return test_name_of(test.param.line, test.index); });

TEST_F(IpshWithoutIpd, AWordThatIsNeededStandsInTheUsageWithoutBrackets) {
  for (const auto &[command, word] : {std::pair("ping", "address"), {"explain", "address"}, {"join", "group"}}) {
    const Outcome help = ipsh({command, "--help"});
    EXPECT_NE(help.out.find(std::string("Usage: ipsh ") + command + " [OPTIONS] " + word + "\n"), std::string::npos)
        << help.out;
  }
}

TEST_F(IpshWithoutIpd, AMissingIpdIsExitCode3WithTheReasonAndWhatToDo) {
  for (const char *line : {"show contexts", "show system", "query ip_get_mtu --iod 1", "watch", "system standby"}) {
    const Outcome outcome = ipsh(words_of(line));
    EXPECT_EQ(outcome.exit_code, 3) << line;
    EXPECT_NE(outcome.err.find("in " + run_directory_.path()), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("start ipd, or name its run directory with --run-dir"), std::string::npos);
    EXPECT_EQ(std::ranges::count(outcome.err, '\n'), 1) << outcome.err;
  }
}

TEST_F(IpshWithoutIpd, AFailureIsAnObjectToo) {
  const Outcome outcome = ipsh({"show", "contexts", "--json"});
  const nlohmann::json json = nlohmann::json::parse(outcome.out);
  EXPECT_EQ(json["kind"], "failure");
  EXPECT_EQ(json["exit_code"], 3);
}

TEST_F(IpshWithoutIpd, AnEmptyDatabaseFileIsExitCode3WithTheReason) {
  std::ofstream(run_directory_.path() + "/ip").close();
  const Outcome outcome = ipsh({"show", "contexts"});
  EXPECT_EQ(outcome.exit_code, 3);
  EXPECT_NE(outcome.err.find("ipsh: cannot attach " + run_directory_.path() + "/ip: "), std::string::npos)
      << outcome.err;
}

TEST_F(IpshWithSystem, RunDirIsTakenFromTheOptionAnywhereOnTheLine) {
  const std::string path = run_directory_.path();
  unsetenv("RSW_RUN_DIR");
  EXPECT_EQ(ipsh({"--run-dir", path, "show", "contexts"}).exit_code, 0);
  EXPECT_EQ(ipsh({"show", "contexts", "--run-dir", path}).exit_code, 0);
  EXPECT_EQ(ipsh({"show", "--run-dir=" + path, "contexts"}).exit_code, 0);
  EXPECT_EQ(ipsh({"show", "contexts", "--run-dir", path + "/nowhere"}).exit_code, 3);
}

TEST_F(IpshWithSystem, UnreadableStateIsExitCode4) {
  ASSERT_EQ(chmod((run_directory_.path() + "/ip").c_str(), 0), 0);
  ASSERT_EQ(chmod((run_directory_.path() + "/sysmgr").c_str(), 0444), 0);
  // The superuser reads everything, unless the capability to do so is taken away first.
  const std::vector<std::string> weaken =
      geteuid() == 0 ? words_of("setpriv --bounding-set=-dac_override,-dac_read_search") : words_of("env");
  for (const char *line : {"show contexts", "system standby"}) {
    std::vector<std::string> command = weaken;
    command.emplace_back(IPSH);
    std::ranges::move(words_of(line), std::back_inserter(command));
    const Outcome outcome = run_command(command);
    EXPECT_EQ(outcome.exit_code, 4) << line;
    EXPECT_NE(outcome.err.find("Permission denied; run ipsh as the user"), std::string::npos) << outcome.err;
  }
}

TEST_F(IpshWithSystem, AnUnknownInterfaceOrContextIsNamed) {
  EXPECT_EQ(ipsh({"query", "ip_get_mtu", "--iod", "eth9"}).err,
            "ipsh: --iod: 'eth9' is not accepted here; give an interface: its iod number or its name (ipsh show "
            "interfaces lists them)\n");
  EXPECT_EQ(ipsh({"show", "addresses", "--context", "blue"}).err,
            "ipsh: --context: 'blue' is not accepted here; give a context: its id or its name (ipsh show contexts "
            "lists them)\n");
  EXPECT_EQ(ipsh({"show", "addresses", "--context", "blue"}).exit_code, 2);
}

// What mandoc finds wrong with a page. That ipd(8) is not installed on the machine that builds is no fault of the page.
std::string lint(const std::string &page) {
  std::string problems;
  test_support::run({"/bin/sh", "-c",
                     "mandoc -Tlint \"$1\" 2>/dev/null | grep -v 'referenced manual not found: Xr ipd 8'", "sh", page},
                    &problems);
  return problems;
}

TEST_F(IpshWithoutIpd, TheManPageIsCleanAndNamesEveryExitCodeAndKind) {
  EXPECT_EQ(lint(IPSH_MAN), "");
  const std::string broken = run_directory_.path() + "/broken.1";
  std::ofstream(broken) << ".Dd November 20, 2026\n.Dt BROKEN 1\n.Os\n.Sh NAME\n.Zz\n";
  EXPECT_NE(lint(broken), "");
  std::stringstream page;
  page << std::ifstream(IPSH_MAN).rdbuf();
  for (const char *text :
       {".It 0",          ".It 1",          ".It 2",       ".It 3",     ".It 4",         "Ql contexts", "Ql interfaces",
        "Ql addresses",   "Ql memory",      "Ql clients",  "Ql system", "Ql supervisor", "Ql query",    "Ql query-list",
        "Ql watch-start", "Ql event",       "Ql failure",  "Ql routes", "Ql vips",       "Ql groups",   "Ql router-ids",
        "Ql counters",    "Ql explanation", "Ql messages", "Ql queues", "Ql mbufs",      "Ql request"}) {
    EXPECT_NE(page.str().find(text), std::string::npos) << text;
  }
}

}  // namespace
}  // namespace ipsh_test
