// SPDX-License-Identifier: Apache-2.0
// The mark "the URIB client is up" is set once in the life of a process. The last close of the library closes the
// client and leaves the mark: a later start of the library does not open the client again.
#include "ip_api_urib.h"

#include "report.h"
#include "urib.h"

extern "C" {

uint32_t ip_api_dep_modules_init_done;

}  // extern "C"

namespace libip {

void open_urib() {
  if (urib_api_init() == 0) {
    report(msg_error_IP_IP_FAILURE, "Failed call urib_api_init()");
  } else {
    // Relaxed, as the load in start_urib: the word alone counts.
    __atomic_store_n(&ip_api_dep_modules_init_done, 1u, __ATOMIC_RELAXED);
  }
}

}  // namespace libip
