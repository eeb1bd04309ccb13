// SPDX-License-Identifier: Apache-2.0
#include "fault_run.h"

#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <ostream>

namespace faults {

std::string name_of(const Fault &fault) {
  std::string name = fault.call;
  name += '_';
  return name += strerrorname_np(fault.error);
}

void PrintTo(const Fault &fault, std::ostream *out) {
  *out << name_of(fault);
}

unsigned open_descriptors(pid_t pid) {
  std::error_code gone;
  unsigned count = 0;
  const std::filesystem::directory_iterator directory("/proc/" + std::to_string(pid) + "/fd", gone);
  for ([[maybe_unused]] const auto &each : directory) ++count;
  return count;
}

FaultRun::FaultRun(const Fault &fault, unsigned at, const std::vector<std::string> &command,
                   const std::string &directory, bool ever, const char *from)
    : said_(directory + "/failed") {
  unlink(said_.c_str());
  std::vector<std::string> words{"/usr/bin/env"};
  const auto set = [&words](std::string variable, const std::string &value) {
    words.push_back((variable += '=') += value);
  };
  set("LD_PRELOAD", FAILING_CALLS);
  set("FAIL_CALL", fault.call);
  set("FAIL_AT", std::to_string(at));
  set("FAIL_ERRNO", std::to_string(fault.error));
  set("FAIL_SAID", said_);
  if (ever) set("FAIL_EVER", "1");
  if (from != nullptr) set("FAIL_FROM", from);
  words.insert(words.end(), command.begin(), command.end());
  process_ = test_support::Process(words);
}

bool FaultRun::happened() const {
  return access(said_.c_str(), F_OK) == 0;
}

}  // namespace faults
