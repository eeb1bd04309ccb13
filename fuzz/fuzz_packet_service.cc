// SPDX-License-Identifier: Apache-2.0
// Any messages to the packet service, from clients that may and that may not: each has one outcome, a packet by
// reference is taken over exactly once, and what reaches a handler is what handlers are promised.
//
// The input is a list of steps: a byte that says what is done, and what that needs. A message is either bytes as they
// stand, or a good record with words of the input's and a packet that is good but for what the input changes.
#include <stdlib.h>
#include <syslog.h>

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "input.h"
#include "ip_packet.h"
#include "ipd/packet/service.h"
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

class CheckingHandler final : public Handler {
 public:
  Outcome handle(Request &request) override {
    const MessageKind *kind = find_message(request.minor);
    check(kind != nullptr && request.message.size() == kind->size);
    check(kind->has_packet == !request.packet.empty());
    for (std::byte &byte : request.packet) byte ^= std::byte{0xff};
    for (std::byte &byte : request.packet) byte ^= std::byte{0xff};
    if (kind->has_packet) check_packet(request.packet);
    return outcome;
  }
  Outcome outcome = Outcome::done;

 private:
  static void check_packet(std::span<const std::byte> packet) {
    check(packet.size() >= 20 && packet.size() <= longest_packet);
    const size_t header = std::to_integer<size_t>(packet[0] & std::byte{15}) * 4;
    const size_t total = std::to_integer<size_t>(packet[2]) << 8 | std::to_integer<size_t>(packet[3]);
    check(std::to_integer<int>(packet[0]) >> 4 == 4 && header >= 20 && header <= packet.size());
    check(total == 0 || total == packet.size());
  }
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
  CheckingHandler handler_;
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
