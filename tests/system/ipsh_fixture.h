// SPDX-License-Identifier: Apache-2.0
// Tests of ipsh run the program as a user does, against a small system that the test itself publishes.
#ifndef TESTS_SYSTEM_IPSH_FIXTURE_H
#define TESTS_SYSTEM_IPSH_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "published_system.h"
#include "support/run_directory.h"

namespace ipsh_test {

using test_support::publish_test_system;

struct Outcome {
  int exit_code;
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs any command to its end.
Outcome run_command(const std::vector<std::string> &argv);
// Runs ipsh.
Outcome ipsh(const std::vector<std::string> &arguments);
// Words separated by blanks.
std::vector<std::string> words_of(const std::string &line);

// A name for a test with a parameter: the line's letters and digits, and a number.
std::string test_name_of(const std::string &line, size_t index);

class IpshWithoutIpd : public ::testing::Test {
 protected:
  test_support::RunDirectory run_directory_;
};

class IpshWithSystem : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(publisher_, nullptr); }
  test_support::RunDirectory run_directory_;
  std::unique_ptr<ipd::Publisher> publisher_ = publish_test_system();
};

class IpshWithRoutes : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(system_.publisher, nullptr);
    ASSERT_NE(system_.routes, nullptr);
  }
  test_support::RunDirectory run_directory_;
  test_support::RoutedSystem system_ = test_support::publish_test_routes();
};

}  // namespace ipsh_test

#endif
