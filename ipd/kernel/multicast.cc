// SPDX-License-Identifier: Apache-2.0
// Asking and reading about multicast.
//
// One dump runs at a time, since the kernel refuses a second one on a socket: groups when that is due, otherwise, once
// a second, the statistics of all links and then the multicast routing tables. A dump that was interrupted or whose
// events were lost is made again; every half minute the groups are read again anyway, because the kernel drops the
// groups of an interface that loses its IPv4 state (an MTU below 68) without an event for each.
//
// Reading statistics may take the kernel long when there are thousands of links: the pause is then fifty times as long
// as the reading took, so that it never takes more than a fiftieth of a processor.
//
// A kernel that has no events for IPv4 groups is asked by its text file instead, once a second.
#include "ipd/kernel/multicast.h"

#include <errno.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

#include "ipd/process/log.h"

namespace ipd::kernel {
namespace {

constexpr int group_of_memberships = 37;  // RTNLGRP_IPV4_MCADDR
constexpr uint16_t get_multicast = 58;    // RTM_GETMULTICAST
constexpr int receive_buffer = 1 << 20;
constexpr size_t datagram_room = 64u << 10;
constexpr int batch = 256;
constexpr auto counts_period = std::chrono::seconds(1);
constexpr int pause_per_reading = 50;
constexpr auto groups_period = std::chrono::seconds(30);
constexpr auto text_period = std::chrono::seconds(1);
constexpr auto answer_deadline = std::chrono::seconds(10);
constexpr const char *text_file = "/proc/thread-self/net/igmp";

enum class Dump : uint8_t { none, groups, statistics, forwarding };

class Socket final : public Multicast, private MulticastSink {
 public:
  ~Socket() override {
    if (descriptor_ >= 0) close(descriptor_);
  }
  bool open(std::string *reason);

  [[nodiscard]] int descriptor() const override { return descriptor_; }
  bool read(std::string *reason) override;
  void tick(Clock::time_point now) override;
  [[nodiscard]] bool complete() const override { return complete_; }
  [[nodiscard]] Groups &groups() override { return groups_; }
  void refresh() override { groups_due_ = true; }
  [[nodiscard]] const std::map<uint32_t, KernelCounts> &counts() const override { return counts_; }
  [[nodiscard]] uint64_t counts_read() const override { return counts_read_; }

 private:
  void group(uint32_t sequence, const GroupMessage &message) override;
  void received(uint32_t sequence, uint32_t ifindex, uint64_t packets) override;
  void forwarded(uint32_t sequence, uint32_t ifindex, const ForwardingCounts &counts) override;
  void interrupted(uint32_t sequence) override;
  void end_of_dump(uint32_t sequence, int error) override;
  void malformed() override { ++malformed_; }

  template <class Fixed, class Fill>
  bool request(uint16_t type, Fill fill);
  void begin(Dump dump, Clock::time_point now);
  void end_groups(int error);
  void end_counts();
  void read_text();

  int descriptor_ = -1;
  std::vector<std::byte> buffer_ = std::vector<std::byte>(datagram_room);
  Groups groups_;
  Dump running_ = Dump::none;
  uint32_t sequence_ = 0;
  bool interrupted_ = false;
  bool events_ = true;  // the kernel tells of groups by itself
  bool groups_due_ = true;
  bool complete_ = false;
  Clock::time_point began_{};
  Clock::time_point counts_began_{};
  Clock::time_point next_groups_{};
  Clock::time_point next_counts_{};
  std::map<uint32_t, KernelCounts> counts_;
  std::map<uint32_t, KernelCounts> fresh_counts_;
  uint64_t counts_read_ = 0;
  uint64_t malformed_ = 0;
};

bool fail(std::string *reason, const char *what) {
  *reason = std::string(what) + ": " + strerror(errno);
  return false;
}

bool Socket::open(std::string *reason) {
  descriptor_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (descriptor_ < 0) return fail(reason, "cannot open an rtnetlink socket for multicast");
  sockaddr_nl own{};
  own.nl_family = AF_NETLINK;
  if (bind(descriptor_, reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0) {
    return fail(reason, "cannot bind the rtnetlink socket for multicast");
  }
  // A full buffer costs a new dump, nothing else.
  (void)setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
  events_ = setsockopt(descriptor_, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group_of_memberships,
                       sizeof group_of_memberships) == 0;
  tick(Clock::now());
  return true;
}

template <class Fixed, class Fill>
bool Socket::request(uint16_t type, Fill fill) {
  struct {
    nlmsghdr header;
    Fixed fixed;
  } message{};
  message.header.nlmsg_len = sizeof message;
  message.header.nlmsg_type = type;
  message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  message.header.nlmsg_seq = ++sequence_;
  fill(message.fixed);
  return send(descriptor_, &message, sizeof message, 0) >= 0;
}

void Socket::begin(Dump dump, Clock::time_point now) {
  began_ = now;
  interrupted_ = false;
  bool sent = false;
  switch (dump) {
    case Dump::groups:
      groups_due_ = false;
      groups_.begin_dump();
      sent = request<ifaddrmsg>(get_multicast, [](ifaddrmsg &fixed) { fixed.ifa_family = AF_INET; });
      groups_due_ = !sent;
      break;
    case Dump::statistics:
      counts_began_ = now;
      fresh_counts_.clear();
      sent = request<if_stats_msg>(
          RTM_GETSTATS, [](if_stats_msg &fixed) { fixed.filter_mask = IFLA_STATS_FILTER_BIT(IFLA_STATS_LINK_64); });
      break;
    case Dump::forwarding:
      sent = request<ifinfomsg>(RTM_GETLINK, [](ifinfomsg &fixed) { fixed.ifi_family = RTNL_FAMILY_IPMR; });
      break;
    case Dump::none:
      break;
  }
  running_ = sent ? dump : Dump::none;
}

void Socket::tick(Clock::time_point now) {
  if (running_ != Dump::none && now - began_ < answer_deadline) return;
  if (running_ == Dump::groups) groups_due_ = true;
  running_ = Dump::none;
  if (!events_ && now >= next_groups_) {
    next_groups_ = now + text_period;
    read_text();
  }
  if (events_ && (groups_due_ || now >= next_groups_)) {
    next_groups_ = now + groups_period;
    begin(Dump::groups, now);
  } else if (now >= next_counts_) {
    next_counts_ = now + counts_period;
    begin(Dump::statistics, now);
  }
}

void Socket::read_text() {
  std::ostringstream text;
  text << std::ifstream(text_file).rdbuf();
  groups_.begin_dump();
  parse_igmp(text.str(), [this](const GroupMessage &message) { groups_.dump_entry(message); });
  groups_.end_dump();
  complete_ = true;
}

void Socket::group(uint32_t sequence, const GroupMessage &message) {
  if (sequence == sequence_ && running_ == Dump::groups) return groups_.dump_entry(message);
  groups_.event(message);
}

void Socket::received(uint32_t sequence, uint32_t ifindex, uint64_t packets) {
  if (sequence == sequence_ && running_ == Dump::statistics) fresh_counts_[ifindex].received = packets;
}

void Socket::forwarded(uint32_t sequence, uint32_t ifindex, const ForwardingCounts &counts) {
  const auto known = fresh_counts_.find(ifindex);
  if (sequence != sequence_ || running_ != Dump::forwarding || known == fresh_counts_.end()) return;
  ForwardingCounts &sum = known->second.forwarding;  // more than one table may forward on it
  sum.bytes_in += counts.bytes_in;
  sum.bytes_out += counts.bytes_out;
  sum.packets_in += counts.packets_in;
  sum.packets_out += counts.packets_out;
  known->second.forwards = true;
}

void Socket::interrupted(uint32_t sequence) {
  if (sequence == sequence_) interrupted_ = true;
}

void Socket::end_of_dump(uint32_t sequence, int error) {
  if (sequence != sequence_ || running_ == Dump::none) return;
  const Dump ended = std::exchange(running_, Dump::none);
  switch (ended) {
    case Dump::groups:
      return end_groups(error);
    case Dump::statistics:
      if (error == 0) return begin(Dump::forwarding, Clock::now());
      return;
    case Dump::forwarding:  // refused by a kernel without multicast routing: then nothing is forwarded
      return end_counts();
    case Dump::none:
      return;
  }
}

void Socket::end_groups(int error) {
  if (error == EOPNOTSUPP || error == EINVAL) {
    log_line(LOG_INFO, "the kernel does not tell of IPv4 groups: %s is read instead", text_file);
    events_ = false;
    groups_.give_up_dump();
    next_groups_ = {};
    return read_text();
  }
  // An interrupted dump may lack something: it is taken, since events say the rest, and made again.
  if (error != 0 || interrupted_) groups_due_ = true;
  if (error != 0) return groups_.give_up_dump();
  groups_.end_dump();
  complete_ = true;
}

void Socket::end_counts() {
  counts_.swap(fresh_counts_);
  ++counts_read_;
  const auto now = Clock::now();
  next_counts_ = std::max(next_counts_, now + pause_per_reading * (now - counts_began_));
}

bool Socket::read(std::string *reason) {
  for (int i = 0; i < batch; ++i) {
    sockaddr_nl sender{};
    socklen_t length = sizeof sender;
    const ssize_t got = recvfrom(descriptor_, buffer_.data(), buffer_.size(), MSG_DONTWAIT | MSG_TRUNC,
                                 reinterpret_cast<sockaddr *>(&sender), &length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno == ENOBUFS) {
      groups_due_ = true;
      continue;
    }
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    if (got < 0) return fail(reason, "cannot read from the rtnetlink socket for multicast");
    if (sender.nl_pid != 0) continue;  // only the kernel is believed
    if (static_cast<size_t>(got) > buffer_.size()) {
      groups_due_ = true;
      continue;
    }
    parse_multicast({buffer_.data(), static_cast<size_t>(got)}, *this);
  }
  return true;
}

}  // namespace

std::unique_ptr<Multicast> Multicast::open(std::string *reason) {
  auto socket = std::make_unique<Socket>();
  if (!socket->open(reason)) return nullptr;
  return socket;
}

}  // namespace ipd::kernel
