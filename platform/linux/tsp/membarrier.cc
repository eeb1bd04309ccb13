// SPDX-License-Identifier: Apache-2.0
#include "tsp/membarrier.h"

#include <errno.h>
#include <linux/membarrier.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>

#include "log/log_writer.h"

namespace rsw {
namespace {

bool call(int command) {
  const char *without = getenv("RSW_NO_MEMBARRIER");
  if (without != nullptr && strcmp(without, "1") == 0) {
    errno = ENOSYS;
    return false;
  }
  return syscall(SYS_membarrier, command, 0, 0) == 0;
}

void say_once(int error) {
  static std::atomic<bool> said{false};
  // Relaxed: only the line is to appear once.
  if (said.exchange(true, std::memory_order_relaxed)) return;
  log_line(LOG_NOTICE, "the reader lock works without membarrier (%s): each query costs a full fence", strerror(error));
}

}  // namespace

bool register_for_membarrier() {
  if (call(MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED)) return true;
  say_once(errno);
  return false;
}

bool barrier_in_all_readers() {
  if (call(MEMBARRIER_CMD_GLOBAL_EXPEDITED)) return true;
  say_once(errno);
  return false;
}

}  // namespace rsw
