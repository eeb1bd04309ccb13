// SPDX-License-Identifier: Apache-2.0
// Parts of a log of calls: some functions' lines only, all but some, and how deep the database lock was held at each.
#ifndef TESTS_UNIT_CALL_LINES_H
#define TESTS_UNIT_CALL_LINES_H

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace unit {

using Lines = std::vector<std::string>;

inline std::string_view function_of(std::string_view line) {
  return line.substr(0, line.find('('));
}

inline bool is_one_of(std::string_view line, const std::vector<std::string_view> &functions) {
  return std::find(functions.begin(), functions.end(), function_of(line)) != functions.end();
}

inline Lines only(const Lines &lines, const std::vector<std::string_view> &functions) {
  Lines kept;
  for (const std::string &line : lines) {
    if (is_one_of(line, functions)) kept.push_back(line);
  }
  return kept;
}

inline Lines without(const Lines &lines, const std::vector<std::string_view> &functions) {
  Lines kept;
  for (const std::string &line : lines) {
    if (!is_one_of(line, functions)) kept.push_back(line);
  }
  return kept;
}

// The lines of a function, each with the depth of the database lock at that call: "2: im_get_next_ext_if(0, 267)".
inline Lines with_lock_depth(const Lines &lines, const std::vector<std::string_view> &functions) {
  Lines kept;
  int depth = 0;
  for (const std::string &line : lines) {
    if (function_of(line) == "tsp_lock_acquire_rdlock") depth++;
    if (function_of(line) == "tsp_lock_release_rdlock") depth--;
    if (is_one_of(line, functions)) kept.push_back(std::to_string(depth) + ": " + line);
  }
  return kept;
}

}  // namespace unit

#endif
