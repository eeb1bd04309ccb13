// SPDX-License-Identifier: Apache-2.0
// Bash completion as bash runs it: the script is sourced, the line is put where bash puts it, and the function is
// called.
#include <gtest/gtest.h>

#include "ipsh_fixture.h"
#include "support/process.h"

namespace ipsh_test {
namespace {

// Words of the line after "ipsh", the last one under the cursor. The candidates, sorted, each followed by a blank. What
// bash is to complete by itself stands among them in brackets.
std::string completions(const std::vector<std::string> &words) {
  std::vector<std::string> argv{
      "bash",
      "--norc",
      "-c",
      "source " IPSH_COMPLETION
      "; complete -p ipsh >/dev/null || exit 9; compopt() { COMPREPLY+=(\"[$*]\"); }; COMP_WORDS=(\"$@\"); "
      "COMP_CWORD=$(($# - 1)); _ipsh; printf '%s ' \"${COMPREPLY[@]}\"",
      "bash",
      IPSH};
  argv.insert(argv.end(), words.begin(), words.end());
  // Standard output alone: bash complains on the other one when the environment names a locale that is not there.
  const Outcome outcome = run_command(argv);
  EXPECT_EQ(outcome.exit_code, 0) << outcome.out << outcome.err;
  return outcome.out;
}

TEST_F(IpshWithoutIpd, CompletionOffersTheCommandsOfALevel) {
  EXPECT_EQ(completions({""}),
            "capture configure doctor explain join leave multicast ping query show system unnumbered watch ");
  EXPECT_EQ(completions({"s"}), "show system ");
  EXPECT_EQ(completions({"show", ""}),
            "addresses clients contexts counters groups interfaces mbufs memory messages packets queues router-id "
            "routes system vips ");
  EXPECT_EQ(completions({"system", ""}), "active standby ");
  EXPECT_EQ(completions({"unnumbered", ""}), "set unset ");
  EXPECT_EQ(completions({"multicast", ""}), "off on ");
}

TEST_F(IpshWithoutIpd, CompletionOffersQueriesByName) {
  EXPECT_EQ(completions({"query", "ip_print_"}), "ip_print_addr ip_print_prefix ");
  EXPECT_EQ(completions({"query", "nothing"}), " ");
}

TEST_F(IpshWithoutIpd, CompletionOffersEachOptionOnce) {
  EXPECT_EQ(completions({"query", "ip_get_local_mask_len", "--"}), "--addr --color --help --iod --json --run-dir ");
  EXPECT_EQ(completions({"query", "ip_get_local_mask_len", "--addr", "10.0.0.1", "--json", "--"}),
            "--color --help --iod --run-dir ");
  EXPECT_EQ(completions({"watch", "--c"}), "--color --count ");
  EXPECT_EQ(completions({"watch", "--color", ""}), "always auto never ");
  EXPECT_EQ(completions({"join", "239.1.1.1", "--"}),
            "--color --for --help --interface --json --run-dir --source --timeout ");
  EXPECT_EQ(completions({"show", "routes", "--view", ""}), "multicast unicast ");
  EXPECT_EQ(completions({"show", "routes", "--"}),
            "--color --context --help --interface --json --limit --run-dir --table --view ");
}

TEST_F(IpshWithoutIpd, FilesAndDirectoriesAreCompletedByBash) {
  EXPECT_EQ(completions({"capture", "-w", "pack"}), "[-o default] ");
  EXPECT_EQ(completions({"capture", "--write", "=", "pack"}), "[-o default] ");
  EXPECT_EQ(completions({"--run-dir", "/ru"}), "[-o dirnames] ");
}

TEST_F(IpshWithSystem, CompletionOffersTheNamesOfTheRunningSystem) {
  EXPECT_EQ(completions({"query", "ip_get_mtu", "--iod", ""}), "eth0 eth1 lo tun0 ");
  EXPECT_EQ(completions({"query", "ip_get_mtu", "--iod", "e"}), "eth0 eth1 ");
  EXPECT_EQ(completions({"unnumbered", "set", "--from", "l"}), "lo ");
  EXPECT_EQ(completions({"show", "addresses", "--context", ""}), "default red ");
  EXPECT_EQ(completions({"show", "addresses", "--context", "=", "r"}), "red ");
  EXPECT_EQ(completions({"show", "routes", "--table", "r"}), "red ");
  EXPECT_EQ(completions({"query", "ip_get_iod_for_local", "--context", ""}), "default red ");
  const std::string path = run_directory_.path();
  unsetenv("RSW_RUN_DIR");
  EXPECT_EQ(completions({"--run-dir", path, "show", "interfaces", "--interface", "l"}), "lo ");
}

TEST_F(IpshWithoutIpd, CompletionOfNamesWithoutASystemOffersNothing) {
  EXPECT_EQ(completions({"query", "ip_get_mtu", "--iod", ""}), " ");
}

}  // namespace
}  // namespace ipsh_test
