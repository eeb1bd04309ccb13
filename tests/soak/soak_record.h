// SPDX-License-Identifier: Apache-2.0
// What a soak did, and what it found.
#ifndef TESTS_SOAK_SOAK_RECORD_H
#define TESTS_SOAK_SOAK_RECORD_H

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "soak_board.h"

namespace soak {

using Clock = std::chrono::steady_clock;

inline constexpr size_t kinds = SOAK_KINDS;
inline constexpr size_t between = kinds;  // in no operation

// By soak_kind; the last one is for clients in none.
const char *kind_name(size_t kind);

struct KindRecord {
  uint64_t done = 0, refused = 0;
  uint64_t killed = 0, stopped = 0;  // clients, in the middle of one
};

struct Steady {  // of one quiet point
  double at = 0;
  int32_t ipd = 0;
  uint64_t descriptors = 0, private_kib = 0, shared_blocks = 0, slots = 0, files = 0, buffers_in_use = 0;
};

struct Record {
  uint32_t seed = 0;
  double seconds = 0;
  std::array<KindRecord, kinds + 1> by_kind{};
  uint64_t clients_started = 0;
  uint64_t packets_by_reference = 0, packets_by_segments = 0;
  uint64_t ipd_killed_live = 0, ipd_killed_starting = 0, ipd_stopped = 0, ipd_started = 0, ipd_other_width = 0;
  uint64_t addresses_changed = 0, links_changed = 0, routes_changed = 0;
  std::vector<std::string> widths;
  std::vector<Steady> steady;
  std::vector<std::string> anomalies;
  std::string log;  // of ipd, its last part

  void anomaly(const std::string &text);
  void keep_log(const std::string &text);
};

std::string as_table(const Record &record);
std::string as_json(const Record &record);

}  // namespace soak

#endif
