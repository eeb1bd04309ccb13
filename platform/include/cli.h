// SPDX-License-Identifier: Apache-2.0
// Command-line output: what a show command prints goes through this call, so that the command line can page and
// redirect it. libip prints an interface's address summary with it.
#ifndef RSW_CLI_H
#define RSW_CLI_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Writes formatted text to a command's output.
//   out     the command's output handle, as the command line gave it to the caller; not null. librsw: a FILE *
//   format  as printf's; line breaks are the caller's
// Threads: the one that runs the command. Blocks: as the command's terminal does. Owns: nothing; text is copied.
void cli_new_printf(void *out, const char *format, ...) RSW_PRINTF(2, 3);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
