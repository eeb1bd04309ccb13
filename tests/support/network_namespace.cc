// SPDX-License-Identifier: Apache-2.0
#include "support/network_namespace.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <utility>

namespace test_support {
namespace {

bool write_file(const std::string &path, const std::string &text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool done = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return done;
}

// A new namespace begins with what the administrator of this machine has set for the first one. These are the kernel's
// own values, so that a test finds the same on each machine. Forwarding is the first one: it changes others.
void take_the_kernels_settings() {
  constexpr std::pair<const char *, const char *> settings[] = {
      {"forwarding", "0"},          {"accept_local", "0"},
      {"accept_redirects", "1"},    {"arp_accept", "0"},
      {"arp_announce", "0"},        {"arp_filter", "0"},
      {"arp_ignore", "0"},          {"arp_notify", "0"},
      {"bc_forwarding", "0"},       {"bootp_relay", "0"},
      {"drop_gratuitous_arp", "0"}, {"drop_unicast_in_l2_multicast", "0"},
      {"force_igmp_version", "0"},  {"ignore_routes_with_linkdown", "0"},
      {"log_martians", "0"},        {"promote_secondaries", "0"},
      {"proxy_arp", "0"},           {"proxy_arp_pvlan", "0"},
      {"route_localnet", "0"},      {"rp_filter", "0"},
      {"secure_redirects", "1"},    {"send_redirects", "1"},
      {"shared_media", "1"},        {"src_valid_mark", "0"},
  };
  const std::string root = "/proc/sys/net/ipv4/conf/";
  for (const char *of : {"all", "default", "lo"}) {
    // Where one cannot be written, the kernel does not have it, or the test is about to say what it lacks.
    for (const auto &[name, value] : settings) (void)write_file(root + of + "/" + name, value);
  }
  (void)write_file(root + "all/accept_source_route", "0");
  for (const char *of : {"default", "lo"}) (void)write_file(root + of + "/accept_source_route", "1");
}

}  // namespace

bool enter_network_namespace(std::string *reason) {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (uid == 0 && unshare(CLONE_NEWNET) == 0) {
    take_the_kernels_settings();
    return true;
  }
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
    *reason = std::string("unshare: ") + strerror(errno);
    return false;
  }
  write_file("/proc/self/setgroups", "deny");
  if (!write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
      !write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
    *reason = std::string("user id map: ") + strerror(errno);
    return false;
  }
  take_the_kernels_settings();
  return true;
}

AddressChanger::AddressChanger() : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
  if (fd_ < 0) throw std::runtime_error("netlink socket");
}

AddressChanger::~AddressChanger() {
  close(fd_);
}

int AddressChanger::change(bool add, int ifindex, uint32_t addr, uint8_t mask_len) {
  struct {
    nlmsghdr header;
    ifaddrmsg address;
    rtattr local_attribute;
    uint32_t local;
    rtattr address_attribute;
    uint32_t peer;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = add ? RTM_NEWADDR : RTM_DELADDR;
  request.header.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_EXCL : 0));
  request.header.nlmsg_seq = ++sequence_;
  request.address.ifa_family = AF_INET;
  request.address.ifa_prefixlen = mask_len;
  request.address.ifa_index = static_cast<uint32_t>(ifindex);
  request.local_attribute = {sizeof(rtattr) + sizeof(uint32_t), IFA_LOCAL};
  request.local = htonl(addr);
  request.address_attribute = {sizeof(rtattr) + sizeof(uint32_t), IFA_ADDRESS};
  request.peer = htonl(addr);
  if (send(fd_, &request, sizeof request, 0) < 0) return errno;
  alignas(nlmsghdr) char answer[1024];
  const ssize_t got = recv(fd_, answer, sizeof answer, 0);
  if (got < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(nlmsgerr)))) return EPROTO;
  nlmsgerr error;
  memcpy(&error, answer + NLMSG_HDRLEN, sizeof error);
  return -error.error;
}

}  // namespace test_support
