// SPDX-License-Identifier: Apache-2.0
// Any messages to the packet service, from clients that may and that may not: each has one outcome, a packet by
// reference is taken over exactly once, and what reaches a handler is what handlers are promised. The handlers are the
// real ones, on a kernel that does anything: what they send are good packets that fit their interface.
//
// The input is a list of steps: a byte that says what is done, and what that needs. A message is either bytes as they
// stand, or a good record with words of the input's and a packet that is good but for what the input changes.
#include <stdlib.h>
#include <syslog.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <span>
#include <vector>

#include "input.h"
#include "ip_packet.h"
#include "ipd/control_fakes.h"
#include "ipd/packet/icmp_errors.h"
#include "ipd/packet/icmp_output.h"
#include "ipd/packet/ip_output.h"
#include "ipd/packet/neighbor_output.h"
#include "ipd/packet/output_l2.h"
#include "ipd/packet/output_message.h"
#include "ipd/packet/service.h"
#include "ipd/packet_kernel_fakes.h"
#include "ipd/packet_rig.h"
#include "ipd/process/log.h"

namespace {

using namespace ipd::packet;
using fuzz::Input;
using packet_rig::Bytes;

void check(bool good) {
  if (!good) abort();
}

// Any reference names a packet of the input's, or none.
class AnyReferences final : public References {
 public:
  Outcome take(uint32_t reference, int32_t pid, std::span<std::byte> into, size_t *length) override {
    check(reference != 0 && pid == sender && into.size() >= longest_packet);
    ++taken;
    if (outcome != Outcome::done) return outcome;
    *length = std::min(packet.size(), into.size());
    std::memcpy(into.data(), packet.data(), *length);
    return Outcome::done;
  }

  int32_t sender = 0;
  Outcome outcome = Outcome::done;
  Bytes packet;
  uint32_t taken = 0;
};

// The real handlers, and what they send by.
class Senders {
 public:
  Senders() {
    box_.add(1, 1, "lo").state.loopback = true;
    box_.add(12, 2, "eth0").addresses = {{0x0a000001, 24, false, 0}};
    box_.add(13, 3, "tun0").addresses = {{0x0a010001, 32, false, 0}};
    links_.addresses = {{2, {2, 1, 1, 1, 1, 1}}};
    neighbors_.set({.ifindex = 2, .addr = 0x0a000002}, ipd::kernel::NeighborState::usable);
  }

  Handler &of(uint16_t minor) {
    switch (minor) {
      case IP_MSG_OUTPUT:
        return output_message_;
      case IP_MSG_ICMP_OUTPUT:
        return icmp_output_;
      case IP_MSG_ICMP_ERROR:
      case IP_MSG_DRIVER_ICMP:
        return icmp_errors_;
      default:
        return output_l2_;
    }
  }
  static bool has(uint16_t minor) {
    return minor != IP_MSG_INPUT && minor != IP_MSG_CONSUME && minor != IP_MSG_REPLICATE;
  }

  // What the kernel says from now on.
  void change(Input &input) {
    static constexpr uint8_t types[] = {RTN_UNICAST, RTN_LOCAL, RTN_BROADCAST, RTN_MULTICAST, RTN_UNREACHABLE};
    static constexpr int errors[] = {0, 0, ENETUNREACH, EINVAL};
    const uint8_t what = input.byte();
    routes_.route = {.type = types[what % std::size(types)],
                     .ifindex = input.byte() % 5u,
                     .gateway = (what & 32) != 0 ? 0x0a000002u + (what & 1) : 0,
                     .via_ipv6 = (what & 64) != 0,
                     .source = (what & 128) != 0 ? 0x0a000001u : 0,
                     .mtu = (what & 16) != 0 ? 68u + input.byte() : 0};
    routes_.error = errors[input.byte() % std::size(errors)];
    neighbors_.find_error = input.byte() > 200 ? EPERM : 0;
    now_ += std::chrono::milliseconds(input.byte() * 10);
    neighbor_output_.tick(now_);
  }

  void check_what_was_sent() {
    for (const auto &[way, packet] : raw_.sent) {
      check(packet.size() >= 20 && packet.size() <= longest_packet);
      check(ipv4::total_length(packet) == packet.size() && ipv4::checksum_is_good(packet));
    }
    for (const auto &[ifindex, frame] : frames_.sent) check(ifindex == 2 || ifindex == 3);
    check(neighbor_output_.waiting() <= NeighborOutput::most);
    raw_.sent.clear();
    frames_.sent.clear();
    routes_.questions.clear();
    neighbors_.resolved.clear();
  }

 private:
  test_support::FakeBox box_;
  test_support::FakeLinks links_;
  test_support::FakeRoutes routes_;
  test_support::FakeRaw raw_;
  test_support::FakeFrames frames_;
  test_support::FakeNeighbors neighbors_;
  NeighborOutput neighbor_output_{neighbors_, frames_};
  FramedOutput framed_{frames_, neighbor_output_};
  Identifications identifications_;
  IpOutput output_{box_, links_, routes_, raw_, framed_, identifications_};
  OutputMessage output_message_{output_};
  OutputL2 output_l2_{box_, links_, framed_, identifications_};
  IcmpOutput icmp_output_{output_};
  std::chrono::steady_clock::time_point now_{};
  IcmpErrors icmp_errors_{box_, output_, ipd::IcmpErrorRule{}, [this] { return now_; }};
};

class CheckingHandler final : public Handler {
 public:
  explicit CheckingHandler(Senders &senders) : senders_(senders) {}

  Outcome handle(Request &request) override {
    const MessageKind *kind = find_message(request.minor);
    check(kind != nullptr && request.message.size() == kind->size);
    check(kind->has_packet == !request.packet.empty());
    for (std::byte &byte : request.packet) byte ^= std::byte{0xff};
    for (std::byte &byte : request.packet) byte ^= std::byte{0xff};
    if (kind->has_packet) check_packet(request.packet);
    if (!Senders::has(request.minor)) return outcome;
    const Outcome real = senders_.of(request.minor).handle(request);
    senders_.check_what_was_sent();
    return real;
  }
  Outcome outcome = Outcome::done;  // of what has no handler here

 private:
  static void check_packet(std::span<const std::byte> packet) {
    check(packet.size() >= 20 && packet.size() <= longest_packet);
    const size_t header = std::to_integer<size_t>(packet[0] & std::byte{15}) * 4;
    const size_t total = std::to_integer<size_t>(packet[2]) << 8 | std::to_integer<size_t>(packet[3]);
    check(std::to_integer<int>(packet[0]) >> 4 == 4 && header >= 20 && header <= packet.size());
    check(total == 0 || total == packet.size());
  }

  Senders &senders_;
};

class System {
 public:
  System() {
    for (const MessageKind &kind : message_kinds()) service_.add(handler_, {kind.minor});
    service_.add(tap_);
  }

  void step(Input &input) {
    const uint8_t what = input.byte();
    switch (what & 7) {
      case 0:
        return send(what, input.bytes(input.byte() | (size_t{input.byte()} << 8)), IP_OPCODE_PACKET);
      case 5:
        return senders_.change(input);
      case 6:
        service_.process_gone(pid_of(what));
        tap_.wanted = (what & 128) != 0;
        return;
      case 7:
        return service_.delivered(pid_of(what), what, Outcome::done, input.bytes(input.byte()));
      default:
        return send_good(what, input);
    }
  }

 private:
  static int32_t pid_of(uint8_t what) { return (what >> 3) & 3; }

  static Bytes packet_of(Input &input) {
    Bytes packet = packet_rig::ipv4_packet(20 + (input.byte() | (size_t{input.byte()} << 8)));
    for (uint8_t changes = input.byte() & 3; changes > 0; --changes) {
      packet[input.byte() % 20] = static_cast<std::byte>(input.byte());
    }
    return packet;
  }

  void send_good(uint8_t what, Input &input) {
    const MessageKind &kind = message_kinds()[input.byte() % message_kinds().size()];
    Bytes message = input.bytes(input.byte());
    message.resize(kind.size);
    packet_rig::begin(message, kind.minor);
    Bytes packet = packet_of(input);
    const bool by_reference = (what & 7) == 1;
    uint32_t reference = by_reference ? 0x74001000 : 0;
    if ((what & 7) == 2) reference = input.word();
    if (kind.has_packet) {
      std::memcpy(message.data() + 32, &reference, sizeof reference);
      const auto length = static_cast<uint16_t>(packet.size() + (input.byte() == 255 ? 1 : 0));
      std::memcpy(message.data() + kind.length_at, &length, sizeof length);
    }
    references_.outcome = input.byte() > 250 ? Outcome::bad_reference : Outcome::done;
    references_.packet = packet;
    if (kind.has_packet && !by_reference) message.insert(message.end(), packet.begin(), packet.end());
    send(what, message, (what & 192) == 192 ? input.word() : IP_OPCODE_PACKET);
  }

  void send(uint8_t what, const Bytes &bytes, uint32_t opcode) {
    const int32_t pid = pid_of(what);
    references_.sender = pid;
    references_.taken = 0;
    handler_.outcome = static_cast<Outcome>(what % outcome_count);
    tap_.seen.clear();
    const uint64_t before = outcomes();
    service_.receive({.sender = {.pid = pid, .uid = 0, .sap = 2048},
                      .minor = 0,
                      .opcode = opcode,
                      .bytes = bytes,
                      .reference = nullptr,
                      .wants_answer = false});
    check(outcomes() == before + 1);
    check(references_.taken <= 1 && tap_.seen.size() <= 1);
  }

  [[nodiscard]] uint64_t outcomes() const {
    uint64_t sum = 0;
    for (const auto &[minor, counts] : service_.counts()) {
      uint64_t of_this = 0;
      for (const uint64_t count : counts.by_outcome) of_this += count;
      check(of_this == counts.received);
      sum += of_this;
    }
    return sum;
  }

  AnyReferences references_;
  Senders senders_;
  CheckingHandler handler_{senders_};
  packet_rig::RecordingTap tap_;
  Service service_{references_, [](const ipd::control::Request &message) { return message.sender.pid != 3; }};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ipd::set_log_limit(LOG_EMERG - 1);
  System system;
  Input input(data, size);
  while (!input.empty()) system.step(input);
  return 0;
}
