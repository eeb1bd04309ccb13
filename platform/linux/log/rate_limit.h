// SPDX-License-Identifier: Apache-2.0
// How many messages of one catalogue record may pass. Private to this folder; a class so that a test can bring its own
// clock.
#ifndef RSW_LOG_RATE_LIMIT_H
#define RSW_LOG_RATE_LIMIT_H

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "log.h"

namespace rsw {

class RateLimiter {
 public:
  static constexpr size_t records = 64;             // more than a catalogue has
  static constexpr uint64_t window_ms = 10 * 1000;  // one window of one record

  struct Suppressed {  // a window that ended with messages held back
    const msg_error_rec *record;
    uint32_t count;
  };
  struct Answer {
    bool allowed;
    size_t ended;  // how many of `turned` are filled
    Suppressed turned[records];
  };

  // Counts one message of `record` at the monotonic time now_ms. The caller prints what `turned` says.
  // Threads: any. Blocks: never for long (a mutex around a table of 64). The answer is written, not returned: it is
  // big.
  void count(const msg_error_rec *record, uint64_t now_ms, Answer *answer);

 private:
  struct Entry {
    const msg_error_rec *record;
    uint64_t start_ms;
    uint32_t allowed;
    uint32_t suppressed;
  };
  std::mutex mutex_;
  Entry entries_[records] = {};
};

}  // namespace rsw

#endif
