// SPDX-License-Identifier: Apache-2.0
#include "support/public_program.h"

#include <stdlib.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace test_support {
namespace {

namespace fs = std::filesystem;

void copy_for_all(const fs::path &from, const fs::path &to) {
  fs::copy_file(from, to);
  fs::permissions(to, fs::perms(0755));
}

// A directory of this process's own that everybody may look into, on a file system that programs can be run from.
class Copies {
 public:
  Copies() : process_(getpid()) {
    for (const char *base : {"/dev/shm", "/tmp", "/var/tmp"}) {
      struct statvfs system {};
      if (statvfs(base, &system) != 0 || (system.f_flag & ST_NOEXEC) != 0) continue;
      std::string pattern = std::string(base) + "/rsw-programs-XXXXXX";
      if (mkdtemp(pattern.data()) == nullptr) continue;
      directory_ = pattern;
      fs::permissions(directory_, fs::perms(0755));
      return;
    }
    throw std::runtime_error("there is no directory for programs that everybody may run");
  }
  ~Copies() {
    std::error_code ignored;
    if (getpid() == process_) fs::remove_all(directory_, ignored);
  }
  Copies(const Copies &) = delete;
  Copies &operator=(const Copies &) = delete;

  // In a directory for each build: programs of both widths may be wanted.
  fs::path of(const fs::path &program) {
    const fs::path build = program.parent_path().parent_path();
    const fs::path here = directory_ / std::to_string(std::hash<std::string>{}(build.string()));
    if (!fs::exists(here)) {
      fs::create_directory(here);
      fs::permissions(here, fs::perms(0755));
      for (const char *library : {"libip.so.1", "librsw.so.1"}) copy_for_all(build / "lib" / library, here / library);
    }
    const fs::path copy = here / program.filename();
    if (!fs::exists(copy)) copy_for_all(program, copy);
    return copy;
  }

 private:
  pid_t process_;
  fs::path directory_;
};

}  // namespace

std::vector<std::string> public_program(const std::string &program) {
  static Copies copies;
  const fs::path copy = copies.of(program);
  return {"/usr/bin/env", "LD_LIBRARY_PATH=" + copy.parent_path().string(), copy.string()};
}

}  // namespace test_support
