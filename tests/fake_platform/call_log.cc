// SPDX-License-Identifier: Apache-2.0
#include "fake_platform/call_log.h"

#include <algorithm>

namespace fake_platform {

std::string dotted(uint32_t host_order) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    text += std::to_string((host_order >> shift) & 0xff);
    if (shift != 0) text += '.';
  }
  return text;
}

void CallLog::append(std::string &line, const char *text) {
  if (text == nullptr) {
    line += "null";
    return;
  }
  line += '"';
  line += text;
  line += '"';
}

void CallLog::append(std::string &line, const void *pointer) const {
  if (pointer == nullptr) {
    line += "null";
    return;
  }
  const auto found = names_.find(pointer);
  line += found == names_.end() ? "?" : found->second;
}

void CallLog::name(const void *address, std::string text) {
  const std::scoped_lock hold(mutex_);
  names_[address] = std::move(text);
}

std::vector<std::string> CallLog::lines() const {
  const std::scoped_lock hold(mutex_);
  return lines_;
}

size_t CallLog::count(std::string_view function) const {
  const std::scoped_lock hold(mutex_);
  return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const std::string &line) {
    return line.size() > function.size() && line.starts_with(function) && line[function.size()] == '(';
  }));
}

void CallLog::clear() {
  const std::scoped_lock hold(mutex_);
  lines_.clear();
}

void CallLog::record(bool on) {
  const std::scoped_lock hold(mutex_);
  recording_ = on;
}

void CallLog::reset() {
  const std::scoped_lock hold(mutex_);
  lines_.clear();
  names_.clear();
  recording_ = true;
}

}  // namespace fake_platform
