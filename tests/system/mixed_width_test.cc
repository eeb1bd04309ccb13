// SPDX-License-Identifier: Apache-2.0
// A 32-bit and a 64-bit client read one ipd, of either width. This program is built in the 32-bit preset and takes ipd
// and the 64-bit client from the native one.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "both_widths.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using test_support::Process;
using test_support::RunDirectory;
using test_support::wait_until;

using both_widths::Ipd;
using both_widths::native;

std::string write_simulation(const RunDirectory &directory) {
  const std::string path = directory.path() + "/system.json";
  std::ofstream(path) << R"({"contexts": 3, "interfaces": 40, "addresses": 200, "measured_changes": 0})";
  return path;
}

class MixedWidth : public testing::TestWithParam<Ipd> {
 protected:
  void SetUp() override {
    ASSERT_EQ(access((GetParam().path).c_str(), X_OK), 0) << "build preset native first: " << native << "/ipd";
    ASSERT_EQ(access((native + "/dump_client").c_str(), X_OK), 0) << "build preset native first";
    ipd_ = start_ipd();
    ASSERT_TRUE(live()) << ipd_.output();
  }

  Process start_ipd() { return Process({GetParam().path, "--foreground", "--simulate", write_simulation(directory_)}); }

  static bool live() {
    return wait_until([] { return test_support::run({native + "/dump_client"}) == 0; });
  }

  RunDirectory directory_;
  Process ipd_;
};

std::string interfaces_of(const std::string &dump) {
  return dump.substr(dump.find('\n') + 1);
}

TEST_P(MixedWidth, BothWidthsGiveTheSameAnswersWhileAttachedAtOnce) {
  Process wide({native + "/dump_client", "--hold"});
  Process narrow({DUMP_CLIENT, "--hold"});
  ASSERT_TRUE(wait_until([&] { return wide.output().ends_with("end\n"); })) << wide.output();
  ASSERT_TRUE(wait_until([&] { return narrow.output().ends_with("end\n"); })) << narrow.output();
  EXPECT_TRUE(wide.running());
  EXPECT_TRUE(narrow.running());
  EXPECT_EQ(interfaces_of(wide.output()), interfaces_of(narrow.output()));
  EXPECT_NE(wide.output().find("secondary"), std::string::npos);
  EXPECT_NE(narrow.output().find("client record of 236 bytes"), std::string::npos);
}

TEST_P(MixedWidth, ANarrowClientAttachesAfterIpdWasKilledAndRestarted) {
  Process before({DUMP_CLIENT});
  ASSERT_EQ(before.wait(), 0) << before.output();
  ipd_.kill_now();
  ipd_ = start_ipd();
  std::string after;
  EXPECT_TRUE(wait_until([&] {
    std::string dump;
    if (test_support::run({DUMP_CLIENT}, &dump) != 0) return false;
    after = dump;
    return after == before.output();
  })) << "before:\n"
      << before.output() << "after:\n"
      << after;
}

INSTANTIATE_TEST_SUITE_P(Both, MixedWidth, testing::ValuesIn(both_widths::ipds()), both_widths::name_of);

}  // namespace
