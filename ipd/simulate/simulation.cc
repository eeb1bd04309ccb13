// SPDX-License-Identifier: Apache-2.0
// The simulated system, a function of the plan's numbers alone.
//
// Contexts: 1 is "default" with table 254, number n is "ctxN" with table 1000 + n. Interface number i (from 0) has
// ifindex i + 1 and is in context i modulo contexts, plus 1. The first interface of each context is its loopback,
// "loopI"; the others are "simI". All are up, have an MTU of 1500 (loopbacks 65536), and forward.
//
// Addresses are dealt evenly; what does not divide goes to the first interfaces. An interface's addresses lie in /24
// blocks of its own from 10.0.0.0 upwards, 250 in a block: address number j (from 0) is host 1 + j modulo 250 of block
// j / 250. The first of a block is primary, the others are secondary.
//
// Under load (changes_per_second, and the measurement) addresses with an odd j come and go; those with an even j, so
// every primary among them, are permanent. Which one flips next is drawn from the seed: the same plan makes the same
// changes in the same order. A test may therefore say of every address whether an answer about it can be right.
#include "ipd/simulate/simulation.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <numeric>

#include "ipd/config.h"
#include "ipd/json_reader.h"

namespace ipd {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t addresses_in_block = 250;
constexpr uint32_t first_block = 10u << 16;  // 10.0.0.0/24, in units of a /24
constexpr uint32_t last_block = 100u << 16;

uint32_t most_on_an_interface(const SimulationPlan &plan) {
  return plan.addresses / plan.interfaces + (plan.addresses % plan.interfaces != 0 ? 1 : 0);
}

uint32_t blocks_of_an_interface(const SimulationPlan &plan) {
  return std::max(1u, (most_on_an_interface(plan) + addresses_in_block - 1) / addresses_in_block);
}

uint32_t flipping_in_all(const SimulationPlan &plan) {
  const uint32_t more = plan.addresses % plan.interfaces;
  const uint32_t each = plan.addresses / plan.interfaces;
  return more * ((each + 1) / 2) + (plan.interfaces - more) * (each / 2);
}

uint64_t resident_bytes() {
  FILE *stream = fopen("/proc/self/statm", "re");
  if (stream == nullptr) return 0;
  unsigned long long whole = 0;
  unsigned long long resident = 0;
  const int got = fscanf(stream, "%llu %llu", &whole, &resident);
  fclose(stream);
  return got == 2 ? resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) : 0;
}

SimulationPlan read_plan(std::string_view text) {
  const nlohmann::json json = parse_json(text);
  const JsonObject object(
      json, "", {"contexts", "interfaces", "addresses", "routes", "changes_per_second", "measured_changes", "seed"});
  SimulationPlan plan;
  const auto number = [&object](const char *key, uint32_t least, uint32_t most, uint32_t &value) {
    if (const auto given = object.number(key, least, most)) value = static_cast<uint32_t>(*given);
  };
  number("contexts", 1, 4096, plan.contexts);
  number("interfaces", 1, 1000000, plan.interfaces);
  number("addresses", 0, 4000000, plan.addresses);
  number("routes", 0, 2000000, plan.routes);
  number("changes_per_second", 0, 1000000, plan.changes_per_second);
  number("measured_changes", 0, 10000000, plan.measured_changes);
  plan.seed = object.number("seed", 0, UINT64_MAX).value_or(plan.seed);
  if (plan.contexts > plan.interfaces) object.refuse("contexts", "more than interfaces");
  if (uint64_t{plan.interfaces} * blocks_of_an_interface(plan) > last_block - first_block) {
    object.refuse("addresses", "too many for this number of interfaces");
  }
  if (plan.changes_per_second > 0 && flipping_in_all(plan) == 0) {
    object.refuse("changes_per_second", "no interface has a second address that could come and go");
  }
  return plan;
}

}  // namespace

std::optional<SimulationPlan> parse_simulation(std::string_view text, std::string_view file, std::string *reason) {
  try {
    return read_plan(text);
  } catch (const JsonRefusal &refusal) {
    *reason = std::string(file) + ": " + refusal.text();
    return std::nullopt;
  }
}

std::optional<SimulationPlan> load_simulation(const std::string &file, std::string *reason) {
  std::string text;
  if (!read_file(file, &text, reason)) return std::nullopt;
  return parse_simulation(text, file, reason);
}

uint32_t simulated_address_count(const SimulationPlan &plan, uint32_t interface) {
  return plan.addresses / plan.interfaces + (interface < plan.addresses % plan.interfaces ? 1 : 0);
}

SimulatedAddress simulated_address(const SimulationPlan &plan, uint32_t interface, uint32_t ordinal) {
  const uint32_t block = first_block + interface * blocks_of_an_interface(plan) + ordinal / addresses_in_block;
  const uint32_t host = ordinal % addresses_in_block;
  return {.ifindex = interface + 1,
          .state = {.addr = block * 256 + 1 + host, .mask_len = 24, .secondary = host != 0, .scope = 0},
          .flips = ordinal % 2 == 1};
}

Simulation::Simulation(Publisher &publisher, const SimulationPlan &plan)
    : publisher_(publisher), plan_(plan), present_(flipping_in_all(plan), true), random_(plan.seed) {}

// splitmix64: any seed will do, zero too.
uint64_t Simulation::draw() {
  random_ += 0x9e3779b97f4a7c15u;
  uint64_t mixed = random_;
  mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9u;
  mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebu;
  return mixed ^ (mixed >> 31);
}

uint32_t Simulation::draw_index() {
  return static_cast<uint32_t>(draw() % present_.size());
}

SimulatedAddress Simulation::flipping_address(uint32_t index) const {
  const uint32_t more = plan_.addresses % plan_.interfaces;  // interfaces with one address more come first
  const uint32_t each = plan_.addresses / plan_.interfaces;
  const uint32_t on_first = (each + 1) / 2;
  const uint32_t on_others = each / 2;
  uint32_t interface = 0;
  uint32_t odd = 0;
  if (index < more * on_first) {
    interface = index / on_first;
    odd = index % on_first;
  } else {
    interface = more + (index - more * on_first) / on_others;
    odd = (index - more * on_first) % on_others;
  }
  return simulated_address(plan_, interface, 2 * odd + 1);
}

bool Simulation::load(const std::function<void(uint32_t)> &progress, std::string *reason) {
  const auto refused = [&] {
    *reason = publisher_.last_error();
    return false;
  };
  for (uint32_t id = 1; id <= plan_.contexts; ++id) {
    ContextState context{.id = id, .name = default_context_name, .table_id = main_table, .router_id = 0};
    if (id != default_context_id) {
      context.name = "ctx" + std::to_string(id);
      context.table_id = 1000 + id;
    }
    if (!publisher_.set_context(context)) return refused();
  }
  auto next_word = Clock::now() + std::chrono::seconds(1);
  for (uint32_t i = 0; i < plan_.interfaces; ++i) {
    const bool loopback = i < plan_.contexts;
    const InterfaceState interface {
      .ifindex = i + 1, .name = (loopback ? "loop" : "sim") + std::to_string(i), .up = true, .admin_up = true,
      .loopback = loopback, .multicast = !loopback, .forwarding = true, .directed_broadcast = false,
      .mtu = loopback ? 65536u : 1500u, .context_id = i % plan_.contexts + 1
    };
    if (!publisher_.set_interface(interface)) return refused();
    const uint32_t count = simulated_address_count(plan_, i);
    for (uint32_t j = 0; j < count; ++j) {
      const SimulatedAddress address = simulated_address(plan_, i, j);
      if (!publisher_.set_address(address.ifindex, address.state)) return refused();
    }
    if (const auto now = Clock::now(); now >= next_word) {
      progress(i + 1);
      next_word = now + std::chrono::seconds(1);
    }
  }
  return publisher_.commit() || refused();
}

bool Simulation::set(uint32_t index, bool present, std::string *reason) {
  const SimulatedAddress address = flipping_address(index);
  const bool done = present ? publisher_.set_address(address.ifindex, address.state)
                            : publisher_.remove_address(address.ifindex, address.state.addr, address.state.mask_len);
  if (!done) {
    *reason = publisher_.last_error();
    return false;
  }
  present_[index] = present;
  return true;
}

bool Simulation::change(std::string *reason) {
  const uint32_t index = draw_index();
  return set(index, !present_[index], reason);
}

bool Simulation::measure(SimulationReport *report, std::string *reason) {
  std::vector<uint64_t> costs;
  if (!present_.empty()) costs.reserve(plan_.measured_changes);
  auto next_tick = Clock::now();
  while (!present_.empty() && costs.size() < plan_.measured_changes) {
    const uint32_t index = draw_index();
    for (const bool present : {false, true}) {
      const auto before = Clock::now();
      if (!set(index, present, reason)) return false;
      if (!publisher_.commit()) {
        *reason = publisher_.last_error();
        return false;
      }
      const auto after = Clock::now();
      costs.push_back(static_cast<uint64_t>(std::chrono::nanoseconds(after - before).count()));
    }
    if (const auto now = Clock::now(); now >= next_tick) {
      publisher_.tick(now);
      next_tick = now + std::chrono::milliseconds(100);
    }
  }
  report->plan = plan_;
  report->use = publisher_.use();
  report->resident_bytes = resident_bytes();
  report->measured = static_cast<uint32_t>(costs.size());
  if (costs.empty()) return true;
  std::sort(costs.begin(), costs.end());
  report->mean_ns = std::accumulate(costs.begin(), costs.end(), uint64_t{0}) / costs.size();
  report->median_ns = costs[costs.size() / 2];
  report->p99_ns = costs[costs.size() * 99 / 100];
  report->most_ns = costs.back();
  return true;
}

std::string print_report(const SimulationReport &report, bool json) {
  const double load_ms = std::chrono::duration<double, std::milli>(report.load).count();
  if (json) {
    const nlohmann::ordered_json out = {{"version", 1},
                                        {"contexts", report.use.contexts},
                                        {"interfaces", report.use.interfaces},
                                        {"addresses", report.use.addresses},
                                        {"load_milliseconds", load_ms},
                                        {"segment_bytes", report.use.segment_bytes},
                                        {"resident_bytes", report.resident_bytes},
                                        {"changes",
                                         {{"measured", report.measured},
                                          {"mean_nanoseconds", report.mean_ns},
                                          {"median_nanoseconds", report.median_ns},
                                          {"p99_nanoseconds", report.p99_ns},
                                          {"most_nanoseconds", report.most_ns}}}};
    return out.dump() + "\n";
  }
  char text[512];
  snprintf(text, sizeof text,
           "simulated   %u contexts, %u interfaces, %u addresses\n"
           "load        %.1f ms\n"
           "segment     %.1f MiB\n"
           "resident    %.1f MiB\n",
           report.use.contexts, report.use.interfaces, report.use.addresses, load_ms,
           static_cast<double>(report.use.segment_bytes) / 1048576.0,
           static_cast<double>(report.resident_bytes) / 1048576.0);
  std::string out = text;
  if (report.measured > 0) {
    snprintf(text, sizeof text,
             "one change  %.2f us on average, %.2f us median, %.2f us p99, %.2f us at most (%u measured)\n",
             static_cast<double>(report.mean_ns) / 1000.0, static_cast<double>(report.median_ns) / 1000.0,
             static_cast<double>(report.p99_ns) / 1000.0, static_cast<double>(report.most_ns) / 1000.0,
             report.measured);
    out += text;
  }
  return out;
}

}  // namespace ipd
