// SPDX-License-Identifier: Apache-2.0
// What packets leave by, in memory: it writes down what was asked of it, and answers what a test wants.
#ifndef TESTS_IPD_PACKET_KERNEL_FAKES_H
#define TESTS_IPD_PACKET_KERNEL_FAKES_H

#include <linux/rtnetlink.h>

#include <cerrno>
#include <map>
#include <utility>
#include <vector>

#include "ipd/kernel/neighbors.h"
#include "ipd/kernel/packet_output.h"
#include "ipd/kernel/raw_output.h"
#include "ipd/kernel/route_query.h"
#include "ipd/packet/links.h"
#include "packet_bytes.h"

namespace test_support {

class FakeRoutes final : public ipd::kernel::RouteQuery {
 public:
  int ask(const ipd::kernel::RouteQuestion &question, ipd::kernel::RouteAnswer *answer) override {
    questions.push_back(question);
    if (question.source != 0 && foreign_source != 0) return foreign_source;
    if (error != 0) return error;
    *answer = route;
    return 0;
  }
  ipd::kernel::RouteAnswer route{.type = RTN_UNICAST, .ifindex = 2, .source = 0x0a000001};
  int error = 0;
  int foreign_source = 0;  // what it says of any source
  std::vector<ipd::kernel::RouteQuestion> questions;
};

class FakeRaw final : public ipd::kernel::RawOutput {
 public:
  ipd::packet::Outcome send(const ipd::kernel::RawWay &way, std::span<const std::byte> packet) override {
    if (sent.size() == refuses_from) return outcome;
    sent.emplace_back(way, Packet(packet.begin(), packet.end()));
    return ipd::packet::Outcome::done;
  }
  std::vector<std::pair<ipd::kernel::RawWay, Packet>> sent;
  size_t refuses_from = SIZE_MAX;  // how many are sent before one is refused
  ipd::packet::Outcome outcome = ipd::packet::Outcome::queue_full;
};

class FakeFrames final : public ipd::kernel::PacketOutput {
 public:
  ipd::packet::Outcome send(uint32_t ifindex, std::span<const std::byte> frame) override {
    if (sent.size() == refuses_from) return outcome;
    sent.emplace_back(ifindex, Packet(frame.begin(), frame.end()));
    return ipd::packet::Outcome::done;
  }
  std::vector<std::pair<uint32_t, Packet>> sent;
  size_t refuses_from = SIZE_MAX;
  ipd::packet::Outcome outcome = ipd::packet::Outcome::queue_full;
};

class FakeNeighbors final : public ipd::kernel::Neighbors {
 public:
  int find(const ipd::kernel::NeighborId &id, ipd::kernel::Neighbor *neighbor) override {
    if (find_error != 0) return find_error;
    const auto known = neighbors.find(id);
    *neighbor = known == neighbors.end() ? ipd::kernel::Neighbor{.id = id} : known->second;
    return 0;
  }
  int resolve(const ipd::kernel::NeighborId &id) override {
    resolved.push_back(id);
    return resolve_error;
  }
  int descriptor() override { return -1; }
  bool read(const std::function<void(const ipd::kernel::Neighbor &)> &) override { return true; }

  void set(const ipd::kernel::NeighborId &id, ipd::kernel::NeighborState state, uint8_t last_byte = 1) {
    neighbors[id] = {.id = id, .state = state, .address = {2, 0, 0, 0, 0, last_byte}};
  }

  std::map<ipd::kernel::NeighborId, ipd::kernel::Neighbor> neighbors;
  std::vector<ipd::kernel::NeighborId> resolved;
  int find_error = 0, resolve_error = 0;
};

class FakeLinks final : public ipd::packet::Links {
 public:
  [[nodiscard]] std::optional<ipd::packet::MacAddress> ethernet_address(uint32_t ifindex) const override {
    const auto known = addresses.find(ifindex);
    return known == addresses.end() ? std::nullopt : std::optional(known->second);
  }
  std::map<uint32_t, ipd::packet::MacAddress> addresses;
};

inline ipd::packet::MacAddress mac_at(const Packet &frame, size_t at) {
  ipd::packet::MacAddress address{};
  for (size_t i = 0; i < address.size(); ++i) address[i] = ipd::packet::ipv4::read8(frame, at + i);
  return address;
}
inline ipd::packet::MacAddress frame_destination(const Packet &frame) {
  return mac_at(frame, 0);
}
inline ipd::packet::MacAddress frame_source(const Packet &frame) {
  return mac_at(frame, 6);
}
// What stands behind a header without a tag.
inline Packet frame_packet(const Packet &frame) {
  return {frame.begin() + 14, frame.end()};
}

}  // namespace test_support

#endif
