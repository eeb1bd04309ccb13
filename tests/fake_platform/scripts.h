// SPDX-License-Identifier: Apache-2.0
// What the calls of the contract answer. A function without a script succeeds. A test gives it another answer, for
// every call, for the next one, or for the n-th; "fail" gives the function's own failure value.
//
// A script that never came into play is a mistake of the test (a misspelt name, a call that is not made): unused()
// names it, and the fixtures fail on it.
#ifndef TESTS_FAKE_PLATFORM_SCRIPTS_H
#define TESTS_FAKE_PLATFORM_SCRIPTS_H

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fake_platform {

class Scripts {
 public:
  void answer(std::string_view function, uintptr_t value);                   // every call from now on
  void answer_call(std::string_view function, unsigned n, uintptr_t value);  // the n-th call from now on, 1 = next
  void fail(std::string_view function);                                      // every call from now on
  void fail_call(std::string_view function, unsigned n);
  void succeed(std::string_view function);  // forget what was said of it

  template <class T>
  T result(std::string_view function, T success, T failure) {
    const std::optional<Answer> answer = next(function);
    if (!answer) return success;
    if (answer->fails) return failure;
    return (T)answer->value;  // the one cast that makes a number or a pointer of it
  }

  [[nodiscard]] std::vector<std::string> unused() const;
  void reset();

 private:
  struct Answer {
    bool fails;
    uintptr_t value;
    bool used = false;
  };
  struct Script {
    std::optional<Answer> every;
    std::map<unsigned, Answer> nth;  // key: the call's number, counted from 1 since reset
    unsigned calls = 0;
  };

  std::optional<Answer> next(std::string_view function);
  Script &script(std::string_view function);

  mutable std::mutex mutex_;
  std::map<std::string, Script, std::less<>> scripts_;
};

}  // namespace fake_platform

#endif
