// SPDX-License-Identifier: Apache-2.0
// The rtnetlink sockets of the network namespace that ipd runs in: one for links, addresses and settings, one for
// routes, so that a flood of routes neither delays nor drops what is told of addresses.
#ifndef IPD_KERNEL_RTNETLINK_H
#define IPD_KERNEL_RTNETLINK_H

#include <memory>
#include <string>

#include "ipd/kernel/mirror.h"
#include "ipd/kernel/picture.h"

namespace ipd::kernel {

class Rtnetlink {
 public:
  enum class Reading { more, drained, broken };

  // Opens the socket, subscribes, and requests the first dump. `receive_buffer`: bytes, 0 for the built-in choice; the
  // kernel may give less to a process without privileges. Null: *reason says why.
  static std::unique_ptr<Rtnetlink> open(Picture &picture, uint32_t receive_buffer, std::string *reason);
  static std::unique_ptr<Rtnetlink> open(RoutePicture &routes, uint32_t receive_buffer, std::string *reason);
  virtual ~Rtnetlink() = default;

  [[nodiscard]] virtual int descriptor() const = 0;  // non-blocking, for poll
  // Takes in what is there, at most a batch. `broken`: the socket is of no use any more, *reason says why.
  virtual Reading read(std::string *reason) = 0;
  virtual void tick(Mirror::Clock::time_point now) = 0;
  [[nodiscard]] virtual const Mirror &mirror() const = 0;
  [[nodiscard]] virtual uint32_t receive_buffer() const = 0;  // as granted
};

}  // namespace ipd::kernel

#endif
