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

// The groups of an interface that a client reads, in ascending order.
std::vector<uint32_t> groups_of(uint32_t iod);

class IpdTest : public ::testing::Test {
 protected:
  void SetUp() override;     // enters the namespace
  void TearDown() override;  // detaches

  // Starts ipd in the foreground and waits until it says that it is live.
  void start_ipd(const std::vector<std::string> &arguments = {});
  [[nodiscard]] bool ipd_said(const std::string &text);
  // This process becomes a client, and is none any more; detaching twice is no mistake.
  void attach();
  void detach();
  // Runs ip(8) with these words; a failure fails the test.
  void ip(const std::string &words);
  // Makes an interface that is up and has that address.
  void add_interface(const std::string &name, const std::string &address);
  // Makes two interfaces, each the other end of the other, that are up.
  void add_pair(const std::string &name, const std::string &peer);
  // Writes a setting under /proc/sys/net/ipv4.
  void set_sysctl(const std::string &name, const std::string &value);
  [[nodiscard]] static int ifindex(const std::string &name);
  [[nodiscard]] static uint32_t iod(const std::string &name);
  // Waits until a client reads what ip(8) says.
  void expect_same_as_kernel();
  void write_configuration(const std::string &text);
  [[nodiscard]] std::string configuration_file() const { return run_directory_.path() + "/test.conf"; }

  // As before the first ipd; nobody is attached.
  void clear_run_directory();

  test_support::RunDirectory run_directory_;
  test_support::Process ipd_;
  bool attached_ = false;
};

}  // namespace ipd_test

#endif
