// SPDX-License-Identifier: Apache-2.0
// Answers and news of the kernel that packets wait for.
#include <gtest/gtest.h>
#include <linux/neighbour.h>

#include <random>

#include "ipd/kernel/neighbors.h"
#include "ipd/kernel/route_query.h"
#include "netlink_messages.h"

namespace {

using namespace ipd::kernel;
using netlink_messages::append;
using netlink_messages::attribute;
using netlink_messages::message;
using Raw = std::vector<std::byte>;

constexpr uint32_t gateway = 0x0a000002, source = 0x0a000001;

Raw route_body(uint8_t type = RTN_UNICAST, uint8_t family = AF_INET) {
  Raw body;
  rtmsg fixed{};
  fixed.rtm_family = family;
  fixed.rtm_type = type;
  append(body, fixed);
  return body;
}

Raw whole_route() {
  Raw body = route_body();
  attribute(body, RTA_OIF, 2u);
  attribute(body, RTA_GATEWAY, htonl(gateway));
  attribute(body, RTA_PREFSRC, htonl(source));
  Raw metrics;
  attribute(metrics, RTAX_HOPLIMIT, 5u);
  attribute(metrics, RTAX_MTU, 1400u);
  attribute(body, RTA_METRICS, metrics);
  return message(RTM_NEWROUTE, body);
}

TEST(RouteAnswerTest, EachAttributeIsRead) {
  EXPECT_EQ(
      parse_route_answer(whole_route()),
      (RouteAnswer{
          .type = RTN_UNICAST, .ifindex = 2, .gateway = gateway, .via_ipv6 = false, .source = source, .mtu = 1400}));
}

TEST(RouteAnswerTest, AGatewayOfIpv6IsSeen) {
  Raw body = route_body();
  attribute(body, RTA_OIF, 2u);
  attribute(body, RTA_VIA, Raw(18));
  EXPECT_EQ(parse_route_answer(message(RTM_NEWROUTE, body)),
            (RouteAnswer{.type = RTN_UNICAST, .ifindex = 2, .via_ipv6 = true}));
}

TEST(RouteAnswerTest, WhatIsNoRouteOfIpv4IsNothing) {
  Raw body = route_body(RTN_UNICAST, AF_INET6);
  attribute(body, RTA_OIF, 2u);
  EXPECT_EQ(parse_route_answer(message(RTM_NEWROUTE, body)), std::nullopt);
  body = route_body();
  EXPECT_EQ(parse_route_answer(message(RTM_NEWROUTE, body)), std::nullopt) << "without an interface";
  attribute(body, RTA_OIF, 2u);
  EXPECT_EQ(parse_route_answer(message(RTM_DELROUTE, body)), std::nullopt);
}

TEST(RouteAnswerTest, MalformedMetricsAreRefused) {
  Raw body = route_body();
  attribute(body, RTA_OIF, 2u);
  Raw metrics;
  attribute(metrics, RTAX_MTU, Raw(2));
  attribute(body, RTA_METRICS, metrics);
  EXPECT_EQ(parse_route_answer(message(RTM_NEWROUTE, body)), std::nullopt);
}

Raw neighbor(uint16_t state, uint16_t type = RTM_NEWNEIGH, size_t address_length = 6) {
  Raw body;
  ndmsg fixed{};
  fixed.ndm_family = AF_INET;
  fixed.ndm_ifindex = 2;
  fixed.ndm_state = state;
  append(body, fixed);
  attribute(body, NDA_DST, htonl(gateway));
  if (address_length != 0) attribute(body, NDA_LLADDR, Raw(address_length, std::byte{7}));
  return message(type, body);
}

NeighborState state_of(const Raw &bytes) {
  const auto found = parse_neighbor(bytes);
  EXPECT_TRUE(found);
  return found ? found->state : NeighborState::unknown;
}

TEST(NeighborParseTest, ANeighborHasItsPlaceAndAddress) {
  EXPECT_EQ(
      parse_neighbor(neighbor(NUD_REACHABLE)),
      (Neighbor{.id = {.ifindex = 2, .addr = gateway}, .state = NeighborState::usable, .address = {7, 7, 7, 7, 7, 7}}));
}

TEST(NeighborParseTest, EachStateOfTheKernelIsKnown) {
  for (const int each : {NUD_REACHABLE, NUD_DELAY, NUD_PROBE, NUD_NOARP, NUD_PERMANENT}) {
    const auto state = static_cast<uint16_t>(each);
    EXPECT_EQ(state_of(neighbor(state)), NeighborState::usable) << state;
    EXPECT_EQ(state_of(neighbor(state, RTM_NEWNEIGH, 0)), NeighborState::unknown) << state;
    EXPECT_EQ(state_of(neighbor(state, RTM_DELNEIGH)), NeighborState::unknown) << state;
  }
  EXPECT_EQ(state_of(neighbor(NUD_STALE)), NeighborState::stale);
  EXPECT_EQ(state_of(neighbor(NUD_NONE)), NeighborState::unknown);
  EXPECT_EQ(state_of(neighbor(NUD_INCOMPLETE, RTM_NEWNEIGH, 0)), NeighborState::resolving);
  EXPECT_EQ(state_of(neighbor(NUD_FAILED, RTM_NEWNEIGH, 0)), NeighborState::failed);
}

TEST(NeighborParseTest, AnAddressOfAnotherLengthIsNone) {
  EXPECT_EQ(state_of(neighbor(NUD_REACHABLE, RTM_NEWNEIGH, 4)), NeighborState::unknown);
}

TEST(NeighborParseTest, OtherMessagesAreNothing) {
  EXPECT_EQ(parse_neighbor(whole_route()), std::nullopt);
  EXPECT_EQ(parse_route_answer(neighbor(NUD_REACHABLE)), std::nullopt);
}

// Whatever the bytes are, nothing outside of them is read: each is a block of its own size.
TEST(NeighborParseTest, AnyBytesMayCome) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 20000; ++round) {
    Raw bytes = random() % 2 == 0 ? whole_route() : neighbor(NUD_REACHABLE);
    for (uint32_t i = 1 + random() % 4; i != 0; --i) bytes[random() % bytes.size()] = static_cast<std::byte>(random());
    const Raw cut(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(random() % (bytes.size() + 1)));
    const auto answer = parse_route_answer(cut);
    const auto found = parse_neighbor(cut);
    EXPECT_TRUE(!answer || answer->ifindex != 0);
    EXPECT_TRUE(!found || found->id.addr != 0);
  }
}

}  // namespace
