// SPDX-License-Identifier: Apache-2.0
// What a piece of code writes to standard error, as text; and an environment variable set for one test.
#ifndef TESTS_PLATFORM_STANDARD_ERROR_H
#define TESTS_PLATFORM_STANDARD_ERROR_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>

namespace test_support {

inline std::string standard_error_of(const std::function<void()> &action) {
  fflush(stderr);
  const int file = memfd_create("stderr", MFD_CLOEXEC);
  fcntl(file, F_SETFL, O_APPEND);
  const int saved = dup(STDERR_FILENO);
  dup2(file, STDERR_FILENO);
  action();
  fflush(stderr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
  if (pread(file, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) text.clear();
  close(file);
  return text;
}

class Environment {
 public:
  Environment(const char *name, const char *value) : name_(name) {
    if (const char *previous = getenv(name)) previous_ = previous;
    set(value);
  }
  ~Environment() { set(previous_ ? previous_->c_str() : nullptr); }
  Environment(const Environment &) = delete;
  Environment &operator=(const Environment &) = delete;

 private:
  void set(const char *value) const {
    if (value != nullptr) {
      setenv(name_, value, 1);
    } else {
      unsetenv(name_);
    }
  }
  const char *name_;
  std::optional<std::string> previous_;
};

}  // namespace test_support

#endif
