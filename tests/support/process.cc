// SPDX-License-Identifier: Apache-2.0
#include "support/process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "support/run_directory.h"

namespace test_support {

Process::Process(const std::vector<std::string> &argv) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  std::vector<char *> pointers;
  for (const std::string &word : argv) pointers.push_back(const_cast<char *>(word.c_str()));
  pointers.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    execvp(pointers[0], pointers.data());
    _exit(127);
  }
  close(ends[1]);
  pipe_ = ends[0];
  fcntl(pipe_, F_SETFL, O_NONBLOCK);
}

Process::Process(const std::function<int()> &body) {
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(body());
  }
}

Process::~Process() {
  kill_now();
  if (pipe_ >= 0) close(pipe_);
}

Process::Process(Process &&other) noexcept {
  *this = std::move(other);
}

Process &Process::operator=(Process &&other) noexcept {
  if (this == &other) return *this;
  kill_now();
  if (pipe_ >= 0) close(pipe_);
  pid_ = std::exchange(other.pid_, -1);
  pipe_ = std::exchange(other.pipe_, -1);
  status_ = other.status_;
  reaped_ = other.reaped_;
  output_ = std::move(other.output_);
  return *this;
}

void Process::finish(int status) {
  reaped_ = true;
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool Process::running() {
  if (pid_ < 0 || reaped_) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
  finish(status);
  return false;
}

void Process::signal(int number) const {
  if (pid_ > 0 && !reaped_) kill(pid_, number);
}

void Process::kill_now() {
  if (!running()) return;
  kill(pid_, SIGKILL);
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  finish(status);
}

int Process::wait(std::chrono::milliseconds deadline) {
  // The pipe is drained on the way, so that a child that writes much does not wait for us.
  const bool ended = wait_until([this] { return output(), !running(); }, deadline);
  output();
  return ended ? status_ : -1;
}

const std::string &Process::output() {
  char buffer[4096];
  ssize_t got = 0;
  while (pipe_ >= 0 && (got = read(pipe_, buffer, sizeof buffer)) > 0) output_.append(buffer, static_cast<size_t>(got));
  return output_;
}

int run(const std::vector<std::string> &argv, std::string *output) {
  Process process(argv);
  const int status = process.wait(std::chrono::milliseconds(60000));
  if (output != nullptr) *output = process.output();
  return status;
}

}  // namespace test_support
