// SPDX-License-Identifier: Apache-2.0
// The ipd of a soak: started in either width, killed at any point, stopped for a while.
#ifndef TESTS_SOAK_SOAK_IPD_H
#define TESTS_SOAK_SOAK_IPD_H

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "soak_record.h"
#include "support/process.h"

namespace soak {

class Ipd {
 public:
  // epoch: the board's word, even while ipd is live and undisturbed.
  Ipd(Record &record, std::vector<std::string> programs, uint32_t &epoch)
      : record_(record), programs_(std::move(programs)), epoch_(epoch) {}
  ~Ipd();
  Ipd(const Ipd &) = delete;
  Ipd &operator=(const Ipd &) = delete;

  // Starts it if it is not there, sees when it is live, lets it go on when it was stopped long enough.
  void tend(std::mt19937 &random);
  void kill(std::mt19937 &random);
  void stop(std::mt19937 &random);
  void go_on();
  [[nodiscard]] bool live() const { return live_; }
  [[nodiscard]] pid_t pid() const { return process_.pid(); }
  [[nodiscard]] const std::string &output() { return process_.output(); }

 private:
  void start(std::mt19937 &random);
  void disturb();
  void keep_log();

  Record &record_;
  std::vector<std::string> programs_;
  uint32_t &epoch_;
  test_support::Process process_;
  bool is_there_ = false, live_ = false, told_late_ = false;
  size_t program_ = 0;
  Clock::time_point started_, due_;
  std::optional<Clock::time_point> stopped_until_;
};

}  // namespace soak

#endif
