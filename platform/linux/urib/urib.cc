// SPDX-License-Identifier: Apache-2.0
// The client side of the unicast routing information base.
//
// No process of this system publishes a route table yet: the segment "/rsw/shm/urib" has a window and no writer. So
// every lookup answers that there is no route, in every table, and a route handle is always null. What is here for good
// is the frame around a lookup: opening and closing, and the read lock, which is the reader lock of tsp with URIB's own
// epochs. Callers hold it as they will have to when there are routes, and its rules are theirs already: it may be taken
// again by the thread that holds it, after the shared database's lock and never before it, and releasing it without
// holding it is nothing.
#include "urib.h"

#include <errno.h>
#include <syslog.h>

#include <mutex>
#include <string>

#include "log/log_writer.h"
#include "tsp.h"
#include "tsp/reader.h"

namespace {

// A lock's handle is its domain's number, so that a release finds its lock even after a close in between.
constexpr auto urib_lock = static_cast<uint32_t>(rsw::Domain::urib);

constinit std::mutex open_mutex;
bool is_open = false;

}  // namespace

extern "C" {

uint32_t urib_api_init(void) {
  const std::lock_guard guard(open_mutex);
  if (is_open) return 1;
  std::string reason;
  is_open = rsw::open_reader_lock(rsw::Domain::urib, &reason) != 0;
  if (!is_open) rsw::log_line(LOG_INFO, "urib_api_init: %s", reason.c_str());
  return is_open ? 1 : 0;
}

void urib_api_close(void) {
  const std::lock_guard guard(open_mutex);
  if (is_open) rsw::close_reader_lock(urib_lock);
  is_open = false;
}

void urib_acquire_rdlock(void) {
  tsp_lock_acquire_rdlock(urib_lock);
}

void urib_release_rdlock(void) {
  tsp_lock_release_rdlock(urib_lock);
}

// The lookups. A parameter that none of them has a use for yet has no name here; the header says what each is.

void *urib_get_best_route(uint32_t, uint32_t, uint32_t, uint32_t) {
  return nullptr;
}

void *urib_get_best_direct_route(uint32_t, uint32_t) {
  return nullptr;
}

void *urib_get_route(uint32_t, uint32_t, uint32_t) {
  return nullptr;
}

void *urib_get_mbest_route_for_prefix(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {
  return nullptr;
}

// No path leads anywhere: *path and the two words stay as they are.
uint32_t urib_get_path_v2(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, struct urib_path *, uint32_t *, uint32_t *,
                          uint32_t) {
  return 0;
}

// The calls that take a route. There is none but the null one, for which each answers 0.

uint32_t urib_is_route_attached(void *) {
  return 0;
}

uint32_t urib_is_route_local(void *) {
  return 0;
}

uint32_t urib_is_route_mstatic(void *) {
  return 0;
}

uint32_t urib_route_first_bnh_iod_get(void *) {
  return 0;
}

uint32_t urib_route_first_bnh_nib_data_get(void *) {
  return 0;
}

uint32_t urib_route_mbnh_iod_get(void *, uint32_t) {
  return 0;
}

uint32_t urib_route_mbnh_addr_get(void *, uint32_t) {
  return 0;
}

}  // extern "C"
