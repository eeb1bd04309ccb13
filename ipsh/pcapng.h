// SPDX-License-Identifier: Apache-2.0
// Packets in pcapng form: little-endian whole blocks, IPv4 packets without a link layer, times in nanoseconds.
#ifndef IPSH_PCAPNG_H
#define IPSH_PCAPNG_H

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ipsh {

struct PcapngPacket {
  uint64_t nanoseconds = 0;  // since 1970
  bool outbound = false;     // from a client
  uint64_t dropped = 0;      // before this one
  uint32_t length = 0;       // of the packet
  std::span<const uint8_t> bytes;
  std::string comment;
};

class PcapngWriter {
 public:
  // The block that a file begins with.
  [[nodiscard]] static std::vector<uint8_t> section(std::string_view application);
  // The packet's block, behind that of its interface where it is the first of it.
  [[nodiscard]] std::vector<uint8_t> packet(std::string_view interface, const PcapngPacket &packet);

 private:
  std::map<std::string, uint32_t, std::less<>> interfaces_;  // their places in the file
};

}  // namespace ipsh

#endif
