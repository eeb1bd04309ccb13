// SPDX-License-Identifier: Apache-2.0
// What the headers of the platform contract share: how they promise a layout, and how they name a format string.
//
// The contract is the set of headers in this directory: one per platform library that libip calls. Whoever provides
// functions with these names, arguments and results can be put under libip; librsw does it for a stock Linux host. Each
// header stands alone, in C11 and C++20, 32 and 64 bits. They all speak in the same words:
//
//   iod         an interface, as the interface manager numbers them; 0 is no interface
//   component   the number of a client library; IP's is 267. The interface manager's slots and the memory tracker's
//               tables go by it
//   host order  addresses are 32-bit words, first octet most significant: 10.0.0.0 is 0x0a000000; `_net`: network order
//   Threads     who may call at once: "any" is any number of threads; "start-up" is code that runs while no other
//               thread uses the library
//   Blocks      whether the call can wait for anything: a message, a disk, another process. A short critical section
//               between threads of the process does not count
//   Owns        what changes hands; "nothing" leaves everything with whoever had it
//
// Arguments that are always the same constant are named after it (`zero`, `one`, `kind6`): pass that value and nothing
// else. A platform may refuse others.
#ifndef RSW_CONTRACT_H
#define RSW_CONTRACT_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

// Layout promises, on the line after a type. Records of fixed-width words have one layout in every build; records with
// natural pointers stay inside one process, and what is promised of them are their 32-bit offsets and the order.
#define RSW_SIZE(record, bytes) \
  static_assert(sizeof(record) == (bytes), "size of " #record ": somebody else's copy of the record would be misread")
#define RSW_OFFSET(record, member, bytes)            \
  static_assert(offsetof(record, member) == (bytes), \
                "offset of " #member " in " #record ": somebody else's copy of the record would be misread")
#if UINTPTR_MAX == 0xffffffffu
#define RSW_SIZE_32(record, bytes) RSW_SIZE(record, bytes)
#define RSW_OFFSET_32(record, member, bytes) RSW_OFFSET(record, member, bytes)
#else
#define RSW_SIZE_32(record, bytes) \
  static_assert(sizeof(record) >= (bytes), "size of " #record ": pointers got wider, nothing else may have changed")
#define RSW_OFFSET_32(record, member, bytes)         \
  static_assert(offsetof(record, member) >= (bytes), \
                "offset of " #member " in " #record ": pointers got wider, nothing else may have changed")
#endif

// The function takes a printf format as argument number `format`; its values begin at number `first`.
#define RSW_PRINTF(format, first) __attribute__((__format__(__printf__, format, first)))

#endif
