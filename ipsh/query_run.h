// SPDX-License-Identifier: Apache-2.0
// Running one query of the table: words in, a result to print out.
#ifndef IPSH_QUERY_RUN_H
#define IPSH_QUERY_RUN_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "exit_code.h"
#include "query_table.h"

namespace ipsh {

struct ShownValue {
  std::string name;
  ResultValue value;
  std::string text;  // for people: "2 (eth0)"
};

struct QueryResult {
  const Query *query = nullptr;
  std::vector<std::pair<std::string, std::string>> arguments;  // option without dashes, its value for people
  bool found = false;
  ShownValue result;
  std::vector<ShownValue> outputs;
  std::vector<std::vector<ShownValue>> calls;
  std::string reads_as;
  std::string error_text;  // the library's, empty when it gave none
};

// `words`: what was given, by argument name. False: *failure names the first argument that is missing.
[[nodiscard]] bool has_all_arguments(const Query &query, const std::map<std::string, std::string, std::less<>> &words,
                                     Failure *failure);

// All arguments are among the words. `attached`: the shared database is attached. False: *failure.
[[nodiscard]] bool run_query(const Query &query, const std::map<std::string, std::string, std::less<>> &words,
                             bool attached, QueryResult *result, Failure *failure);

}  // namespace ipsh

#endif
