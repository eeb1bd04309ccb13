// SPDX-License-Identifier: Apache-2.0
// A word for whoever waits in front of a terminal: how far a long listing is, when its rows go elsewhere.
#ifndef IPSH_PROGRESS_H
#define IPSH_PROGRESS_H

#include <chrono>
#include <cstddef>

namespace ipsh {

// One line on standard error that replaces itself. It comes when the work has taken a second, and goes with the object;
// there is none where standard error is no terminal, or where the rows themselves appear on one.
class Progress {
 public:
  explicit Progress(size_t total);
  ~Progress();
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;
  // One row more.
  void step();

 private:
  using Clock = std::chrono::steady_clock;
  void show();
  const bool wanted_;
  const size_t total_;
  size_t done_ = 0;
  Clock::time_point next_;
  bool shown_ = false;
};

// Says once what is waited for, where somebody is there to read it.
void say_what_is_waited_for(const char *what);

}  // namespace ipsh

#endif
