// SPDX-License-Identifier: Apache-2.0
// A socket for each question: they are rare, and an answer that nobody waits for any more cannot be mistaken for
// another one.
#include "ipd/kernel/link_flags.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cerrno>
#include <memory>

namespace ipd::kernel {
namespace {

constexpr uint32_t sequence = 1;

struct Close {
  void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
};

int flags_of(const nlmsghdr *header, void *flags) {
  if (header->nlmsg_type != RTM_NEWLINK || mnl_nlmsg_get_payload_len(header) < sizeof(ifinfomsg)) return MNL_CB_OK;
  *static_cast<uint32_t *>(flags) = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(header))->ifi_flags;
  return MNL_CB_OK;
}

// Each request asks for an acknowledgement too, so that there is always one to wait for.
int ask(uint16_t type, const ifinfomsg &link, uint32_t *flags) {
  const std::unique_ptr<mnl_socket, Close> socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
  if (socket == nullptr || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) return errno;
  alignas(nlmsghdr) std::array<char, 32768> buffer;
  nlmsghdr *header = mnl_nlmsg_put_header(buffer.data());
  header->nlmsg_type = type;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  header->nlmsg_seq = sequence;
  *static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(header, sizeof link)) = link;
  if (mnl_socket_sendto(socket.get(), header, header->nlmsg_len) < 0) return errno;
  const unsigned port = mnl_socket_get_portid(socket.get());
  for (int more = MNL_CB_OK; more == MNL_CB_OK;) {
    const ssize_t size = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return errno;
    more = mnl_cb_run(buffer.data(), static_cast<size_t>(size), sequence, port, flags_of, flags);
    if (more < 0) return errno;
  }
  return 0;
}

}  // namespace

int read_link_flags(uint32_t ifindex, uint32_t *flags) {
  ifinfomsg link{};
  link.ifi_index = static_cast<int>(ifindex);
  return ask(RTM_GETLINK, link, flags);
}

int change_link_flags(uint32_t ifindex, uint32_t flags, uint32_t mask) {
  ifinfomsg link{};
  link.ifi_index = static_cast<int>(ifindex);
  link.ifi_flags = flags & mask;
  link.ifi_change = mask;
  uint32_t ignored = 0;
  return ask(RTM_NEWLINK, link, &ignored);
}

}  // namespace ipd::kernel
