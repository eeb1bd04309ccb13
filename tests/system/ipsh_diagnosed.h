// SPDX-License-Identifier: Apache-2.0
// What `ipsh doctor` says, for tests to ask by the name of a check.
#ifndef TESTS_SYSTEM_IPSH_DIAGNOSED_H
#define TESTS_SYSTEM_IPSH_DIAGNOSED_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ipsh_fixture.h"

namespace ipsh_test {

struct Diagnosed {
  int exit_code = -1;
  std::string text;  // as it came
  nlohmann::json json;

  // The first row of a check that has this state.
  [[nodiscard]] nlohmann::json row(const std::string &check, const std::string &state) const {
    for (const auto &each : json.value("checks", nlohmann::json::array())) {
      if (each["check"] == check && each["state"] == state) return each;
    }
    return {{"finding", "no such row"}, {"remedy", "no such row"}};
  }
  [[nodiscard]] std::string finding(const std::string &check, const std::string &state) const {
    return row(check, state)["finding"].get<std::string>();
  }
  [[nodiscard]] std::string remedy(const std::string &check, const std::string &state) const {
    const nlohmann::json found = row(check, state)["remedy"];
    return found.is_string() ? found.get<std::string>() : "";
  }
  [[nodiscard]] bool has(const std::string &check, const std::string &state) const {
    return finding(check, state) != "no such row";
  }
  [[nodiscard]] bool left_out(const std::string &check) const {
    for (const auto &name : json.value("not_made", nlohmann::json::array())) {
      if (name == check) return true;
    }
    return false;
  }
};

// Runs the doctor, perhaps behind another command, such as env(1), that runs it.
inline Diagnosed diagnosed(std::vector<std::string> before = {}, const std::vector<std::string> &ipsh = {IPSH}) {
  before.insert(before.end(), ipsh.begin(), ipsh.end());
  for (const char *word : {"doctor", "--json"}) before.emplace_back(word);
  const Outcome outcome = run_command(before);
  Diagnosed diagnosed{.exit_code = outcome.exit_code, .text = outcome.out + outcome.err, .json = {}};
  diagnosed.json = nlohmann::json::parse(outcome.out, nullptr, false);
  EXPECT_TRUE(diagnosed.json.is_object()) << diagnosed.text;
  if (!diagnosed.json.is_object()) diagnosed.json = nlohmann::json::object();
  return diagnosed;
}

}  // namespace ipsh_test

// The row of a check has this state, and its finding and remedy hold these texts.
#define EXPECT_ROW(diagnosis, check, state, found, mend)                               \
  do {                                                                                 \
    const ipsh_test::Diagnosed &said = (diagnosis);                                    \
    EXPECT_NE(said.finding(check, state).find(found), std::string::npos) << said.text; \
    EXPECT_NE(said.remedy(check, state).find(mend), std::string::npos) << said.text;   \
  } while (false)

#endif
