// SPDX-License-Identifier: Apache-2.0
// A program one call of which fails; see failing_calls.c.
#ifndef TESTS_FAULTS_FAULT_RUN_H
#define TESTS_FAULTS_FAULT_RUN_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/process.h"

namespace faults {

struct Fault {
  const char *call;
  int error;
};

void PrintTo(const Fault &fault, std::ostream *out);
std::string name_of(const Fault &fault);
// What a process has open; 0: it has ended.
unsigned open_descriptors(pid_t pid);

class FaultRun {
 public:
  // The call with number `at`, from 1 on, of the program fails; `ever`: and all after it. They are counted from the
  // first call named `from` on; null: from the program's beginning.
  FaultRun(const Fault &fault, unsigned at, const std::vector<std::string> &command, const std::string &directory,
           bool ever = false, const char *from = nullptr);
  test_support::Process &process() { return process_; }
  // It has failed; else the program made fewer of these calls, so far.
  [[nodiscard]] bool happened() const;

 private:
  std::string said_;
  test_support::Process process_;
};

}  // namespace faults

#endif
