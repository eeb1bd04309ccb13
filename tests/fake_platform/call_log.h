// SPDX-License-Identifier: Apache-2.0
// The calls that the code under test made, in order, as text lines that a test compares whole:
//
//   tsp_lock_acquire_rdlock(7)
//   pt_lookup(tree of red, 10.0.0.1, 32, 1)
//
// Numbers are decimal, strings quoted, addresses dotted; a pointer is shown by the name that a test or a builder gave
// to its address, "null", or "?" when nobody named it.
#ifndef TESTS_FAKE_PLATFORM_CALL_LOG_H
#define TESTS_FAKE_PLATFORM_CALL_LOG_H

#include <concepts>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fake_platform {

struct Address {  // shown dotted
  uint32_t host_order;
};
struct Bare {  // shown without quotes
  std::string text;
};

std::string dotted(uint32_t host_order);

class CallLog {
 public:
  template <class... Args>
  void call(std::string_view function, const Args &...args) {
    const std::scoped_lock hold(mutex_);
    std::string line(function);
    line += '(';
    [[maybe_unused]] bool first = true;
    ((line += std::exchange(first, false) ? "" : ", ", append(line, args)), ...);
    line += ')';
    if (recording_) lines_.push_back(std::move(line));
  }

  // Gives the address a name in later lines.
  void name(const void *address, std::string text);

  [[nodiscard]] std::vector<std::string> lines() const;
  [[nodiscard]] size_t count(std::string_view function) const;  // calls of that function
  void clear();
  // A loop of millions of queries does not need its lines.
  void record(bool on);
  void reset();

 private:
  static void append(std::string &line, std::integral auto value) { line += std::to_string(value); }
  static void append(std::string &line, const char *text);
  static void append(std::string &line, const Address &address) { line += dotted(address.host_order); }
  static void append(std::string &line, const Bare &bare) { line += bare.text; }
  void append(std::string &line, const void *pointer) const;

  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::map<const void *, std::string> names_;
  bool recording_ = true;
};

}  // namespace fake_platform

#endif
