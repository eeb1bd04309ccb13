// SPDX-License-Identifier: Apache-2.0
// Processes watched by descriptors of the kernel.
#ifndef IPD_CONTROL_PIDFD_WATCH_H
#define IPD_CONTROL_PIDFD_WATCH_H

#include <memory>
#include <string>

#include "ipd/control/processes.h"

namespace ipd::control {

class PidfdWatch final : public ProcessWatch {
 public:
  // Null: *reason.
  static std::unique_ptr<PidfdWatch> open(std::string *reason);
  ~PidfdWatch() override;
  PidfdWatch(const PidfdWatch &) = delete;
  PidfdWatch &operator=(const PidfdWatch &) = delete;

  // Readable while one of the watched has ended.
  [[nodiscard]] int descriptor() const { return epoll_; }

  int watch(int32_t pid) override;
  void forget(int handle) override;
  bool ended(int handle) override;
  std::vector<int32_t> ended_processes() override;
  uint64_t start_time(int32_t pid) override;

 private:
  PidfdWatch() = default;

  int epoll_ = -1;
  int spare_ = -1;  // given up to read a file when no descriptor is left
};

}  // namespace ipd::control

#endif
