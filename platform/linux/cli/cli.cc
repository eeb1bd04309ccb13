// SPDX-License-Identifier: Apache-2.0
// Output of a command: a stream of the C library, which the command line has connected to a terminal, a pager or a
// file.
#include "cli.h"

#include <stdarg.h>
#include <stdio.h>

extern "C" {

void cli_new_printf(void *out, const char *format, ...) {
  va_list values;
  va_start(values, format);
  vfprintf(static_cast<FILE *>(out), format, values);
  va_end(values);
}

}  // extern "C"
