// SPDX-License-Identifier: Apache-2.0
// A raw socket for each protocol. It gets a copy of each packet of its protocol that is for this system, after the
// kernel put fragments together, whatever else the kernel does with it: ICMP, IGMP, TCP and UDP are answered by the
// kernel as ever. What a group is joined for by any socket of this system comes here, too (IP_MULTICAST_ALL is on
// unless somebody switches it off): who has joined what is for the reader to look up.
//
// A protocol is read a few packets in a row and then the next one, so that a flood of one does not hold up the others.
//
// The descriptor is an epoll set that the sockets come into and go out of.
#include "ipd/kernel/raw_reception.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <vector>

namespace ipd::kernel {
namespace {

constexpr size_t longest_packet = 65535;
constexpr size_t packets_in_a_row = 16;
constexpr int receive_buffer = 4 << 20;

struct Socket {
  int descriptor = -1;
  uint32_t lost = 0;  // by the kernel's count, which wraps
};

class RawSockets final : public RawReception {
 public:
  explicit RawSockets(int epoll) : epoll_(epoll), packet_(longest_packet) {}
  ~RawSockets() override;
  RawSockets(const RawSockets &) = delete;
  RawSockets &operator=(const RawSockets &) = delete;

  int open(uint8_t protocol) override;
  void close(uint8_t protocol) override;
  [[nodiscard]] int descriptor() const override { return epoll_; }
  size_t read(size_t most, const std::function<void(const RawPacket &)> &arrived) override;
  [[nodiscard]] uint64_t lost() const override { return lost_; }

 private:
  bool read_one(uint8_t protocol, const std::function<void(const RawPacket &)> &arrived);
  size_t read_some(uint8_t protocol, size_t most, const std::function<void(const RawPacket &)> &arrived);
  void look_at(const msghdr &header, Socket &socket, RawPacket *packet);

  int epoll_;
  std::map<uint8_t, Socket> sockets_;  // by protocol
  uint8_t last_ = 0;                   // the protocol that was read last
  uint64_t lost_ = 0;
  std::vector<std::byte> packet_;
};

// The greatest buffer that we may have.
void enlarge_buffer(int socket) {
  if (setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer, sizeof receive_buffer) == 0) return;
  (void)setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
}

RawSockets::~RawSockets() {
  for (const auto &[protocol, socket] : sockets_) ::close(socket.descriptor);
  ::close(epoll_);
}

int RawSockets::open(uint8_t protocol) {
  if (sockets_.contains(protocol)) return 0;
  const int descriptor = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol);
  if (descriptor < 0) return errno;
  const int on = 1;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = descriptor;
  enlarge_buffer(descriptor);
  if (setsockopt(descriptor, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0 ||
      setsockopt(descriptor, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on) != 0 ||
      epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) != 0) {
    const int error = errno;
    ::close(descriptor);
    return error;
  }
  sockets_[protocol] = {.descriptor = descriptor};
  return 0;
}

void RawSockets::close(uint8_t protocol) {
  const auto known = sockets_.find(protocol);
  if (known == sockets_.end()) return;
  ::close(known->second.descriptor);
  sockets_.erase(known);
}

void RawSockets::look_at(const msghdr &header, Socket &socket, RawPacket *packet) {
  // The macros take a pointer to a header that may be written to.
  auto *readable = const_cast<msghdr *>(&header);
  for (cmsghdr *each = CMSG_FIRSTHDR(readable); each != nullptr; each = CMSG_NXTHDR(readable, each)) {
    if (each->cmsg_level == IPPROTO_IP && each->cmsg_type == IP_PKTINFO) {
      in_pktinfo information{};
      std::memcpy(&information, CMSG_DATA(each), sizeof information);
      packet->ifindex = static_cast<uint32_t>(information.ipi_ifindex);
    } else if (each->cmsg_level == SOL_SOCKET && each->cmsg_type == SO_RXQ_OVFL) {
      uint32_t lost = 0;
      std::memcpy(&lost, CMSG_DATA(each), sizeof lost);
      lost_ += lost - socket.lost;
      socket.lost = lost;
    }
  }
}

// False: nothing waits.
bool RawSockets::read_one(uint8_t protocol, const std::function<void(const RawPacket &)> &arrived) {
  const auto known = sockets_.find(protocol);
  if (known == sockets_.end()) return false;
  alignas(cmsghdr) std::array<char, 256> control;
  iovec piece{.iov_base = packet_.data(), .iov_len = packet_.size()};
  msghdr header{};
  header.msg_iov = &piece;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t got = recvmsg(known->second.descriptor, &header, 0);
  if (got < 0) return errno == EINTR;
  RawPacket packet;
  packet.truncated = (header.msg_flags & MSG_TRUNC) != 0;
  packet.bytes = std::span(packet_).first(static_cast<size_t>(got));
  look_at(header, known->second, &packet);
  arrived(packet);
  return true;
}

size_t RawSockets::read_some(uint8_t protocol, size_t most, const std::function<void(const RawPacket &)> &arrived) {
  size_t taken = 0;
  while (taken < most && read_one(protocol, arrived)) ++taken;
  return taken;
}

// Ends when so many were taken, or when a whole round had nothing.
size_t RawSockets::read(size_t most, const std::function<void(const RawPacket &)> &arrived) {
  size_t taken = 0;
  for (size_t without = 0; taken < most && without < sockets_.size();) {
    auto next = sockets_.upper_bound(last_);
    if (next == sockets_.end()) next = sockets_.begin();
    last_ = next->first;
    const size_t some = read_some(last_, std::min(packets_in_a_row, most - taken), arrived);
    taken += some;
    without = some == 0 ? without + 1 : 0;
  }
  return taken;
}

}  // namespace

std::unique_ptr<RawReception> RawReception::make(int *error) {
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) {
    *error = errno;
    return nullptr;
  }
  return std::make_unique<RawSockets>(epoll);
}

}  // namespace ipd::kernel
