// SPDX-License-Identifier: Apache-2.0
// Reading and asking on the rtnetlink socket.
//
// A read takes at most a batch of datagrams, so that changes become visible while a flood of events goes on; the caller
// publishes between batches and comes back. Only datagrams that the kernel sent count: any local process may send to
// our port.
//
// The receive buffer bounds how far we may fall behind. SO_RCVBUFFORCE goes beyond the system's limit and needs
// CAP_NET_ADMIN; without it we take what we get. A buffer that is too small costs a new dump, never a wrong picture.
#include "ipd/kernel/rtnetlink.h"

#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/netconf.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <vector>

namespace ipd::kernel {
namespace {

constexpr uint32_t default_receive_buffer = 8u << 20;
constexpr size_t datagram_room = 64u << 10;  // the kernel makes dump datagrams of at most 32 KiB
constexpr int batch = 256;                   // datagrams
constexpr int batch_of_routes = 32;          // of a full table, each with hundreds of routes

class Socket final : public Rtnetlink, private Requests {
 public:
  explicit Socket(Picture &picture)
      : groups_{RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_NETCONF},
        batch_(batch),
        mirror_(picture, *this),
        buffer_(datagram_room) {}
  explicit Socket(RoutePicture &routes)
      : groups_{RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_NEXTHOP},
        batch_(batch_of_routes),
        mirror_(routes, *this),
        buffer_(datagram_room) {}
  ~Socket() override {
    if (socket_ != nullptr) mnl_socket_close(socket_);
  }
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;

  bool open(uint32_t receive_buffer, std::string *reason);

  [[nodiscard]] int descriptor() const override { return mnl_socket_get_fd(socket_); }
  Reading read(std::string *reason) override;
  // A batch may end with the last message that there was: then no further event says that the socket is drained, and a
  // dump that is due after a loss would wait for the next change in the kernel.
  void tick(Mirror::Clock::time_point now) override {
    mirror_.tick(now);
    pollfd waiting{.fd = descriptor(), .events = POLLIN, .revents = 0};
    if (poll(&waiting, 1, 0) == 0) mirror_.drained(now);
  }
  [[nodiscard]] const Mirror &mirror() const override { return mirror_; }
  [[nodiscard]] uint32_t receive_buffer() const override;

 private:
  bool request_dump(DumpOf what, uint32_t sequence) override;
  bool request_system_settings(uint32_t sequence) override;
  void set_receive_buffer(uint32_t bytes);
  bool subscribe(std::string *reason);

  mnl_socket *socket_ = nullptr;
  std::vector<int> groups_;
  int batch_;
  Mirror mirror_;
  std::vector<std::byte> buffer_;
};

bool fail(std::string *reason, const char *what) {
  *reason = std::string(what) + ": " + strerror(errno);
  return false;
}

void Socket::set_receive_buffer(uint32_t bytes) {
  const int size = static_cast<int>(bytes);
  if (setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) == 0) return;
  (void)setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

uint32_t Socket::receive_buffer() const {
  int size = 0;
  socklen_t length = sizeof size;
  if (getsockopt(descriptor(), SOL_SOCKET, SO_RCVBUF, &size, &length) != 0) return 0;
  return static_cast<uint32_t>(size);
}

bool Socket::subscribe(std::string *reason) {
  for (int group : groups_) {
    if (mnl_socket_setsockopt(socket_, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
      if (group == RTNLGRP_NEXTHOP) continue;  // a kernel without nexthop objects
      return fail(reason, "cannot subscribe to the kernel's events");
    }
  }
  return true;
}

bool Socket::open(uint32_t receive_buffer, std::string *reason) {
  socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (socket_ == nullptr) return fail(reason, "cannot open an rtnetlink socket");
  if (mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) != 0) return fail(reason, "cannot bind the rtnetlink socket");
  mirror_.set_port(mnl_socket_get_portid(socket_));
  set_receive_buffer(receive_buffer == 0 ? default_receive_buffer : receive_buffer);
  if (!subscribe(reason)) return false;
  mirror_.start(Mirror::Clock::now());
  return true;
}

bool Socket::request_dump(DumpOf what, uint32_t sequence) {
  std::array<char, 256> room{};
  nlmsghdr *message = mnl_nlmsg_put_header(room.data());
  message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  message->nlmsg_seq = sequence;
  switch (what) {
    case DumpOf::links: {
      message->nlmsg_type = RTM_GETLINK;
      auto *fixed = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg)));
      fixed->ifi_family = AF_UNSPEC;
      mnl_attr_put_u32(message, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
      break;
    }
    case DumpOf::addresses: {
      message->nlmsg_type = RTM_GETADDR;
      auto *fixed = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(ifaddrmsg)));
      fixed->ifa_family = AF_INET;
      break;
    }
    case DumpOf::settings: {
      message->nlmsg_type = RTM_GETNETCONF;
      auto *fixed = static_cast<netconfmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(netconfmsg)));
      fixed->ncm_family = AF_INET;
      break;
    }
    case DumpOf::nexthops: {
      message->nlmsg_type = RTM_GETNEXTHOP;
      auto *fixed = static_cast<nhmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(nhmsg)));
      fixed->nh_family = AF_UNSPEC;
      break;
    }
    case DumpOf::routes: {
      message->nlmsg_type = RTM_GETROUTE;
      auto *fixed = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(rtmsg)));
      fixed->rtm_family = AF_INET;
      break;
    }
  }
  return mnl_socket_sendto(socket_, message, message->nlmsg_len) >= 0;
}

bool Socket::request_system_settings(uint32_t sequence) {
  std::array<char, 256> room{};
  nlmsghdr *message = mnl_nlmsg_put_header(room.data());
  message->nlmsg_type = RTM_GETNETCONF;
  message->nlmsg_flags = NLM_F_REQUEST;
  message->nlmsg_seq = sequence;
  auto *fixed = static_cast<netconfmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(netconfmsg)));
  fixed->ncm_family = AF_INET;
  mnl_attr_put_u32(message, NETCONFA_IFINDEX, static_cast<uint32_t>(netconf_all));
  return mnl_socket_sendto(socket_, message, message->nlmsg_len) >= 0;
}

Rtnetlink::Reading Socket::read(std::string *reason) {
  for (int i = 0; i < batch_; ++i) {
    sockaddr_nl sender{};
    iovec part{.iov_base = buffer_.data(), .iov_len = buffer_.size()};
    msghdr header{};
    header.msg_name = &sender;
    header.msg_namelen = sizeof sender;
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    const ssize_t got = recvmsg(descriptor(), &header, MSG_DONTWAIT);
    if (got < 0) {
      if (errno == EINTR) continue;
      if (errno == ENOBUFS) {
        mirror_.overrun();
        continue;
      }
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        mirror_.drained(Mirror::Clock::now());
        return Reading::drained;
      }
      fail(reason, "cannot read from the rtnetlink socket");
      return Reading::broken;
    }
    if (got == 0 || sender.nl_pid != 0) continue;
    if ((header.msg_flags & MSG_TRUNC) != 0) {
      mirror_.overrun();
      continue;
    }
    parse(std::span<const std::byte>(buffer_.data(), static_cast<size_t>(got)), mirror_);
  }
  return Reading::more;
}

template <class Kept>
std::unique_ptr<Rtnetlink> open_socket(Kept &kept, uint32_t receive_buffer, std::string *reason) {
  auto socket = std::make_unique<Socket>(kept);
  if (!socket->open(receive_buffer, reason)) return nullptr;
  return socket;
}

}  // namespace

std::unique_ptr<Rtnetlink> Rtnetlink::open(Picture &picture, uint32_t receive_buffer, std::string *reason) {
  return open_socket(picture, receive_buffer, reason);
}

std::unique_ptr<Rtnetlink> Rtnetlink::open(RoutePicture &routes, uint32_t receive_buffer, std::string *reason) {
  return open_socket(routes, receive_buffer, reason);
}

}  // namespace ipd::kernel
