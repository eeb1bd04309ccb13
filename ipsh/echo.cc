// SPDX-License-Identifier: Apache-2.0
#include "echo.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "ip_packet.h"
#include "ip_packet_util.h"

namespace ipsh {
namespace {

constexpr size_t ip_header = 20, icmp_header = 8;
constexpr uint8_t icmp = 1;
constexpr uint8_t echo_reply = 0, unreachable = 3, source_quench = 4, redirect = 5, echo_request = 8,
                  time_exceeded = 11, parameter_problem = 12;
constexpr uint8_t usual_ttl = 64;

uint16_t word_at(std::span<const uint8_t> bytes, size_t place) {
  return static_cast<uint16_t>(bytes[place] << 8 | bytes[place + 1]);
}

void set_word(std::span<uint8_t> bytes, size_t place, uint16_t word) {
  bytes[place] = static_cast<uint8_t>(word >> 8);
  bytes[place + 1] = static_cast<uint8_t>(word);
}

// What stands behind an ICMP packet's IPv4 header; empty: it is none, or a later fragment.
std::span<const uint8_t> icmp_of(std::span<const uint8_t> packet) {
  if (packet.size() < ip_header || packet[0] >> 4 != 4 || packet[9] != icmp) return {};
  const size_t header = size_t{packet[0] & 15u} * 4;
  const bool first_fragment = (word_at(packet, 6) & 0x1fff) == 0;
  if (header < ip_header || packet.size() < header + icmp_header || !first_fragment) return {};
  return packet.subspan(header);
}

bool is_error(uint8_t type) {
  return type == unreachable || type == source_quench || type == time_exceeded || type == parameter_problem;
}

}  // namespace

std::vector<uint8_t> build_echo(const EchoRequest &request) {
  std::vector<uint8_t> packet(echo_overhead + request.data);
  uint8_t length[2];
  set_word(length, 0, static_cast<uint16_t>(packet.size()));
  uint16_t length_in_network_order = 0;
  std::memcpy(&length_in_network_order, length, sizeof length);
  ip_l3_encap(packet.data(), length_in_network_order, icmp, 0, request.destination);
  packet[8] = usual_ttl;
  const std::span<uint8_t> message = std::span(packet).subspan(ip_header);
  message[0] = echo_request;
  set_word(message, 4, request.id);
  set_word(message, 6, request.sequence);
  for (size_t i = icmp_header; i < message.size(); ++i) message[i] = static_cast<uint8_t>(i);
  const uint16_t checksum = ip_checksum(message.data(), static_cast<uint32_t>(message.size()));
  std::memcpy(&message[2], &checksum, sizeof checksum);
  return packet;
}

std::optional<uint16_t> echo_sequence(std::span<const uint8_t> packet, uint16_t id) {
  const auto message = icmp_of(packet);
  if (message.empty() || message[0] != echo_request || word_at(message, 4) != id) return std::nullopt;
  return word_at(message, 6);
}

std::optional<EchoNews> read_echo_news(std::span<const uint8_t> packet, uint16_t id) {
  const auto message = icmp_of(packet);
  if (message.empty() || ip_checksum(message.data(), static_cast<uint32_t>(message.size())) != 0) return std::nullopt;
  EchoNews news{.sequence = 0,
                .from = uint32_t{word_at(packet, 12)} << 16 | word_at(packet, 14),
                .ttl = packet[8],
                .length = static_cast<uint32_t>(message.size()),
                .type = message[0],
                .code = message[1]};
  if (message[0] == echo_reply) {
    news.sequence = word_at(message, 6);
    return word_at(message, 4) == id ? std::optional(news) : std::nullopt;
  }
  if (!is_error(message[0])) return std::nullopt;
  const auto sequence = echo_sequence(message.subspan(icmp_header), id);
  news.sequence = sequence.value_or(0);
  return sequence ? std::optional(news) : std::nullopt;
}

const char *icmp_type_text(uint8_t type) {
  switch (type) {
    case echo_reply:
      return "reply";
    case unreachable:
      return "destination unreachable";
    case source_quench:
      return "source quench";
    case redirect:
      return "redirect";
    case time_exceeded:
      return "time exceeded";
    case parameter_problem:
      return "parameter problem";
    default:
      return "ICMP error";
  }
}

// A sequence number that comes again takes the place of the one long ago.
void EchoBook::sent(uint16_t sequence, Time now) {
  Echo &echo = echoes_[sequence];
  if (echo.sent == Time{} || echo.settled) ++waiting_;
  echo = {.sent = now};
  ++counts_.sent;
}

std::optional<EchoBook::Answer> EchoBook::answered(uint16_t sequence, Time now) {
  const auto found = echoes_.find(sequence);
  if (found == echoes_.end()) return std::nullopt;
  Echo &echo = found->second;
  const double milliseconds = std::chrono::duration<double, std::milli>(now - echo.sent).count();
  if (echo.settled) {
    ++counts_.duplicates;
    return Answer{.duplicate = true, .milliseconds = milliseconds};
  }
  echo.settled = true;
  --waiting_;
  ++counts_.answered;
  counts_.least = counts_.answered == 1 ? milliseconds : std::min(counts_.least, milliseconds);
  counts_.most = std::max(counts_.most, milliseconds);
  sum_ += milliseconds;
  sum_of_squares_ += milliseconds * milliseconds;
  return Answer{.duplicate = false, .milliseconds = milliseconds};
}

bool EchoBook::failed(uint16_t sequence, bool was_sent) {
  const auto found = echoes_.find(sequence);
  if (found == echoes_.end() || found->second.settled) return false;
  found->second.settled = true;
  --waiting_;
  ++(was_sent ? counts_.errors : counts_.not_sent);
  return true;
}

EchoStatistics EchoBook::statistics() const {
  EchoStatistics statistics = counts_;
  if (counts_.answered == 0) return statistics;
  const auto count = static_cast<double>(counts_.answered);
  statistics.mean = sum_ / count;
  statistics.deviation = std::sqrt(std::max(0.0, sum_of_squares_ / count - statistics.mean * statistics.mean));
  return statistics;
}

}  // namespace ipsh
