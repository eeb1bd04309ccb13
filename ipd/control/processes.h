// SPDX-License-Identifier: Apache-2.0
// The processes that sent something, until each is gone for good.
#ifndef IPD_CONTROL_PROCESSES_H
#define IPD_CONTROL_PROCESSES_H

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

namespace ipd::control {

// What the kernel says about processes. A process that ended and was not reaped yet is not there any more.
class ProcessWatch {
 public:
  virtual ~ProcessWatch() = default;
  // A handle that stays with this process whoever has its number later; or a negative error number, ESRCH: there is no
  // such process.
  virtual int watch(int32_t pid) = 0;
  virtual void forget(int handle) = 0;
  [[nodiscard]] virtual bool ended(int handle) = 0;
  // The watched ones that ended, those told before and not forgotten yet too.
  [[nodiscard]] virtual std::vector<int32_t> ended_processes() = 0;
  // When the process of this number began; 0: there is none.
  [[nodiscard]] virtual uint64_t start_time(int32_t pid) = 0;
};

class Processes {
 public:
  explicit Processes(ProcessWatch &watch) : watch_(watch) {}
  ~Processes();
  Processes(const Processes &) = delete;
  Processes &operator=(const Processes &) = delete;

  // `gone` runs once for each process that was noted, when it is gone for good.
  void on_gone(std::function<void(int32_t pid)> gone) { gone_ = std::move(gone); }

  // A message of this process is about to be handled. Where another one had its number before, that one is gone first.
  void note(int32_t pid);
  // Whether a noted process is still there.
  [[nodiscard]] bool alive(int32_t pid);
  // Looks who ended: those of whom the kernel told; or all, for those that could not be watched.
  void look();
  void look_at_all();
  // Nothing that a dead process sent waits any more: those that were seen to have ended are gone now.
  void settle();

  [[nodiscard]] size_t noted() const { return noted_.size(); }

 private:
  struct Noted {
    int handle = -1;  // none: known by its beginning
    uint64_t start_time = 0;
    bool has_ended = false;
  };
  bool has_ended(int32_t pid, Noted &process);
  Noted begin(int32_t pid);
  void leave(std::map<int32_t, Noted>::iterator place);

  ProcessWatch &watch_;
  std::map<int32_t, Noted> noted_;
  std::function<void(int32_t)> gone_;
};

}  // namespace ipd::control

#endif
