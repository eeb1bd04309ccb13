// SPDX-License-Identifier: Apache-2.0
// Logging, debug lines, bounded formatting, clocks and random numbers. Everything that would reach an operator or a
// developer is kept as text. Bounded formatting is kept apart from the calls: it is arithmetic on text, and where it
// happens says nothing about the order of what the library does.
#include "log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "fake_platform/platform.h"

using fake_platform::Bare;
using fake_platform::platform;

struct libip_facility *sdwrap_sys_facility = nullptr;
uint8_t syslog_preamble[40];
uint8_t syslog_vmsg_params[1024];
const char *sdwrap_dbg_modname = "fake-module";
const char *sdwrap_library_dbg_pid_and_tag = "[77] fake";

namespace {

std::string format_text(const char *format, va_list arguments) {
  char text[2048];
  std::vsnprintf(text, sizeof text, format, arguments);
  return text;
}

}  // namespace

uint32_t syslog_msg_rate_limit(struct msg_error_rec *rec, const char *text) {
  platform().log.call(__func__, Bare{rec->name}, text);
  return platform().scripts.result<uint32_t>(__func__, 1, 0);
}

void trel_obun_syslog(void *params, uint32_t severity, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  fake_platform::SyslogLine line{
      .severity = severity, .format = format, .text = format_text(format, arguments), .parameters = {}};
  va_end(arguments);
  std::memcpy(line.parameters.data(), params, line.parameters.size());
  platform().log.call(__func__, static_cast<const void *>(params), severity, line.text.c_str());
  platform().syslog.push_back(std::move(line));
}

void syslog_traceback(void *params, const char *fac, uint32_t severity, const char *msg_name) {
  platform().log.call(__func__, static_cast<const void *>(params), fac, severity, msg_name);
}

void syslog_perror(const char *text) {
  platform().log.call(__func__, text);
}

void buginf(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = format_text(format, arguments);
  va_end(arguments);
  platform().log.call(__func__, text.c_str());
  platform().debug_lines.push_back(text);
}

void buginf_func(uint32_t one, const char *module, const char *pid_and_tag, uint32_t zero, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = format_text(format, arguments);
  va_end(arguments);
  platform().log.call(__func__, one, module, pid_and_tag, zero, text.c_str());
  platform().debug_lines.push_back(text);
}

// Debug lines are off unless a test switches them on.
uint32_t sdwrap_chk_int(uint32_t level, uint32_t z1, uint32_t z2, uint32_t one) {
  platform().log.call(__func__, level, z1, z2, one);
  return platform().scripts.result<uint32_t>(__func__, 0, 0);
}

void sdwrap_hist_event(uint32_t subtype, uint32_t level, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = format_text(format, arguments);
  va_end(arguments);
  platform().log.call(__func__, subtype, level, text.c_str());
}

uint32_t sdwrap_hist_event_subtype_check(uint32_t subtype, uint32_t level) {
  platform().log.call(__func__, subtype, level);
  return platform().scripts.result<uint32_t>(__func__, 0, 0);
}

int ksink_snprintf(char *buf, size_t size, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buf, size, format, arguments);
  va_end(arguments);
  platform().formatted.push_back({.limit = size, .text = size > 0 ? buf : ""});
  return length;
}

uint32_t ksink_get_epid(uint32_t pid) {
  platform().log.call(__func__, pid);
  return platform().scripts.result<uint32_t>(__func__, pid + 1000, 0);
}

void trel_sys_mclock_get(void *clock8) {
  platform().log.call(__func__);
  const uint32_t words[2] = {0x01020304, 0x05060708};
  std::memcpy(clock8, words, sizeof words);
}

uint32_t ksink_trel_rand(uint32_t zero) {
  platform().log.call(__func__, zero);
  return platform().scripts.result<uint32_t>(__func__, 0x12345678, 0);
}
