// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/pidfd_watch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

namespace ipd::control {
namespace {

int open_spare() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

// A line of /proc/PID/stat: number, name in parentheses, state, ...; the beginning is the 22nd field. The name may hold
// anything, a parenthesis too.
uint64_t start_time_of(std::string_view line) {
  const size_t name_end = line.rfind(')');
  if (name_end == std::string_view::npos || line.size() < name_end + 3) return 0;
  const char state = line[name_end + 2];
  if (state == 'Z' || state == 'X') return 0;
  size_t at = name_end + 2;
  for (int field = 3; field < 22; ++field) {
    at = line.find(' ', at);
    if (at == std::string_view::npos) return 0;
    ++at;
  }
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(line.data() + at, line.data() + line.size(), value);
  return error == std::errc{} ? value : 0;
}

}  // namespace

std::unique_ptr<PidfdWatch> PidfdWatch::open(std::string *reason) {
  std::unique_ptr<PidfdWatch> made(new PidfdWatch);
  made->epoll_ = epoll_create1(EPOLL_CLOEXEC);
  made->spare_ = open_spare();
  if (made->epoll_ >= 0) return made;
  *reason = std::string("cannot watch processes: ") + strerror(errno);
  return nullptr;
}

PidfdWatch::~PidfdWatch() {
  if (epoll_ >= 0) close(epoll_);
  if (spare_ >= 0) close(spare_);
}

int PidfdWatch::watch(int32_t pid) {
  const int handle = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (handle < 0) return -errno;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = static_cast<uint64_t>(pid);
  if (epoll_ctl(epoll_, EPOLL_CTL_ADD, handle, &event) == 0) {
    if (!ended(handle)) return handle;
    errno = ESRCH;
  }
  const int error = errno;
  close(handle);
  return -error;
}

void PidfdWatch::forget(int handle) {
  close(handle);
}

bool PidfdWatch::ended(int handle) {
  pollfd process{handle, POLLIN, 0};
  return poll(&process, 1, 0) > 0;
}

std::vector<int32_t> PidfdWatch::ended_processes() {
  std::array<epoll_event, 256> events;
  const int found = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), 0);
  std::vector<int32_t> pids;
  for (int i = 0; i < found; ++i) pids.push_back(static_cast<int32_t>(events[static_cast<size_t>(i)].data.u64));
  return pids;
}

uint64_t PidfdWatch::start_time(int32_t pid) {
  if (spare_ >= 0) close(spare_);
  const int file = ::open(("/proc/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
  std::array<char, 1024> line;
  const ssize_t length = file < 0 ? -1 : read(file, line.data(), line.size());
  if (file >= 0) close(file);
  spare_ = open_spare();
  return length < 0 ? 0 : start_time_of({line.data(), static_cast<size_t>(length)});
}

}  // namespace ipd::control
