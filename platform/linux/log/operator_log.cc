// SPDX-License-Identifier: Apache-2.0
// The operator's lines: catalogue messages as libip emits them, and librsw's own.
//
// libip asks the facility record for its level, then the rate limiter, then hands format and arguments over. Nothing
// here asks again, so that a caller's decision stands. The parameter block is the caller's to fill and is not looked
// at: on this platform the program's name and process id stand before each line, and syslog(3) adds its own time.
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "channels.h"
#include "log.h"
#include "log/log_writer.h"
#include "rate_limit.h"

namespace {

constinit rsw::RateLimiter limiter;

uint64_t monotonic_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

// Windows that ended are told in the class of their messages, and not at all while the process has no facility.
void tell_suppressed(const rsw::RateLimiter::Suppressed &window) {
  const uint32_t severity = window.record->min_level;
  if (sdwrap_sys_facility == nullptr || severity > sdwrap_sys_facility->level) return;
  rsw::channels::operator_line(severity, "%s: %u messages suppressed", window.record->name, window.count);
}

const char *base_name(const char *path) {
  const char *slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

}  // namespace

namespace rsw {

void log_line(uint32_t severity, const char *format, ...) {
  if (severity > channels::operator_level()) return;
  const channels::ErrnoKept kept;
  va_list arguments;
  va_start(arguments, format);
  channels::operator_vline(severity, format, arguments);
  va_end(arguments);
}

}  // namespace rsw

extern "C" {

uint32_t syslog_msg_rate_limit(struct msg_error_rec *rec, const char *) {
  if (rec == nullptr) return 0;
  const rsw::channels::ErrnoKept kept;
  rsw::RateLimiter::Answer answer;
  limiter.count(rec, monotonic_ms(), &answer);
  for (size_t i = 0; i < answer.ended; ++i) tell_suppressed(answer.turned[i]);
  return answer.allowed ? 1 : 0;
}

void trel_obun_syslog(void *, uint32_t severity, const char *format, ...) {
  if (format == nullptr) return;
  const rsw::channels::ErrnoKept kept;
  va_list arguments;
  va_start(arguments, format);
  rsw::channels::operator_vline(severity, format, arguments);
  va_end(arguments);
}

void syslog_traceback(void *, const char *fac, uint32_t severity, const char *msg_name) {
  const rsw::channels::ErrnoKept kept;
  void *frames[24];
  const int depth = backtrace(frames, 24);
  // The first frames are this function's and, under a sanitizer, the sanitizer's: the caller's begins where we return
  // to.
  int first = 0;
  while (first < depth && frames[first] != __builtin_return_address(0)) ++first;
  if (first == depth) first = 0;
  for (int i = first; i < depth; ++i) {
    Dl_info where{};
    char symbol[160] = "";
    const char *module = "?";
    uintptr_t offset = reinterpret_cast<uintptr_t>(frames[i]);
    if (dladdr(frames[i], &where) != 0 && where.dli_fname != nullptr) {
      module = base_name(where.dli_fname);
      offset -= reinterpret_cast<uintptr_t>(where.dli_fbase);
      if (where.dli_sname != nullptr) {
        snprintf(
            symbol, sizeof symbol, " (%s+0x%zx)", where.dli_sname,
            static_cast<size_t>(reinterpret_cast<uintptr_t>(frames[i]) - reinterpret_cast<uintptr_t>(where.dli_saddr)));
      }
    }
    rsw::channels::operator_line(severity, "<<%%%s-%u-%s>> traceback #%d: %s+0x%zx%s", fac != nullptr ? fac : "?",
                                 severity, msg_name != nullptr ? msg_name : "?", i - first, module,
                                 static_cast<size_t>(offset), symbol);
  }
}

void syslog_perror(const char *text) {
  const rsw::channels::ErrnoKept kept;
  const int reason = errno;
  if (text == nullptr) text = "";
  const size_t length = strcspn(text, "\n");
  rsw::channels::operator_line(3, "%.*s%s%s", static_cast<int>(length), text, length != 0 && reason != 0 ? ": " : "",
                               reason != 0 ? strerror(reason) : "");
}

}  // extern "C"
