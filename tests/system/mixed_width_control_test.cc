// SPDX-License-Identifier: Apache-2.0
// A 32-bit and a 64-bit client ask one ipd, of either width, for the same things, and are served alike.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "both_widths.h"
#include "support/network_namespace.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using test_support::Process;
using test_support::run;
using test_support::wait_until;

using both_widths::Ipd;
using both_widths::native;
constexpr auto patience = std::chrono::seconds(60);

void ip(const std::string &words, std::string *output) {
  ASSERT_EQ(run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip " + words}, output), 0) << words << *output;
}

bool kernel_has_group(const std::string &number) {
  std::ifstream in("/proc/net/igmp");
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return text.find(number) != std::string::npos;
}

struct Width {
  const char *name;
  std::string client;
  std::string number;  // of what it asks for, in addresses
  std::string group;   // as the kernel writes it
};

class MixedWidthControl : public testing::TestWithParam<Ipd> {
 protected:
  void SetUp() override {
    ASSERT_EQ(access((native + "/control_client").c_str(), X_OK), 0) << "build preset native first";
    std::string reason;
    std::string output;
    ASSERT_TRUE(test_support::enter_network_namespace(&reason)) << reason;
    ip("link add ib type ifb", &output);
    ip("link set ib up", &output);
    ipd_ = Process({GetParam().path, "--foreground"});
    ASSERT_TRUE(
        wait_until([this] { return ipd_.output().find("live:") != std::string::npos || !ipd_.running(); }, patience));
    ASSERT_TRUE(ipd_.running()) << ipd_.output();
  }

  static Process client(const Width &width, const std::string &steps) {
    std::vector<std::string> command{width.client};
    std::istringstream words(steps);
    for (std::string word; words >> word;) command.push_back(word);
    return Process(command);
  }
  static bool holds(Process &process) {
    return wait_until([&] { return process.output().find("held 1") != std::string::npos || !process.running(); },
                      patience) &&
           process.running();
  }

  test_support::RunDirectory run_directory_;
  Process ipd_;
  const std::vector<Width> widths_{{"32 bits", CONTROL_CLIENT, "32", "200201EF"},
                                   {"64 bits", native + "/control_client", "64", "400201EF"}};
};

TEST_P(MixedWidthControl, BothWidthsRegisterConfigureJoinAndLeave) {
  std::vector<std::string> said;
  for (const Width &width : widths_) {
    const std::string group = "239.1.2." + width.number;
    Process process = client(width, "attach bind control - register a-client 1 configure ib 10." + width.number +
                                        ".0.1 24 60 join " + group + " ib hold");
    ASSERT_TRUE(holds(process)) << width.name << ": " << process.output() << ipd_.output();
    EXPECT_TRUE(wait_until([&] { return kernel_has_group(width.group); }, patience)) << width.name << ipd_.output();
    std::string addresses;
    ip("-4 addr show dev ib", &addresses);
    EXPECT_NE(addresses.find("10." + width.number + ".0.1/24"), std::string::npos) << width.name << addresses;
    said.push_back(process.output());
    process.kill_now();
    EXPECT_TRUE(wait_until([&] { return !kernel_has_group(width.group); }, patience)) << width.name << ipd_.output();
  }
  EXPECT_EQ(said[0], "attach 1\nbind 1\ncontrol 1\nregister 1\nconfigure 0\njoin 1\nheld 1\n");
  EXPECT_EQ(said[1], said[0]);
}

TEST_P(MixedWidthControl, ANameIsTakenForTheOtherWidthToo) {
  for (size_t i = 0; i < 2; ++i) {
    Process first = client(widths_[i], "attach register a-client 1 hold");
    ASSERT_TRUE(holds(first)) << first.output();
    Process second = client(widths_[1 - i], "attach register a-client 1");
    EXPECT_EQ(second.wait(patience), 0);
    EXPECT_NE(second.output().find("register 0"), std::string::npos) << second.output();
    first.kill_now();
    Process third = client(widths_[1 - i], "attach register a-client 1 deregister a-client 1");
    EXPECT_EQ(third.wait(patience), 0);
    EXPECT_NE(third.output().find("register 1\nderegister 1"), std::string::npos) << third.output();
  }
}

INSTANTIATE_TEST_SUITE_P(Both, MixedWidthControl, testing::ValuesIn(both_widths::ipds()), both_widths::name_of);

}  // namespace
