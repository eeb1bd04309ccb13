// SPDX-License-Identifier: Apache-2.0
#include "ipd/process/service.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace ipd {

bool notify_service_manager(const std::string &text) {
  const char *path = getenv("NOTIFY_SOCKET");
  if (path == nullptr || path[0] == '\0') return true;
  sockaddr_un address{};
  const size_t length = strlen(path);
  if ((path[0] != '/' && path[0] != '@') || length >= sizeof address.sun_path) return false;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path, length);
  if (path[0] == '@') address.sun_path[0] = '\0';  // a name that is not in the file system
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return false;
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  const ssize_t sent =
      sendto(descriptor, text.data(), text.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address), size);
  close(descriptor);
  return sent == static_cast<ssize_t>(text.size());
}

Daemon Daemon::start(int failure, std::string *reason) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    *reason = std::string("pipe: ") + strerror(errno);
    return Daemon(-1);
  }
  const pid_t child = fork();
  if (child < 0) {
    *reason = std::string("fork: ") + strerror(errno);
    close(ends[0]);
    close(ends[1]);
    return Daemon(-1);
  }
  if (child > 0) {
    close(ends[1]);
    uint8_t status = 0;
    ssize_t got = 0;
    while ((got = read(ends[0], &status, 1)) < 0 && errno == EINTR) {
    }
    _exit(got == 1 ? status : failure);
  }
  close(ends[0]);
  setsid();
  if (chdir("/") != 0) {
    // A daemon that keeps its directory still works.
  }
  return Daemon(ends[1]);
}

void Daemon::live() {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null >= 0) {
    for (int stream = 0; stream <= 2; ++stream) dup2(null, stream);
    close(null);
  }
  failed(0);
  close(descriptor_);
  descriptor_ = -1;
}

void Daemon::failed(int status) const {
  const auto byte = static_cast<uint8_t>(status);
  while (write(descriptor_, &byte, 1) < 0 && errno == EINTR) {
  }
}

}  // namespace ipd
