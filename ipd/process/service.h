// SPDX-License-Identifier: Apache-2.0
// What a process owes to whoever started it: word to the service manager, or a parent that ends when the daemon is
// live.
#ifndef IPD_PROCESS_SERVICE_H
#define IPD_PROCESS_SERVICE_H

#include <string>

namespace ipd {

// One datagram to $NOTIFY_SOCKET, such as "READY=1"; nothing when it is not set. False: it could not be sent.
bool notify_service_manager(const std::string &text);

// The parent's and the daemon's ends of "tell me when you are live".
class Daemon {
 public:
  // Forks. In the parent it does not return: the parent ends with what the daemon says, or with `failure` when the
  // daemon dies first. In the daemon it returns the object to say it with; its standard streams are still the parent's.
  // Not started (fork failed): *reason, and started() is false.
  static Daemon start(int failure, std::string *reason);
  [[nodiscard]] bool started() const { return descriptor_ >= 0; }
  // The parent ends with 0; the standard streams go to /dev/null.
  void live();
  // The parent ends with `status`; what is wrong was printed already.
  void failed(int status) const;

 private:
  explicit Daemon(int descriptor) : descriptor_(descriptor) {}
  int descriptor_;
};

}  // namespace ipd

#endif
