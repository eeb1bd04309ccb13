// SPDX-License-Identifier: Apache-2.0
// The kernel does a request before the send returns, and its answer then stands in the socket: waiting for it is no
// waiting. The bound on it is for a kernel that answers nothing.
#include "ipd/kernel/netlink_requests.h"

#include <libmnl/libmnl.h>
#include <poll.h>

#include <array>
#include <cerrno>

namespace ipd::kernel {
namespace {

constexpr int patience_milliseconds = 1000;
constexpr size_t answer_room = 8192;

}  // namespace

int NetlinkRequests::open() {
  if (socket_ != nullptr) return 0;
  socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (socket_ == nullptr) return errno;
  if (mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) == 0) return 0;
  const int error = errno;
  close();
  return error;
}

void NetlinkRequests::close() {
  if (socket_ != nullptr) mnl_socket_close(socket_);
  socket_ = nullptr;
}

int NetlinkRequests::ask(nlmsghdr *request, const std::function<void(std::span<const std::byte>)> &answered) {
  if (const int error = open(); error != 0) return error;
  request->nlmsg_flags |= NLM_F_REQUEST | NLM_F_ACK;
  request->nlmsg_seq = ++sequence_;
  if (mnl_socket_sendto(socket_, request, request->nlmsg_len) < 0) return errno;
  const int error = receive(answered);
  if (error == ETIMEDOUT) close();  // a late answer finds nobody
  return error;
}

// What has another sequence number answers an older request, or comes from another process.
int NetlinkRequests::receive(const std::function<void(std::span<const std::byte>)> &answered) {
  alignas(nlmsghdr) std::array<std::byte, answer_room> room{};
  while (true) {
    pollfd waiting{.fd = mnl_socket_get_fd(socket_), .events = POLLIN, .revents = 0};
    const int ready = poll(&waiting, 1, patience_milliseconds);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return ready == 0 ? ETIMEDOUT : errno;
    const ssize_t got = mnl_socket_recvfrom(socket_, room.data(), room.size());
    if (got < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return errno;
    }
    int left = static_cast<int>(got);
    for (const auto *message = reinterpret_cast<const nlmsghdr *>(room.data()); mnl_nlmsg_ok(message, left);
         message = mnl_nlmsg_next(message, &left)) {
      if (message->nlmsg_seq != sequence_ || message->nlmsg_pid != mnl_socket_get_portid(socket_)) continue;
      if (message->nlmsg_type != NLMSG_ERROR) {
        answered(std::as_bytes(std::span(reinterpret_cast<const char *>(message), message->nlmsg_len)));
      } else if (mnl_nlmsg_get_payload_len(message) >= sizeof(nlmsgerr)) {
        return -static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(message))->error;
      }
    }
  }
}

}  // namespace ipd::kernel
