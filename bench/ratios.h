// SPDX-License-Identifier: Apache-2.0
// Remembers the figures of a run, and prints at its end what our own are in those of their peers. Of processor time the
// least of all repetitions counts, since what else a machine does only adds to it; of elapsed time the median does.
#ifndef BENCH_RATIOS_H
#define BENCH_RATIOS_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bench {

enum class Time { processor, elapsed };

inline double least(const std::vector<double> &all) {
  return *std::ranges::min_element(all);
}

// Names are "group/who/what". A benchmark of processor time sets its iterations' times by itself.
inline void add(const std::string &name, Time time, const std::function<void(benchmark::State &)> &bench) {
  auto *made = benchmark::RegisterBenchmark(name.c_str(), bench)
                   ->Repetitions(time == Time::processor ? 25 : 9)
                   ->ReportAggregatesOnly()
                   ->ComputeStatistics("least", least);
  if (time == Time::processor) {
    made->UseManualTime();
  } else {
    made->UseRealTime();
  }
}

class Ratios : public benchmark::ConsoleReporter {
 public:
  // `group` names groups of processor time by their beginning.
  Ratios(std::string group, std::vector<std::string> ours, std::vector<std::string> peers)
      : group_(std::move(group)), ours_(std::move(ours)), peers_(std::move(peers)) {}

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &one : runs) {
      const std::string &name = one.run_name.function_name;
      if (one.run_type == Run::RT_Aggregate && one.aggregate_name == (name.starts_with(group_) ? "least" : "median")) {
        figures_[name] = one.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void print() const {
    for (const std::string &who : ours_) {
      printf("\n%s in each peer's figure\n", who.c_str());
      const std::string part = "/" + who + "/";
      for (const auto &[name, figure] : figures_) {
        const size_t at = name.find(part);
        if (at == std::string::npos) continue;
        for (const std::string &peer : peers_) {
          std::string other = name;
          const auto found = figures_.find(other.replace(at + 1, who.size(), peer));
          if (found == figures_.end()) continue;
          printf("%-26s %12s %8.0f ns of %8.0f ns %8.3f\n", name.c_str(), peer.c_str(), figure, found->second,
                 figure / found->second);
        }
      }
    }
  }

 private:
  std::string group_;
  std::vector<std::string> ours_, peers_;
  std::map<std::string, double> figures_;
};

// Runs them all. Peers take turns, so that what else the machine does meets all of them alike.
inline void run_interleaved(int argc, char **argv, Ratios &ratios) {
  std::vector<char *> arguments(argv, argv + argc);
  std::string interleaved = "--benchmark_enable_random_interleaving=true";
  arguments.insert(arguments.begin() + 1, interleaved.data());
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  benchmark::Initialize(&count, arguments.data());
  benchmark::RunSpecifiedBenchmarks(&ratios);
  ratios.print();
}

}  // namespace bench

#endif
