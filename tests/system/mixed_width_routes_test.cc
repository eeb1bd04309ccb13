// SPDX-License-Identifier: Apache-2.0
// A 32-bit and a 64-bit client ask one ipd for the way to the same destinations. Built in the 32-bit preset, with ipd
// and the 64-bit client from the native one.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <string>

#include "both_widths.h"
#include "support/kernel_routes.h"
#include "support/network_namespace.h"
#include "support/peer_namespace.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using test_support::dotted;
using test_support::Process;
using test_support::run_ip;
using test_support::wait_until;

using both_widths::Ipd;
using both_widths::native;
constexpr int destinations = 1000;
constexpr unsigned seed = 3232;

class MixedWidthRoutes : public testing::TestWithParam<Ipd> {
 protected:
  void SetUp() override {
    ASSERT_EQ(access((native + "/route_client").c_str(), X_OK), 0) << "build preset native first: " << native;
    std::string reason;
    ASSERT_TRUE(test_support::enter_network_namespace(&reason)) << reason;
    std::string lines =
        "link set lo up\nlink add name va type veth peer name vb\nlink set va up\nlink set vb up\n"
        "addr add 10.1.0.1/24 dev va\naddr add 10.2.0.1/24 dev vb\n"
        "route add unreachable 30.0.0.0/16\nroute add default via 10.2.0.9\n";
    for (uint32_t i = 0; i < 500; ++i) {
      lines += "route add " + dotted(0x14000000 + (i << 14)) + "/19 " +
               (i % 3 == 0   ? "via 10.1.0.2"
                : i % 3 == 1 ? "via 10.2.0.2"
                             : "nexthop via 10.1.0.3 nexthop via 10.2.0.3 weight 2") +
               "\n";
    }
    batch(lines);
    start_ipd();
    write_questions();
  }

  void start_ipd() {
    ipd_ = Process({GetParam().path, "--foreground"});
    ASSERT_TRUE(wait_until([this] { return ipd_.output().find("live:") != std::string::npos || !ipd_.running(); }));
    ASSERT_TRUE(ipd_.running()) << ipd_.output();
  }

  void write_questions() const {
    std::mt19937 random(seed);
    std::ofstream questions(file("questions"));
    questions << "10.2.0.1\n10.1.0.7\n127.0.0.1\n30.0.0.1\n";
    for (int i = 0; i < destinations; ++i) questions << dotted(0x14000000u | (random() & 0xffffffu)) << "\n";
  }

  void batch(const std::string &lines) {
    std::ofstream(file("batch")) << lines;
    ASSERT_EQ(run_ip("-batch " + file("batch")), "");
  }

  [[nodiscard]] std::string file(const std::string &name) const { return directory_.path() + "/" + name; }

  [[nodiscard]] std::string answers(const std::string &client) const {
    std::string output;
    const int status = test_support::run({"/bin/sh", "-c", "exec " + client + " <" + file("questions")}, &output);
    return status == 0 ? output : "status " + std::to_string(status) + ": " + output;
  }

  test_support::RunDirectory directory_;
  Process ipd_;
};

std::string first_line(const std::string &text) {
  return text.substr(0, text.find('\n'));
}

TEST_P(MixedWidthRoutes, BothWidthsFindTheSameWays) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::string wide;
  EXPECT_TRUE(wait_until([&] {
    wide = answers(native + "/route_client");
    return wide.find("30.0.0.1 iod 0 ") != std::string::npos && wide.find("source 0a010001") != std::string::npos &&
           wide.find("source 0a020001") != std::string::npos;
  })) << first_line(wide);
  const std::string narrow = answers(ROUTE_CLIENT);
  EXPECT_EQ(narrow, wide);
  EXPECT_EQ(first_line(narrow).find("10.2.0.1 iod "), 0u) << first_line(narrow);

  // One of the two interfaces goes: both see it.
  ASSERT_EQ(run_ip("link set va down"), "");
  EXPECT_TRUE(wait_until([&] {
    wide = answers(native + "/route_client");
    return wide.find("source 0a010001") == std::string::npos;
  })) << first_line(wide);
  EXPECT_NE(wide.find("source 0a020001"), std::string::npos);
  EXPECT_EQ(answers(ROUTE_CLIENT), wide);
}

TEST_P(MixedWidthRoutes, ANarrowClientFindsTheSameWaysWhileIpdIsKilledAndStartedAgain) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  const std::string before = answers(ROUTE_CLIENT);
  EXPECT_NE(before.find("source 0a010001"), std::string::npos) << first_line(before);
  for (int round = 0; round < 3; ++round) {
    ipd_.kill_now();
    EXPECT_EQ(answers(ROUTE_CLIENT), before) << "what the dead ipd left";
    start_ipd();
    EXPECT_EQ(answers(ROUTE_CLIENT), before) << "what the new one found";
  }
}

INSTANTIATE_TEST_SUITE_P(Both, MixedWidthRoutes, testing::ValuesIn(both_widths::ipds()), both_widths::name_of);

}  // namespace
