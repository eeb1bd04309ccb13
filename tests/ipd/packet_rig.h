// SPDX-License-Identifier: Apache-2.0
// The packet service without a queue and without a pool: packets by reference lie in a list.
#ifndef TESTS_IPD_PACKET_RIG_H
#define TESTS_IPD_PACKET_RIG_H

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "ip_packet.h"
#include "ipd/packet/service.h"

namespace packet_rig {

using namespace ipd::packet;

using Bytes = std::vector<std::byte>;

template <class Record>
Bytes bytes_of(const Record &record, std::span<const std::byte> behind = {}) {
  const auto bytes = std::as_bytes(std::span(&record, 1));
  Bytes all(bytes.begin(), bytes.end());
  all.insert(all.end(), behind.begin(), behind.end());
  return all;
}

// A packet of `size` bytes, a 20-byte header without anything but version, lengths and addresses in front.
inline Bytes ipv4_packet(size_t size, uint8_t protocol = 89) {
  Bytes packet(size, std::byte{0x5a});
  const std::array<uint8_t, 20> header{0x45,
                                       0,
                                       static_cast<uint8_t>(size >> 8),
                                       static_cast<uint8_t>(size),
                                       0,
                                       0,
                                       0,
                                       0,
                                       64,
                                       protocol,
                                       0,
                                       0,
                                       10,
                                       0,
                                       0,
                                       1,
                                       10,
                                       0,
                                       0,
                                       2};
  std::memcpy(packet.data(), header.data(), std::min(size, header.size()));
  return packet;
}

// A client's header in front of a message.
inline void begin(Bytes &message, uint16_t minor) {
  const uint16_t major = IP_MAJOR_CLIENT;
  std::memcpy(message.data(), &major, sizeof major);
  std::memcpy(message.data() + sizeof major, &minor, sizeof minor);
}

// The message of that minor type and record, about a packet of so many bytes.
template <class Record>
Record begin_message(uint16_t minor, size_t length) {
  Record message{};
  message.header.major_type = IP_MAJOR_CLIENT;
  message.header.minor_type = minor;
  message.packet_len = static_cast<uint16_t>(length);
  return message;
}

class FakeReferences final : public References {
 public:
  Outcome take(uint32_t reference, int32_t pid, std::span<std::byte> into, size_t *length) override {
    taken.emplace_back(reference, pid);
    const auto found = packets.find({reference, pid});
    if (found == packets.end()) return Outcome::bad_reference;
    std::ranges::copy(found->second, into.begin());
    *length = found->second.size();
    packets.erase(found);
    return Outcome::done;
  }

  std::map<std::pair<uint32_t, int32_t>, Bytes> packets;  // by address and owner
  std::vector<std::pair<uint32_t, int32_t>> taken;        // what was asked for
};

class RecordingHandler final : public Handler {
 public:
  struct Handled {
    uint16_t minor;
    Bytes message;
    Bytes packet;
  };
  Outcome handle(Request &request) override {
    handled.push_back({request.minor,
                       {request.message.begin(), request.message.end()},
                       {request.packet.begin(), request.packet.end()}});
    // Handlers fill in what is zero.
    if (!request.packet.empty()) request.packet[8] = std::byte{1};
    return outcome;
  }

  Outcome outcome = Outcome::done;
  std::vector<Handled> handled;
};

class RecordingTap final : public Tap {
 public:
  void passed(const Passed &what, std::span<const std::byte> packet) override {
    seen.emplace_back(what, Bytes(packet.begin(), packet.end()));
  }
  [[nodiscard]] bool wants() const override { return wanted; }

  bool wanted = true;
  std::vector<std::pair<Passed, Bytes>> seen;
};

struct System {
  System() {
    for (const MessageKind &kind : message_kinds()) service.add(handler, {kind.minor});
  }

  void receive(const Bytes &bytes, uint32_t opcode = IP_OPCODE_PACKET) {
    service.receive(
        {.sender = sender, .minor = 0, .opcode = opcode, .bytes = bytes, .reference = nullptr, .wants_answer = false});
  }
  // How often messages of this type ended so.
  [[nodiscard]] uint64_t count(uint16_t minor, Outcome outcome) const {
    return service.counts().at(minor).by_outcome[static_cast<size_t>(outcome)];
  }

  ipd::control::Sender sender{.pid = 4711, .uid = 1000, .sap = 2048};
  std::set<int32_t> may_send{4711};
  FakeReferences references;
  RecordingHandler handler;
  Service service{references,
                  [this](const ipd::control::Request &message) { return may_send.contains(message.sender.pid); }};
};

}  // namespace packet_rig

#endif
