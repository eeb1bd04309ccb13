// SPDX-License-Identifier: Apache-2.0
// What the handlers of packets for this system stand on, in memory: receivers, members, addresses, and lists of what
// was delivered and sent.
#ifndef TESTS_IPD_RECEPTION_RIG_H
#define TESTS_IPD_RECEPTION_RIG_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "ip_packet.h"
#include "ipd/control_memberships_fixture.h"
#include "ipd/packet/ipv4.h"
#include "ipd/packet/local.h"
#include "ipd/packet/local_addresses.h"
#include "ipd/packet/output.h"
#include "ipd/packet/receivers.h"
#include "ipd/packet/request.h"

namespace reception_rig {

using namespace ipd::packet;

using Bytes = std::vector<std::byte>;

inline constexpr uint32_t our_address = 0x0a000001, neighbor = 0x0a000002, subnet_broadcast = 0x0a0000ff;
inline constexpr uint32_t group = 0xef010203, all_hosts = 0xe0000001, all_ospf = 0xe0000005;
inline constexpr uint8_t ospf = 89, pim = 103;

struct PacketFields {
  uint32_t source = neighbor;
  uint32_t destination = our_address;
  uint8_t protocol = ospf;
  uint8_t ttl = 1;
  uint16_t fragment = 0;  // flags and offset
  size_t payload = 8;
};

inline Bytes packet_with(const PacketFields &fields) {
  Bytes packet(ipv4::shortest_header, std::byte{0});
  packet.resize(ipv4::shortest_header + fields.payload, std::byte{0xa5});
  ipv4::set_version_and_header_length(packet, ipv4::shortest_header);
  ipv4::write16(packet, ipv4::total_length_at, static_cast<uint16_t>(packet.size()));
  ipv4::write16(packet, ipv4::fragment_at, fields.fragment);
  ipv4::write8(packet, ipv4::ttl_at, fields.ttl);
  ipv4::write8(packet, ipv4::protocol_at, fields.protocol);
  ipv4::write32(packet, ipv4::source_at, fields.source);
  ipv4::write32(packet, ipv4::destination_at, fields.destination);
  ipv4::write_checksum(packet);
  return packet;
}

// A registration that has a queue for packets.
inline ipd::control::Registration registration(uint32_t serial, int32_t pid, uint32_t sap, uint8_t protocol = ospf,
                                               uint32_t flags = IP_CLIENT_RECV_MTS) {
  ipd::control::Registration made;
  made.serial = serial;
  made.pid = pid;
  made.key = protocol;
  made.data_sap = sap;
  made.flags = flags;
  return made;
}

// Keeps what clients get.
class RecordingDelivery final : public Delivery {
 public:
  struct Given {
    Receiver receiver;
    ip_msg_input message;
    Bytes packet;
  };
  Outcome deliver(const Receiver &receiver, std::span<std::byte> message, std::span<const std::byte> packet) override {
    EXPECT_EQ(message.size(), sizeof(ip_msg_input));
    if (const auto refused = outcomes.find(receiver.pid); refused != outcomes.end()) return refused->second;
    Given copy{.receiver = receiver, .message = {}, .packet = {packet.begin(), packet.end()}};
    std::memcpy(&copy.message, message.data(), sizeof copy.message);
    given.push_back(std::move(copy));
    // As one that hands packets over by reference does.
    ip_msg_input filled_in = given.back().message;
    filled_in.packet_ref = 0x1234;
    std::memcpy(message.data(), &filled_in, sizeof filled_in);
    return Outcome::done;
  }
  [[nodiscard]] std::vector<int32_t> pids() const {
    std::vector<int32_t> list;
    for (const Given &each : given) list.push_back(each.receiver.pid);
    return list;
  }

  std::vector<Given> given;
  std::map<int32_t, Outcome> outcomes;  // of clients that get nothing
};

// Keeps what is delivered locally.
class RecordingLocal final : public LocalDelivery {
 public:
  Outcome deliver(const Arrival &arrival, std::span<const std::byte> packet) override {
    given.emplace_back(arrival, Bytes(packet.begin(), packet.end()));
    return outcome;
  }

  std::vector<std::pair<Arrival, Bytes>> given;
  Outcome outcome = Outcome::done;
};

// Keeps what is sent, and writes over it, as it may.
class RecordingOutput final : public Output {
 public:
  Outcome send(const Way &way, std::span<std::byte> packet) override {
    sent.emplace_back(way, Bytes(packet.begin(), packet.end()));
    std::ranges::fill(packet, std::byte{0});
    const auto refused = outcomes.find(way.iod);
    return refused == outcomes.end() ? Outcome::done : refused->second;
  }
  [[nodiscard]] uint32_t source_towards(const Way &, uint32_t) override { return 0; }
  [[nodiscard]] std::vector<uint32_t> iods() const {
    std::vector<uint32_t> list;
    for (const auto &[way, packet] : sent) list.push_back(way.iod);
    return list;
  }

  std::vector<std::pair<Way, Bytes>> sent;
  std::map<uint32_t, Outcome> outcomes;  // by interface
};

class ListedAddresses final : public LocalAddresses {
 public:
  [[nodiscard]] bool is_local(uint32_t context_id, uint32_t addr) const override {
    return local.contains({context_id, addr});
  }
  [[nodiscard]] bool is_broadcast(uint32_t iod, uint32_t addr) const override {
    return broadcasts.contains({iod, addr});
  }
  [[nodiscard]] bool has_context(uint32_t context_id) const override { return contexts.contains(context_id); }

  std::set<std::pair<uint32_t, uint32_t>> local{{1, our_address}};
  std::set<std::pair<uint32_t, uint32_t>> broadcasts{{5, subnet_broadcast}};
  std::set<uint32_t> contexts{1, 7};
};

// Members as clients made them.
class Members {
 public:
  explicit Members(const ipd::control::Box &box) : memberships(box, kernel_) {}
  void join(int32_t pid, uint32_t iod, uint32_t its_group, uint32_t source = 0) {
    ip_msg_group message{};
    message.header.minor_type = IP_MSG_JOIN_GROUP;
    message.group = its_group;
    message.source = source;
    message.iod = iod;
    EXPECT_EQ(memberships.handle(test_support::request_of(message, {.pid = pid}, IP_OPCODE_CLIENT)),
              ipd::control::Refusal::none);
  }

 private:
  memberships_test::HandMadeKernel kernel_;

 public:
  ipd::control::Memberships memberships;
};

// The record and the packet outlive the request.
template <class Record>
Request request_of(const Record &record, uint16_t minor, int32_t pid, Bytes &packet) {
  Request request;
  request.sender = {.pid = pid};
  request.minor = minor;
  request.message = std::as_bytes(std::span(&record, 1));
  request.packet = packet;
  return request;
}

}  // namespace reception_rig

#endif
