// SPDX-License-Identifier: Apache-2.0
#include "soak_ipd.h"

#include <signal.h>

#include <atomic>

namespace soak {
namespace {

constexpr auto start_deadline = std::chrono::seconds(60);

// What ipd says when it met damage or lost its own way; nothing in a soak may make it say so.
constexpr const char *alarms[] = {"made no sense", "does not converge", "cannot commit"};

}  // namespace

Ipd::~Ipd() {
  keep_log();
}

// Odd from before whatever happens to it; even again when it is live.
void Ipd::disturb() {
  const std::atomic_ref epoch(epoch_);
  if (epoch.load(std::memory_order_relaxed) % 2 == 0) epoch.fetch_add(1, std::memory_order_seq_cst);
}

void Ipd::keep_log() {
  const std::string &text = process_.output();
  for (const char *alarm : alarms) {
    if (text.find(alarm) != std::string::npos) record_.anomaly(std::string("ipd says: ") + alarm);
  }
  record_.keep_log("---- ipd " + std::to_string(process_.pid()) + "\n" + text);
}

void Ipd::start(std::mt19937 &random) {
  program_ = random() % programs_.size();
  process_ = test_support::Process({programs_[program_], "--foreground"});
  is_there_ = true;
  live_ = false;
  told_late_ = false;
  started_ = Clock::now();
  ++record_.ipd_started;
  if (program_ != 0) ++record_.ipd_other_width;
}

void Ipd::tend(std::mt19937 &random) {
  const auto now = Clock::now();
  if (!is_there_) {
    if (now >= due_) start(random);
    return;
  }
  if (!process_.running()) {
    const int status = process_.wait();
    record_.anomaly("ipd ended with " + std::to_string(status) + ": " + process_.output());
    disturb();
    keep_log();
    is_there_ = false;
    live_ = false;
    due_ = now;
    return;
  }
  if (stopped_until_ && now >= *stopped_until_) go_on();
  if (live_ || stopped_until_) return;
  if (process_.output().find("live:") != std::string::npos) {
    live_ = true;
    std::atomic_ref(epoch_).fetch_add(1, std::memory_order_seq_cst);
  } else if (now - started_ > start_deadline && !told_late_) {
    told_late_ = true;
    record_.anomaly("ipd is not live in time: " + process_.output());
  }
}

void Ipd::kill(std::mt19937 &random) {
  if (!is_there_) return;
  disturb();
  ++(live_ ? record_.ipd_killed_live : record_.ipd_killed_starting);
  process_.kill_now();
  keep_log();
  is_there_ = false;
  live_ = false;
  stopped_until_.reset();
  due_ = Clock::now() + std::chrono::milliseconds(random() % 4 == 0 ? random() % 1000 : 0);
}

void Ipd::stop(std::mt19937 &random) {
  if (!is_there_ || !live_ || stopped_until_) return;
  disturb();
  process_.signal(SIGSTOP);
  ++record_.ipd_stopped;
  stopped_until_ = Clock::now() + std::chrono::milliseconds(20 + random() % 800);
}

void Ipd::go_on() {
  if (!stopped_until_) return;
  process_.signal(SIGCONT);
  stopped_until_.reset();
  if (live_) std::atomic_ref(epoch_).fetch_add(1, std::memory_order_seq_cst);
}

}  // namespace soak
