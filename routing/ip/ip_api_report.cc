// SPDX-License-Identifier: Apache-2.0
// Reporting: catalogue messages, the error text, debug lines.
//
// A catalogue message passes three gates: is there a facility at all, is its level high enough, does the rate limiter
// let it through. The limiter sees every message of a process without a facility, too, so that its counts are complete;
// it does not see what the level holds back. The formats of the catalogue already say "Failed to", and some callers'
// texts begin with "Failed" again: the doubled words are what operators' filters look for, they stay.
//
// Everything here writes to buffers that a process has once, without a lock: two threads that report at once may mix
// their texts. They are diagnostics; no query pays for a lock over them.
#include "report.h"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

extern "C" {

char ip_api_err_log[256];
char dbg_str[500];

uint32_t dbg_ip_register;
uint32_t dbg_ip_deregister;
uint32_t dbg_ip_cl_output;
uint32_t dbg_ip_cl_icmp_output;
uint32_t dbg_ip_cl_input;
uint32_t dbg_cl_input;
uint32_t dbg_ip_cl_consume;
uint32_t dbg_api_init;
uint32_t dbg_ip_api_misc;
uint32_t dbg_ip_icmp_error;
uint32_t dbg_get_message_queue;
uint32_t dbg_msg_set_notify;
uint32_t dbg_cl_mts_open;
uint32_t dbg_cl_mts_send;
uint32_t dbg_in_cksum;

char *ip_api_get_error(void) {
  return ip_api_err_log;
}
char *ip_get_api_error_info(void) {
  return ip_api_err_log;
}

}  // extern "C"

namespace libip {
namespace {

// The level of all debug lines of this library.
constexpr uint32_t debug_level = 150;

// The platform's message-parameter block.
struct MessageParameters {
  uint32_t version;  // 1
  uint32_t reserved4[3];
  uint32_t word16;  // 0
  uint32_t word20;  // 0
  uint8_t preamble[40];
  uint32_t word64;  // 1
  uint8_t reserved68[4];
  char blanks[2];
  uint8_t reserved74[950];
};
static_assert(sizeof(MessageParameters) == sizeof syslog_vmsg_params);
static_assert(offsetof(MessageParameters, word16) == 16);
static_assert(offsetof(MessageParameters, preamble) == 24);
static_assert(offsetof(MessageParameters, word64) == 64);
static_assert(offsetof(MessageParameters, blanks) == 72);
static_assert(sizeof(MessageParameters::preamble) == sizeof syslog_preamble);

void fill_message_parameters() {
  MessageParameters parameters{};
  parameters.version = 1;
  std::memcpy(parameters.preamble, syslog_preamble, sizeof parameters.preamble);
  parameters.word64 = 1;
  parameters.blanks[0] = ' ';
  parameters.blanks[1] = ' ';
  std::memcpy(syslog_vmsg_params, &parameters, sizeof parameters);
}

// The facility's name in upper case, whatever the locale says about letters.
const char *upper_case_facility(const libip_facility &facility) {
  static char upper[64];
  size_t length = 0;
  for (const char *from = facility.name; from != nullptr && *from != '\0' && length + 1 < sizeof upper; from++) {
    upper[length++] = *from >= 'a' && *from <= 'z' ? static_cast<char>(*from - 'a' + 'A') : *from;
  }
  upper[length] = '\0';
  return upper;
}

bool debug_level_on() {
  return sdwrap_chk_int(debug_level, 0, 0, 1) != 0;
}

// What stands in front of the next debug line. The platform's debug wrapper looks at it in a core dump.
[[gnu::used]] char debug_prefix[200];

void set_debug_prefix(std::string_view prefix) {
  std::memset(debug_prefix, 0, sizeof debug_prefix);
  std::copy(prefix.begin(), prefix.end(), debug_prefix);
}

void emit_debug_line() {
  if (!begin_debug_line()) return;
  // The line stands where a format is expected: the platform's wrapper takes it as it is.
  buginf_func(1, sdwrap_dbg_modname, sdwrap_library_dbg_pid_and_tag, 0, dbg_str);
}

// Appends words to the line, as far as there is room for them and a NUL; where the next ones go.
size_t add_debug_words(size_t at, std::string_view words) {
  // Relaxed, byte by byte: queries write this line without a flag, in several threads; they may mix their texts, and
  // nothing else hangs on it.
  for (const char letter : words) {
    if (at + 1 == sizeof dbg_str) break;
    __atomic_store_n(&dbg_str[at++], letter, __ATOMIC_RELAXED);
  }
  return at;
}

void end_debug_words(size_t at) {
  __atomic_store_n(&dbg_str[at], '\0', __ATOMIC_RELAXED);
}

}  // namespace

bool begin_debug_line() {
  if (!debug_level_on()) return false;
  set_debug_prefix(") ");
  return debug_level_on();
}

const char *pass_gates(msg_error_rec &message, const char *text) {
  const libip_facility *facility = sdwrap_sys_facility;
  if (facility == nullptr) {
    syslog_msg_rate_limit(&message, text);
    return nullptr;
  }
  if (facility->level < message.min_level) return nullptr;
  if (syslog_msg_rate_limit(&message, text) != 1) return nullptr;
  fill_message_parameters();
  return upper_case_facility(*facility);
}

void finish_report(const msg_error_rec &message, const char *name) {
  constexpr uint8_t adds_traceback = 1;
  if ((message.flags & adds_traceback) != 0) {
    syslog_traceback(syslog_vmsg_params, name, message.msg->severity, message.msg->name);
  }
}

void report(msg_error_rec &message, const char *text) {
  // A format without a conversion for the text ignores it.
  report_values(message, text, text);
}

void set_error_text(const char *format, ...) {
  char text[sizeof ip_api_err_log] = {};
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  // Relaxed, byte by byte, like clear_error_text(): threads that fail at once may mix their texts, and nothing else.
  for (size_t i = 0; i < sizeof text; i++) {
    __atomic_store_n(&ip_api_err_log[i], text[i], __ATOMIC_RELAXED);
    if (text[i] == '\0') break;
  }
}

// The first byte last: it is what clear_error_text() looks at.
[[gnu::cold]] void wipe_error_text() {
  for (size_t i = sizeof ip_api_err_log; i-- > 0;) __atomic_store_n(&ip_api_err_log[i], '\0', __ATOMIC_RELAXED);
}

void debug_line(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(dbg_str, sizeof dbg_str, format, arguments);
  va_end(arguments);
  emit_debug_line();
}

void debug_words(std::string_view text, std::string_view value) {
  end_debug_words(add_debug_words(add_debug_words(0, text), value));
  emit_debug_line();
}

void debug_words(std::string_view text, std::string_view value, std::string_view text2, uint32_t number) {
  char digits[10];
  const char *end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  size_t at = add_debug_words(add_debug_words(add_debug_words(0, text), value), text2);
  at = add_debug_words(at, std::string_view(digits, static_cast<size_t>(end - digits)));
  end_debug_words(at);
  emit_debug_line();
}

}  // namespace libip
