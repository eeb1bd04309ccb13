// SPDX-License-Identifier: Apache-2.0
// One `ipsh query` and what it has to answer, for tables of such.
#ifndef TESTS_SYSTEM_IPSH_ASKED_H
#define TESTS_SYSTEM_IPSH_ASKED_H

#include <nlohmann/json_fwd.hpp>
#include <ostream>
#include <string>

#include "ipsh_fixture.h"

namespace ipsh_test {

struct Asked {
  const char *line;   // after "ipsh query"
  const char *value;  // the result's text
  int exit_code;
  const char *outputs = "";  // "name=text" in the order of the names, separated by blanks
};

void PrintTo(const Asked &asked, std::ostream *stream);

// The outputs of an answer, written as in Asked.
std::string outputs_of(const nlohmann::json &answer);

// Asks and compares; a difference is a test failure.
void expect_answer(const Asked &asked);

}  // namespace ipsh_test

#endif
