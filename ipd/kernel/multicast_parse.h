// SPDX-License-Identifier: Apache-2.0
// What the kernel says about multicast: memberships, received packets per link, and the counters of interfaces that
// forward. Pure functions like parse(): whatever the bytes are, they return, and nothing outside the span is read.
#ifndef IPD_KERNEL_MULTICAST_PARSE_H
#define IPD_KERNEL_MULTICAST_PARSE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

namespace ipd::kernel {

struct GroupMessage {
  uint32_t ifindex = 0;  // never 0
  uint32_t group = 0;    // host order, in 224.0.0.0/4
  bool left = false;
  bool operator==(const GroupMessage &) const = default;
};

// Of an interface that a multicast routing daemon forwards on.
struct ForwardingCounts {
  uint64_t bytes_in = 0, bytes_out = 0, packets_in = 0, packets_out = 0;
  bool operator==(const ForwardingCounts &) const = default;
};

// `sequence` is that of the request which a message answers; 0: an event.
class MulticastSink {
 public:
  virtual void group(uint32_t sequence, const GroupMessage &message) = 0;
  virtual void received(uint32_t sequence, uint32_t ifindex, uint64_t packets) = 0;
  virtual void forwarded(uint32_t sequence, uint32_t ifindex, const ForwardingCounts &counts) = 0;
  virtual void interrupted(uint32_t sequence) = 0;             // the list changed under the dump
  virtual void end_of_dump(uint32_t sequence, int error) = 0;  // error: an errno, also of a refused request; 0: whole
  virtual void malformed() = 0;                                // a message that was skipped

 protected:
  ~MulticastSink() = default;
};

void parse_multicast(std::span<const std::byte> datagram, MulticastSink &sink);

// The text of /proc/net/igmp. Lines that are not understood are passed over.
void parse_igmp(std::string_view text, const std::function<void(const GroupMessage &)> &found);

}  // namespace ipd::kernel

#endif
