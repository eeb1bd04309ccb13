// SPDX-License-Identifier: Apache-2.0
// Asking the kernel which way a packet of our own would go.
#ifndef IPD_KERNEL_ROUTE_QUERY_H
#define IPD_KERNEL_ROUTE_QUERY_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

namespace ipd::kernel {

// Addresses in host order.
struct RouteQuestion {
  uint32_t destination = 0;
  uint32_t source = 0;   // 0: not chosen yet
  uint32_t ifindex = 0;  // to leave by, or the VRF device in whose table to look; 0: the route says
  bool operator==(const RouteQuestion &) const = default;
};

struct RouteAnswer {
  uint8_t type = 0;       // RTN_UNICAST, RTN_LOCAL, RTN_BROADCAST or RTN_MULTICAST
  uint32_t ifindex = 0;   // to leave by
  uint32_t gateway = 0;   // 0: none, or one of IPv6
  bool via_ipv6 = false;  // the gateway has an IPv6 address
  uint32_t source = 0;    // preferred; 0: none
  uint32_t mtu = 0;       // of the route, or of its path as learnt; 0: the interface's
  bool operator==(const RouteAnswer &) const = default;
};

class RouteQuery {
 public:
  // Over rtnetlink, in this process's network namespace. The socket is opened with the first question.
  static std::unique_ptr<RouteQuery> over_rtnetlink();
  virtual ~RouteQuery() = default;

  // Results: 0. ENETUNREACH, EHOSTUNREACH, EACCES: no route, or one that refuses. EINVAL: one that drops. EINVAL,
  // ENETUNREACH: or `source` is not of this system. ENODEV: there is no such interface. ENETDOWN: it is down.
  // ETIMEDOUT: no answer. Else the error number of the kernel or the socket.
  virtual int ask(const RouteQuestion &question, RouteAnswer *answer) = 0;
};

// A route message, as it answers a question; nothing: it is none, or is malformed.
[[nodiscard]] std::optional<RouteAnswer> parse_route_answer(std::span<const std::byte> message);

}  // namespace ipd::kernel

#endif
