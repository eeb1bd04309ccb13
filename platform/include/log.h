// SPDX-License-Identifier: Apache-2.0
// Logging and debugging: the operator's messages, the developer's lines, the event history, and the small words that a
// message needs from the process (endpoint id, clock, random number).
//
// A catalogue message goes out in steps that are the caller's: look at the facility record's level, ask the rate
// limiter, then hand format and values to trel_obun_syslog. A debug line: ask sdwrap_chk_int, then buginf_func. On
// librsw the environment says where lines go: RSW_LOG, RSW_LOG_LEVEL, RSW_DEBUG, RSW_HISTORY (docs/environment.md).
//
// All calls here keep errno, and none of them ends the process.
#ifndef RSW_LOG_H
#define RSW_LOG_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// ------------------------------------------------------------------------------------------------- catalogue records
// Read by the log collector, which knows the 32-bit layouts; written by nobody after start-up.

// One message of a catalogue.
struct syslog_msg_rec {
  const char *name;    // "IP_FAILURE"
  uint32_t r4;         // reserved, 0
  const char *format;  // "<<%%%s-%d-NAME>> " and the text; facility name and severity are the first two values
  uint32_t severity;   // as syslog's: 0 most severe, 7 least
};
RSW_SIZE_32(struct syslog_msg_rec, 16);
RSW_OFFSET_32(struct syslog_msg_rec, format, 8);
RSW_OFFSET_32(struct syslog_msg_rec, severity, 12);

// How a message is reported; its address is what the rate limiter counts by.
struct msg_error_rec {
  uint32_t r0;                 // reserved, 0
  const char *name;            // the message's name
  const char *text;            // the format without its prefix
  uint32_t r12;                // reserved, 0
  uint32_t rate;               // 0: no limit; N: at most N messages in 10 seconds
  uint32_t r20[3];             // reserved, 0
  uint8_t min_level;           // the facility level from which the message is shown; equal to the severity
  uint8_t flags;               // bit 0: a traceback follows the message
  uint8_t r34[2];              // reserved, 0
  struct syslog_msg_rec *msg;  // the message
  uint32_t r40;                // reserved, 0
};
RSW_SIZE_32(struct msg_error_rec, 44);
RSW_OFFSET_32(struct msg_error_rec, name, 4);
RSW_OFFSET_32(struct msg_error_rec, text, 8);
RSW_OFFSET_32(struct msg_error_rec, rate, 16);
RSW_OFFSET_32(struct msg_error_rec, min_level, 32);
RSW_OFFSET_32(struct msg_error_rec, flags, 33);
RSW_OFFSET_32(struct msg_error_rec, msg, 36);
RSW_OFFSET_32(struct msg_error_rec, r40, 40);

// The component that a catalogue belongs to.
struct msg_component_rec {
  const char *name;
  uint32_t r4;  // reserved, 0
};
RSW_SIZE_32(struct msg_component_rec, 8);

// A facility of the log collector.
struct syslog_fac_rec {
  const char *name;
  uint32_t n1, n2;  // the collector's numbers for it
};
RSW_SIZE_32(struct syslog_fac_rec, 12);
RSW_OFFSET_32(struct syslog_fac_rec, n1, 4);
RSW_OFFSET_32(struct syslog_fac_rec, n2, 8);

// ---------------------------------------------------------------------------------------------- the process's records

// Under what name and down to which level this process logs.
struct libip_facility {
  const char *name;  // of the program
  uint32_t w4;       // the platform's
  uint8_t b8;        // the platform's
  uint8_t level;     // messages whose min_level is above it are not shown; 6 unless set otherwise
};
RSW_SIZE_32(struct libip_facility, 12);
RSW_OFFSET_32(struct libip_facility, w4, 4);
RSW_OFFSET_32(struct libip_facility, b8, 8);
RSW_OFFSET_32(struct libip_facility, level, 9);

// The process's facility; there from the start. A process that sets it to null wants no catalogue messages.
extern struct libip_facility *sdwrap_sys_facility;

// The preamble that a message's parameters carry a copy of, and the one parameter block of the process. Both are
// without a lock: two threads that report at once may mix their parameters, and nothing worse.
extern uint8_t syslog_preamble[40];
extern uint8_t syslog_vmsg_params[1024];

// What debug lines are labelled with: the module, and the process.
extern const char *sdwrap_dbg_modname;
extern const char *sdwrap_library_dbg_pid_and_tag;

// --------------------------------------------------------------------------------------------------------- messages

// Counts one message of a record and says whether it may pass. To be asked for every message, shown or not.
//   rec           the record; known by its address, which stays good for the life of the process
//   text          the message's text; for platforms that remember it
// Threads: any. Blocks: no. Owns: nothing.
// Results: 1: show it. 0: the record's rate is used up for now; what was held back is told in one line later.
uint32_t syslog_msg_rate_limit(struct msg_error_rec *rec, const char *text);

// Shows one message to the operator. The level and the rate are the caller's to ask before.
//   params        the parameter block, filled in; may be null. librsw does not look at it
//   severity      0 most severe
//   format        as printf's, with the values behind it; a line break at its end is not doubled
// Threads: any. Blocks: as syslog(3) and standard error do. Owns: nothing.
void trel_obun_syslog(void *params, uint32_t severity, const char *format, ...);

// Shows how the caller was reached: one line per frame, innermost first, under a message's name.
//   params        as trel_obun_syslog's
//   fac           the facility's name in upper case
//   severity      of the message that it follows
//   msg_name      of that message
// Threads: any. Blocks: as trel_obun_syslog. Owns: nothing.
void syslog_traceback(void *params, const char *fac, uint32_t severity, const char *msg_name);

// Shows a text and the reason in errno, as perror(3), at severity 3.
//   text          what failed; a line break at its end is dropped; null is no text
// Threads: any. Blocks: as trel_obun_syslog. Owns: nothing.
void syslog_perror(const char *text);

// --------------------------------------------------------------------------------------------------- debug lines

// Whether debug lines of a level are shown: to be asked before a line is worth formatting.
//   level         150 for all of libip's lines
// Threads: any. Blocks: no. Owns: nothing. Results: nonzero: shown. 0: not.
uint32_t sdwrap_chk_int(uint32_t level, uint32_t z1, uint32_t z2, uint32_t one);

// One debug line; nothing when debug output is off.
//   format        as printf's, with the values behind it; a line break at its end is not doubled
// Threads: any. Blocks: as the debug file or standard error does. Owns: nothing.
void buginf(const char *format, ...) RSW_PRINTF(1, 2);

// One debug line under a module's label.
//   module        sdwrap_dbg_modname
//   pid_and_tag   sdwrap_library_dbg_pid_and_tag
//   format        as printf's. libip passes text that it has formatted already: a '%' in it is a conversion here
// Threads: any. Blocks: as buginf. Owns: nothing.
void buginf_func(uint32_t one, const char *module, const char *pid_and_tag, uint32_t zero, const char *format, ...);

// --------------------------------------------------------------------------------------------------- event history

// Whether events of a subtype and level are kept.
// Threads: any. Blocks: no. Owns: nothing. Results: nonzero: hand them to sdwrap_hist_event. 0: do not.
uint32_t sdwrap_hist_event_subtype_check(uint32_t subtype, uint32_t level);

// Keeps one event in the process's history, where the oldest makes room for the newest.
//   subtype       what kind; 0x730000 for packet dumps
//   level         as a debug line's
//   format        as printf's; librsw keeps 159 characters of the text
// Threads: any. Blocks: no. Owns: nothing; the text is copied.
void sdwrap_hist_event(uint32_t subtype, uint32_t level, const char *format, ...) RSW_PRINTF(3, 4);

// ------------------------------------------------------------------------------------------------- words of a process

// snprintf(3) under the platform's name; a null %s argument is written as "(null)".
//   buf, size     room for the text and its terminator
// Threads: any. Blocks: no. Owns: nothing. Results: the length that the whole text has, without the terminator.
int ksink_snprintf(char *buf, size_t size, const char *format, ...);

// The endpoint id of a process of this node: what peers know it by. It stays the same for the process's life.
//   pid           the process id; 0: the caller's own
// Threads: any. Blocks: no. Owns: nothing. Results: the id, never 0.
uint32_t ksink_get_epid(uint32_t pid);

// Writes the monotonic clock: seconds, then nanoseconds, each a 32-bit word in host order.
//   clock8        8 bytes, of any alignment
// Threads: any. Blocks: no. Owns: nothing.
void trel_sys_mclock_get(void *clock8);

// A random number; good for spreading port numbers, not for secrets.
// Threads: any. Blocks: no. Owns: nothing. Results: all 32 bits random.
uint32_t ksink_trel_rand(uint32_t zero);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
