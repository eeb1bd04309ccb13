// SPDX-License-Identifier: Apache-2.0
#include "ipd/kernel/send_outcome.h"

#include <cerrno>
#include <cstring>

#include "ipd/process/log.h"

namespace ipd::kernel {

using packet::Outcome;

Outcome outcome_of_opening(int error, const char *what, bool *logged) {
  if (error == 0) return Outcome::done;
  if (!*logged) log_line(LOG_WARNING, "%s cannot be opened: %s", what, strerror(error));
  *logged = true;
  if (error == EPERM || error == EACCES) return Outcome::no_privilege;
  return error == ENOMEM || error == ENOBUFS ? Outcome::no_memory : Outcome::kernel;
}

Outcome outcome_of_sending(int error) {
  switch (error) {
    case 0:
      return Outcome::done;
    case ENETDOWN:
      return Outcome::interface_down;
    case ENODEV:
    case ENXIO:
      return Outcome::no_interface;
    case ENETUNREACH:
    case EHOSTUNREACH:
      return Outcome::no_route;
    case EMSGSIZE:
      return Outcome::too_big;
    case EAGAIN:
    case ENOBUFS:
      return Outcome::queue_full;
    case ENOMEM:
      return Outcome::no_memory;
    default:
      return Outcome::kernel;
  }
}

}  // namespace ipd::kernel
