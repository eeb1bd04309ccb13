// SPDX-License-Identifier: Apache-2.0
// An ipd of one width takes over what one of the other width left in the run directory. Clients of both widths stay
// attached all the time.
#include <elf.h>
#include <signal.h>

#include <fstream>

#include "both_widths.h"
#include "ip_api.h"
#include "ipd_fixture.h"

namespace {

using both_widths::Ipd;
using both_widths::native;
using test_support::Process;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);

std::string other_width(const std::string &path) {
  return path == NARROW_IPD ? native + "/ipd" : NARROW_IPD;
}

// The class that the ELF header of the running program names.
int elf_class(const Process &process) {
  char header[EI_NIDENT] = {};
  std::ifstream("/proc/" + std::to_string(process.pid()) + "/exe", std::ios::binary).read(header, sizeof header);
  return header[EI_CLASS];
}

bool says(Process &process, const std::string &text) {
  return wait_until([&] { return process.output().find(text) != std::string::npos; }, patience);
}

class WidthTakeOver : public ipd_test::IpdTest, public testing::WithParamInterface<Ipd> {
 protected:
  void SetUp() override {
    for (const char *program : {"/ipd", "/control_client", "/watch_addresses"}) {
      ASSERT_EQ(access((native + program).c_str(), X_OK), 0) << "build preset native first: " << native << program;
    }
    IpdTest::SetUp();
    add_interface("ib", "10.0.0.1/24");
    start(GetParam().path);
    attach();
  }
  void start(const std::string &path) {
    ipd_ = Process({path, "--foreground"});
    ASSERT_TRUE(wait_until([this] { return ipd_said("live:") || !ipd_.running(); }, patience));
    ASSERT_TRUE(ipd_.running()) << ipd_.output();
    ASSERT_EQ(elf_class(ipd_), path == NARROW_IPD ? ELFCLASS32 : ELFCLASS64);
    path_ = path;
  }
  // The next ipd has the other width each time.
  void take_over() {
    ipd_.kill_now();
    start(other_width(path_));
  }
  std::string path_;  // of the ipd that runs
};

TEST_P(WidthTakeOver, WhatAnAttachedClientHoldsStaysAndFollowsTheKernel) {
  expect_same_as_kernel();
  const uint32_t iod_before = iod("ib");
  const uint32_t context = ip_get_api_context_id("default");
  ASSERT_NE(iod_before, 0u);
  for (int round = 0; round < 4; ++round) {
    ip("addr add 10.0.1." + std::to_string(round + 1) + "/24 dev ib");
    take_over();
    expect_same_as_kernel();
    EXPECT_EQ(iod("ib"), iod_before);
    EXPECT_EQ(ip_get_api_context_id("default"), context);
    ip("addr del 10.0.1." + std::to_string(round + 1) + "/24 dev ib");
    expect_same_as_kernel();
  }
}

TEST_P(WidthTakeOver, AnIpdThatWasAskedToEndIsFollowedByTheOtherWidth) {
  for (int round = 0; round < 2; ++round) {
    ipd_.signal(SIGTERM);
    EXPECT_EQ(ipd_.wait(patience), 0) << ipd_.output();
    start(other_width(path_));
    expect_same_as_kernel();
  }
}

TEST_P(WidthTakeOver, ClientsOfBothWidthsThatWatchSeeWhatChangesAfterwards) {
  Process watchers[] = {Process({native + "/watch_addresses"}), Process({WATCH_ADDRESSES})};
  for (Process &watcher : watchers) ASSERT_TRUE(says(watcher, "watching 2 addresses")) << watcher.output();
  for (int round = 0; round < 2; ++round) {
    const std::string address = "10.0.1." + std::to_string(round + 1) + "/24";
    take_over();
    ip("addr add " + address + " dev ib");
    for (Process &watcher : watchers) {
      EXPECT_TRUE(says(watcher, "+ ib " + address)) << watcher.output() << ipd_.output();
    }
  }
}

TEST_P(WidthTakeOver, ClientsOfBothWidthsAreServedAgain) {
  std::vector<Process> clients;
  for (const auto &[client, name] : {std::pair(native + "/control_client", "wide"), {CONTROL_CLIENT, "narrow"}}) {
    clients.emplace_back(std::vector<std::string>{client, "attach", "bind", "control", "-", "insist", name});
  }
  for (Process &client : clients) ASSERT_TRUE(says(client, "served 1")) << client.output() << ipd_.output();
  for (int round = 1; round <= 2; ++round) {
    take_over();
    for (Process &client : clients) {
      EXPECT_TRUE(says(client, "refused " + std::to_string(round))) << client.output();
      EXPECT_TRUE(says(client, "served " + std::to_string(round + 1))) << client.output() << ipd_.output();
      EXPECT_EQ(client.output().find("undocumented"), std::string::npos) << client.output();
    }
  }
}

TEST_P(WidthTakeOver, AMembershipThatAnIpdHeldEndsWithIt) {
  Process client({native + "/control_client", "attach", "control", "-", "register", "a-client", "1", "join",
                  "239.1.2.3", "ib", "hold"});
  ASSERT_TRUE(says(client, "join 1")) << client.output();
  const auto kernel_has_group = [] {
    std::ifstream in("/proc/net/igmp");
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return text.find("030201EF") != std::string::npos;
  };
  EXPECT_TRUE(wait_until(kernel_has_group, patience)) << ipd_.output();
  take_over();
  EXPECT_TRUE(wait_until([&] { return !kernel_has_group(); }, patience)) << ipd_.output();
}

INSTANTIATE_TEST_SUITE_P(From, WidthTakeOver, testing::ValuesIn(both_widths::ipds()), both_widths::name_of);

}  // namespace
