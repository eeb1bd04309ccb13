// SPDX-License-Identifier: Apache-2.0
// One ipd for each run directory.
#ifndef IPD_PROCESS_RUN_LOCK_H
#define IPD_PROCESS_RUN_LOCK_H

#include <memory>
#include <string>

namespace ipd {

// Held as long as the object lives; the kernel lets go of it with the process, however that ends.
class RunLock {
 public:
  enum class Failure { none, taken, error };

  // Locks "ipd.lock" in `directory` and writes our process id into it. Null: *reason says who has it, or what failed.
  static std::unique_ptr<RunLock> take(const std::string &directory, Failure *failure, std::string *reason);
  ~RunLock();
  RunLock(const RunLock &) = delete;
  RunLock &operator=(const RunLock &) = delete;

 private:
  explicit RunLock(int descriptor) : descriptor_(descriptor) {}
  int descriptor_;
};

}  // namespace ipd

#endif
