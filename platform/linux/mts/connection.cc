// SPDX-License-Identifier: Apache-2.0
#include "mts/connection.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <utility>

namespace rsw::mts {

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept {
  if (this != &other) {
    reset();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

void Descriptor::reset() {
  if (fd_ >= 0) close(std::exchange(fd_, -1));
}

ucred peer_credentials(int socket) {
  ucred found{-1, ~0u, ~0u};
  socklen_t length = sizeof found;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &found, &length) != 0) found = {-1, ~0u, ~0u};
  return found;
}

int send_parts(int socket, const iovec *parts, size_t count, Clock::time_point deadline) {
  msghdr message{};
  message.msg_iov = const_cast<iovec *>(parts);
  message.msg_iovlen = count;
  while (sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return errno;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return EAGAIN;
    pollfd room{socket, POLLOUT, 0};
    poll(&room, 1, static_cast<int>(left.count()));
  }
  return 0;
}

bool peer_is_gone(int error) {
  return error == EPIPE || error == ECONNRESET || error == ECONNREFUSED || error == ENOTCONN;
}

}  // namespace rsw::mts
