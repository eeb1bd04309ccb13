// SPDX-License-Identifier: Apache-2.0
#include "ipd/kernel/route_query.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cerrno>

#include "ipd/kernel/netlink_requests.h"

namespace ipd::kernel {
namespace {

class RtnetlinkRouteQuery final : public RouteQuery {
 public:
  int ask(const RouteQuestion &question, RouteAnswer *answer) override {
    alignas(nlmsghdr) std::array<char, 256> room{};
    nlmsghdr *message = mnl_nlmsg_put_header(room.data());
    message->nlmsg_type = RTM_GETROUTE;
    auto *fixed = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(rtmsg)));
    fixed->rtm_family = AF_INET;
    fixed->rtm_dst_len = 32;
    mnl_attr_put_u32(message, RTA_DST, htonl(question.destination));
    if (question.source != 0) {
      fixed->rtm_src_len = 32;
      mnl_attr_put_u32(message, RTA_SRC, htonl(question.source));
    }
    if (question.ifindex != 0) mnl_attr_put_u32(message, RTA_OIF, question.ifindex);
    std::optional<RouteAnswer> found;
    const int error = requests_.ask(message, [&](std::span<const std::byte> bytes) {
      if (!found) found = parse_route_answer(bytes);
    });
    if (error != 0) return error;
    if (!found) return EPROTO;
    *answer = *found;
    return 0;
  }

 private:
  NetlinkRequests requests_;
};

}  // namespace

std::unique_ptr<RouteQuery> RouteQuery::over_rtnetlink() {
  return std::make_unique<RtnetlinkRouteQuery>();
}

}  // namespace ipd::kernel
