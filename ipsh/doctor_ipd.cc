// SPDX-License-Identifier: Apache-2.0
// The process ipd: whether it lives and answers, what it may do, what it lets this user do, and what it is made of.
#include <dlfcn.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <limits.h>
#include <linux/capability.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <vector>

#include "asking.h"
#include "doctor_checks.h"
#include "ip_api.h"
#include "ip_show.h"
#include "mts.h"
#include "progress.h"
#include "sm/segment_map.h"

namespace ipsh {
namespace {

constexpr uint32_t prompt_seconds = 1;    // an answer within these is as it should be
constexpr uint32_t patient_seconds = 10;  // a busy machine may need these

struct Answer {
  bool given = false;    // of whatever kind: ipd lives
  bool granted = false;  // it tells this user
  bool late = false;
  std::string why_not = {};  // given
};

// Asks for the first page of a listing, a second time with more patience.
Answer ask() {
  const AskingQueue queue;
  if (!queue.bound()) return {.why_not = no_queue_failure(errno).message};
  ip_msg_show question{};
  question.header.major_type = IP_MAJOR_CLIENT;
  question.header.minor_type = IP_MSG_SHOW_MESSAGES;
  question.header.pid = static_cast<uint32_t>(getpid());
  const Failure rejected{ExitCode::none, "", ""};
  Failure failure;
  for (const uint32_t seconds : {prompt_seconds, patient_seconds}) {
    if (seconds != prompt_seconds) say_what_is_waited_for("ipd, which has not answered yet");
    std::vector<std::byte> page;
    const bool granted =
        ask_ipd(queue.handle(), std::as_bytes(std::span(&question, 1)), rejected, &page, &failure, seconds);
    if (granted || failure.code == rejected.code) {
      return {.given = true, .granted = granted, .late = seconds != prompt_seconds, .why_not = ""};
    }
    if (failure.code == ExitCode::permission) break;
  }
  return {.why_not = failure.message};
}

// The process that took the database over last, or the one that has the run directory's lock.
uint32_t last_ipd(const Examination &examination) {
  std::string unused;
  if (const auto database = rsw::SegmentMap::attach(rsw::segment_ip, &unused)) {
    // Relaxed: a number to look at.
    return __atomic_load_n(&database->header()->writer_pid, __ATOMIC_RELAXED);
  }
  uint32_t pid = 0;
  std::ifstream(examination.run_directory + "/ipd.lock") >> pid;
  return pid;
}

std::string process_text(const ProcessFacts &ipd) {
  std::string text = fmt::format("process {} ({})", ipd.pid, ipd.command);
  if (ipd.uid) text += fmt::format(" of user {}", *ipd.uid);
  if (ipd.seconds) text += fmt::format(", for {}", duration_text(*ipd.seconds));
  return text;
}

// The file that a library was loaded from, links followed.
std::string file_of(const void *function) {
  Dl_info info{};
  if (dladdr(function, &info) == 0 || info.dli_fname == nullptr) return "";
  char path[PATH_MAX];
  return realpath(info.dli_fname, path) == nullptr ? info.dli_fname : path;
}

std::string name_of(const std::string &path) {
  return path.substr(path.rfind('/') + 1);
}

std::string folder_of(const std::string &path) {
  return path.substr(0, std::min(path.rfind('/'), path.size()));
}

// The file whose name begins with that of ours up to its version, or an empty text.
std::string counterpart(const std::string &ours, const std::vector<std::string> &files) {
  const std::string name = name_of(ours);
  const std::string stem = name.substr(0, name.find(".so") + 3);
  const auto found =
      std::ranges::find_if(files, [&](const std::string &file) { return name_of(file).starts_with(stem); });
  return found == files.end() ? "" : *found;
}

}  // namespace

void check_ipd(Examination *examination, Report report) {
  if (!examination->has_run_directory) return report.not_made();
  examination->ipd_pid = last_ipd(*examination);
  examination->ipd = read_process(examination->ipd_pid);
  if (examination->ipd && examination->ipd->stopped()) {
    return report.failed(process_text(*examination->ipd) + ": it is stopped",
                         fmt::format("kill -CONT {}, or end the debugger that holds it", examination->ipd_pid));
  }
  const Answer answer = ask();
  examination->answers = answer.given;
  examination->may_read = answer.granted;
  if (!examination->answers) {
    if (!examination->ipd) {
      const std::string last =
          examination->ipd_pid == 0 ? "it does not run" : fmt::format("process {} has ended", examination->ipd_pid);
      return report.failed(last, "start ipd; its log says why the last one ended. What it published stays readable");
    }
    return report.failed(fmt::format("{} does not serve messages: {}", process_text(*examination->ipd), answer.why_not),
                         "look at its log; another process may have its SAP: ipsh show queues");
  }
  const std::string who = examination->ipd ? process_text(*examination->ipd)
                                           : fmt::format("process {}, not of this PID namespace", examination->ipd_pid);
  if (answer.late) {
    return report.warning(who + fmt::format(", answers after more than {} s", prompt_seconds),
                          "see what the machine is busy with; ipsh show clients tells who asks much");
  }
  report.ok(who + ", answers");
}

void check_rights(Examination *examination, Report report) {
  if (!examination->answers) return report.not_made();
  const std::string pool = rsw::segment_path(rsw::segment_mbuf.name);
  struct stat socket {};
  const std::string service = fmt::format("{}/mts/{}", examination->run_directory, IP_SAP_CONTROL);
  const bool owner = stat(service.c_str(), &socket) == 0 && socket.st_uid == geteuid();
  // The buffers of packets are open to whom ipd lets configure.
  const bool may_configure = geteuid() == 0 || owner || access(pool.c_str(), W_OK) == 0;
  const std::string who = fmt::format("user {}", geteuid());
  if (!examination->may_read) {
    return report.warning(who + " may read what is published, and not ask ipd",
                          "join the read_group of ipd.conf(5), or run ipsh as another user");
  }
  report.ok(who + (may_configure ? " may read and configure"
                                 : " may read; for the right to configure there is configure_group in ipd.conf(5)"));
}

void check_capabilities(Examination *examination, Report report) {
  if (!examination->ipd || !examination->ipd->capabilities) return report.not_made();
  struct Needed {
    int number;
    const char *name;
  };
  std::vector<std::string> missing;
  for (const Needed &needed : {Needed{CAP_NET_ADMIN, "CAP_NET_ADMIN"}, Needed{CAP_NET_RAW, "CAP_NET_RAW"}}) {
    if ((*examination->ipd->capabilities >> needed.number & 1) == 0) missing.emplace_back(needed.name);
  }
  if (missing.empty()) return report.ok("ipd has CAP_NET_ADMIN and CAP_NET_RAW: ICMP, packets, all of multicast");
  report.warning(fmt::format("ipd lacks {}: it publishes, and refuses what needs that", fmt::join(missing, " and ")),
                 "run ipd by its systemd unit, or as root");
}

void check_libraries(Examination *examination, Report report) {
  const std::string libip = file_of(reinterpret_cast<const void *>(&ip_api_init));
  const std::string librsw = file_of(reinterpret_cast<const void *>(&mts_send));
  const std::string ours =
      fmt::format("{} and {} of {}, ipsh " IPSH_VERSION, name_of(libip), name_of(librsw), folder_of(libip));
  if (folder_of(libip) != folder_of(librsw)) {
    return report.warning(fmt::format("{} and {} are of two directories", libip, librsw),
                          "install both of one version; LD_LIBRARY_PATH may mix them");
  }
  if (!examination->ipd || !examination->ipd->files) return report.ok(ours);
  for (const std::string &library : {libip, librsw}) {
    const std::string theirs = counterpart(library, *examination->ipd->files);
    if (theirs.ends_with(" (deleted)")) {
      return report.warning(fmt::format("ipd runs with a {} that was replaced since it started", name_of(library)),
                            "restart ipd");
    }
    if (!theirs.empty() && name_of(theirs) != name_of(library)) {
      return report.warning(fmt::format("ipd has {}, ipsh has {}", theirs, library),
                            "install one version, and restart ipd");
    }
  }
  report.ok(ours + "; ipd has the same");
}

}  // namespace ipsh
