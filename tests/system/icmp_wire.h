// SPDX-License-Identifier: Apache-2.0
// ICMP on a wire, as tshark reads it.
#ifndef TESTS_SYSTEM_ICMP_WIRE_H
#define TESTS_SYSTEM_ICMP_WIRE_H

#include <optional>
#include <string>
#include <vector>

#include "support/process.h"

namespace ipd_test {

// A packet with an ICMP message, as tshark shows its fields; where there are two numbers, the second one is that of the
// quoted packet. A checksum's status is "1" when it is good.
struct IcmpSeen {
  std::string source, destination, tos, ttl, length, identification, header_checksum;
  std::string type, code, checksum;
  std::string mtu, gateway, pointer;
  std::string data;  // in hexadecimal: what the quoted packet, or an echo, carries
  bool operator==(const IcmpSeen &) const = default;
};

class IcmpWire {
 public:
  // Of the packets that come in by this interface.
  explicit IcmpWire(const std::string &interface);
  ~IcmpWire();
  IcmpWire(const IcmpWire &) = delete;
  IcmpWire &operator=(const IcmpWire &) = delete;

  // Sends marks into the other end, of this ifindex, until one of them is seen: from then on nothing is missed, and
  // what left before has been seen. False: none came.
  bool mark(int out);

  // All so far.
  std::vector<IcmpSeen> seen();
  // The nth one, from 0; nothing: it did not come.
  std::optional<IcmpSeen> wait_for(size_t index);
  const std::string &output() { return tshark_.output(); }

 private:
  test_support::Process tshark_;
  size_t marks_ = 0;  // each is longer than the one before
};

}  // namespace ipd_test

#endif
