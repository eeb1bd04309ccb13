// SPDX-License-Identifier: Apache-2.0
#include "soak_record.h"

#include <cstdarg>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace soak {
namespace {

constexpr size_t longest_log = 64 << 10;
constexpr size_t most_anomalies = 50;

[[gnu::format(printf, 2, 3)]] void add_line(std::string *text, const char *format, ...) {
  char line[512];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  *text += line;
}

unsigned long long number(uint64_t value) {
  return value;
}

}  // namespace

const char *kind_name(size_t kind) {
  static constexpr const char *names[] = {"attach",           "questions",  "walk",     "thread",
                                          "register",         "deregister", "join",     "leave",
                                          "configure",        "statistics", "download", "send by reference",
                                          "send by segments", "hand in",    "receive",  "(between)"};
  static_assert(std::size(names) == kinds + 1);
  return names[kind];
}

void Record::anomaly(const std::string &text) {
  if (anomalies.size() < most_anomalies) anomalies.push_back(text);
  fprintf(stderr, "soak: anomaly: %s\n", text.c_str());
}

void Record::keep_log(const std::string &text) {
  log += text;
  if (log.size() > longest_log) log.erase(0, log.size() - longest_log);
}

std::string as_table(const Record &record) {
  std::string text;
  std::string widths;
  for (const std::string &width : record.widths) widths += (widths.empty() ? "" : " and ") + width;
  add_line(&text, "soak: %.0f seconds, seed %u, clients of %s\n\n", record.seconds, record.seed, widths.c_str());
  add_line(&text, "%-18s %12s %10s %8s %8s\n", "operation", "done", "refused", "killed", "stopped");
  for (size_t kind = 0; kind <= kinds; ++kind) {
    const KindRecord &row = record.by_kind[kind];
    add_line(&text, "%-18s %12llu %10llu %8llu %8llu\n", kind_name(kind), number(row.done), number(row.refused),
             number(row.killed), number(row.stopped));
  }
  add_line(&text, "\npackets received whole: %llu by reference, %llu by segments\n",
           number(record.packets_by_reference), number(record.packets_by_segments));
  add_line(&text, "clients started: %llu\n", number(record.clients_started));
  add_line(&text,
           "ipd: started %llu times (%llu of the other width), killed %llu times live and %llu while it began, "
           "stopped %llu times\n",
           number(record.ipd_started), number(record.ipd_other_width), number(record.ipd_killed_live),
           number(record.ipd_killed_starting), number(record.ipd_stopped));
  add_line(&text, "kernel: %llu changes of addresses, %llu of links, %llu of routes\n\n",
           number(record.addresses_changed), number(record.links_changed), number(record.routes_changed));
  add_line(&text, "%9s %8s %12s %14s %14s %6s %6s %15s\n", "quiet at", "ipd", "descriptors", "private memory",
           "shared blocks", "slots", "files", "buffers in use");
  for (const Steady &at : record.steady) {
    add_line(&text, "%8.1fs %8d %12llu %10llu KiB %14llu %6llu %6llu %15llu\n", at.at, at.ipd, number(at.descriptors),
             number(at.private_kib), number(at.shared_blocks), number(at.slots), number(at.files),
             number(at.buffers_in_use));
  }
  add_line(&text, "\nanomalies: %zu\n", record.anomalies.size());
  for (const std::string &anomaly : record.anomalies) text += "  " + anomaly + "\n";
  return text;
}

std::string as_json(const Record &record) {
  nlohmann::json operations;
  for (size_t kind = 0; kind <= kinds; ++kind) {
    const KindRecord &row = record.by_kind[kind];
    operations[kind_name(kind)] = {
        {"done", row.done}, {"refused", row.refused}, {"killed", row.killed}, {"stopped", row.stopped}};
  }
  nlohmann::json steady = nlohmann::json::array();
  for (const Steady &at : record.steady) {
    steady.push_back({{"at", at.at},
                      {"ipd", at.ipd},
                      {"descriptors", at.descriptors},
                      {"private_kib", at.private_kib},
                      {"shared_blocks", at.shared_blocks},
                      {"slots", at.slots},
                      {"files", at.files},
                      {"buffers_in_use", at.buffers_in_use}});
  }
  const nlohmann::json all = {
      {"seed", record.seed},
      {"seconds", record.seconds},
      {"widths", record.widths},
      {"operations", operations},
      {"packets", {{"by_reference", record.packets_by_reference}, {"by_segments", record.packets_by_segments}}},
      {"clients_started", record.clients_started},
      {"ipd",
       {{"started", record.ipd_started},
        {"other_width", record.ipd_other_width},
        {"killed_live", record.ipd_killed_live},
        {"killed_starting", record.ipd_killed_starting},
        {"stopped", record.ipd_stopped}}},
      {"kernel",
       {{"addresses", record.addresses_changed}, {"links", record.links_changed}, {"routes", record.routes_changed}}},
      {"steady", steady},
      {"anomalies", record.anomalies},
  };
  return all.dump(2) + "\n";
}

}  // namespace soak
