// SPDX-License-Identifier: Apache-2.0
#include "progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

namespace ipsh {
namespace {

constexpr std::chrono::seconds first_after(1);
constexpr std::chrono::milliseconds then_every(200);
constexpr size_t rows_between_looks = 1024;  // a look at the clock costs more than a row

}  // namespace

Progress::Progress(size_t total)
    : wanted_(isatty(STDERR_FILENO) == 1 && isatty(STDOUT_FILENO) == 0),
      total_(total),
      next_(Clock::now() + first_after) {}

Progress::~Progress() {
  // Back to the first column, and what stood there away.
  if (shown_) fmt::print(stderr, "\r\x1b[K");
}

void Progress::step() {
  ++done_;
  if (wanted_ && done_ % rows_between_looks == 0 && Clock::now() >= next_) show();
}

void Progress::show() {
  fmt::print(stderr, "\ripsh: {} of {} rows", done_, total_);
  std::fflush(stderr);
  next_ = Clock::now() + then_every;
  shown_ = true;
}

void say_what_is_waited_for(const char *what) {
  if (isatty(STDERR_FILENO) == 1) fmt::print(stderr, "ipsh: waiting for {}\n", what);
}

}  // namespace ipsh
