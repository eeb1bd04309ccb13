// SPDX-License-Identifier: Apache-2.0
// A real ipd in a network namespace and a run directory of the test's own, and the test as its client.
#ifndef TESTS_SYSTEM_IPD_FIXTURE_H
#define TESTS_SYSTEM_IPD_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/network_namespace.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace ipd_test {

// The command line of ipd: the one that was built beside the test, or of LIBIP_TEST_IPD.
std::vector<std::string> ipd_command(const std::vector<std::string> &arguments);

class IpdTest : public ::testing::Test {
 protected:
  void SetUp() override;     // enters the namespace
  void TearDown() override;  // detaches

  // Starts ipd in the foreground and waits until it says that it is live.
  void start_ipd(const std::vector<std::string> &arguments = {});
  [[nodiscard]] bool ipd_said(const std::string &text);
  // This process becomes a client.
  void attach();
  // Runs ip(8) with these words; a failure fails the test.
  void ip(const std::string &words);
  // Writes a setting under /proc/sys/net/ipv4.
  void set_sysctl(const std::string &name, const std::string &value);
  [[nodiscard]] static int ifindex(const std::string &name);
  [[nodiscard]] static uint32_t iod(const std::string &name);
  // Waits until a client reads what ip(8) says.
  void expect_same_as_kernel();
  void write_configuration(const std::string &text);
  [[nodiscard]] std::string configuration_file() const { return run_directory_.path() + "/test.conf"; }

  test_support::RunDirectory run_directory_;
  test_support::Process ipd_;
  bool attached_ = false;
};

}  // namespace ipd_test

#endif
