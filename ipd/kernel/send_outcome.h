// SPDX-License-Identifier: Apache-2.0
// What the error numbers of sockets that packets leave by mean for a packet.
#ifndef IPD_KERNEL_SEND_OUTCOME_H
#define IPD_KERNEL_SEND_OUTCOME_H

#include "ipd/packet/outcome.h"

namespace ipd::kernel {

// Of opening one; what is not `done` is logged, when it is the first time for `*logged`.
[[nodiscard]] packet::Outcome outcome_of_opening(int error, const char *what, bool *logged);
// Of a send; 0: done. EPERM is a firewall's, not a lack of privilege.
[[nodiscard]] packet::Outcome outcome_of_sending(int error);

}  // namespace ipd::kernel

#endif
