// SPDX-License-Identifier: Apache-2.0
#include "support/kernel_routes.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <span>
#include <stdexcept>

namespace test_support {
namespace {

using Bytes = std::span<const uint8_t>;

template <typename Record>
bool take(Bytes bytes, Record &record) {
  if (bytes.size() < sizeof record) return false;
  std::memcpy(&record, bytes.data(), sizeof record);
  return true;
}

uint32_t word(Bytes bytes) {
  uint32_t value = 0;
  return take(bytes, value) ? value : 0;
}

// Calls `use(type, value)` for each attribute.
template <typename Use>
void each_attribute(Bytes bytes, Use use) {
  rtattr header;
  while (take(bytes, header) && header.rta_len >= sizeof header && header.rta_len <= bytes.size()) {
    use(header.rta_type & NLA_TYPE_MASK, bytes.subspan(sizeof header, header.rta_len - sizeof header));
    bytes = bytes.subspan(std::min<size_t>(RTA_ALIGN(header.rta_len), bytes.size()));
  }
}

std::vector<KernelNextHop> multipath(Bytes bytes) {
  std::vector<KernelNextHop> next_hops;
  rtnexthop header;
  while (take(bytes, header) && header.rtnh_len >= sizeof header && header.rtnh_len <= bytes.size()) {
    KernelNextHop next_hop;
    next_hop.ifindex = static_cast<uint32_t>(header.rtnh_ifindex);
    each_attribute(bytes.subspan(sizeof header, header.rtnh_len - sizeof header), [&](int type, Bytes value) {
      if (type == RTA_GATEWAY) next_hop.gateway = ntohl(word(value));
    });
    if ((header.rtnh_flags & RTNH_F_DEAD) == 0) next_hops.push_back(next_hop);
    bytes = bytes.subspan(std::min<size_t>(RTNH_ALIGN(header.rtnh_len), bytes.size()));
  }
  return next_hops;
}

KernelAnswer parse(Bytes bytes) {
  KernelAnswer answer;
  nlmsghdr header;
  if (!take(bytes, header)) throw std::runtime_error("the kernel's answer is too short");
  bytes = bytes.subspan(NLMSG_HDRLEN);
  if (header.nlmsg_type == NLMSG_ERROR) {
    nlmsgerr error;
    if (!take(bytes, error)) throw std::runtime_error("the kernel's error is too short");
    answer.error = -error.error;
    return answer;
  }
  rtmsg route;
  if (header.nlmsg_type != RTM_NEWROUTE || !take(bytes, route)) throw std::runtime_error("the answer is no route");
  answer.type = route.rtm_type;
  answer.scope = route.rtm_scope;
  answer.protocol = route.rtm_protocol;
  answer.len = route.rtm_dst_len;
  answer.table = route.rtm_table;
  KernelNextHop single;
  each_attribute(bytes.subspan(NLMSG_ALIGN(sizeof route)), [&](int type, Bytes value) {
    if (type == RTA_OIF) single.ifindex = word(value);
    if (type == RTA_GATEWAY) single.gateway = ntohl(word(value));
    if (type == RTA_PREFSRC) answer.source = ntohl(word(value));
    if (type == RTA_TABLE) answer.table = word(value);
    if (type == RTA_MULTIPATH) answer.next_hops = multipath(value);
  });
  if (answer.next_hops.empty() && single.ifindex != 0) answer.next_hops.push_back(single);
  return answer;
}

}  // namespace

uint32_t host_order(const std::string &text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) throw std::invalid_argument(text + " is not an address");
  return ntohl(address.s_addr);
}

std::string dotted(uint32_t addr) {
  char text[INET_ADDRSTRLEN];
  const in_addr address{htonl(addr)};
  return inet_ntop(AF_INET, &address, text, sizeof text);
}

KernelRoutes::KernelRoutes() : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
  const int on = 1;
  if (fd_ < 0 || setsockopt(fd_, SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on) != 0) {
    throw std::runtime_error("netlink socket");
  }
}

KernelRoutes::~KernelRoutes() {
  close(fd_);
}

KernelAnswer KernelRoutes::ask(const KernelQuestion &question, bool match) {
  struct Word {
    rtattr header;
    uint32_t value;
  };
  struct {
    nlmsghdr header;
    rtmsg route;
    Word attributes[3];
  } request{};
  size_t count = 0;
  const auto attribute = [&](unsigned short type, uint32_t value) {
    request.attributes[count++] = {{sizeof(Word), type}, value};
  };
  attribute(RTA_DST, htonl(question.dest));
  if (question.ifindex != 0) attribute(RTA_OIF, question.ifindex);
  if (question.mark != 0) attribute(RTA_MARK, question.mark);
  request.header.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(sizeof(rtmsg)) + count * sizeof(Word));
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.header.nlmsg_seq = ++sequence_;
  request.route.rtm_family = AF_INET;
  request.route.rtm_dst_len = 32;
  request.route.rtm_flags = RTM_F_LOOKUP_TABLE | (match ? RTM_F_FIB_MATCH : 0u);
  if (send(fd_, &request, request.header.nlmsg_len, 0) < 0) throw std::runtime_error("cannot ask the kernel");
  alignas(nlmsghdr) uint8_t answer[16384];
  const ssize_t got = recv(fd_, answer, sizeof answer, 0);
  if (got < 0) throw std::runtime_error("the kernel does not answer");
  return parse(Bytes(answer, static_cast<size_t>(got)));
}

KernelRouteNews::KernelRouteNews() : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups = RTMGRP_IPV4_ROUTE;
  if (fd_ < 0 || bind(fd_, reinterpret_cast<const sockaddr *>(&groups), sizeof groups) != 0) {
    throw std::runtime_error("netlink socket");
  }
}

KernelRouteNews::~KernelRouteNews() {
  close(fd_);
}

void KernelRouteNews::wait(std::chrono::milliseconds most) {
  pollfd ready{fd_, POLLIN, 0};
  poll(&ready, 1, static_cast<int>(most.count()));
  uint8_t ignored[16384];
  // News that did not fit into the buffer are an error here, and news as well.
  while (recv(fd_, ignored, sizeof ignored, 0) > 0 || errno == ENOBUFS) {
  }
}

}  // namespace test_support
