// SPDX-License-Identifier: Apache-2.0
#include "mts/connection.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
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

const ucred &credentials_of(Connection &connection) {
  ucred found{};
  socklen_t length = sizeof found;
  if (connection.credentials.pid == -1 &&
      getsockopt(connection.socket.get(), SOL_SOCKET, SO_PEERCRED, &found, &length) == 0) {
    connection.credentials = found;
  }
  return connection.credentials;
}

Clock::duration Patience::left() {
  const Clock::time_point now = Clock::now();
  if (!begun_) end_ = now + whole_;
  begun_ = true;
  return std::max(end_ - now, Clock::duration::zero());
}

namespace {

// One part is what most messages are, and send(2) has less to look at.
ssize_t send_now(int socket, const iovec *parts, size_t count) {
  constexpr int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
  if (count == 1) return ::send(socket, parts[0].iov_base, parts[0].iov_len, flags);
  msghdr message{};
  message.msg_iov = const_cast<iovec *>(parts);
  message.msg_iovlen = count;
  return sendmsg(socket, &message, flags);
}

}  // namespace

int send_parts(int socket, const iovec *parts, size_t count, Patience *patience) {
  while (send_now(socket, parts, count) < 0) {
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return errno;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(patience->left());
    if (left.count() <= 0) return EAGAIN;
    pollfd room{socket, POLLOUT, 0};
    poll(&room, 1, static_cast<int>(left.count()));
  }
  return 0;
}

bool has_hung_up(int socket) {
  pollfd peer{socket, POLLRDHUP, 0};
  return socket < 0 || (poll(&peer, 1, 0) > 0 && peer.revents != 0);
}

bool peer_is_gone(int error) {
  return error == EPIPE || error == ECONNRESET || error == ECONNREFUSED || error == ENOTCONN;
}

}  // namespace rsw::mts
