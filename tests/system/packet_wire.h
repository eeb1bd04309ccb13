// SPDX-License-Identifier: Apache-2.0
// What a neighbour sees of our packets, decoded by tshark on its end of the wire.
#ifndef TESTS_SYSTEM_PACKET_WIRE_H
#define TESTS_SYSTEM_PACKET_WIRE_H

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/peer_namespace.h"
#include "support/process.h"

namespace test_support {

// tshark's fields by their names; what a packet does not have is empty.
using SeenPacket = std::map<std::string, std::string>;

class PacketWire {
 public:
  // Captures on a peer's device; packets that `filter` lets pass, in tshark's language, are shown.
  PacketWire(const PeerNamespace &peer, const std::string &device, const std::string &filter,
             std::vector<std::string> fields);
  ~PacketWire();
  PacketWire(const PacketWire &) = delete;
  PacketWire &operator=(const PacketWire &) = delete;

  // Sends datagrams to this address of the peer until one is seen: from then on nothing is missed.
  bool captures(const std::string &peer_address);
  // All whole lines so far, without those datagrams.
  std::vector<SeenPacket> packets();
  // Waits until so many were seen.
  std::vector<SeenPacket> wait_for(size_t count);
  const std::string &output() { return tshark_.output(); }

 private:
  std::vector<std::string> fields_;
  Process tshark_;
};

}  // namespace test_support

#endif
