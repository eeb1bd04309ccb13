// SPDX-License-Identifier: Apache-2.0
#include "soak_quiet.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <utility>

#include "mbuf/pool.h"
#include "mtrack/mtrack_writer.h"
#include "support/process.h"
#include "support/run_directory.h"
#include "system/route_tables.h"
#include "system/system_pictures.h"
#include "tsp/epochs.h"
#include "tsp/slots.h"

namespace soak {
namespace {

using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);

// What a quiet point may have more than the first one of all. ipd's heap is not quite the same after each load, and it
// keeps sockets of memberships that have room.
constexpr uint64_t more_descriptors = 8;
#ifdef LIBIP_SANITIZED
constexpr uint64_t more_private_kib = 512 << 10;  // sanitizers keep what was freed
#else
constexpr uint64_t more_private_kib = 6144;
#endif
constexpr uint64_t more_shared_blocks = 0;
// Slots and files are used again: their number follows those who are there at one time, not those who ever were.
constexpr uint64_t most_slots = 96;
constexpr uint64_t most_files = 160;

uint64_t descriptors_of(pid_t pid) {
  std::error_code gone;
  uint64_t count = 0;
  for (std::filesystem::directory_iterator at("/proc/" + std::to_string(pid) + "/fd", gone), end; at != end;
       at.increment(gone)) {
    ++count;
  }
  return count;
}

uint64_t private_kib_of(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("RssAnon:")) return std::stoull(line.substr(8));
  }
  return 0;
}

// Records in use of the segments that ipd writes.
uint64_t shared_blocks_of(pid_t pid) {
  uint64_t blocks = 0;
  for (const rsw::MemoryUse &use : rsw::mtrack_report()) {
    if (use.pid == pid && use.shared) blocks += use.blocks;
  }
  return blocks;
}

uint64_t files_in(const std::string &directory) {
  std::error_code gone;
  uint64_t count = 0;
  for (std::filesystem::recursive_directory_iterator at(directory, gone), end; at != end; at.increment(gone)) ++count;
  return count;
}

// Lines of one text that the other one does not have.
std::string lines_without(const std::string &text, const std::string &other) {
  std::multiset<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.insert(line);
  in = std::istringstream(other);
  for (std::string line; std::getline(in, line);) {
    if (const auto found = lines.find(line); found != lines.end()) lines.erase(found);
  }
  std::string left;
  for (const std::string &line : lines) left += line + "\n";
  return left;
}

std::string told(const rsw::PoolReport &report) {
  std::string text = std::to_string(report.in_use) + " in use, " + std::to_string(report.cached) + " cached, " +
                     std::to_string(report.free) + " free of " + std::to_string(report.total);
  for (const rsw::PoolOwner &owner : report.owners) {
    text += "; " + std::to_string(owner.pid) + " " + owner.command + ": " + std::to_string(owner.in_use) + " in use, " +
            std::to_string(owner.cached) + " cached";
  }
  return text;
}

}  // namespace

void Quiet::check_database() {
  std::string kernel;
  std::string published;
  const bool same = wait_until(
      [&] {
        kernel = test_support::kernels_picture() + test_support::kernels_routes({});
        published = test_support::published_picture() + test_support::published_routes();
        return !kernel.empty() && kernel == published;
      },
      patience);
  if (same) return;
  record_.anomaly("the database is not what the kernel says.\nthe kernel's:\n" + lines_without(kernel, published) +
                  "published:\n" + lines_without(published, kernel));
}

void Quiet::check_clients(pid_t ipd) {
  std::string text;
  const bool none = wait_until(
      [&] {
        text.clear();
        if (test_support::run({ipsh_, "show", "clients", "--json"}, &text) != 0) return false;
        const auto shown = nlohmann::json::parse(text, nullptr, false);
        if (shown.is_discarded() || !shown.contains("clients")) return false;
        return std::ranges::none_of(shown["clients"], [&](const nlohmann::json &client) {
          const bool is_registered = client.contains("registrations") && !client["registrations"].empty();
          return client.value("command", "").starts_with("soak_client") || is_registered;
        });
      },
      patience);
  if (!none) record_.anomaly("clients are there that are gone: " + text);
  std::string holders;
  const bool left = wait_until(
      [&] {
        holders.clear();
        for (const rsw::EpochClient &client : rsw::epoch_clients()) {
          if (client.pid == ipd || client.pid == getpid()) continue;
          holders += " " + std::to_string(client.pid) + " " + std::string(client.command, sizeof client.command);
        }
        return holders.empty();
      },
      patience);
  if (!left) record_.anomaly("slots of the reader lock belong to processes that are gone:" + holders);
}

void Quiet::check_buffers(Steady *steady) {
  rsw::PoolReport report;
  std::string reason;
  const bool back = wait_until(
      [&] {
        report = {};
        return rsw::report_pool(&report, &reason) && report.in_use == 0 && report.free + report.cached == report.total;
      },
      patience);
  if (!back) record_.anomaly("packet buffers are missing: " + told(report) + " " + reason);
  if (report.damaged != 0) record_.anomaly("damage in the pool: " + std::to_string(report.damaged));
  steady->buffers_in_use = report.in_use;
}

void Quiet::check_steady(Steady *steady) {
  const bool is_first = record_.steady.empty();
  const Steady first = is_first ? Steady{} : record_.steady.front();
  // What is freed is freed a moment later: readers have to move on, sockets to be closed.
  (void)wait_until(
      [&] {
        steady->descriptors = descriptors_of(steady->ipd);
        steady->private_kib = private_kib_of(steady->ipd);
        steady->shared_blocks = shared_blocks_of(steady->ipd);
        return !is_first && steady->descriptors <= first.descriptors && steady->shared_blocks <= first.shared_blocks;
      },
      is_first ? std::chrono::seconds(3) : std::chrono::seconds(15));
  steady->slots = rsw::slot_control().slots_in_use;
  steady->files = files_in(run_directory_);
  const auto compare = [&](const char *what, uint64_t now, uint64_t most) {
    if (now > most) {
      record_.anomaly(std::string(what) + ": " + std::to_string(now) + ", at most " + std::to_string(most) +
                      " expected");
    }
  };
  compare("slots of the reader lock", steady->slots, most_slots);
  compare("files in the run directory", steady->files, most_files);
  if (is_first) return;
  compare("descriptors of ipd", steady->descriptors, first.descriptors + more_descriptors);
  compare("private memory of ipd in KiB", steady->private_kib, first.private_kib + more_private_kib);
  compare("shared blocks in use", steady->shared_blocks, first.shared_blocks + more_shared_blocks);
}

void Quiet::check(pid_t ipd, double at) {
  Steady steady{.at = at, .ipd = ipd};
  check_database();
  check_clients(ipd);
  check_buffers(&steady);
  check_steady(&steady);
  record_.steady.push_back(steady);
}

}  // namespace soak
