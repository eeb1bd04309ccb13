// SPDX-License-Identifier: Apache-2.0
#include "fake_platform/scripts.h"

namespace fake_platform {

Scripts::Script &Scripts::script(std::string_view function) {
  const auto found = scripts_.find(function);
  if (found != scripts_.end()) return found->second;
  return scripts_[std::string(function)];
}

void Scripts::answer(std::string_view function, uintptr_t value) {
  const std::scoped_lock hold(mutex_);
  script(function).every = Answer{.fails = false, .value = value};
}

void Scripts::answer_call(std::string_view function, unsigned n, uintptr_t value) {
  const std::scoped_lock hold(mutex_);
  Script &entry = script(function);
  entry.nth[entry.calls + n] = Answer{.fails = false, .value = value};
}

void Scripts::fail(std::string_view function) {
  const std::scoped_lock hold(mutex_);
  script(function).every = Answer{.fails = true, .value = 0};
}

void Scripts::fail_call(std::string_view function, unsigned n) {
  const std::scoped_lock hold(mutex_);
  Script &entry = script(function);
  entry.nth[entry.calls + n] = Answer{.fails = true, .value = 0};
}

void Scripts::succeed(std::string_view function) {
  const std::scoped_lock hold(mutex_);
  Script &entry = script(function);
  entry.every.reset();
  entry.nth.clear();
}

std::optional<Scripts::Answer> Scripts::next(std::string_view function) {
  const std::scoped_lock hold(mutex_);
  Script &entry = script(function);
  entry.calls++;
  if (const auto found = entry.nth.find(entry.calls); found != entry.nth.end()) {
    found->second.used = true;
    return found->second;
  }
  if (entry.every) entry.every->used = true;
  return entry.every;
}

std::vector<std::string> Scripts::unused() const {
  const std::scoped_lock hold(mutex_);
  std::vector<std::string> names;
  for (const auto &[function, entry] : scripts_) {
    if (entry.every && !entry.every->used) names.push_back(function);
    for (const auto &[n, answer] : entry.nth) {
      if (!answer.used) names.push_back(function + ", call " + std::to_string(n));
    }
  }
  return names;
}

void Scripts::reset() {
  const std::scoped_lock hold(mutex_);
  scripts_.clear();
}

}  // namespace fake_platform
