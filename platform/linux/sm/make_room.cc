// SPDX-License-Identifier: Apache-2.0
#include "sm/make_room.h"

#include <syslog.h>

#include <thread>

#include "log/log_writer.h"

namespace rsw {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds patience{1};
constexpr std::chrono::milliseconds between_looks{10};

struct Occupation {
  uint64_t given_out = 0;  // bytes
  uint64_t missing = 0;    // what building as much again takes of the window beyond the free records of each type
};

// Type by type: memory of one type is never another's.
Occupation occupation_of(const Arena &arena) {
  Occupation answer;
  for (const RecordTypeUse &type : arena.use()) {
    const uint64_t records = type.live + type.left;
    answer.given_out += records * type.info.size;
    if (records > type.free) answer.missing += (records - type.free) * type.info.size;
  }
  return answer;
}

}  // namespace

bool make_room(const SegmentMap &segment, Arena &arena, const ArenaLimits &limits, std::string_view meanwhile,
               const std::function<void()> &withdraw) {
  const SegmentLayout &layout = segment.layout();
  const Occupation occupation = occupation_of(arena);
  if (occupation.missing <= layout.base + layout.size - segment.header()->used_end) return false;
  log_line(LOG_WARNING, "%s: earlier processes left %llu MiB of %u: %s until that is free",
           std::string(layout.name).c_str(), static_cast<unsigned long long>(occupation.given_out >> 20),
           layout.size >> 20, std::string(meanwhile).c_str());
  withdraw();
  arena.retire_unadopted();
  const Clock::time_point begin = Clock::now();
  arena.tick(begin);
  std::this_thread::sleep_until(begin + limits.quarantine);
  // Readers that were inside a question may still be: those that are stopped there are the cap's to overrule.
  for (;;) {
    const Clock::time_point now = Clock::now();
    arena.tick(now);
    if (arena.retired_bytes() == 0 || now >= begin + limits.quarantine + patience) return true;
    std::this_thread::sleep_for(between_looks);
  }
}

}  // namespace rsw
