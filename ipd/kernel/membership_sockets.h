// SPDX-License-Identifier: Apache-2.0
// Multicast memberships that this process has in the kernel, as many as it wants.
#ifndef IPD_KERNEL_MEMBERSHIP_SOCKETS_H
#define IPD_KERNEL_MEMBERSHIP_SOCKETS_H

#include <compare>
#include <cstdint>
#include <memory>

namespace ipd::kernel {

// Addresses in host order.
struct Membership {
  uint32_t ifindex = 0;
  uint32_t group = 0;   // 0: every group: the interface takes in all of multicast and has the flag IFF_MULTICAST
  uint32_t source = 0;  // 0: any source
  auto operator<=>(const Membership &) const = default;
};

// Results of the calls: 0, or an error number. ENODEV: there is no such interface, or it has no IPv4. ENOBUFS, ENOMEM,
// EMFILE, ENFILE: there is no room now. The kernel keeps a membership while its interface is down. Threads: one.
class MembershipSockets {
 public:
  // Opens nothing yet. What was joined ends with the object, or with its process.
  static std::unique_ptr<MembershipSockets> make();
  virtual ~MembershipSockets() = default;

  virtual int join(const Membership &membership) = 0;   // one that is not joined
  virtual int leave(const Membership &membership) = 0;  // one that is; it is not any more, whatever the result
  // The interface is gone, or has lost its IPv4 state: nothing is joined on this ifindex any more. To be said before
  // anything is joined on another interface that has the ifindex now.
  virtual void forget(uint32_t ifindex) = 0;
};

}  // namespace ipd::kernel

#endif
