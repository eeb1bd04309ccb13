// SPDX-License-Identifier: Apache-2.0
// What ipsh makes of where its output goes: colours on a terminal, none elsewhere, and an end that nobody is told of
// when the reader goes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>

#include "ipsh_fixture.h"
#include "progress.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace ipsh_test {
namespace {

using Settings = std::vector<std::string>;  // as env(1) takes them

constexpr const char *heading = "\x1b[1mIOD  NAME";
constexpr const char *green_up = "\x1b[32mup\x1b[0m";
constexpr const char *red_down = "\x1b[31mdown\x1b[0m";

// What is written to a terminal until its program has ended. The program is told to end as soon as this was written.
std::string all_of(int terminal, const std::string &enough = "", pid_t program = 0) {
  std::string output;
  char part[4096];
  for (;;) {
    const ssize_t got = read(terminal, part, sizeof part);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;  // EIO: the program has ended
    output.append(part, static_cast<size_t>(got));
    if (program != 0 && output.find(enough) != std::string::npos) kill(program, SIGTERM);
  }
  close(terminal);
  return output;
}

// What the command writes to a terminal of its own.
std::string on_terminal(const Settings &settings, const std::vector<std::string> &words) {
  std::vector<std::string> argv{"/usr/bin/env"};
  argv.insert(argv.end(), settings.begin(), settings.end());
  argv.emplace_back(IPSH);
  argv.insert(argv.end(), words.begin(), words.end());
  std::vector<char *> pointers;
  for (std::string &word : argv) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    execv(pointers[0], pointers.data());
    _exit(127);
  }
  EXPECT_GT(child, 0);
  std::string output = all_of(terminal);
  int status = 0;
  waitpid(child, &status, 0);
  return output;
}

std::string through_pipe(const Settings &settings, const std::vector<std::string> &words) {
  std::vector<std::string> argv{"/usr/bin/env"};
  argv.insert(argv.end(), settings.begin(), settings.end());
  argv.emplace_back(IPSH);
  argv.insert(argv.end(), words.begin(), words.end());
  return run_command(argv).out;
}

bool has_color(const std::string &text) {
  return text.find('\x1b') != std::string::npos;
}

const Settings color_terminal{"-u", "NO_COLOR", "TERM=xterm"};

TEST_F(IpshWithSystem, OnATerminalHeadingsAndStatesHaveColours) {
  const std::string text = on_terminal(color_terminal, {"show", "interfaces"});
  EXPECT_NE(text.find(heading), std::string::npos) << text;
  EXPECT_NE(text.find(green_up), std::string::npos) << text;
  const std::string system = on_terminal(color_terminal, {"show", "system"});
  EXPECT_NE(system.find("\x1b[32mrunning\x1b[0m, process "), std::string::npos) << system;
}

TEST_F(IpshWithSystem, ColumnsStandAsTheyDoWithoutColours) {
  std::string colored = through_pipe(color_terminal, {"--color=always", "show", "interfaces"});
  EXPECT_TRUE(has_color(colored));
  for (const char *sequence : {"\x1b[0m", "\x1b[1m", "\x1b[31m", "\x1b[32m", "\x1b[33m"}) {
    for (size_t at = 0; (at = colored.find(sequence)) != std::string::npos;) {
      colored.erase(at, std::string(sequence).size());
    }
  }
  EXPECT_EQ(colored, through_pipe(color_terminal, {"show", "interfaces"}));
}

TEST_F(IpshWithSystem, NoColorADumbTerminalOrNeverLeaveThemAway) {
  EXPECT_FALSE(has_color(on_terminal({"NO_COLOR=1", "TERM=xterm"}, {"show", "interfaces"})));
  EXPECT_FALSE(has_color(on_terminal({"-u", "NO_COLOR", "TERM=dumb"}, {"show", "interfaces"})));
  EXPECT_FALSE(has_color(on_terminal({"-u", "NO_COLOR", "-u", "TERM"}, {"show", "interfaces"})));
  EXPECT_FALSE(has_color(on_terminal(color_terminal, {"show", "interfaces", "--color", "never"})));
  EXPECT_TRUE(has_color(on_terminal({"NO_COLOR=", "TERM=xterm"}, {"show", "interfaces", "--color=auto"})));
}

TEST_F(IpshWithSystem, APipeHasColoursOnlyWhenAlwaysIsSaid) {
  EXPECT_FALSE(has_color(through_pipe(color_terminal, {"show", "interfaces"})));
  EXPECT_FALSE(has_color(through_pipe(color_terminal, {"show", "interfaces", "--color=auto"})));
  EXPECT_TRUE(has_color(through_pipe({"NO_COLOR=1"}, {"show", "interfaces", "--color=always"})));
}

TEST_F(IpshWithSystem, JsonNeverHasColours) {
  EXPECT_FALSE(has_color(on_terminal(color_terminal, {"show", "interfaces", "--json", "--color=always"})));
}

TEST_F(IpshWithSystem, AnInterfaceThatIsDownIsRed) {
  ASSERT_TRUE(publisher_->set_interface({.ifindex = 9,
                                         .name = "eth9",
                                         .up = false,
                                         .admin_up = true,
                                         .loopback = false,
                                         .multicast = true,
                                         .forwarding = false,
                                         .directed_broadcast = false,
                                         .mtu = 1500,
                                         .context_id = 1}));
  ASSERT_TRUE(publisher_->commit());
  const std::string text = on_terminal(color_terminal, {"show", "interfaces", "--interface", "eth9"});
  EXPECT_NE(text.find(red_down), std::string::npos) << text;
}

TEST_F(IpshWithoutIpd, AWrongColourChoiceIsRefused) {
  const Outcome outcome = ipsh({"query", "--list", "--color=sometimes"});
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_EQ(outcome.err, "ipsh: --color: 'sometimes' is not accepted here; give auto, always or never\n");
}

volatile sig_atomic_t is_to_end = 0;

// Rows that go elsewhere: who waits in front of the terminal is told how far they are, and the line is taken away.
TEST(IpshProgress, ShowsOnATerminalHowFarLongWorkIs) {
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (dup2(nowhere, STDOUT_FILENO) < 0) _exit(1);
    signal(SIGTERM, [](int) { is_to_end = 1; });
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    {
      ipsh::Progress progress(4711);
      while (is_to_end == 0 && std::chrono::steady_clock::now() < end) progress.step();
    }
    std::fflush(stderr);
    _exit(0);
  }
  const std::string said = all_of(terminal, " of 4711 rows", child);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(said.starts_with("\ripsh: ")) << said;
  EXPECT_NE(said.find(" of 4711 rows"), std::string::npos) << said;
  EXPECT_TRUE(said.ends_with("\r\x1b[K")) << said;
}

// The reader takes one line. Whoever starts ipsh may have the signal ignored or not.
TEST_F(IpshWithSystem, AReaderThatGoesEndsAWatchQuietly) {
  for (const char *trap : {"true", "trap '' PIPE"}) {
    test_support::Process watch(
        {"/bin/bash", "-c", std::string(trap) + "; " IPSH " watch | head -1; exit ${PIPESTATUS[0]}"});
    ASSERT_TRUE(test_support::wait_until([&] { return watch.output().find("watching") != std::string::npos; }));
    uint32_t address = 0x0a070000;
    ASSERT_TRUE(test_support::wait_until(
        [&] {
          // Something to print, until it notices.
          EXPECT_TRUE(publisher_->set_address(2, {.addr = ++address, .mask_len = 32, .secondary = true, .scope = 0}));
          EXPECT_TRUE(publisher_->commit());
          return !watch.running();
        },
        std::chrono::seconds(60)));
    EXPECT_EQ(watch.wait(), 128 + SIGPIPE);
    EXPECT_EQ(watch.output().find("ipsh:"), std::string::npos) << watch.output();
  }
}

TEST_F(IpshWithoutIpd, OutputThatIsLostIsAFailure) {
  const Outcome outcome = run_command({"/bin/sh", "-c", IPSH " query --list >/dev/full"});
  EXPECT_EQ(outcome.exit_code, 3);
  EXPECT_EQ(outcome.err, "ipsh: not all of the output could be written\n");
}

}  // namespace
}  // namespace ipsh_test
