// SPDX-License-Identifier: Apache-2.0
// One request, one answer, on a socket of its own. The kernel answers such a request before the send returns, so that
// nothing is waited for here; an answer that is not there then was lost, and whoever asked may ask again.
#include "ipd/kernel/interface_counters.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace ipd::kernel {
namespace {

class Socket final : public InterfaceCounters {
 public:
  Socket() = default;
  ~Socket() override {
    if (descriptor_ >= 0) close(descriptor_);
  }
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;

  int read(uint32_t ifindex, rtnl_link_stats64 *counters) override;

 private:
  int open();
  int ask(uint32_t ifindex);

  int descriptor_ = -1;
  uint32_t sequence_ = 0;
  std::array<std::byte, 4096> room_{};  // an answer takes some 250 bytes
};

int Socket::open() {
  const int opened = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (opened < 0) return errno;
  sockaddr_nl own{};
  own.nl_family = AF_NETLINK;
  if (bind(opened, reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0) {
    const int error = errno;
    close(opened);
    return error;
  }
  descriptor_ = opened;
  return 0;
}

int Socket::ask(uint32_t ifindex) {
  struct {
    nlmsghdr header;
    if_stats_msg fixed;
  } message{};
  message.header.nlmsg_len = sizeof message;
  message.header.nlmsg_type = RTM_GETSTATS;
  message.header.nlmsg_flags = NLM_F_REQUEST;
  message.header.nlmsg_seq = ++sequence_;
  message.fixed.ifindex = ifindex;
  message.fixed.filter_mask = IFLA_STATS_FILTER_BIT(IFLA_STATS_LINK_64);
  return send(descriptor_, &message, sizeof message, 0) >= 0 ? 0 : errno;
}

int Socket::read(uint32_t ifindex, rtnl_link_stats64 *counters) {
  if (descriptor_ < 0) {
    if (const int error = open(); error != 0) return error;
  }
  if (const int error = ask(ifindex); error != 0) return error;
  for (;;) {
    sockaddr_nl sender{};
    socklen_t length = sizeof sender;
    const ssize_t got =
        recvfrom(descriptor_, room_.data(), room_.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&sender), &length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (sender.nl_pid != 0) continue;  // only the kernel is believed
    // An answer that an earlier call did not wait for has another sequence number and is passed over.
    const auto found = parse_interface_counters({room_.data(), static_cast<size_t>(got)}, sequence_, ifindex, counters);
    if (found) return *found;
  }
}

}  // namespace

std::unique_ptr<InterfaceCounters> InterfaceCounters::over_rtnetlink() {
  return std::make_unique<Socket>();
}

}  // namespace ipd::kernel
