// SPDX-License-Identifier: Apache-2.0
// ipd's lines to the operator: to standard error while it has one (in the foreground, and until a daemon is live), to
// syslog afterwards. Not for readers' answers: those go through the library's own catalogue.
#ifndef IPD_PROCESS_LOG_H
#define IPD_PROCESS_LOG_H

#include <syslog.h>

namespace ipd {

// level as in syslog(3): LOG_ERR ... LOG_DEBUG. Lines less severe than the limit are not printed; LOG_NOTICE at first.
void log_line(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));
void set_log_limit(int level);
// From now on lines go to syslog.
void log_to_syslog();

}  // namespace ipd

#endif
