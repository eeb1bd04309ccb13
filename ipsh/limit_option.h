// SPDX-License-Identifier: Apache-2.0
// Options that are a limit: a number above 0, or nothing where the option was left out.
#ifndef IPSH_LIMIT_OPTION_H
#define IPSH_LIMIT_OPTION_H

#include <fmt/format.h>

#include <charconv>
#include <optional>
#include <string>

#include "exit_code.h"

namespace ipsh {

template <class Number>
[[nodiscard]] bool decode_limit(const char *option, const std::string &given, const char *accepts,
                                std::optional<Number> *limit, Failure *failure) {
  if (given.empty()) return true;
  Number number{};
  const auto [end, error] = std::from_chars(given.data(), given.data() + given.size(), number);
  if (error == std::errc() && end == given.data() + given.size() && number > 0 && number <= Number{1000000000}) {
    *limit = number;
    return true;
  }
  *failure = {ExitCode::usage, fmt::format("{}: '{}' is not accepted here", option, given), accepts};
  return false;
}

}  // namespace ipsh

#endif
