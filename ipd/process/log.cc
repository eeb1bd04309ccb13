// SPDX-License-Identifier: Apache-2.0
#include "ipd/process/log.h"

#include <cstdarg>
#include <cstdio>

namespace ipd {
namespace {

int limit = LOG_NOTICE;
bool to_syslog = false;

}  // namespace

void log_line(int level, const char *format, ...) {
  if (level > limit) return;
  va_list arguments;
  va_start(arguments, format);
  if (to_syslog) {
    vsyslog(level, format, arguments);
  } else {
    char line[1024];
    vsnprintf(line, sizeof line, format, arguments);
    fprintf(stderr, "ipd: %s\n", line);
  }
  va_end(arguments);
}

void set_log_limit(int level) {
  limit = level;
}

void log_to_syslog() {
  openlog("ipd", LOG_PID, LOG_DAEMON);
  to_syslog = true;
}

}  // namespace ipd
