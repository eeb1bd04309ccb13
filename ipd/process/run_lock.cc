// SPDX-License-Identifier: Apache-2.0
// The lock is on the open file, not on its existence, so nothing is left behind by a kill and the file is never
// removed: removing it would let two processes hold locks on two files of one name. Any descriptor will do for a lock,
// one for reading too, so nobody but the owner can open the file.
#include "ipd/process/run_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ipd {
namespace {

// The process id that the holder wrote; "unknown" while it has not.
std::string holder(int descriptor) {
  char text[24] = {};
  const ssize_t got = pread(descriptor, text, sizeof text - 1, 0);
  std::string pid;
  for (ssize_t i = 0; i < got && text[i] >= '0' && text[i] <= '9'; ++i) pid += text[i];
  return pid.empty() ? "unknown" : pid;
}

}  // namespace

std::unique_ptr<RunLock> RunLock::take(const std::string &directory, Failure *failure, std::string *reason) {
  const std::string path = directory + "/ipd.lock";
  *failure = Failure::error;
  const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) {
    *reason = path + ": " + strerror(errno);
    return nullptr;
  }
  std::unique_ptr<RunLock> lock(new RunLock(descriptor));
  // One that root left before ipd had a user of its own is not ours to change, and locks all the same.
  (void)fchmod(descriptor, 0600);
  if (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) {
      *failure = Failure::taken;
      *reason = "another ipd (process " + holder(descriptor) + ") runs on " + directory;
    } else {
      *reason = path + ": " + strerror(errno);
    }
    return nullptr;
  }
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(descriptor, 0) != 0 ||
      pwrite(descriptor, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    *reason = path + ": " + strerror(errno);
    return nullptr;
  }
  *failure = Failure::none;
  return lock;
}

RunLock::~RunLock() {
  close(descriptor_);
}

}  // namespace ipd
