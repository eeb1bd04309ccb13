// SPDX-License-Identifier: Apache-2.0
#include "ipsh_asked.h"

#include <nlohmann/json.hpp>

namespace ipsh_test {

using nlohmann::json;

void PrintTo(const Asked &asked, std::ostream *stream) {
  *stream << "ipsh query " << asked.line;
}

std::string outputs_of(const json &answer) {
  std::string text;
  for (const auto &[name, value] : answer["outputs"].items()) {
    text += (text.empty() ? "" : " ") + name + "=" + value["text"].get<std::string>();
  }
  return text;
}

void expect_answer(const Asked &asked) {
  std::vector<std::string> words = words_of(asked.line);
  words.insert(words.begin(), "query");
  words.emplace_back("--json");
  const Outcome outcome = ipsh(words);
  ASSERT_NE(outcome.out, "") << asked.line << ": " << outcome.err;
  const json answer = json::parse(outcome.out);
  ASSERT_EQ(answer["kind"], "query") << asked.line << ": " << outcome.out;
  EXPECT_EQ(answer["result"]["text"], asked.value) << asked.line;
  EXPECT_EQ(outputs_of(answer), asked.outputs) << asked.line;
  EXPECT_EQ(outcome.exit_code, asked.exit_code) << asked.line;
  EXPECT_EQ(answer["found"], asked.exit_code == 0) << asked.line;
  EXPECT_FALSE(answer["reads_as"].get<std::string>().empty()) << asked.line;
}

}  // namespace ipsh_test
