// SPDX-License-Identifier: Apache-2.0
// Starting, stopping, killing and configuring a real ipd.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "im.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "support/public_program.h"
#include "system_pictures.h"

namespace {

using ipd_test::ipd_command;
using ipd_test::IpdTest;
using test_support::wait_until;

class IpdLifeTest : public IpdTest {};

int finished(const std::vector<std::string> &arguments, std::string *output) {
  return test_support::run(ipd_command(arguments), output);
}

TEST_F(IpdLifeTest, AnAttachedClientGoesOnWhenIpdIsKilledAndStartedAgain) {
  add_interface("ib", "10.0.0.1/24");
  start_ipd();
  attach();
  expect_same_as_kernel();
  const auto *context = ip_get_api_context_by_name("default");
  ASSERT_NE(context, nullptr);
  const uint32_t there = iod("ib");
  for (uint32_t round = 1; round <= 3; ++round) {
    ipd_.kill_now();
    EXPECT_NE(ip_is_address_on_interface(0x0a000001, there), 0u) << "the last state stays";
    ip("addr add 10.0.1." + std::to_string(round) + "/24 dev ib");
    start_ipd();
    expect_same_as_kernel();
    EXPECT_EQ(ip_get_api_context_by_name("default"), context) << "the context record keeps its address";
    EXPECT_EQ(iod("ib"), there);
    EXPECT_NE(ip_is_address_on_interface(0x0a000100 + round, there), 0u);
    ip("addr add 10.0.2." + std::to_string(round) + "/24 dev ib");
    EXPECT_TRUE(wait_until([&] { return ip_is_address_on_interface(0x0a000200 + round, there) != 0; })) << "live again";
  }
}

TEST_F(IpdLifeTest, WhatStaysIsTrueForEveryReaderWhileIpdIsKilledAndStarted) {
  add_interface("ib", "10.0.0.1/24");
  start_ipd();
  attach();
  const uint32_t there = iod("ib");
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> asked{0};
  std::atomic<uint64_t> wrong{0};
  std::thread reader([&] {
    // Relaxed: counters and a flag, nothing else is handed over through them.
    while (!stop.load(std::memory_order_relaxed)) {
      const bool right = ip_is_address_on_interface(0x0a000001, there) != 0 &&
                         ip_get_iod_for_local_address("default", 0x0a000001) == there &&
                         ip_get_iod_for_local_address("default", 0x0a0000fe) == 0;
      if (!right) wrong.fetch_add(1, std::memory_order_relaxed);
      asked.fetch_add(1, std::memory_order_relaxed);
    }
  });
  test_support::AddressChanger changer;
  const int index = ifindex("ib");
  for (uint32_t round = 0; round < 5; ++round) {
    for (uint32_t i = 0; i < 200; ++i) {
      changer.add(index, 0x0a000002 + i, 24);
      if (i % 2 == 1) changer.remove(index, 0x0a000002 + i, 24);
    }
    ipd_.kill_now();
    start_ipd();
    for (uint32_t i = 0; i < 200; ++i) changer.remove(index, 0x0a000002 + i, 24);
  }
  stop.store(true, std::memory_order_relaxed);
  reader.join();
  EXPECT_GT(asked.load(), 1000u);
  EXPECT_EQ(wrong.load(), 0u);
  expect_same_as_kernel();
}

TEST_F(IpdLifeTest, StopsCleanlyAndLeavesItsStateToItsClients) {
  for (const int number : {SIGTERM, SIGINT}) {
    start_ipd();
    if (!attached_) attach();
    ipd_.signal(number);
    EXPECT_EQ(ipd_.wait(), 0);
    EXPECT_TRUE(ipd_said("stopping"));
    EXPECT_EQ(ip_get_iod_for_local_address("default", 0x7f000001), iod("lo"));
  }
}

TEST_F(IpdLifeTest, ASecondOneOnTheSameRunDirectoryIsRefusedByName) {
  start_ipd();
  std::string output;
  for (const char *way : {"--foreground", "--once"}) {
    EXPECT_EQ(finished({way}, &output), 3);
    EXPECT_EQ(output, "ipd: another ipd (process " + std::to_string(ipd_.pid()) + ") runs on " + run_directory_.path() +
                          "; stop that one, or give this one a run directory of its own (--run-dir)\n");
  }
  EXPECT_EQ(finished({}, &output), 3) << "as a daemon too";
  EXPECT_EQ(finished({"--remove"}, &output), 3);
  test_support::RunDirectory another;
  EXPECT_EQ(finished({"--once"}, &output), 0) << output;
}

TEST_F(IpdLifeTest, RunDirCanBeGivenOnTheCommandLine) {
  const std::string directory = run_directory_.path() + "/deeper";
  std::string output;
  EXPECT_EQ(finished({"--once", "--run-dir", directory}, &output), 0) << output;
  EXPECT_EQ(access((directory + "/ipd.lock").c_str(), F_OK), 0);
  EXPECT_NE(access((run_directory_.path() + "/ipd.lock").c_str(), F_OK), 0);
}

TEST_F(IpdLifeTest, ADaemonsParentEndsWhenTheStateIsLive) {
  std::string output;
  ASSERT_EQ(finished({}, &output), 0) << output;
  attach();
  EXPECT_NE(iod("lo"), 0u) << "live when the command has ended";
  pid_t pid = 0;
  std::ifstream(run_directory_.path() + "/ipd.lock") >> pid;
  ASSERT_GT(pid, 1);
  EXPECT_EQ(getsid(pid), pid) << "in a session of its own";
  ip("link add ib type ifb");
  EXPECT_TRUE(wait_until([&] { return iod("ib") != 0; }));
  ASSERT_EQ(kill(pid, SIGTERM), 0);
  EXPECT_TRUE(wait_until([&] { return finished({"--remove"}, &output) == 0; }));
}

TEST_F(IpdLifeTest, ADaemonThatCannotStartSaysWhy) {
  const std::string file = run_directory_.path() + "/a-file";
  std::ofstream(file) << "x";
  std::string output;
  EXPECT_EQ(finished({"--run-dir", file + "/below"}, &output), 1);
  EXPECT_NE(output.find(file), std::string::npos) << output;
}

TEST_F(IpdLifeTest, RemoveTakesTheNameAwayAndAttachedClientsGoOn) {
  std::string output;
  ASSERT_EQ(finished({"--once"}, &output), 0) << output;
  attach();
  EXPECT_EQ(finished({"--remove"}, &output), 0) << output;
  EXPECT_NE(access((run_directory_.path() + "/ip").c_str(), F_OK), 0);
  EXPECT_EQ(ip_get_iod_for_local_address("default", 0x7f000001), iod("lo"));
}

TEST_F(IpdLifeTest, ReloadsOnSighup) {
  ip("link add ib type ifb");
  ip("link add ic type ifb");
  ip("link set ib up");
  ip("addr add 10.0.0.1/24 dev ib");
  write_configuration("{}");
  start_ipd({"--config", configuration_file()});
  attach();
  EXPECT_EQ(ip_get_iod_for_local_address("default", 0x0a000001), iod("ib"));
  write_configuration(
      R"({"contexts": [{"name": "lab", "id": 5, "table": 100, "router_id": "9.9.9.9", "interfaces": ["ib"]}],
                          "vips": [{"interface": "ib", "address": "10.0.0.77"}],
                          "unnumbered": [{"interface": "ic", "source": "ib"}]})");
  ipd_.signal(SIGHUP);
  EXPECT_TRUE(wait_until([&] { return ip_get_iod_for_local_address("lab", 0x0a000001) == iod("ib"); }));
  // An address that moves is in its new context before it leaves the old one, so that it is always in one.
  EXPECT_TRUE(wait_until([] { return ip_get_iod_for_local_address("default", 0x0a000001) == 0; }));
  EXPECT_EQ(ip_get_api_context_id("lab"), 5u);
  EXPECT_TRUE(wait_until([&] { return ip_is_iod_unnumbered(iod("ic")) != 0; }));
  const auto *lab = ip_get_api_context_by_name("lab");
  ASSERT_NE(lab, nullptr);
  EXPECT_TRUE(wait_until([&] { return lab->router_id == 0x09090909; }));

  write_configuration(R"({"contexts": [{"name": "lab", "id": "five"}]})");
  ipd_.signal(SIGHUP);
  const std::string complaint = configuration_file() +
                                ": contexts[0].id: must be a whole number from 1 to 2147483647; the configuration "
                                "stays as it was";
  EXPECT_TRUE(wait_until([&] { return ipd_said(complaint); })) << ipd_.output();
  EXPECT_EQ(ip_get_iod_for_local_address("lab", 0x0a000001), iod("ib"));

  write_configuration("{}");
  ipd_.signal(SIGHUP);
  EXPECT_TRUE(wait_until([&] { return ip_get_iod_for_local_address("default", 0x0a000001) == iod("ib"); }));
  EXPECT_TRUE(wait_until([&] { return ip_get_api_context_by_name("lab") == nullptr; }));
  EXPECT_TRUE(wait_until([&] { return ip_is_iod_unnumbered(iod("ic")) == 0; }));
}

TEST_F(IpdLifeTest, ConfiguredInterfacesMayComeLater) {
  write_configuration(R"({"vips": [{"interface": "ib", "address": "10.0.0.77"}]})");
  start_ipd({"--config", configuration_file()});
  attach();
  ip("link add ib type ifb");
  ip("link set ib up");
  EXPECT_TRUE(wait_until([&] {
    uint32_t out = 0;
    return iod("ib") != 0 && ip_get_alliod_for_address("default", 0x0a00004d) == iod("ib") && out == 0;
  }));
}

TEST_F(IpdLifeTest, CheckPrintsWhatIsInForceAndRefusesWhatIsWrong) {
  write_configuration(R"({"router_id": "192.0.2.1"})");
  std::string output;
  EXPECT_EQ(finished({"--check", "--config", configuration_file()}, &output), 0);
  EXPECT_EQ(output, configuration_file() + ": good\nrouter id 192.0.2.1\n");
  write_configuration(R"({"router_id": "192.0.2"})");
  for (const char *way : {"--check", "--foreground", "--once"}) {
    EXPECT_EQ(finished({way, "--config", configuration_file()}, &output), 2);
    EXPECT_EQ(output, "ipd: " + configuration_file() + ": router_id: must be an IPv4 address such as \"192.0.2.1\"\n");
  }
  EXPECT_EQ(finished({"--check", "--config", run_directory_.path() + "/none"}, &output), 2);
  EXPECT_EQ(output, "ipd: " + run_directory_.path() + "/none: No such file or directory\n");
}

std::string contents(const std::string &file) {
  std::stringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

TEST_F(IpdLifeTest, HelpAndTheManualNameEveryOption) {
  std::string output;
  EXPECT_EQ(finished({"--help"}, &output), 0);
  const std::string manual = contents(MANUALS "/ipd.8");
  for (const char *option : {"config", "foreground", "check", "simulate", "run-dir", "receive-buffer", "once", "json",
                             "remove", "version", "help"}) {
    EXPECT_NE(output.find(std::string("--") + option), std::string::npos) << option;
    EXPECT_NE(manual.find(std::string("-") + option), std::string::npos) << option;
  }
}

TEST_F(IpdLifeTest, TheManualsExampleIsAConfiguration) {
  const std::string manual = contents(MANUALS "/ipd.conf.5");
  const size_t begin = manual.find("\n{\n");
  const size_t end = manual.find("\n}\n", begin);
  ASSERT_NE(end, std::string::npos);
  write_configuration(manual.substr(begin, end + 2 - begin));
  std::string output;
  EXPECT_EQ(finished({"--check", "--config", configuration_file()}, &output), 0) << output;
  EXPECT_NE(output.find("context blue id 10 router id 192.0.2.10\n"), std::string::npos) << output;
}

TEST_F(IpdLifeTest, TheManualsAreWellFormed) {
  for (const char *manual : {MANUALS "/ipd.8", MANUALS "/ipd.conf.5"}) {
    std::string output;
    EXPECT_EQ(test_support::run({"mandoc", "-Tlint", "-W", "warning", manual}, &output), 0) << output;
  }
}

TEST_F(IpdLifeTest, VersionIsAnAnswer) {
  std::string output;
  EXPECT_EQ(finished({"--version"}, &output), 0);
  EXPECT_EQ(output.substr(0, 4), "ipd ");
}

TEST_F(IpdLifeTest, MistakesOnTheCommandLineAreRefused) {
  const std::vector<std::vector<std::string>> mistakes = {{"--colour"},
                                                          {"file.conf"},
                                                          {"--config"},
                                                          {"--receive-buffer", "much"},
                                                          {"--receive-buffer", "0"},
                                                          {"--receive-buffer", "-1"},
                                                          {"--json"},
                                                          {"--remove", "--once"},
                                                          {"--remove", "--check"}};
  for (const auto &mistake : mistakes) {
    std::string output;
    EXPECT_EQ(finished(mistake, &output), 2) << mistake[0];
    EXPECT_FALSE(output.empty());
  }
  EXPECT_NE(access((run_directory_.path() + "/ipd.lock").c_str(), F_OK), 0) << "none of them started";
}

TEST_F(IpdLifeTest, TellsTheServiceManager) {
  const std::string path = run_directory_.path() + "/notify";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(manager, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  const auto next = [manager] {
    char text[256];
    ssize_t got = -1;
    (void)wait_until([&] { return (got = recv(manager, text, sizeof text, MSG_DONTWAIT)) >= 0; });
    return got < 0 ? std::string() : std::string(text, static_cast<size_t>(got));
  };
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  start_ipd();
  unsetenv("NOTIFY_SOCKET");
  EXPECT_EQ(next(), "READY=1");
  ipd_.signal(SIGHUP);
  EXPECT_EQ(next().substr(0, 27), "RELOADING=1\nMONOTONIC_USEC=");
  EXPECT_EQ(next(), "READY=1");
  ipd_.signal(SIGTERM);
  EXPECT_EQ(next(), "STOPPING=1");
  EXPECT_EQ(ipd_.wait(), 0);
  close(manager);
}

// An ordinary user, when we may become one; otherwise this process is one already.
TEST_F(IpdLifeTest, NeedsNoPrivilege) {
  add_interface("ib", "10.0.0.1/24");
  ASSERT_EQ(chmod(run_directory_.path().c_str(), 0777), 0);
  const std::string directory = run_directory_.path() + "/user";
  const std::vector<std::string> become{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  std::vector<std::string> trial = become;
  trial.emplace_back("true");
  std::vector<std::string> command;
  if (test_support::run(trial) == 0) command = become;
  for (const std::string &word : test_support::public_program(ipd_command({}).front())) command.push_back(word);
  for (const std::string &word : {std::string("--foreground"), std::string("--run-dir"), directory}) {
    command.push_back(word);
  }
  ipd_ = test_support::Process(command);
  ASSERT_TRUE(wait_until([this] { return ipd_said("live:") || !ipd_.running(); })) << ipd_.output();
  ASSERT_TRUE(ipd_.running()) << ipd_.output();
  setenv("RSW_RUN_DIR", directory.c_str(), 1);
  attach();
  expect_same_as_kernel();
  ip("addr add 10.0.0.2/24 dev ib");
  EXPECT_TRUE(wait_until([&] { return ip_is_address_on_interface(0x0a000002, iod("ib")) != 0; }));
  setenv("RSW_RUN_DIR", run_directory_.path().c_str(), 1);
}

TEST_F(IpdLifeTest, StartsAgainAndAgainWithoutGrowing) {
  std::string output;
  struct stat first {};
  struct stat last {};
  for (int i = 0; i < 40; ++i) {
    ASSERT_EQ(finished({"--once"}, &output), 0) << output;
    ASSERT_EQ(stat((run_directory_.path() + "/ip").c_str(), i < 20 ? &first : &last), 0);
  }
  EXPECT_LT(last.st_blocks, first.st_blocks + first.st_blocks / 4);
}

TEST_F(IpdLifeTest, ASimulatedSystemIsServedAndReported) {
  write_configuration(R"({"contexts": 4, "interfaces": 40, "addresses": 400, "changes_per_second": 1000, "seed": 3})");
  start_ipd({"--simulate", configuration_file(), "--json"});
  EXPECT_TRUE(ipd_said("\"interfaces\":40,\"addresses\":400"));
  attach();
  // Interface 12 is in context 12 % 4 + 1 = 1; its addresses lie in 10.0.12.0/24: .1 is permanent, .2 comes and goes.
  constexpr uint32_t permanent = 0x0a000c01;
  constexpr uint32_t flipping = 0x0a000c02;
  uint32_t there = 0;
  ASSERT_EQ(im_get_iod_frm_ifindex(13, &there), 0u);
  bool seen = false;
  bool missed = false;
  EXPECT_TRUE(wait_until([&] {
    EXPECT_EQ(ip_get_iod_for_local_address("default", permanent), there);
    const uint32_t found = ip_get_iod_for_local_address("default", flipping);
    seen |= found == there;
    missed |= found == 0;
    return seen && missed;
  }));
  ipd_.signal(SIGTERM);
  EXPECT_EQ(ipd_.wait(), 0);
}

TEST_F(IpdLifeTest, AWrongDescriptionOfASimulatedSystemIsRefused) {
  write_configuration(R"({"interfaces": 0})");
  std::string output;
  for (const char *way : {"--once", "--check"}) {
    EXPECT_EQ(finished({way, "--simulate", configuration_file()}, &output), 2);
    EXPECT_EQ(output, "ipd: " + configuration_file() + ": interfaces: must be a whole number from 1 to 1000000\n");
  }
}

}  // namespace
