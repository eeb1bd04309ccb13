// SPDX-License-Identifier: Apache-2.0
#include "ipsh_fixture.h"

#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <sstream>

#include "support/process.h"

namespace ipsh_test {

Outcome run_command(const std::vector<std::string> &argv) {
  // Standard error goes to a file of its own: the pipe of a child process would mix the two.
  char err_name[] = "/tmp/ipsh-test-XXXXXX";
  const int err = mkstemp(err_name);
  EXPECT_GE(err, 0);
  std::vector<std::string> command{"/bin/sh", "-c", "err=$1; shift; exec \"$@\" 2>\"$err\"", "sh", err_name};
  command.insert(command.end(), argv.begin(), argv.end());
  Outcome outcome{};
  outcome.exit_code = test_support::run(command, &outcome.out);
  std::stringstream text;
  text << std::ifstream(err_name).rdbuf();
  outcome.err = text.str();
  close(err);
  unlink(err_name);
  return outcome;
}

Outcome ipsh(const std::vector<std::string> &arguments) {
  std::vector<std::string> argv{IPSH};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return run_command(argv);
}

std::vector<std::string> words_of(const std::string &line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

std::string test_name_of(const std::string &line, size_t index) {
  std::string name;
  for (const char letter : line) {
    const bool kept = std::isalnum(static_cast<unsigned char>(letter)) != 0;
    if (kept || (!name.empty() && name.back() != '_')) name += kept ? letter : '_';
  }
  return name + (name.empty() || name.back() != '_' ? "_" : "") + std::to_string(index);
}

}  // namespace ipsh_test
