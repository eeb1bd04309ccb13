// SPDX-License-Identifier: Apache-2.0
// What the code under test prints to standard output while a ConsoleCapture lives.
#ifndef TESTS_FAKE_PLATFORM_CONSOLE_H
#define TESTS_FAKE_PLATFORM_CONSOLE_H

#include <string>

namespace fake_platform {

class ConsoleCapture {
 public:
  ConsoleCapture();
  ~ConsoleCapture();  // gives standard output back
  ConsoleCapture(const ConsoleCapture &) = delete;
  ConsoleCapture &operator=(const ConsoleCapture &) = delete;
  [[nodiscard]] std::string text();  // printed so far

 private:
  int file_;
  int saved_;
};

}  // namespace fake_platform

#endif
