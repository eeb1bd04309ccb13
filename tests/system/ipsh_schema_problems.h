// SPDX-License-Identifier: Apache-2.0
// Validation of what ipsh prints with --json against the schemas that are installed with it.
#ifndef TESTS_SYSTEM_IPSH_SCHEMA_PROBLEMS_H
#define TESTS_SYSTEM_IPSH_SCHEMA_PROBLEMS_H

#include <cstdio>
#include <fstream>
#include <string>

#include "support/process.h"

namespace ipsh_test {

// What the checker says of these lines; empty: all valid, and there was one.
inline std::string schema_problems(const std::string &directory, const std::string &lines) {
  const std::string file = directory + "/checked.json";
  std::ofstream(file) << lines;
  std::string output;
  const int status = test_support::run(
      {"/bin/sh", "-c", "exec " IPSH_PYTHON " -W ignore " IPSH_SCHEMA_CHECK " " IPSH_SCHEMA_DIRECTORY " <\"$1\"", "sh",
       file},
      &output);
  std::remove(file.c_str());
  return status == 0 ? "" : output + "(status " + std::to_string(status) + ")";
}

}  // namespace ipsh_test

#endif
