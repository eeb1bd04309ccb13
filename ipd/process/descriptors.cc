// SPDX-License-Identifier: Apache-2.0
#include "ipd/process/descriptors.h"

#include <sys/resource.h>

#include <cerrno>
#include <cstring>

namespace ipd {

bool raise_descriptor_limit(std::string *reason) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) == 0) return true;
  }
  *reason = std::string("the limit of open descriptors stays as it is: ") + strerror(errno);
  return false;
}

}  // namespace ipd
