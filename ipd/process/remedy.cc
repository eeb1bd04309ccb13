// SPDX-License-Identifier: Apache-2.0
#include "ipd/process/remedy.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace ipd {
namespace {

struct Remedy {
  int error;
  const char *text;
};

constexpr std::array<Remedy, 11> remedies{{
    {ENOSPC, "make room in that file system, or name another run directory (--run-dir)"},
    {EDQUOT, "make room in that file system, or name another run directory (--run-dir)"},
    {EROFS, "name a run directory that can be written (--run-dir)"},
    {EACCES, "start ipd as the user that it belongs to, or name another run directory (--run-dir)"},
    {EPERM, "start ipd as the user that it belongs to, or name another run directory (--run-dir)"},
    {ENOENT, "make the directories above it, or name another run directory (--run-dir)"},
    {ENOTDIR, "a part of the path is no directory: name another run directory (--run-dir)"},
    {EISDIR, "remove it, or name another run directory (--run-dir)"},
    {EEXIST, "remove it, or name another run directory (--run-dir)"},
    {ELOOP, "remove that link, or name another run directory (--run-dir)"},
    {ENAMETOOLONG, "name a run directory with a shorter path (--run-dir)"},
}};

}  // namespace

std::string with_remedy(const std::string &reason) {
  if (reason.ends_with(" is not a directory")) return reason + "; remove it, or name another one (--run-dir)";
  for (const Remedy &remedy : remedies) {
    if (reason.ends_with(std::string(": ") + strerror(remedy.error))) return reason + "; " + remedy.text;
  }
  return reason;
}

std::string run_directory_risk(const std::string &path) {
  struct stat directory {};
  constexpr mode_t others = S_IWGRP | S_IWOTH;
  if (stat(path.c_str(), &directory) != 0 || (directory.st_mode & others) == 0) return "";
  return "others may replace what is in the run directory " + path + "; chmod 0755 " + path;
}

}  // namespace ipd
