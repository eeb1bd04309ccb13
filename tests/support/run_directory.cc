// SPDX-License-Identifier: Apache-2.0
#include "support/run_directory.h"

#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace test_support {
namespace {

// Several tests run at a time, and the largest fills some hundred megabytes. A container's is often of 64.
constexpr uint64_t enough_room = uint64_t{1} << 30;

bool has_room(const char *directory) {
  struct statvfs system {};
  return access(directory, W_OK) == 0 && statvfs(directory, &system) == 0 &&
         uint64_t{system.f_bavail} * system.f_frsize >= enough_room;
}

}  // namespace

RunDirectory::RunDirectory() {
  const char *base = has_room("/dev/shm") ? "/dev/shm" : "/tmp";
  std::string pattern = std::string(base) + "/rsw-test-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a run directory under " + pattern);
  path_ = pattern;
  const char *previous = getenv("RSW_RUN_DIR");
  had_previous_ = previous != nullptr;
  if (had_previous_) previous_ = previous;
  setenv("RSW_RUN_DIR", path_.c_str(), 1);
}

RunDirectory::~RunDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
  if (had_previous_) {
    setenv("RSW_RUN_DIR", previous_.c_str(), 1);
  } else {
    unsetenv("RSW_RUN_DIR");
  }
}

bool wait_until(const std::function<bool()> &condition, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    const timespec pause{0, 200000};
    nanosleep(&pause, nullptr);
  }
  return true;
}

}  // namespace test_support
