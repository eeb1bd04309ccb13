// SPDX-License-Identifier: Apache-2.0
// What lies in the run directory, and the configuration file.
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <vector>

#include "doctor_checks.h"
#include "ipd/config.h"
#include "sm/segment_map.h"

namespace ipsh {
namespace {

constexpr const char *start_ipd = "start ipd, or name its run directory with --run-dir or RSW_RUN_DIR";
constexpr const char *restart_ipd = "restart ipd: it makes a new one";

constexpr double most_used = 0.9;  // of a window; beyond that it is time to say so

struct SegmentUse {
  const rsw::SegmentLayout *layout;
  const char *without;  // what there is not when it is missing
  bool needed;          // by every client
};

constexpr std::array<SegmentUse, 7> segment_uses{{
    {&rsw::segment_ip, "nothing is published", true},
    {&rsw::segment_im, "no interfaces are published", true},
    {&rsw::segment_tsp, "no client can read", true},
    {&rsw::segment_sysmgr, "no client can attach", true},
    {&rsw::segment_urib, "no routes are served", true},
    {&rsw::segment_mtrack, "memory is not counted", false},
    {&rsw::segment_mbuf, "packets travel as bytes", false},
}};

double mebibytes(uint32_t bytes) {
  return static_cast<double>(bytes) / 1048576.0;
}

const char *remedy_for(int error) {
  switch (error) {
    case ENOENT:
      return start_ipd;
    case EACCES:
      return "run ipsh as the user or group that runs ipd";
    case EPROTO:
      return "use libraries of ipd's version, or restart ipd with those that are installed";
    case EPERM:
      return "remove it unless you know who made it, and restart ipd";
    case EEXIST:
    case ENOMEM:
      return "run it without what is in the way: a preloaded library, a limit of the address space (ulimit -v)";
    default:
      return restart_ipd;
  }
}

// True when clients can use it.
bool check_segment(const SegmentUse &use, Report report) {
  std::string reason;
  errno = 0;
  const std::shared_ptr<rsw::SegmentMap> map = rsw::SegmentMap::attach(*use.layout, &reason);
  const int error = errno;
  if (map == nullptr) {
    const std::string finding = fmt::format("{}: {}", reason, use.without);
    // The packets' buffers are for those who may send packets.
    if (error == EACCES && use.layout == &rsw::segment_mbuf) {
      report.ok("not for this user, who may not send packets");
    } else if (use.needed) {
      report.failed(finding, remedy_for(error));
    } else {
      report.warning(finding, remedy_for(error));
    }
    return false;
  }
  const rsw::SegmentHeader &header = *map->header();
  // Acquire is not needed: numbers to look at.
  const uint32_t used = __atomic_load_n(&header.used_end, __ATOMIC_RELAXED) - header.base;
  const std::string finding = fmt::format("{:.1f} of {:.0f} MiB in use at 0x{:08x}, layout 0x{:08x}", mebibytes(used),
                                          mebibytes(header.size), header.base, header.layout_hash);
  if (used > most_used * header.size) {
    report.warning(finding + ": nearly full", "ask for less in it (interfaces, addresses, routes); ipd's log names it");
  } else {
    report.ok(finding);
  }
  return true;
}

struct SocketCount {
  size_t all = 0;
  std::vector<std::string> stale;  // paths
};

// The process that has a SAP keeps a lock on the file beside its socket; the kernel drops it with the process.
bool has_owner(int directory, const std::string &sap) {
  const int file = openat(directory, (sap + ".queue").c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) return false;
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  const bool held = fcntl(file, F_OFD_GETLK, &range) == 0 && range.l_type == F_WRLCK;
  close(file);
  return held;
}

bool is_number(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

void count_sockets(const std::string &path, SocketCount *count) {
  const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir(path.c_str()), closedir);
  if (directory == nullptr) return;
  while (const dirent *entry = readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (!is_number(name)) continue;
    ++count->all;
    // One that is just going takes its socket away before its lock.
    struct stat file {};
    const bool stale =
        !has_owner(dirfd(directory.get()), name) && fstatat(dirfd(directory.get()), name.c_str(), &file, 0) == 0;
    if (stale) count->stale.push_back(path + "/" + name);
  }
}

bool has_group(const std::string &name) {
  return name.empty() || is_number(name) || getgrnam(name.c_str()) != nullptr;
}

// The file that ipd reads, as far as it can be told from here.
std::string configuration_file(const Examination &examination) {
  if (!examination.ipd) return "/etc/rsw/ipd.conf";
  const ProcessFacts &ipd = *examination.ipd;
  std::optional<std::string> file = option_of(ipd.arguments, "--config");
  if (!file) file = option_of(ipd.arguments, "-c");
  if (!file) return "/etc/rsw/ipd.conf";
  return file->starts_with('/') || ipd.directory.empty() ? *file : ipd.directory + "/" + *file;
}

}  // namespace

void check_run_directory(Examination *examination, Report report) {
  const std::string &path = examination->run_directory;
  struct stat directory {};
  if (stat(path.c_str(), &directory) != 0) {
    return report.failed(fmt::format("{}: {}", path, std::strerror(errno)), start_ipd);
  }
  if (!S_ISDIR(directory.st_mode)) return report.failed(path + " is not a directory", start_ipd);
  if (access(path.c_str(), R_OK | X_OK) != 0) {
    return report.failed(fmt::format("{}: {}", path, std::strerror(errno)),
                         fmt::format("chmod 0755 {}, or run ipsh as the user that runs ipd", path));
  }
  examination->has_run_directory = true;
  const mode_t mode = directory.st_mode & 07777;
  const std::string finding = fmt::format("{} of user {}, mode {:04o}", path, directory.st_uid, mode);
  if ((mode & 022) != 0) {
    return report.failed(finding + ": others may replace what is in it", fmt::format("chmod 0755 {}", path));
  }
  report.ok((mode & 05) == 05 ? finding : finding + ": other users' clients do not find it");
}

void check_segments(Examination *examination, Report report) {
  if (!examination->has_run_directory) return report.not_made();
  examination->has_segments = true;
  for (const SegmentUse &use : segment_uses) {
    const std::string_view name = use.layout->name.substr(use.layout->name.rfind('/') + 1);
    if (!check_segment(use, report.of(name)) && use.needed && use.layout != &rsw::segment_urib) {
      examination->has_segments = false;
    }
  }
}

void check_sockets(Examination *examination, Report report) {
  if (!examination->has_run_directory) return report.not_made();
  const std::string path = examination->run_directory + "/mts";
  SocketCount count;
  count_sockets(path, &count);
  count_sockets(path + "/dynamic", &count);
  std::ranges::sort(count.stale);
  if (count.stale.empty()) return report.ok(fmt::format("{} sockets, none of a process that is gone", count.all));
  std::vector<std::string> files = count.stale;
  for (const std::string &file : count.stale) files.push_back(file + ".queue");
  constexpr size_t most_files = 8;
  const bool many = files.size() > most_files;
  report.warning(fmt::format("{} of {} sockets are of processes that are gone", count.stale.size(), count.all),
                 fmt::format("harmless: the next owner replaces them; to remove them, {}",
                             many ? fmt::format("start again with an empty {}", path)
                                  : fmt::format("rm -f {}", fmt::join(files, " "))));
}

void check_configuration(Examination *examination, Report report) {
  const std::string file = configuration_file(*examination);
  if (access(file.c_str(), F_OK) != 0 && errno == ENOENT) {
    if (file == "/etc/rsw/ipd.conf") return report.ok(file + " is not there, which is good too");
    return report.warning(file + ", which ipd was started with, is not there now",
                          "put it back before ipd reads it again, or start ipd with another --config");
  }
  if (access(file.c_str(), R_OK) != 0) {
    return report.warning(fmt::format("{}: {}", file, std::strerror(errno)),
                          "run ipsh doctor as the user that runs ipd to have it looked at");
  }
  std::string reason;
  const std::optional<ipd::Configuration> configuration = ipd::load_configuration(file, &reason);
  if (!configuration) {
    return report.failed(reason,
                         fmt::format("mend it, see ipd.conf(5); ipd --check --config {} tells when it is good", file));
  }
  for (const std::string &group : {configuration->read_group, configuration->configure_group}) {
    if (!has_group(group)) {
      return report.warning(fmt::format("{} names the group \"{}\", which there is not", file, group),
                            fmt::format("groupadd {}, or name another one; then kill -HUP ipd", group));
    }
  }
  report.ok(file + " is good");
}

}  // namespace ipsh
