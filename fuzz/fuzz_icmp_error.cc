// SPDX-License-Identifier: Apache-2.0
// ICMP errors about any bytes: type, code, rest of the header, the addresses of the box and the packet in question come
// from the input, the packet at the end of a block of its own. What is sent is a good ICMP packet that goes to the
// source of the one in question and quotes its beginning; what a rule forbids is not sent; the limits hold.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "ipd/control_fakes.h"
#include "ipd/icmp_packets.h"
#include "ipd/packet/icmp_errors.h"
#include "ipd/packet/icmp_rules.h"

namespace {

using namespace icmp_packets;

constexpr size_t fixed_part = 24;

void check(bool good) {
  if (!good) abort();
}

// The packet service gives no other to a handler.
bool service_takes(std::span<const std::byte> packet) {
  if (packet.size() < ipv4::shortest_header || ipv4::version(packet) != 4) return false;
  const size_t header = ipv4::header_length(packet);
  const size_t total = ipv4::total_length(packet);
  return header >= ipv4::shortest_header && header <= packet.size() && (total == 0 || total == packet.size());
}

class System {
 public:
  explicit System(const uint8_t *from) {
    const auto bytes = std::as_bytes(std::span(from, fixed_part));
    type_ = ipv4::read8(bytes, 0);
    code_ = ipv4::read8(bytes, 1);
    rest_ = ipv4::read32(bytes, 2);
    iod_ = ipv4::read8(bytes, 6) % 4;
    output_.source = ipv4::read32(bytes, 8);
    for (uint32_t i = 0; i < 2; ++i) {
      auto &facts = box_.add(1 + i, 101 + i, "eth");
      const auto length = static_cast<uint8_t>(ipv4::read8(bytes, 16 + i * 5) % 33);
      const uint32_t addr = ipv4::read32(bytes, 12 + i * 5) | 1;
      facts.addresses = {{.addr = addr, .mask_len = length, .secondary = false, .scope = 0}};
    }
  }

  void ask(std::span<std::byte> packet) {
    ip_msg_icmp_error message = begin_message<ip_msg_icmp_error>(IP_MSG_ICMP_ERROR);
    message.iod = iod_;
    message.type = type_;
    message.code = code_;
    message.rest_of_header = rest_;
    look_at(hand_over(errors_, IP_MSG_ICMP_ERROR, message, packet), packet);
  }

  void ask_as_driver(std::span<const std::byte> packet) {
    ip_msg_driver_icmp message{};
    message.minor_type = IP_MSG_DRIVER_ICMP;
    message.quoted_len = static_cast<uint32_t>(packet.size());
    std::ranges::copy(packet.first(std::min<size_t>(packet.size(), IP_QUOTED_MAX)),
                      std::as_writable_bytes(std::span(message.quoted)).begin());
    message.type = type_;
    message.code = code_;
    look_at(hand_over(errors_, IP_MSG_DRIVER_ICMP, message), packet);
  }

 private:
  void look_at(Outcome outcome, std::span<const std::byte> packet) {
    check((outcome == Outcome::done) == !output_.sent.empty());
    if (output_.sent.empty()) return;
    const Bytes &sent = output_.sent[0].packet;
    check(fault_of(sent) == nullptr);
    check(sent.size() <= largest_icmp_error);
    check(ipv4::destination(sent) == ipv4::source(packet));
    const Bytes quoted = quoted_in(sent);
    check(quoted.size() >= ipv4::header_length(packet) && quoted.size() <= packet.size());
    check(std::ranges::equal(quoted, packet.first(quoted.size())));
    check(icmp::is_error_to_send(type_, code_));
    check(objection_to_error(packet, box_.addresses_of_context(1)) == Objection::none);
    output_.sent.clear();
    if (++sent_ > 1) abort();  // the limits below let one through
  }

  uint32_t type_ = 0, code_ = 0, rest_ = 0, iod_ = 0;
  uint32_t sent_ = 0;
  test_support::FakeBox box_;
  RecordingOutput output_;
  IcmpErrors errors_{box_, output_, {.rate = 1, .burst = 1, .destination_rate = 1, .destination_burst = 1}, [] {
                       return IcmpLimits::Moment(std::chrono::seconds(1000));
                     }};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < fixed_part) return 0;
  const size_t length = std::min<size_t>(size - fixed_part, longest_packet);
  const auto exact = std::make_unique<std::byte[]>(length);
  if (length != 0) std::memcpy(exact.get(), data + fixed_part, length);
  const std::span<std::byte> packet(exact.get(), length);
  (void)objection_to_error(packet, {});
  System system(data);
  if (service_takes(packet)) system.ask(packet);
  system.ask_as_driver(packet);
  return 0;
}
