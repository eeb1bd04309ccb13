// SPDX-License-Identifier: Apache-2.0
// ICMP redirects of an interface: net.ipv4.conf.NAME.send_redirects and accept_redirects.
#ifndef IPD_KERNEL_REDIRECTS_H
#define IPD_KERNEL_REDIRECTS_H

#include <string>

namespace ipd::kernel {

class Redirects {
 public:
  virtual ~Redirects() = default;
  // The interface sends none and follows none. Results: 0, or an error number: ENOENT: there is no such interface;
  // EACCES, EPERM, EROFS: this process may not.
  virtual int disable(const std::string &interface) = 0;
};

// The kernel sends redirects on an interface when its own setting or that of all says so, so the setting of all goes
// off too; the other interfaces then follow their own.
class RedirectSettings final : public Redirects {
 public:
  explicit RedirectSettings(std::string directory = "/proc/sys/net/ipv4/conf") : directory_(std::move(directory)) {}
  int disable(const std::string &interface) override;

 private:
  [[nodiscard]] int switch_off(const std::string &interface, const char *setting) const;
  std::string directory_;
};

}  // namespace ipd::kernel

#endif
