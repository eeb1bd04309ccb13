// SPDX-License-Identifier: Apache-2.0
// Rate limits of catalogue messages.
//
// A record's rate parameter N lets N messages of it pass in each window of 10 seconds; 0 puts no limit. The window of a
// record begins with its first message, and the first message after its end begins the next. What a window held back is
// reported in one line when it has ended; since nothing here runs by itself, that is at the next message of any record,
// so the count of a storm's last window is not lost as long as anything is logged at all.
//
// The table has one entry per record, found by its address, because the address is what a record is known by. An entry
// is free again when its window has ended, so 64 entries serve any number of records that do not all storm at once.
// When no entry is free the message is allowed: to log too much is the smaller harm.
#include "rate_limit.h"

namespace rsw {

void RateLimiter::count(const msg_error_rec *record, uint64_t now_ms, Answer *answer) {
  answer->ended = 0;
  const std::lock_guard guard(mutex_);
  Entry *own = nullptr;
  Entry *free = nullptr;
  for (Entry &entry : entries_) {
    if (entry.record != nullptr && now_ms - entry.start_ms >= window_ms) {
      if (entry.suppressed > 0) answer->turned[answer->ended++] = {entry.record, entry.suppressed};
      entry = {};
    }
    if (entry.record == record) own = &entry;
    if (entry.record == nullptr && free == nullptr) free = &entry;
  }
  answer->allowed = true;
  if (record->rate == 0) return;
  if (own == nullptr) {
    if (free == nullptr) return;
    *free = {record, now_ms, 1, 0};
    return;
  }
  if (own->allowed < record->rate) {
    ++own->allowed;
    return;
  }
  if (own->suppressed < UINT32_MAX) ++own->suppressed;
  answer->allowed = false;
}

}  // namespace rsw
