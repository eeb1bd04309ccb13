// SPDX-License-Identifier: Apache-2.0
// The developer's channel and the event history.
//
// Debug output has one switch for the whole process, RSW_DEBUG, and one level: whoever turns it on wants to see what
// the debug flags of the libraries let through, so every level is enabled then and none otherwise.
//
// The history is a ring of the last 256 events that sdwrap_hist_event was given, in this process's own memory, always
// on unless RSW_HISTORY=off: it is read after the fact, when it is too late to turn something on. A text longer than
// its 159 characters is cut. One mutex guards the ring; formatting is done before it is taken.
#include <time.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "channels.h"
#include "log.h"
#include "log/log_writer.h"

namespace {

constexpr size_t history_size = 256;
constinit std::mutex history_mutex;
rsw::HistoryEvent history[history_size];
uint64_t history_count = 0;  // of all events so far; the next one's number

}  // namespace

namespace rsw {

uint32_t each_history_event(const std::function<void(const HistoryEvent &)> &show) {
  uint64_t number = 0;
  uint32_t shown = 0;
  while (true) {
    HistoryEvent event;
    {
      const std::lock_guard guard(history_mutex);
      if (history_count > history_size && number < history_count - history_size) number = history_count - history_size;
      if (number >= history_count || shown == history_size) return shown;
      event = history[number % history_size];
    }
    show(event);
    ++number;
    ++shown;
  }
}

}  // namespace rsw

extern "C" {

void buginf(const char *format, ...) {
  if (format == nullptr) return;
  const rsw::channels::ErrnoKept kept;
  va_list arguments;
  va_start(arguments, format);
  rsw::channels::debug_vline("", format, arguments);
  va_end(arguments);
}

void buginf_func(uint32_t, const char *module, const char *pid_and_tag, uint32_t, const char *format, ...) {
  if (format == nullptr || !rsw::channels::debug_on()) return;
  const rsw::channels::ErrnoKept kept;
  char label[128];
  snprintf(label, sizeof label, "%s %s ", module != nullptr ? module : "?", pid_and_tag != nullptr ? pid_and_tag : "");
  va_list arguments;
  va_start(arguments, format);
  rsw::channels::debug_vline(label, format, arguments);
  va_end(arguments);
}

uint32_t sdwrap_chk_int(uint32_t, uint32_t, uint32_t, uint32_t) {
  return rsw::channels::debug_on() ? 1 : 0;
}

uint32_t sdwrap_hist_event_subtype_check(uint32_t, uint32_t) {
  return rsw::channels::history_on() ? 1 : 0;
}

void sdwrap_hist_event(uint32_t subtype, uint32_t level, const char *format, ...) {
  if (format == nullptr || !rsw::channels::history_on()) return;
  const rsw::channels::ErrnoKept kept;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  rsw::HistoryEvent event{};
  event.monotonic_ns = static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
  event.subtype = subtype;
  event.level = level;
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(event.text, sizeof event.text, format, arguments);
  va_end(arguments);
  const std::lock_guard guard(history_mutex);
  event.number = history_count;
  history[history_count++ % history_size] = event;
}

}  // extern "C"
