// SPDX-License-Identifier: Apache-2.0
// The kernel does a request before the send returns, and its answer then stands in the socket: waiting for it is no
// waiting. The bound on it is for a kernel that answers nothing.
//
// The socket is not the mirror's, whose messages may be many, and is subscribed to nothing.
#include "ipd/kernel/address_requests.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <poll.h>

#include <array>
#include <cerrno>

namespace ipd::kernel {
namespace {

constexpr int patience_milliseconds = 1000;
constexpr size_t answer_room = 8192;
constexpr uint8_t shortest_without_broadcast = 31;

class RtnetlinkRequests final : public AddressRequests {
 public:
  RtnetlinkRequests() = default;
  ~RtnetlinkRequests() override { close(); }
  RtnetlinkRequests(const RtnetlinkRequests &) = delete;
  RtnetlinkRequests &operator=(const RtnetlinkRequests &) = delete;

  int add(uint32_t ifindex, uint32_t addr, uint8_t mask_len) override {
    return ask(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, ifindex, addr, mask_len);
  }
  int remove(uint32_t ifindex, uint32_t addr, uint8_t mask_len) override {
    return ask(RTM_DELADDR, 0, ifindex, addr, mask_len);
  }

 private:
  int ask(uint16_t type, uint16_t flags, uint32_t ifindex, uint32_t addr, uint8_t mask_len);
  int open();
  void close();
  int answer();

  mnl_socket *socket_ = nullptr;
  uint32_t sequence_ = 0;
};

int RtnetlinkRequests::open() {
  if (socket_ != nullptr) return 0;
  socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (socket_ == nullptr) return errno;
  if (mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) == 0) return 0;
  const int error = errno;
  close();
  return error;
}

void RtnetlinkRequests::close() {
  if (socket_ != nullptr) mnl_socket_close(socket_);
  socket_ = nullptr;
}

int RtnetlinkRequests::ask(uint16_t type, uint16_t flags, uint32_t ifindex, uint32_t addr, uint8_t mask_len) {
  if (const int error = open(); error != 0) return error;
  std::array<char, 256> room{};
  nlmsghdr *message = mnl_nlmsg_put_header(room.data());
  message->nlmsg_type = type;
  message->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
  message->nlmsg_seq = ++sequence_;
  auto *fixed = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(ifaddrmsg)));
  fixed->ifa_family = AF_INET;
  fixed->ifa_prefixlen = mask_len;
  fixed->ifa_scope = RT_SCOPE_UNIVERSE;
  fixed->ifa_index = ifindex;
  mnl_attr_put_u32(message, IFA_LOCAL, htonl(addr));
  mnl_attr_put_u32(message, IFA_ADDRESS, htonl(addr));
  if (mask_len < shortest_without_broadcast) {
    mnl_attr_put_u32(message, IFA_BROADCAST, htonl(addr | (0xffffffffu >> mask_len)));
  }
  if (mnl_socket_sendto(socket_, message, message->nlmsg_len) < 0) return errno;
  const int error = answer();
  if (error == ETIMEDOUT) close();  // a late answer finds nobody
  return error;
}

int RtnetlinkRequests::answer() {
  alignas(nlmsghdr) std::array<char, answer_room> room{};
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
      if (message->nlmsg_seq != sequence_ || message->nlmsg_type != NLMSG_ERROR ||
          mnl_nlmsg_get_payload_len(message) < sizeof(nlmsgerr)) {
        continue;
      }
      return -static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(message))->error;
    }
  }
}

}  // namespace

std::unique_ptr<AddressRequests> AddressRequests::over_rtnetlink() {
  return std::make_unique<RtnetlinkRequests>();
}

}  // namespace ipd::kernel
