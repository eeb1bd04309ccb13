// SPDX-License-Identifier: Apache-2.0
// Packets by number, and clients that receive them: programs of the test that say on one line each what they got.
#ifndef TESTS_SYSTEM_RECEPTION_RIG_H
#define TESTS_SYSTEM_RECEPTION_RIG_H

#include <chrono>
#include <cstdint>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "ipd/packet/ipv4.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace reception_rig {

using test_support::Process;
using test_support::wait_until;
namespace ipv4 = ipd::packet::ipv4;

using Words = std::vector<std::string>;

inline constexpr uint32_t our_address = 0x0a000001, neighbor = 0x0a000002, all_ospf = 0xe0000005, stream = 0xef010203;
inline constexpr uint8_t icmp = 1, ospf = 89, pim = 103;
inline constexpr auto deadline = std::chrono::seconds(60);

// A packet's bytes behind its header, by eight digits that say which one it is.
inline std::string payload(uint32_t number) {
  std::string text(8, '0');
  for (size_t i = 8; i > 0; --i, number /= 10) text[i - 1] = static_cast<char>('0' + number % 10);
  return text;
}

// As the client prints it.
inline std::string hex(const std::string &bytes) {
  std::string text;
  for (const char each : bytes) {
    const char *digits = "0123456789abcdef";
    text += digits[static_cast<uint8_t>(each) >> 4];
    text += digits[static_cast<uint8_t>(each) & 15];
  }
  return text;
}

struct Fields {
  uint32_t source = neighbor;
  uint32_t destination = our_address;
  uint8_t protocol = ospf;
  uint8_t ttl = 5;
};

// For the client's step `packet`.
inline std::string packet_of(const Fields &fields, const std::string &behind) {
  std::string packet(ipv4::shortest_header, '\0');
  const auto header = std::as_writable_bytes(std::span(packet.data(), packet.size()));
  ipv4::set_version_and_header_length(header, ipv4::shortest_header);
  ipv4::write16(header, ipv4::total_length_at, static_cast<uint16_t>(packet.size() + behind.size()));
  ipv4::write8(header, ipv4::ttl_at, fields.ttl);
  ipv4::write8(header, ipv4::protocol_at, fields.protocol);
  ipv4::write32(header, ipv4::source_at, fields.source);
  ipv4::write32(header, ipv4::destination_at, fields.destination);
  ipv4::write_checksum(header);
  return hex(packet + behind);
}

// reception_client with these steps.
class Client {
 public:
  explicit Client(const Words &steps) {
    Words command{RECEPTION_CLIENT};
    if (steps[0] != "become") command.emplace_back("attach");
    command.insert(command.end(), steps.begin(), steps.end());
    process_ = Process(command);
  }

  bool says(const std::string &text) {
    return wait_until([&] { return process_.output().find(text) != std::string::npos; }, deadline);
  }
  bool receives() { return says("receives 1\n"); }
  bool said(const std::string &text) { return process_.output().find(text) != std::string::npos; }
  // Lines about packets, whole ones.
  Words packets() {
    Words lines;
    std::istringstream text(process_.output().substr(0, process_.output().rfind('\n') + 1));
    for (std::string line; std::getline(text, line);) {
      if (line.starts_with("packet ")) lines.push_back(line);
    }
    return lines;
  }
  bool gets(uint32_t number) { return says(hex(payload(number)) + "\n"); }
  bool has(uint32_t number) { return said(hex(payload(number)) + "\n"); }
  Process &process() { return process_; }
  const std::string &output() { return process_.output(); }

 private:
  Process process_;
};

}  // namespace reception_rig

#endif
