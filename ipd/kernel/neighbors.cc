// SPDX-License-Identifier: Apache-2.0
// Requests and news have a socket each: an answer never stands behind news.
#include "ipd/kernel/neighbors.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "ipd/kernel/netlink_requests.h"

namespace ipd::kernel {
namespace {

constexpr int batch = 64;                    // datagrams
constexpr size_t datagram_room = 32u << 10;  // more than news ever have

class RtnetlinkNeighbors final : public Neighbors {
 public:
  RtnetlinkNeighbors() = default;
  ~RtnetlinkNeighbors() override {
    if (news_ != nullptr) mnl_socket_close(news_);
  }
  RtnetlinkNeighbors(const RtnetlinkNeighbors &) = delete;
  RtnetlinkNeighbors &operator=(const RtnetlinkNeighbors &) = delete;

  int find(const NeighborId &id, Neighbor *neighbor) override;
  int resolve(const NeighborId &id) override;
  int descriptor() override;
  bool read(const std::function<void(const Neighbor &)> &changed) override;

 private:
  using Room = std::array<char, 256>;
  static nlmsghdr *build(Room &room, uint16_t type, const NeighborId &id, uint8_t flags);

  NetlinkRequests requests_;
  mnl_socket *news_ = nullptr;
};

nlmsghdr *RtnetlinkNeighbors::build(Room &room, uint16_t type, const NeighborId &id, uint8_t flags) {
  nlmsghdr *message = mnl_nlmsg_put_header(room.data());
  message->nlmsg_type = type;
  auto *fixed = static_cast<ndmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(ndmsg)));
  fixed->ndm_family = AF_INET;
  fixed->ndm_ifindex = static_cast<int>(id.ifindex);
  fixed->ndm_flags = flags;
  mnl_attr_put_u32(message, NDA_DST, htonl(id.addr));
  return message;
}

int RtnetlinkNeighbors::find(const NeighborId &id, Neighbor *neighbor) {
  alignas(nlmsghdr) Room room{};
  *neighbor = {.id = id};
  const int error = requests_.ask(build(room, RTM_GETNEIGH, id, 0), [&](std::span<const std::byte> bytes) {
    if (const auto found = parse_neighbor(bytes); found && found->id == id) *neighbor = *found;
  });
  return error == ENOENT ? 0 : error;
}

int RtnetlinkNeighbors::resolve(const NeighborId &id) {
  alignas(nlmsghdr) Room room{};
  nlmsghdr *message = build(room, RTM_NEWNEIGH, id, NTF_USE);
  message->nlmsg_flags = NLM_F_CREATE;
  return requests_.ask(message, [](std::span<const std::byte>) {});
}

int RtnetlinkNeighbors::descriptor() {
  if (news_ != nullptr) return mnl_socket_get_fd(news_);
  news_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (news_ == nullptr) return -1;
  int group = RTNLGRP_NEIGH;
  if (mnl_socket_bind(news_, 0, MNL_SOCKET_AUTOPID) == 0 &&
      mnl_socket_setsockopt(news_, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) == 0) {
    return mnl_socket_get_fd(news_);
  }
  mnl_socket_close(news_);
  news_ = nullptr;
  return -1;
}

bool RtnetlinkNeighbors::read(const std::function<void(const Neighbor &)> &changed) {
  alignas(nlmsghdr) std::array<std::byte, datagram_room> room;
  bool whole = news_ != nullptr;
  for (int i = 0; whole && i < batch; ++i) {
    sockaddr_nl sender{};
    socklen_t length = sizeof sender;
    const ssize_t got = recvfrom(mnl_socket_get_fd(news_), room.data(), room.size(), MSG_DONTWAIT | MSG_TRUNC,
                                 reinterpret_cast<sockaddr *>(&sender), &length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
    if (sender.nl_pid != 0) continue;  // any local process may send to our port
    if (static_cast<size_t>(got) > room.size()) return false;
    int left = static_cast<int>(got);
    for (const auto *message = reinterpret_cast<const nlmsghdr *>(room.data()); mnl_nlmsg_ok(message, left);
         message = mnl_nlmsg_next(message, &left)) {
      const auto bytes = std::as_bytes(std::span(reinterpret_cast<const char *>(message), message->nlmsg_len));
      if (const auto neighbor = parse_neighbor(bytes); neighbor) changed(*neighbor);
    }
  }
  return whole;
}

}  // namespace

std::unique_ptr<Neighbors> Neighbors::over_rtnetlink() {
  return std::make_unique<RtnetlinkNeighbors>();
}

}  // namespace ipd::kernel
