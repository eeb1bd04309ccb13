// SPDX-License-Identifier: Apache-2.0
// A system made of numbers, for measurements and tests: contexts, interfaces and addresses without a kernel, told to
// the same publisher.
#ifndef IPD_SIMULATE_SIMULATION_H
#define IPD_SIMULATE_SIMULATION_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ipd/publish/publisher.h"

namespace ipd {

struct SimulationPlan {
  uint32_t contexts = 1;
  uint32_t interfaces = 16;
  uint32_t addresses = 64;
  uint32_t routes = 0;
  uint32_t changes_per_second = 0;
  uint32_t measured_changes = 10000;
  uint64_t seed = 1;
};

// Reads the text of a --simulate file. Nothing: *reason is "FILE: key: what is wrong".
[[nodiscard]] std::optional<SimulationPlan> parse_simulation(std::string_view text, std::string_view file,
                                                             std::string *reason);
[[nodiscard]] std::optional<SimulationPlan> load_simulation(const std::string &file, std::string *reason);

// One address of the simulated system; see simulation.cc for the rule.
struct SimulatedAddress {
  uint32_t ifindex;
  AddressState state;
  bool flips;  // comes and goes under load; the others are permanent
};
[[nodiscard]] uint32_t simulated_address_count(const SimulationPlan &plan, uint32_t interface);  // interface: from 0
[[nodiscard]] SimulatedAddress simulated_address(const SimulationPlan &plan, uint32_t interface, uint32_t ordinal);

struct SimulationReport {
  SimulationPlan plan;
  std::chrono::nanoseconds load{};
  PublisherUse use{};
  uint64_t resident_bytes = 0;  // of this process
  uint32_t measured = 0;        // changes: one address removed or added, and committed
  uint64_t mean_ns = 0, median_ns = 0, p99_ns = 0, most_ns = 0;
};
[[nodiscard]] std::string print_report(const SimulationReport &report, bool json);

class Simulation {
 public:
  Simulation(Publisher &publisher, const SimulationPlan &plan);

  // Publishes everything and commits. `progress` hears about once a second how many interfaces are done. False:
  // *reason.
  bool load(const std::function<void(uint32_t)> &progress, std::string *reason);
  // Takes addresses that flip away and puts them back, committing each time, and measures; afterwards all are there.
  bool measure(SimulationReport *report, std::string *reason);
  // One address that flips comes or goes; the caller commits. The order is the seed's.
  bool change(std::string *reason);
  [[nodiscard]] size_t flipping() const { return present_.size(); }

 private:
  [[nodiscard]] SimulatedAddress flipping_address(uint32_t index) const;
  bool set(uint32_t index, bool present, std::string *reason);
  uint64_t draw();
  uint32_t draw_index();

  Publisher &publisher_;
  SimulationPlan plan_;
  std::vector<bool> present_;  // of the addresses that flip
  uint64_t random_;
};

}  // namespace ipd

#endif
