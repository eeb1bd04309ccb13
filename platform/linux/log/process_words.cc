// SPDX-License-Identifier: Apache-2.0
// Small things that a message or a packet needs from the platform: bounded formatting, an endpoint id, the monotonic
// clock, a random word.
//
// An endpoint id names a process of one node: the node's number, 1 for this only node, in the top byte and the process
// id, which Linux keeps below 2^22, under it. So it lives as long as the process, is never 0, and two live processes
// differ.
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "channels.h"
#include "log.h"

namespace {
constexpr uint32_t this_node = 1u << 24;
}

extern "C" {

int ksink_snprintf(char *buf, size_t size, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buf, size, format, arguments);
  va_end(arguments);
  return length;
}

uint32_t ksink_get_epid(uint32_t pid) {
  return this_node | ((pid != 0 ? pid : static_cast<uint32_t>(getpid())) & (this_node - 1));
}

void trel_sys_mclock_get(void *clock8) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint32_t words[2] = {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec)};
  memcpy(clock8, words, sizeof words);  // the destination is 4-aligned at best
}

uint32_t ksink_trel_rand(uint32_t) {
  const rsw::channels::ErrnoKept kept;
  uint32_t word = 0;
  if (getrandom(&word, sizeof word, GRND_NONBLOCK) == sizeof word) return word;
  // Early in a boot the kernel may have nothing yet. Callers spread port numbers with this; they keep no secret with
  // it.
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (static_cast<uint32_t>(now.tv_nsec) ^ static_cast<uint32_t>(getpid()) << 16) * 2654435761u;
}

}  // extern "C"
