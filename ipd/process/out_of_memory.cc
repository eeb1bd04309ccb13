// SPDX-License-Identifier: Apache-2.0
#include "ipd/process/out_of_memory.h"

#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <new>

#include "ipd/process/log.h"

namespace ipd {
namespace {

int status_then = 1;

// Of an exception that nobody catches, and of one that leaves a function that lets none out.
[[noreturn]] void ended() {
  try {
    if (const std::exception_ptr thrown = std::current_exception()) std::rethrow_exception(thrown);
  } catch (const std::bad_alloc &) {
    log_line(LOG_ERR, "out of memory; what is published stays, and the next ipd goes on with it");
    _exit(status_then);
  } catch (...) {
    std::abort();  // a mistake of ours: with a core
  }
  std::abort();
}

}  // namespace

void end_when_out_of_memory(int status) {
  status_then = status;
  std::set_terminate(ended);
}

}  // namespace ipd
