// SPDX-License-Identifier: Apache-2.0
// Static trace points, which a tracer switches on in a running process: docs/tracing.md. One that is off is an
// instruction that does nothing. Where there is no <sys/sdt.h>, there are none. `provider` is the program's or
// library's name.
#ifndef RSW_PROBE_H
#define RSW_PROBE_H

#if __has_include(<sys/sdt.h>)
#include <sys/sdt.h>
#define RSW_PROBE(provider, name) DTRACE_PROBE(provider, name)
#define RSW_PROBE3(provider, name, one, two, three) DTRACE_PROBE3(provider, name, one, two, three)
#define RSW_PROBE4(provider, name, one, two, three, four) DTRACE_PROBE4(provider, name, one, two, three, four)
#else
#define RSW_PROBE(provider, name) static_cast<void>(0)
#define RSW_PROBE3(provider, name, one, two, three) \
  (static_cast<void>(one), static_cast<void>(two), static_cast<void>(three))
#define RSW_PROBE4(provider, name, one, two, three, four) \
  (static_cast<void>(one), static_cast<void>(two), static_cast<void>(three), static_cast<void>(four))
#endif

#endif
