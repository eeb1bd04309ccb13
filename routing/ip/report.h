// SPDX-License-Identifier: Apache-2.0
// The ways in which this library says that something went wrong: a catalogue message for the operator, the error text
// for the calling program, a debug line for a developer. Which one a function uses is part of its contract.
#ifndef IP_REPORT_H
#define IP_REPORT_H

#include <string_view>

#include "ip_api.h"
#include "log.h"

namespace libip {

// A formatted message text, its terminating NUL included.
inline constexpr size_t message_text_size = 120;

// Emits a catalogue message whose only argument is `text`, rate-limited. A message without an argument shows its own
// words; its text then reaches only the rate limiter.
void report(msg_error_rec &message, const char *text);

// The gates of a message: null when it stops at one; else the facility's name, and the parameter block is filled in.
const char *pass_gates(msg_error_rec &message, const char *text);

// What follows a message that was printed.
void finish_report(const msg_error_rec &message, const char *name);

// Emits a catalogue message whose arguments are not one text: `text` is what the rate limiter sees of it.
template <class... Values>
[[gnu::noinline, gnu::cold]] void report_values(msg_error_rec &message, const char *text, Values... values) {
  const char *name = pass_gates(message, text);
  if (name == nullptr) return;
  trel_obun_syslog(syslog_vmsg_params, message.msg->severity, message.msg->format, name, message.msg->severity,
                   values...);
  finish_report(message, name);
}

// As report(), with a text that is formatted first. A null string shows as "(null)".
// Apart from its callers, so that a query which has nothing to report makes no room for a text.
template <class... Arguments>
[[gnu::noinline, gnu::cold]] void report_formatted(msg_error_rec &message, const char *format, Arguments... arguments) {
  char text[message_text_size];
  ksink_snprintf(text, sizeof text, format, arguments...);
  report(message, text);
}

// Fills the error text with zeros.
void wipe_error_text();

// Empties the error text, all of it: on entry of every query that uses it. Several threads query at once: it is not
// written to when it is empty already, so that it stays in all their caches.
inline void clear_error_text() {
  // Relaxed: the text is a diagnostic without an owner; no other memory hangs on it.
  if (__atomic_load_n(&ip_api_err_log[0], __ATOMIC_RELAXED) != '\0') [[unlikely]]
    wipe_error_text();
}

// Writes the reason of a failed query, at most 255 characters.
__attribute__((format(printf, 1, 2))) void set_error_text(const char *format, ...);

// Emits a debug line, to be called when its flag is set: formatted first, gated by the platform's debug level after.
__attribute__((format(printf, 1, 2))) void debug_line(const char *format, ...);

// What debug lines show of an address.
inline uint32_t shown_address(const void *address) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address));
}

// The same line from a text, a value and, if wanted, a second text and number, put together without printf: for lines
// that are made whether or not the level is on.
void debug_words(std::string_view text, std::string_view value);
void debug_words(std::string_view text, std::string_view value, std::string_view text2, uint32_t number);

// Is the debug level on? Sets what stands in front of the line if so.
bool begin_debug_line();

// A debug line that the platform formats: dbg_str does not see it. Gated before.
template <class... Arguments>
void direct_debug_line(const char *format, Arguments... arguments) {
  if (!begin_debug_line()) return;
  buginf_func(1, sdwrap_dbg_modname, sdwrap_library_dbg_pid_and_tag, 0, format, arguments...);
}

}  // namespace libip

#endif
