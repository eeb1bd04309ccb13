// SPDX-License-Identifier: Apache-2.0
#include "ipd/kernel/redirects.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace ipd::kernel {

// What is off stays untouched: that needs no privilege.
int RedirectSettings::switch_off(const std::string &interface, const char *setting) const {
  const std::string file = directory_ + "/" + interface + "/" + setting;
  int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  char now = 0;
  const bool is_off = read(descriptor, &now, 1) == 1 && now == '0';
  close(descriptor);
  if (is_off) return 0;
  descriptor = open(file.c_str(), O_WRONLY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  const int error = write(descriptor, "0\n", 2) == 2 ? 0 : errno;
  close(descriptor);
  return error;
}

int RedirectSettings::disable(const std::string &interface) {
  if (const int error = switch_off(interface, "send_redirects"); error != 0) return error;
  if (const int error = switch_off(interface, "accept_redirects"); error != 0) return error;
  return switch_off("all", "send_redirects");
}

}  // namespace ipd::kernel
