// SPDX-License-Identifier: Apache-2.0
// A private run directory for one test, set in RSW_RUN_DIR and removed with all that is in it; and waiting for a
// condition with a deadline, which is what tests do here instead of sleeping.
#ifndef TESTS_SUPPORT_RUN_DIRECTORY_H
#define TESTS_SUPPORT_RUN_DIRECTORY_H

#include <chrono>
#include <functional>
#include <string>

namespace test_support {

class RunDirectory {
 public:
  RunDirectory();   // makes a fresh directory (on memory-backed storage where there is any) and sets RSW_RUN_DIR
  ~RunDirectory();  // removes it and restores RSW_RUN_DIR
  RunDirectory(const RunDirectory &) = delete;
  RunDirectory &operator=(const RunDirectory &) = delete;
  [[nodiscard]] const std::string &path() const { return path_; }

 private:
  std::string path_;
  std::string previous_;
  bool had_previous_;
};

// True as soon as the condition holds; false when the deadline passes first.
bool wait_until(const std::function<bool()> &condition,
                std::chrono::milliseconds deadline = std::chrono::milliseconds(10000));

}  // namespace test_support

#endif
