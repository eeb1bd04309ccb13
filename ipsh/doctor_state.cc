// SPDX-License-Identifier: Apache-2.0
// The state that the system is in: the database, who reads it, buffers, queues, and what was refused.
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <numeric>
#include <span>

#include "control_state.h"
#include "doctor_checks.h"
#include "mbuf/pool.h"
#include "mts/mts_server.h"
#include "system_state.h"
#include "tsp/epochs.h"
#include "tsp/slots.h"

namespace ipsh {
namespace {

constexpr double most_used = 0.9;          // of slots and buffers
constexpr uint32_t many_waiting = 256;     // messages in one queue
constexpr uint32_t many_bytes = 1u << 20;  // the same in bytes
constexpr uint32_t nobody = 0;

// Since the file was made; an empty text where the file system does not tell.
std::string age_text(const std::string &file) {
  struct statx facts {};
  if (statx(AT_FDCWD, file.c_str(), 0, STATX_BTIME, &facts) != 0 || (facts.stx_mask & STATX_BTIME) == 0) return "";
  const int64_t seconds = std::time(nullptr) - facts.stx_btime.tv_sec;
  return fmt::format(", made {} ago", duration_text(static_cast<uint64_t>(std::max<int64_t>(0, seconds))));
}

// Slots that somebody signed, whether that one still lives or not.
uint32_t signed_slots() {
  const uint32_t slots =
      std::min(rsw::word(rsw::slot_control().slots_in_use).load(std::memory_order_relaxed), rsw::slot_limit);
  uint32_t count = 0;
  for (uint32_t i = 0; i < slots; ++i) {
    // Relaxed: a number to look at.
    if (rsw::word(rsw::slot_at(i).owner_pid).load(std::memory_order_relaxed) != nobody) ++count;
  }
  return count;
}

bool is_stopped(int32_t pid) {
  const std::optional<ProcessFacts> facts = read_process(static_cast<uint32_t>(pid));
  return facts && facts->stopped();
}

std::string biggest_owner(const rsw::PoolReport &pool) {
  const auto biggest = std::ranges::max_element(
      pool.owners, {}, [](const rsw::PoolOwner &owner) { return owner.in_use + owner.cached; });
  return biggest == pool.owners.end()
             ? "nobody"
             : fmt::format("process {} ({}) has {}", biggest->pid, biggest->command, biggest->in_use + biggest->cached);
}

// What is wrong with a queue; no finding: nothing.
Finding look_at(const rsw::MtsQueueUse &queue) {
  const std::string who = fmt::format("queue {} of process {} ({})", queue.sap, queue.pid, queue.name);
  const auto warning = [](std::string finding, std::string remedy) {
    return Finding{"", Health::warning, std::move(finding), std::move(remedy)};
  };
  if (is_stopped(queue.pid)) {
    return warning(who + ": the process is stopped and takes no messages",
                   fmt::format("kill -CONT {}, or end it", queue.pid));
  }
  if (queue.waiting >= many_waiting || queue.waiting_bytes >= many_bytes) {
    return warning(fmt::format("{}: {} messages of {} bytes wait", who, queue.waiting, queue.waiting_bytes),
                   "the process is slow, or hangs; restart it if the number does not fall");
  }
  if (queue.refused != 0) {
    return warning(fmt::format("{}: {} malformed messages were refused", who, queue.refused),
                   "a client has another version, or is broken: its log, and ipsh show clients");
  }
  if (queue.send_failures != 0) {
    return warning(fmt::format("{}: {} of its sends failed", who, queue.send_failures),
                   "a receiver ended or was full: ipsh show queues says whose queue is");
  }
  return {};
}

// Counts that tell of trouble; the others are answers that a client may well get.
constexpr std::array<size_t, 8> bad_outcomes{IP_SHOW_TOO_SHORT,    IP_SHOW_TOO_LONG,    IP_SHOW_WRONG_MAJOR,
                                             IP_SHOW_WRONG_OPCODE, IP_SHOW_NOT_ALLOWED, IP_SHOW_LIMIT,
                                             IP_SHOW_KERNEL,       IP_SHOW_NO_ANSWER};
constexpr std::array<size_t, 9> bad_packet_outcomes{
    IP_SHOW_PACKET_TOO_SHORT,     IP_SHOW_PACKET_TOO_LONG,   IP_SHOW_PACKET_WRONG_MAJOR,
    IP_SHOW_PACKET_BAD_REFERENCE, IP_SHOW_PACKET_BAD_LENGTH, IP_SHOW_PACKET_QUEUE_FULL,
    IP_SHOW_PACKET_NO_PRIVILEGE,  IP_SHOW_PACKET_NO_MEMORY,  IP_SHOW_PACKET_KERNEL};

// "register not-allowed 3, ..."; empty: nothing of that kind.
template <class Row>
std::string troubles(const std::vector<Row> &rows, std::span<const size_t> bad, const char *(*name)(size_t)) {
  std::string text;
  for (const Row &row : rows) {
    for (const size_t outcome : bad) {
      if (row.counts[outcome] == 0) continue;
      text += fmt::format("{}{} {} {}", text.empty() ? "" : ", ", row.name, name(outcome), row.counts[outcome]);
    }
  }
  return text;
}

template <class Row>
uint64_t sum_of(const std::vector<Row> &rows) {
  uint64_t sum = 0;
  for (const Row &row : rows) sum = std::accumulate(row.counts.begin(), row.counts.end(), sum);
  return sum;
}

}  // namespace

void check_database(Examination *examination, Report report) {
  if (!examination->has_segments) return report.not_made();
  Failure failure;
  examination->database = Attachment::open(&failure);
  if (examination->database == nullptr) return report.failed(failure.message, failure.advice);
  const SystemState state = read_system(*examination->database);
  report.ok(fmt::format("{} contexts, {} interfaces, {} addresses; generation {} of writer {}{}", state.contexts,
                        state.interfaces, state.addresses, state.generation, state.instance,
                        age_text(rsw::segment_path(rsw::segment_ip.name))));
}

void check_reader_lock(Examination *examination, Report report) {
  if (!examination->has_segments) return report.not_made();
  std::string unused;
  const auto map = rsw::SegmentMap::attach(rsw::segment_tsp, &unused);
  if (map == nullptr) return report.not_made();  // gone since it was looked at
  const std::vector<rsw::EpochClient> clients = rsw::epoch_clients();
  uint32_t threads = 0;
  for (const rsw::EpochClient &client : clients) {
    threads += client.threads;
    if (client.inside && is_stopped(client.pid)) {
      return report.warning(
          fmt::format("process {} is stopped inside a query: ipd keeps memory back for it", client.pid),
          fmt::format("kill -CONT {}, or end it", client.pid));
    }
  }
  const uint32_t slots = signed_slots();
  std::string finding = fmt::format("{} of {} slots in use, by {} processes", slots, rsw::slot_limit, clients.size());
  if (slots > threads)
    finding += fmt::format("; {} of the dead, which the next client or change takes", slots - threads);
  if (slots > most_used * rsw::slot_limit) {
    return report.warning(finding, "ipsh show clients tells who has the most threads; ipsh without a slot cannot read");
  }
  report.ok(finding);
}

void check_buffers(Examination *examination, Report report) {
  if (!examination->has_run_directory) return report.not_made();
  rsw::PoolReport pool;
  std::string reason;
  if (!rsw::report_pool(&pool, &reason)) return report.not_made();  // the row of the segment says why
  const std::string finding = fmt::format("{} of {} in use, {} cached, {} at most so far", pool.in_use, pool.total,
                                          pool.cached, pool.high_water);
  if (pool.damaged != 0) {
    return report.failed(fmt::format("{}; {} words made no sense", finding, pool.damaged),
                         "a program that may send packets wrote where it must not: ipsh show mbufs tells who there is; "
                         "end it, then restart ipd");
  }
  if (pool.refused != 0 || pool.in_use + pool.cached > most_used * pool.total) {
    return report.warning(
        fmt::format("{}; {} were refused", finding, pool.refused),
        fmt::format("{}: a client that does not free what it receives is to be restarted", biggest_owner(pool)));
  }
  report.ok(finding);
}

void check_queues(Examination *examination, Report report) {
  if (!examination->has_run_directory) return report.not_made();
  const std::vector<rsw::MtsQueueUse> queues = rsw::mts_queues();
  bool all_well = true;
  for (const rsw::MtsQueueUse &queue : queues) {
    const Finding found = look_at(queue);
    if (found.finding.empty()) continue;
    report.warning(found.finding, found.remedy);
    all_well = false;
  }
  if (all_well) report.ok(fmt::format("{} queues, no drops", queues.size()));
}

void check_messages(Examination *examination, Report report) {
  if (!examination->may_read) return report.not_made();
  Failure failure;
  const auto rows = read_messages(&failure);
  if (!rows) return report.warning(failure.message, failure.advice);
  const std::string found = troubles(*rows, bad_outcomes, outcome_name);
  if (found.empty()) return report.ok(fmt::format("{} came, none refused that should not be", sum_of(*rows)));
  report.warning(fmt::format("refused: {}", found), "ipsh show clients tells whose; ipd's log says why");
}

void check_packets(Examination *examination, Report report) {
  if (!examination->may_read) return report.not_made();
  Failure failure;
  const auto rows = read_packets(&failure);
  if (!rows) return report.warning(failure.message, failure.advice);
  const std::string found = troubles(*rows, bad_packet_outcomes, packet_outcome_name);
  if (found.empty()) return report.ok(fmt::format("{} passed or were answered, none lost here", sum_of(*rows)));
  report.warning(fmt::format("lost: {}", found),
                 "docs/packet-words.md says what each means; ipsh show packets has all");
}

}  // namespace ipsh
