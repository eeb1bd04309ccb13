// SPDX-License-Identifier: Apache-2.0
#include "ipd/publish_random.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace publish_test {
namespace {

constexpr uint8_t mask_lengths[] = {0, 8, 16, 24, 24, 24, 30, 31, 32, 32};
constexpr uint8_t scopes[] = {0, 0, 0, 253, 254};
constexpr uint32_t interfaces = 9;  // indexes 1 .. 9
constexpr uint32_t contexts = 5;    // ids 1 .. 5

uint32_t chosen_seed() {
  if (const char *fixed = std::getenv("PUBLISH_SEED"); fixed != nullptr) {
    return static_cast<uint32_t>(std::strtoul(fixed, nullptr, 10));
  }
  return std::random_device()();
}

}  // namespace

RandomChanges::RandomChanges() : seed_(chosen_seed()), engine_(seed_) {}

uint32_t RandomChanges::address() {
  const uint32_t networks[] = {ip(10, 0, 0, 0), ip(10, 0, 1, 0), ip(127, 0, 0, 0), ip(192, 168, 0, 0)};
  return networks[below(4)] + 1 + below(6);
}

bool RandomChanges::one(ipd::Publisher &publisher, Twin &twin, bool may_refuse) {
  const uint32_t ifindex = 1 + below(interfaces);
  const uint32_t id = 1 + below(contexts);
  Twin after = twin;
  bool expected = false;
  bool done = false;
  const auto make = [&](const auto &change) {
    expected = change(after);
    done = change(publisher);
  };
  const uint32_t kind = below(120);
  if (kind < 5) {
    const ipd::ContextState state{.id = id,
                                  .name = "context" + std::to_string(1 + below(contexts + 1)),
                                  .table_id = 100 + below(3),
                                  .router_id = below(3) == 0 ? address() : 0};
    make([&](auto &to) { return to.set_context(state); });
  } else if (kind < 8) {
    make([&](auto &to) { return to.remove_context(id); });
  } else if (kind < 25) {
    const ipd::InterfaceState state{.ifindex = ifindex,
                                    .name = "port" + std::to_string(below(3)) + "-" + std::to_string(ifindex),
                                    .up = below(2) == 0,
                                    .admin_up = below(2) == 0,
                                    .loopback = below(4) == 0,
                                    .multicast = below(2) == 0,
                                    .forwarding = below(2) == 0,
                                    .directed_broadcast = below(2) == 0,
                                    .mtu = 1500 + below(3),
                                    .context_id = id};
    make([&](auto &to) { return to.set_interface(state); });
  } else if (kind < 28) {
    make([&](auto &to) { return to.remove_interface(ifindex); });
  } else if (kind < 65) {
    const ipd::AddressState state{.addr = address(),
                                  .mask_len = mask_lengths[below(std::size(mask_lengths))],
                                  .secondary = below(2) == 0,
                                  .scope = scopes[below(std::size(scopes))]};
    make([&](auto &to) { return to.set_address(ifindex, state); });
  } else if (kind < 83) {
    const uint32_t addr = address();
    const uint8_t mask_len = mask_lengths[below(std::size(mask_lengths))];
    make([&](auto &to) { return to.remove_address(ifindex, addr, mask_len); });
  } else if (kind < 94) {
    const ipd::VipState vip{.ifindex = ifindex, .addr = address()};
    const bool add = below(2) == 0;
    make([&](auto &to) { return add ? to.set_vip(vip) : to.remove_vip(vip); });
  } else if (kind < 100) {
    const uint32_t lender = below(3) == 0 ? 0 : 1 + below(interfaces);
    const std::string name = lender == 0 ? "" : "port" + std::to_string(lender);
    make([&](auto &to) { return to.set_unnumbered(ifindex, lender, name); });
  } else if (kind < 110) {
    std::vector<ipd::GroupState> groups(below(5));
    for (auto &group : groups) group = {.group = ip(224, 0, 0, 1) + below(6), .data = below(2)};
    make([&](auto &to) { return to.set_groups(ifindex, groups); });
  } else if (kind < 115) {
    const uint32_t n = below(1000);
    const ipd::MulticastCounters counters{.packets = {n, n + 1, n + 2, n + 3, n + 4},
                                          .bytes = {uint64_t{n} << 30, uint64_t{n} << 31 | 5}};
    make([&](auto &to) { return to.set_multicast_counters(ifindex, counters); });
  } else if (kind < 118) {
    const uint32_t count = below(1000);
    make([&](auto &to) { return to.set_pim_asserts(ifindex, count); });
  } else {
    const auto mode = static_cast<uint8_t>(below(4));
    const uint32_t value = below(1000);
    make([&](auto &to) { return to.set_load_share(mode, value); });
  }
  if (may_refuse && expected && !done) {
    EXPECT_EQ(publisher.last_error().substr(0, 8), "no room ") << publisher.last_error();
    return false;
  }
  EXPECT_EQ(done, expected) << "kind " << kind << ": " << publisher.last_error();
  if (expected) twin = after;
  return true;
}

}  // namespace publish_test
