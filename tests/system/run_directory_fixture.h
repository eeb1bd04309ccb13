// SPDX-License-Identifier: Apache-2.0
// Run directories that are not as ipd needs them: on file systems of the test's own, in a mount namespace of its own.
#ifndef TESTS_SYSTEM_RUN_DIRECTORY_FIXTURE_H
#define TESTS_SYSTEM_RUN_DIRECTORY_FIXTURE_H

#include <string>
#include <vector>

#include "ipd_fixture.h"

namespace run_directory_test {

inline constexpr uint32_t own_address = 0x0a000001;
inline constexpr const char *other_directory = "name another run directory (--run-dir)";

// Makes it (and forgets what was there of that name).
void write_file(const std::string &path, const std::string &text);
// As long as the file system has room, up to that many bytes.
void fill(const std::string &path, size_t bytes);

class RunDirectoryTest : public ipd_test::IpdTest {
 protected:
  void SetUp() override;  // an interface "ib" with 10.0.0.1/24
  void TearDown() override;

  // A path below the test's own directory; nothing is made.
  [[nodiscard]] std::string path(const std::string &name) const { return run_directory_.path() + "/" + name; }
  // A directory of that name with an empty tmpfs on it.
  std::string mounted(const std::string &name, const std::string &options);
  // A directory of that name.
  std::string made(const std::string &name) const;

  // ipd and its clients are to use this directory from now on.
  void use(const std::string &directory);
  // What ipd says when it does not start there: with `status`, and nothing is left running. `before`: the words in
  // front of its command.
  std::string refused(const std::string &directory, int status = 1, const std::vector<std::string> &before = {});
  // The start of an ipd there is refused with this one line.
  void expect_refused(const std::string &directory, const std::string &line);
  // A started ipd serves: a new client's query is answered and its registration taken.
  void expect_served();
  // Starts one in the directory, which then serves, and kills it.
  void expect_starts_in(const std::string &directory);
  // Kills it, and leaves all as it is.
  void kill_ipd();
  // Names in the directory that end in ".new".
  [[nodiscard]] static std::vector<std::string> unfinished_files(const std::string &directory);

 private:
  std::vector<std::string> mounts_;
};

}  // namespace run_directory_test

#endif
