// SPDX-License-Identifier: Apache-2.0
// What the kernel says about the way to a destination, asked without starting a program for each question.
#ifndef TESTS_SUPPORT_KERNEL_ROUTES_H
#define TESTS_SUPPORT_KERNEL_ROUTES_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace test_support {

// 10.0.0.1 is 0x0a000001; throws for what is no address.
[[nodiscard]] uint32_t host_order(const std::string &text);
[[nodiscard]] std::string dotted(uint32_t addr);

struct KernelNextHop {
  uint32_t ifindex = 0;
  uint32_t gateway = 0;  // host order; 0: the destination itself
};

struct KernelAnswer {
  int error = 0;     // 0, or the errno that stands for the route's type or for its absence
  uint8_t type = 0;  // RTN_UNICAST, RTN_LOCAL, RTN_BROADCAST ...
  uint8_t scope = 0;
  uint8_t protocol = 0;
  uint8_t len = 0;      // of the route's prefix, in matching_route(); 32 otherwise
  uint32_t table = 0;   // that the route stands in
  uint32_t source = 0;  // host order; 0: none
  std::vector<KernelNextHop> next_hops;  // without the dead ones of several
};

struct KernelQuestion {
  uint32_t dest = 0;     // host order
  uint32_t ifindex = 0;  // only by this interface; 0: by any
  uint32_t mark = 0;     // as if for a packet with this mark, for rules that look at it
};

// Not for two threads at once.
class KernelRoutes {
 public:
  KernelRoutes();  // asks in the namespace that the process is in now
  ~KernelRoutes();
  KernelRoutes(const KernelRoutes &) = delete;
  KernelRoutes &operator=(const KernelRoutes &) = delete;
  // What the kernel does with a packet: one next hop, and the source address that it would have.
  [[nodiscard]] KernelAnswer way(const KernelQuestion &question) { return ask(question, false); }
  // The route that it finds for it, with all its next hops.
  [[nodiscard]] KernelAnswer matching_route(const KernelQuestion &question) { return ask(question, true); }

 private:
  KernelAnswer ask(const KernelQuestion &question, bool match);
  int fd_;
  uint32_t sequence_ = 0;
};

// News of IPv4 routes, so that a test that waits for a routing protocol does not ask all the time.
class KernelRouteNews {
 public:
  KernelRouteNews();
  ~KernelRouteNews();
  KernelRouteNews(const KernelRouteNews &) = delete;
  KernelRouteNews &operator=(const KernelRouteNews &) = delete;
  // Returns when some route has changed since the last call, or when this time has passed.
  void wait(std::chrono::milliseconds most);

 private:
  int fd_;
};

}  // namespace test_support

#endif
