// SPDX-License-Identifier: Apache-2.0
// Where memberships and multicast counters come from: a socket of its own, so that a slow dump of statistics never
// stands in front of a change of an address.
#ifndef IPD_KERNEL_MULTICAST_H
#define IPD_KERNEL_MULTICAST_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "ipd/kernel/groups.h"

namespace ipd::kernel {

// What the kernel has counted on an interface, from the beginning of the interface, or of its forwarding.
struct KernelCounts {
  uint64_t received = 0;        // multicast packets that the link received
  ForwardingCounts forwarding;  // meaningful only with `forwards`
  bool forwards = false;
};

class Multicast {
 public:
  using Clock = std::chrono::steady_clock;

  // Opens, subscribes, and requests the first dump. Null: *reason says why.
  static std::unique_ptr<Multicast> open(std::string *reason);
  virtual ~Multicast() = default;

  [[nodiscard]] virtual int descriptor() const = 0;  // non-blocking, for poll
  // Takes in what is there. False: the socket is of no use any more, *reason says why.
  virtual bool read(std::string *reason) = 0;
  // A few times a second: begins the dumps that are due.
  virtual void tick(Clock::time_point now) = 0;

  // True once all groups were told.
  [[nodiscard]] virtual bool complete() const = 0;
  [[nodiscard]] virtual Groups &groups() = 0;
  // All groups are asked for again, at the next tick.
  virtual void refresh() = 0;
  // By ifindex; how often they were read, so that a caller sees whether they are new.
  [[nodiscard]] virtual const std::map<uint32_t, KernelCounts> &counts() const = 0;
  [[nodiscard]] virtual uint64_t counts_read() const = 0;
};

}  // namespace ipd::kernel

#endif
