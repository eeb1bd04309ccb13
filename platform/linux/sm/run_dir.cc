// SPDX-License-Identifier: Apache-2.0
// Where a running system keeps its files. Nothing is cached: a process that changes RSW_RUN_DIR (a test) talks to the
// other system from its next call on.
#include "sm/run_dir.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rsw {

std::string run_directory() {
  if (const char *chosen = getenv("RSW_RUN_DIR"); chosen != nullptr && *chosen != '\0') return chosen;
  const uid_t uid = geteuid();
  if (uid == 0) return "/run/rsw";
  if (const char *session = getenv("XDG_RUNTIME_DIR"); session != nullptr && *session != '\0') {
    return std::string(session) + "/rsw";
  }
  return "/tmp/rsw-" + std::to_string(uid);
}

bool make_run_directory(std::string *reason) {
  const std::string path = run_directory();
  if (mkdir(path.c_str(), 0755) == 0) {
    // The mode must not depend on the umask of whoever starts the system: other users' clients look for files here.
    if (chmod(path.c_str(), 0755) == 0) return true;
  } else if (errno == EEXIST) {
    struct stat what {};
    if (stat(path.c_str(), &what) == 0 && S_ISDIR(what.st_mode)) return true;
    *reason = "the run directory " + path + " is not a directory";
    return false;
  }
  *reason = "cannot make the run directory " + path + ": " + strerror(errno);
  return false;
}

std::string segment_path(std::string_view segment_name) {
  const size_t slash = segment_name.rfind('/');
  const std::string_view last = slash == std::string_view::npos ? segment_name : segment_name.substr(slash + 1);
  return run_directory() + "/" + std::string(last);
}

}  // namespace rsw
