// SPDX-License-Identifier: Apache-2.0
// Waiting for descriptors, signals and the clock, in one thread.
#ifndef IPD_EVENT_LOOP_H
#define IPD_EVENT_LOOP_H

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ipd {

class EventLoop {
 public:
  // Blocks SIGTERM, SIGINT and SIGHUP for this thread; from now on they arrive here. Null: *reason.
  static std::unique_ptr<EventLoop> open(std::string *reason);
  ~EventLoop();
  EventLoop(const EventLoop &) = delete;
  EventLoop &operator=(const EventLoop &) = delete;

  // `ready` runs whenever the descriptor is readable. False: *reason.
  bool watch(int descriptor, std::function<void()> ready, std::string *reason);
  // It does not run any more; to be called before the descriptor is closed, also while it runs.
  void forget(int descriptor);
  // `signalled` runs for each signal that arrived.
  void on_signal(std::function<void(int)> signalled) { signalled_ = std::move(signalled); }
  // `tick` runs about this often, whatever else goes on.
  void every(std::chrono::milliseconds period, std::function<void()> tick);
  // Returns after stop().
  bool run(std::string *reason);
  void stop() { stopped_ = true; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Beat {
    std::chrono::milliseconds period;
    Clock::time_point next;
    std::function<void()> tick;
  };
  EventLoop() = default;
  void read_signals();
  int run_beats();  // milliseconds until the next

  int epoll_ = -1;
  int signals_ = -1;
  bool stopped_ = false;
  std::map<int, std::function<void()>> watched_;
  std::vector<Beat> beats_;
  std::function<void(int)> signalled_;
};

}  // namespace ipd

#endif
