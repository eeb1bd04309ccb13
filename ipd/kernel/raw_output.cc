// SPDX-License-Identifier: Apache-2.0
// One socket for all: what differs from packet to packet goes with the packet, but the loop of groups, which is the
// socket's and changed when it has to be.
#include "ipd/kernel/raw_output.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "ipd/kernel/send_outcome.h"
#include "ipd/packet/ipv4.h"

namespace ipd::kernel {
namespace {

using packet::Outcome;

class RawSocket final : public RawOutput {
 public:
  RawSocket() = default;
  ~RawSocket() override {
    if (socket_ >= 0) close(socket_);
  }
  RawSocket(const RawSocket &) = delete;
  RawSocket &operator=(const RawSocket &) = delete;

  Outcome send(const RawWay &way, std::span<const std::byte> packet) override;

 private:
  int open();
  [[nodiscard]] int set(int level, int option, int value) const {
    return setsockopt(socket_, level, option, &value, sizeof value) == 0 ? 0 : errno;
  }

  int socket_ = -1;
  bool loops_ = true;  // as a new socket does
  bool logged_ = false;
};

int RawSocket::open() {
  if (socket_ >= 0) return 0;
  // This protocol has the header included, and receives nothing.
  socket_ = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_RAW);
  if (socket_ < 0) return errno;
  loops_ = true;
  int error = set(SOL_SOCKET, SO_BROADCAST, 1);
  if (error == 0) error = set(IPPROTO_IP, IP_HDRINCL, 1);
  if (error == 0) return 0;
  close(socket_);
  socket_ = -1;
  return error;
}

Outcome RawSocket::send(const RawWay &way, std::span<const std::byte> packet) {
  if (const int error = open(); error != 0) return outcome_of_opening(error, "a raw socket", &logged_);
  if (way.loopback != loops_) {
    if (set(IPPROTO_IP, IP_MULTICAST_LOOP, way.loopback ? 1 : 0) != 0) return Outcome::kernel;
    loops_ = way.loopback;
  }
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(packet::ipv4::destination(packet));
  iovec part{.iov_base = const_cast<std::byte *>(packet.data()), .iov_len = packet.size()};
  in_pktinfo by{};
  by.ipi_ifindex = static_cast<int>(way.ifindex);
  by.ipi_spec_dst.s_addr = htonl(way.source);
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof by)> control{};
  msghdr message{};
  message.msg_name = &to;
  message.msg_namelen = sizeof to;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr *header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = IPPROTO_IP;
  header->cmsg_type = IP_PKTINFO;
  header->cmsg_len = CMSG_LEN(sizeof by);
  std::memcpy(CMSG_DATA(header), &by, sizeof by);
  const ssize_t sent = sendmsg(socket_, &message, way.dont_route ? MSG_DONTROUTE : 0);
  return outcome_of_sending(sent < 0 ? errno : 0);
}

}  // namespace

std::unique_ptr<RawOutput> RawOutput::over_raw_socket() {
  return std::make_unique<RawSocket>();
}

}  // namespace ipd::kernel
