// SPDX-License-Identifier: Apache-2.0
// ipsh attaches twice to the same mapping: once through the platform, which can say in words why it does not work and
// which shows the segment's header (generation, writer), and once through libip, which the queries need. A process maps
// a segment once, so the second attachment costs a reference count.
//
// A database whose ipd has gone is still readable, and its answers were true when ipd went: that is said on standard
// error by the caller and is no failure.
#include "attachment.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ip_api.h"
#include "urib.h"

namespace ipsh {
namespace {

constexpr const char *database_name = "/rsw/shm/ip";

Failure why_not_attached(const std::string &path, const std::string &reason) {
  if (access(path.c_str(), R_OK) == 0) {
    return {ExitCode::unavailable, fmt::format("cannot attach {}: {}", path, reason),
            "restart ipd, and use an ipsh of the same version"};
  }
  const int error = errno;
  if (error == EACCES || error == EPERM) {
    return {ExitCode::permission, fmt::format("{}: {}", path, std::strerror(error)),
            "run ipsh as the user or group that runs ipd"};
  }
  return {ExitCode::unavailable, fmt::format("no ipd has published anything in {}", rsw::run_directory()),
          "start ipd, or name its run directory with --run-dir or RSW_RUN_DIR"};
}

}  // namespace

bool process_exists(uint32_t pid) {
  if (pid == 0) return false;
  return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

std::unique_ptr<Attachment> Attachment::open(Failure *failure) {
  const std::string path = rsw::segment_path(database_name);
  if (access(path.c_str(), R_OK) != 0) {
    *failure = why_not_attached(path, "");
    return nullptr;
  }
  std::string reason;
  std::shared_ptr<rsw::SegmentMap> database = rsw::SegmentMap::attach(rsw::segment_ip, &reason);
  if (!database) {
    *failure = why_not_attached(path, reason);
    return nullptr;
  }
  if (ip_api_init() == nullptr) {
    *failure = why_not_attached(path, "libip refused it; its log line says why");
    return nullptr;
  }
  // Some queries rely on their caller to have started it; on a standby supervisor the library does not do so by itself.
  urib_api_init();
  return std::unique_ptr<Attachment>(new Attachment(std::move(database)));
}

Attachment::~Attachment() {
  ip_api_close();
}

bool Attachment::writer_runs() const {
  // Relaxed: a number that is only shown; nothing is read through it.
  return process_exists(__atomic_load_n(&database()->writer_pid, __ATOMIC_RELAXED));
}

bool Attachment::replaced() const {
  struct stat mapped {};
  struct stat named {};
  if (fstat(database_->descriptor(), &mapped) != 0) return true;
  if (stat(rsw::segment_path(database_name).c_str(), &named) != 0) return false;
  return mapped.st_ino != named.st_ino || mapped.st_dev != named.st_dev;
}

}  // namespace ipsh
