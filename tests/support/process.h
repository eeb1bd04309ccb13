// SPDX-License-Identifier: Apache-2.0
// Child processes of a test: started, asked, killed and reaped with a deadline; what is still running at the end of the
// test is killed.
#ifndef TESTS_SUPPORT_PROCESS_H
#define TESTS_SUPPORT_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace test_support {

class Process {
 public:
  Process() = default;
  // Runs argv[0]; standard output and error go to one pipe that output() reads.
  explicit Process(const std::vector<std::string> &argv);
  // Forks and runs the body in the child; its result is the exit status.
  explicit Process(const std::function<int()> &body);
  ~Process();
  Process(Process &&other) noexcept;
  Process &operator=(Process &&other) noexcept;

  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] bool running();
  void signal(int number) const;
  // SIGKILL, and reaped.
  void kill_now();
  // The exit status; 128 + signal when one ended it; -1 when it still runs at the deadline.
  int wait(std::chrono::milliseconds deadline = std::chrono::milliseconds(30000));
  // Everything it wrote so far; after wait(), everything it wrote.
  const std::string &output();

 private:
  void finish(int status);
  pid_t pid_ = -1;
  int pipe_ = -1;
  int status_ = -1;
  bool reaped_ = false;
  std::string output_;
};

// Runs a command to its end. Its exit status; *output is what it wrote.
int run(const std::vector<std::string> &argv, std::string *output = nullptr);

}  // namespace test_support

#endif
