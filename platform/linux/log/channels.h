// SPDX-License-Identifier: Apache-2.0
// Where lines go: the operator's channel (syslog(3), standard error) and the developer's (debug output). Private to
// this folder.
#ifndef RSW_LOG_CHANNELS_H
#define RSW_LOG_CHANNELS_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace rsw::channels {

inline constexpr size_t line_size = 1024;  // of one line, terminator included; longer ones are cut

// Keeps errno for a caller that asks for it after it reported.
class ErrnoKept {
 public:
  ErrnoKept();
  ~ErrnoKept();
  ErrnoKept(const ErrnoKept &) = delete;
  ErrnoKept &operator=(const ErrnoKept &) = delete;

 private:
  int value_;
};

// One line to the operator, whatever its severity: the caller has asked the facility's level.
void operator_line(uint32_t severity, const char *format, ...) __attribute__((format(printf, 2, 3)));
void operator_vline(uint32_t severity, const char *format, va_list arguments);

// One line to the developer; nothing when debug output is off. `label` may be empty, not null.
[[nodiscard]] bool debug_on();
void debug_vline(const char *label, const char *format, va_list arguments);

// Whether sdwrap_hist_event keeps events.
[[nodiscard]] bool history_on();

// The facility's level, or the default when the process took the facility away.
[[nodiscard]] uint32_t operator_level();

// "program" for a line's beginning; never null.
[[nodiscard]] const char *program_name();

}  // namespace rsw::channels

#endif
