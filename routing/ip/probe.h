// SPDX-License-Identifier: Apache-2.0
// Static trace points, which a tracer switches on in a running process: docs/tracing.md. One that is off is an
// instruction that does nothing. Where there is no <sys/sdt.h>, there are none.
#ifndef IP_PROBE_H
#define IP_PROBE_H

#if __has_include(<sys/sdt.h>)
#include <sys/sdt.h>
#define IP_PROBE1(name, one) DTRACE_PROBE1(libip, name, one)
#define IP_PROBE3(name, one, two, three) DTRACE_PROBE3(libip, name, one, two, three)
#define IP_PROBE4(name, one, two, three, four) DTRACE_PROBE4(libip, name, one, two, three, four)
#else
#define IP_PROBE1(name, one) static_cast<void>(one)
#define IP_PROBE3(name, one, two, three) (static_cast<void>(one), static_cast<void>(two), static_cast<void>(three))
#define IP_PROBE4(name, one, two, three, four) \
  (static_cast<void>(one), static_cast<void>(two), static_cast<void>(three), static_cast<void>(four))
#endif

#endif
