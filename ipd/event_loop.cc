// SPDX-License-Identifier: Apache-2.0
#include "ipd/event_loop.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace ipd {

std::unique_ptr<EventLoop> EventLoop::open(std::string *reason) {
  std::unique_ptr<EventLoop> loop(new EventLoop);
  sigset_t set;
  sigemptyset(&set);
  for (int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, number);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
  loop->epoll_ = epoll_create1(EPOLL_CLOEXEC);
  loop->signals_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (loop->epoll_ < 0 || loop->signals_ < 0) {
    *reason = std::string("cannot wait for events: ") + strerror(errno);
    return nullptr;
  }
  EventLoop *self = loop.get();
  if (!loop->watch(
          loop->signals_, [self] { self->read_signals(); }, reason))
    return nullptr;
  return loop;
}

EventLoop::~EventLoop() {
  if (epoll_ >= 0) close(epoll_);
  if (signals_ >= 0) close(signals_);
}

bool EventLoop::watch(int descriptor, std::function<void()> ready, std::string *reason) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = descriptor;
  if (epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) != 0) {
    *reason = std::string("cannot wait for events: ") + strerror(errno);
    return false;
  }
  watched_[descriptor] = std::move(ready);
  return true;
}

void EventLoop::forget(int descriptor) {
  epoll_ctl(epoll_, EPOLL_CTL_DEL, descriptor, nullptr);
  watched_.erase(descriptor);
}

void EventLoop::every(std::chrono::milliseconds period, std::function<void()> tick) {
  beats_.push_back({.period = period, .next = Clock::now() + period, .tick = std::move(tick)});
}

void EventLoop::read_signals() {
  signalfd_siginfo information{};
  while (read(signals_, &information, sizeof information) == sizeof information) {
    if (signalled_) signalled_(static_cast<int>(information.ssi_signo));
  }
}

int EventLoop::run_beats() {
  if (beats_.empty()) return -1;
  auto next = Clock::time_point::max();
  for (Beat &beat : beats_) {
    const auto now = Clock::now();
    if (beat.next <= now) {
      beat.tick();
      beat.next = now + beat.period;
    }
    next = std::min(next, beat.next);
  }
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
  return static_cast<int>(std::clamp<int64_t>(wait.count(), 0, 60000));
}

bool EventLoop::run(std::string *reason) {
  while (!stopped_) {
    std::array<epoll_event, 16> events;
    const int wait = run_beats();
    if (stopped_) return true;
    const int got = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), wait);
    if (got < 0 && errno != EINTR) {
      *reason = std::string("epoll: ") + strerror(errno);
      return false;
    }
    for (int i = 0; i < got && !stopped_; ++i) {
      // One that another of this round forgot is not called; a copy, because it may forget itself.
      const auto found = watched_.find(events[static_cast<size_t>(i)].data.fd);
      if (found == watched_.end()) continue;
      const auto ready = found->second;
      ready();
    }
  }
  return true;
}

}  // namespace ipd
