// SPDX-License-Identifier: Apache-2.0
// The start of the URIB client, which is one per process and may come late: at ip_api_init on the active supervisor,
// and at the first query that needs it everywhere else.
#ifndef IP_API_URIB_H
#define IP_API_URIB_H

#include "ip_api.h"

namespace libip {

// Opens the URIB client and marks it as up; when it does not open, says so to the operator and leaves the mark unset,
// so that the next query tries again.
void open_urib();

// The same unless it is up. A caller goes on either way: a URIB that is not there answers that there is no route.
// Threads: any; two that come first together both open it, which the URIB client allows.
inline void start_urib() {
  // Relaxed: the word says only that nobody needs to open the client again. What the client set up is the client's own
  // to order; its lookups take its own lock.
  if (__atomic_load_n(&ip_api_dep_modules_init_done, __ATOMIC_RELAXED) != 1) [[unlikely]] {
    open_urib();
  }
}

}  // namespace libip

#endif
