// SPDX-License-Identifier: Apache-2.0
// ICMP echoes (RFC 792): built, read, and accounted for.
#ifndef IPSH_ECHO_H
#define IPSH_ECHO_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

namespace ipsh {

inline constexpr uint32_t echo_overhead = 28;  // IPv4 header and ICMP header
inline constexpr uint32_t most_echo_data = 65535 - echo_overhead;

struct EchoRequest {
  uint32_t destination = 0;  // host order
  uint16_t id = 0, sequence = 0;
  uint32_t data = 0;  // bytes
};

// A whole packet, but for source and header checksum, which whoever sends it fills in.
[[nodiscard]] std::vector<uint8_t> build_echo(const EchoRequest &request);

// The sequence number of an echo request of that id, of which only the first bytes may be there.
[[nodiscard]] std::optional<uint16_t> echo_sequence(std::span<const uint8_t> packet, uint16_t id);

// What a packet says about one of our echoes.
struct EchoNews {
  uint16_t sequence = 0;
  uint32_t from = 0;  // host order
  uint8_t ttl = 0;
  uint32_t length = 0;         // of the ICMP message
  uint8_t type = 0, code = 0;  // type 0: a reply; others: an error
  [[nodiscard]] bool is_reply() const { return type == 0; }
};

// Nothing: it says nothing about an echo of that id, or is damaged.
[[nodiscard]] std::optional<EchoNews> read_echo_news(std::span<const uint8_t> packet, uint16_t id);
// "time exceeded".
[[nodiscard]] const char *icmp_type_text(uint8_t type);

struct EchoStatistics {
  uint64_t sent = 0, answered = 0, duplicates = 0, errors = 0, not_sent = 0;
  // Of round trips, in milliseconds; without any 0.
  double least = 0, mean = 0, most = 0, deviation = 0;
};

class EchoBook {
 public:
  using Time = std::chrono::steady_clock::time_point;

  void sent(uint16_t sequence, Time now);
  struct Answer {
    bool duplicate = false;
    double milliseconds = 0;
  };
  // Nothing: no such echo was sent.
  std::optional<Answer> answered(uint16_t sequence, Time now);
  // No reply will come: an ICMP error said so, or it was not sent at all. False: it had its answer already, or none was
  // sent.
  bool failed(uint16_t sequence, bool was_sent);
  // Whether all that were sent have their answer.
  [[nodiscard]] bool settled() const { return waiting_ == 0; }
  [[nodiscard]] EchoStatistics statistics() const;

 private:
  struct Echo {
    Time sent;
    bool settled = false;
  };
  std::map<uint16_t, Echo> echoes_;
  uint64_t waiting_ = 0;
  EchoStatistics counts_;
  double sum_ = 0, sum_of_squares_ = 0;
};

}  // namespace ipsh

#endif
