// SPDX-License-Identifier: Apache-2.0
// Epochs with simulated readers: a test decides who enters and leaves, and nothing else runs.
#ifndef TESTS_PLATFORM_SIMULATED_EPOCHS_H
#define TESTS_PLATFORM_SIMULATED_EPOCHS_H

#include <cstring>
#include <vector>

#include "tsp/epochs.h"

namespace test_support {

class SimulatedEpochs final : public rsw::Epochs {
 public:
  explicit SimulatedEpochs(size_t readers = 0) : held_(readers, 0) {}

  void enter(size_t reader) { held_[reader] = current_; }
  void leave(size_t reader) { held_[reader] = 0; }
  [[nodiscard]] bool inside(size_t reader) const { return held_[reader] != 0; }
  [[nodiscard]] const std::vector<uint32_t> &overruled() const { return overruled_; }

  uint32_t advance(rsw::Domain) override { return ++current_; }
  bool passed(rsw::Domain domain, uint32_t epoch) override { return holders(domain, epoch).empty(); }
  std::vector<rsw::EpochHolder> holders(rsw::Domain, uint32_t epoch) override {
    std::vector<rsw::EpochHolder> answer;
    for (size_t reader = 0; reader < held_.size(); ++reader) {
      if (held_[reader] == 0 || held_[reader] >= epoch) continue;
      rsw::EpochHolder holder{.slot = static_cast<uint32_t>(reader),
                              .pid = 4242,
                              .tid = 4243,
                              .command = {},
                              .epoch = held_[reader],
                              .domain = rsw::Domain::database};
      strcpy(holder.command, "stuckd");
      answer.push_back(holder);
    }
    return answer;
  }
  void overrule(const rsw::EpochHolder &holder) override {
    overruled_.push_back(holder.slot);
    held_[holder.slot] = 0;
  }
  void put_back() override {}

 private:
  uint32_t current_ = 1;
  std::vector<uint32_t> held_;
  std::vector<uint32_t> overruled_;
};

}  // namespace test_support

#endif
