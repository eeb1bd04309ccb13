// SPDX-License-Identifier: Apache-2.0
// The header of what the control service sends.
#ifndef IPD_CONTROL_REPLY_H
#define IPD_CONTROL_REPLY_H

#include <time.h>
#include <unistd.h>

#include <cstdint>

#include "ip_msg.h"

namespace ipd::control {

// Ours is no endpoint that anybody could ask for, so there is none in it.
[[nodiscard]] inline ip_msg_header reply_header(uint16_t minor) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  ip_msg_header header{};
  header.major_type = IP_MAJOR_CLIENT;
  header.minor_type = minor;
  header.pid = static_cast<uint32_t>(getpid());
  header.timestamp[0] = static_cast<uint32_t>(now.tv_sec);
  header.timestamp[1] = static_cast<uint32_t>(now.tv_nsec);
  return header;
}

}  // namespace ipd::control

#endif
