// SPDX-License-Identifier: Apache-2.0
// The answer to a request for the statistics of one link: RTM_NEWSTATS with the counters, or an error.
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <cstring>

#include "ipd/kernel/attributes.h"
#include "ipd/kernel/interface_counters.h"

namespace ipd::kernel {
namespace {

// What every kernel has that knows this message; later ones have more behind it.
constexpr size_t least_counters = offsetof(rtnl_link_stats64, rx_nohandler);

int read_error(Bytes body) {
  if (body.size() < sizeof(int)) return EBADMSG;
  const int error = -copy_out<int>(body);
  return error > 0 ? error : EBADMSG;  // an acknowledgement answers nothing
}

int read_counters(Bytes body, uint32_t ifindex, rtnl_link_stats64 *counters) {
  if (body.size() < sizeof(if_stats_msg) || copy_out<if_stats_msg>(body).ifindex != ifindex) return EBADMSG;
  Attributes attributes(body.subspan(sizeof(if_stats_msg)));
  uint16_t type = 0;
  Bytes payload;
  bool there = false;
  rtnl_link_stats64 found{};
  while (attributes.next(type, payload)) {
    if (type != IFLA_STATS_LINK_64) continue;
    if (payload.size() < least_counters) return EBADMSG;
    std::memcpy(&found, payload.data(), std::min(payload.size(), sizeof found));
    there = true;
  }
  if (!there || attributes.refusal()) return EBADMSG;
  *counters = found;
  return 0;
}

}  // namespace

std::optional<int> parse_interface_counters(Bytes datagram, uint32_t sequence, uint32_t ifindex,
                                            rtnl_link_stats64 *counters) {
  while (datagram.size() >= sizeof(nlmsghdr)) {
    const auto header = copy_out<nlmsghdr>(datagram);
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > datagram.size()) return std::nullopt;
    const Bytes body = datagram.subspan(sizeof(nlmsghdr), header.nlmsg_len - sizeof(nlmsghdr));
    if (header.nlmsg_seq == sequence) {
      if (header.nlmsg_type == NLMSG_ERROR) return read_error(body);
      if (header.nlmsg_type == RTM_NEWSTATS) return read_counters(body, ifindex, counters);
    }
    datagram = datagram.subspan(std::min(padded(header.nlmsg_len), datagram.size()));
  }
  return std::nullopt;
}

}  // namespace ipd::kernel
