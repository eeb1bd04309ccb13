// SPDX-License-Identifier: Apache-2.0
// Opening, closing and the one mapping of the route tables in this process.
//
// Questions look at one word, the address of the segment's header. It is cleared before a mapping goes, and a question
// that has taken it just before reads zeros, since the window stays readable.
#include "urib/attachment.h"

#include <syslog.h>
#include <time.h>

#include <memory>
#include <mutex>
#include <string>

#include "log/log_writer.h"
#include "never_destroyed.h"
#include "no_memory.h"
#include "sm/segment_map.h"
#include "tsp.h"
#include "tsp/reader.h"
#include "urib.h"
#include "urib/urib_view.h"

namespace rsw {
namespace urib {

uint32_t header_word = 0;

namespace {

// A lock's handle is its domain's number, so that a release finds its lock even after a close in between.
constexpr auto urib_lock = static_cast<uint32_t>(Domain::urib);
constexpr uint32_t milliseconds_between_tries = 100;

struct Client {
  std::mutex mutex;  // of all below, and of stores to header_word
  std::shared_ptr<SegmentMap> segment;
  bool open = false;
};

Client &client() {
  static NeverDestroyed<Client> only;
  return only.value;
}

uint32_t opened_once = 0;  // word: 1 from the first successful urib_api_init() on
uint32_t last_try = 0;     // word: when the segment was asked for last, in milliseconds of the coarse clock

uint32_t milliseconds_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<uint32_t>(now.tv_sec) * 1000u + static_cast<uint32_t>(now.tv_nsec / 1000000);
}

void detach(Client &own) {
  publish_word(header_word, 0);
  own.segment.reset();
}

// The mutex is held.
uint32_t attach(Client &own, std::string *reason) {
  if (own.segment == nullptr) own.segment = SegmentMap::attach(segment_urib, reason);
  if (own.segment == nullptr) return 0;
  // Release: the mapping stands before its address does; partner: directory().
  publish_word(header_word, address_of(own.segment->header()));
  return header_word;
}

}  // namespace

uint32_t attach_late() {
  // Relaxed, both words: they only keep the question for the segment rare.
  if (load_word(opened_once) == 0) return 0;
  const uint32_t now = milliseconds_now();
  if (now - load_word(last_try) < milliseconds_between_tries) return 0;
  fill_word(last_try, now);
  Client &own = client();
  const std::unique_lock guard(own.mutex, std::try_to_lock);
  if (!guard.owns_lock()) return 0;
  return unless_without_memory(0u, [&own] {
    std::string reason;
    return attach(own, &reason);
  });
}

void detach_idle() {
  Client &own = client();
  const std::lock_guard guard(own.mutex);
  if (!own.open) detach(own);
}

}  // namespace urib

const SegmentHeader *urib_header() {
  using namespace urib;
  Client &own = client();
  const std::lock_guard guard(own.mutex);
  std::string reason;
  return attach(own, &reason) == 0 ? nullptr : own.segment->header();
}

}  // namespace rsw

extern "C" {

uint32_t urib_api_init(void) {
  using namespace rsw;
  using namespace rsw::urib;
  Client &own = client();
  const std::lock_guard guard(own.mutex);
  if (own.open) return 1;
  return unless_without_memory(0u, [&own]() -> uint32_t {
    std::string reason;
    if (open_reader_lock(Domain::urib, &reason) == 0) {
      log_line(LOG_INFO, "urib_api_init: %s", reason.c_str());
      return 0;
    }
    own.open = true;
    fill_word(opened_once, 1);
    detach(own);  // what a close has kept may be another run directory's by now
    // No tables yet is no failure: they are asked for again.
    unless_without_memory(0u, [&] { return attach(own, &reason); });
    return 1;
  });
}

void urib_api_close(void) {
  using namespace rsw::urib;
  Client &own = client();
  const std::lock_guard guard(own.mutex);
  if (own.open) rsw::close_reader_lock(urib_lock);
  own.open = false;
}

void urib_acquire_rdlock(void) {
  tsp_lock_acquire_rdlock(rsw::urib::urib_lock);
}

void urib_release_rdlock(void) {
  tsp_lock_release_rdlock(rsw::urib::urib_lock);
}

}  // extern "C"
