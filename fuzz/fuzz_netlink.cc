// SPDX-License-Identifier: Apache-2.0
// Datagrams of any bytes through the rtnetlink parsers: into the mirror, several in a row, as events and as answers to
// dumps; and as the one answer to a question about a route, a neighbor or counters. Each lies in memory of exactly its
// size, so that one byte read too much is seen.
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>

#include "ipd/kernel/groups.h"
#include "ipd/kernel/interface_counters.h"
#include "ipd/kernel/mirror.h"
#include "ipd/kernel/multicast_parse.h"
#include "ipd/kernel/neighbors.h"
#include "ipd/kernel/parse.h"
#include "ipd/kernel/picture.h"
#include "ipd/kernel/route_query.h"

namespace {

// The reader of multicast messages on the same bytes, with what it may never tell.
struct Multicast final : ipd::kernel::MulticastSink {
  void group(uint32_t, const ipd::kernel::GroupMessage &message) override {
    if (message.ifindex == 0 || message.group >> 28 != 0xe) abort();
    if (message.left) {
      groups.event(message);
    } else {
      groups.dump_entry(message);
    }
  }
  void received(uint32_t, uint32_t ifindex, uint64_t) override {
    if (ifindex == 0) abort();
  }
  void forwarded(uint32_t, uint32_t ifindex, const ipd::kernel::ForwardingCounts &) override {
    if (ifindex == 0) abort();
  }
  void interrupted(uint32_t) override { groups.begin_dump(); }
  void end_of_dump(uint32_t, int error) override {
    if (error < 0) abort();
    groups.end_dump();
  }
  void malformed() override {}

  ipd::kernel::Groups groups;
};

// The readers of one answer at a time. Each takes the message for the one that it asked for, or says that it is none.
void read_answers(std::span<const std::byte> bytes) {
  constexpr uint32_t most_sequences = 4, most_interfaces = 4;
  if (const auto neighbor = ipd::kernel::parse_neighbor(bytes); neighbor) {
    if (neighbor->id.addr == 0 || neighbor->id.ifindex == 0) abort();
  }
  if (const auto route = ipd::kernel::parse_route_answer(bytes); route && route->ifindex == 0) abort();
  for (uint32_t sequence = 0; sequence < most_sequences; ++sequence) {
    for (uint32_t ifindex = 1; ifindex < most_interfaces; ++ifindex) {
      rtnl_link_stats64 counters;
      std::memset(&counters, 0xa5, sizeof counters);
      const rtnl_link_stats64 untouched = counters;
      const auto error = ipd::kernel::parse_interface_counters(bytes, sequence, ifindex, &counters);
      if (error && *error < 0) abort();
      const bool has_counters = error && *error == 0;
      if (!has_counters && std::memcmp(&counters, &untouched, sizeof counters) != 0) abort();
    }
  }
}

struct Answered final : ipd::kernel::Requests {
  bool request_dump(ipd::kernel::DumpOf, uint32_t) override { return true; }
  bool request_system_settings(uint32_t) override { return true; }
};

void check(const ipd::kernel::Picture &picture) {
  for (const auto &[ifindex, link] : picture.links()) {
    if (ifindex == 0) abort();
    const ipd::kernel::InterfaceAddresses *addresses = picture.addresses(ifindex);
    if (addresses == nullptr) continue;
    if (addresses->entries().size() != addresses->in_order().size()) abort();
    for (const auto &[key, entry] : addresses->entries()) {
      if (key.mask_len > 32) abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using Clock = ipd::kernel::Mirror::Clock;
  ipd::kernel::Picture picture;
  Multicast multicast;
  Answered requests;
  ipd::kernel::Mirror mirror(picture, requests);
  mirror.set_port(1);
  const Clock::time_point now{};
  mirror.start(now);
  // A length byte in units of 4, a byte of what happens next, then the datagram.
  while (size >= 2) {
    const size_t length = std::min<size_t>(size_t{data[0]} * 4, size - 2);
    const uint8_t then = data[1];
    const std::unique_ptr<std::byte[]> datagram(new std::byte[length]);
    if (length > 0) memcpy(datagram.get(), data + 2, length);
    ipd::kernel::parse({datagram.get(), length}, mirror);
    ipd::kernel::parse_multicast({datagram.get(), length}, multicast);
    read_answers({datagram.get(), length});
    ipd::kernel::parse_igmp({reinterpret_cast<const char *>(datagram.get()), length},
                            [&multicast](const auto &message) { multicast.group(0, message); });
    if ((then & 1) != 0) mirror.drained(now);
    if ((then & 6) == 6) mirror.overrun();
    if ((then & 8) != 0) mirror.tick(now + std::chrono::seconds(then));
    data += 2 + length;
    size -= 2 + length;
  }
  check(picture);
  return 0;
}
