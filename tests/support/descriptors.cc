// SPDX-License-Identifier: Apache-2.0
#include "support/descriptors.h"

#include <sys/resource.h>

#include <algorithm>

namespace test_support {

uint64_t allow_descriptors(uint64_t wanted) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur >= wanted) return limit.rlim_cur;
  const rlimit raised{static_cast<rlim_t>(wanted), std::max(limit.rlim_max, static_cast<rlim_t>(wanted))};
  if (setrlimit(RLIMIT_NOFILE, &raised) == 0) return wanted;
  // Only root may raise the greater one of the two limits.
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur;
}

}  // namespace test_support
