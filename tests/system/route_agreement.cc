// SPDX-License-Identifier: Apache-2.0
#include "route_agreement.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include <algorithm>

#define LIBIP_NO_INET_NTOA
#include "im.h"
#include "ip_api.h"
#include "support/run_directory.h"

namespace test_support {
namespace {

bool is_connected(const KernelAnswer &match) {
  return match.type == RTN_UNICAST && match.protocol == RTPROT_KERNEL && match.scope == RT_SCOPE_LINK;
}

uint32_t mask_of(const KernelAnswer &match) {
  return match.len == 0 ? 0 : ~0u << (32 - match.len);
}

bool same_subnet(const KernelAnswer &match, uint32_t one, uint32_t another) {
  return ((one ^ another) & mask_of(match)) == 0;
}

}  // namespace

RouteAgreement::RouteAgreement(std::string context, uint32_t mark)
    : context_(std::move(context)), context_id_(ip_get_api_context_id(context_.c_str())), mark_(mark) {}

uint32_t RouteAgreement::iod(uint32_t ifindex) {
  uint32_t &known = iods_[ifindex];
  if (known == 0 && im_get_iod_frm_ifindex(ifindex, &known) != 0) known = 0;
  return known;
}

std::string RouteAgreement::difference(uint32_t dest, DestinationsSeen *seen) {
  uint32_t out = 0;
  const uint32_t source = ip_get_route(context_id_, htonl(dest), &out);
  const KernelAnswer match = kernel_.matching_route({.dest = dest, .mark = mark_});
  const std::string answer = dotted(dest) + ": iod " + std::to_string(out) + " source " + dotted(source);
  const bool multicast = (dest >> 28) == 14;
  if (match.error != 0 || multicast) {
    ++seen->none;
    return out == 0 && source == 0 ? "" : answer + ", but the kernel has none: " + std::to_string(match.error);
  }
  const auto hop = std::find_if(match.next_hops.begin(), match.next_hops.end(),
                                [&](const KernelNextHop &each) { return out != 0 && iod(each.ifindex) == out; });
  if (hop == match.next_hops.end()) return answer + " is none of the kernel's next hops";
  const bool unicast = match.type == RTN_UNICAST;
  // A packet to this system itself goes by the loopback device; everything else by the next hop that the client chose.
  const KernelAnswer way =
      kernel_.way({.dest = dest, .ifindex = match.type == RTN_LOCAL ? 0 : hop->ifindex, .mark = mark_});
  // To a peer the kernel speaks with the address that has this peer; a client's answer goes by subnets, and such an
  // address has none.
  const bool to_peer = is_connected(match) && !same_subnet(match, match.source, dest);
  const bool another_source = way.source != source && compare_sources_ && !to_peer;
  if (way.error != 0 || another_source) return answer + ", but the kernel's source is " + dotted(way.source);
  ++(unicast ? seen->unicast : match.type == RTN_LOCAL ? seen->local : seen->broadcast);
  if (match.next_hops.size() > 1) ++seen->multipath;
  return difference_of_kind(dest, match, out);
}

std::string RouteAgreement::difference_of_kind(uint32_t dest, const KernelAnswer &match, uint32_t iod) {
  const char *name = context_.c_str();
  const bool local = match.type == RTN_LOCAL;
  if (ip_is_addr_local_in_urib(name, dest) != (local ? iod : 0)) return dotted(dest) + ": local or not?";
  const bool connected = is_connected(match);
  if (!local && !connected) return "";
  if (ip_get_iod_from_addr(name, dest) != iod) return dotted(dest) + ": not connected by its iod";
  if (ip_is_addr_on_iod(nullptr, dest, iod) != 1) return dotted(dest) + ": not on its iod";
  // A peer's address or subnet is connected, but not a subnet that this system is on.
  const bool attached = connected && same_subnet(match, match.source, dest);
  if (ip_is_addr_attached(name, dest) != (attached ? iod : 0)) return dotted(dest) + ": attached or not?";
  if (ip_get_iod_for_subnet(name, dest & mask_of(match), match.len) != (attached ? iod : 0)) {
    return dotted(dest) + ": a subnet or not?";
  }
  return "";
}

RouteAgreement::Result RouteAgreement::wait_for(const std::vector<uint32_t> &destinations,
                                                std::chrono::milliseconds deadline) {
  Result result;
  (void)wait_until(
      [&] {
        result = {};
        for (const uint32_t dest : destinations) {
          const std::string problem = difference(dest, &result.seen);
          if (!problem.empty() && result.differences++ == 0) result.first = problem;
        }
        return result.differences == 0;
      },
      deadline);
  return result;
}

}  // namespace test_support
