// SPDX-License-Identifier: Apache-2.0
// Which way packets leave, with everything that the kernel says made up.
#include "ipd/packet/ip_output.h"

#include <gtest/gtest.h>

#include "control_fakes.h"
#include "ip_packet.h"
#include "packet_kernel_fakes.h"

namespace {

using namespace ipd::packet;
using ipd::AddressState;
using ipd::kernel::NeighborState;
using ipd::kernel::RawWay;
using ipd::kernel::RouteQuestion;
using test_support::make_packet;
using test_support::Packet;
using test_support::PacketFields;

constexpr uint32_t eth0 = 12, eth1 = 13, tun0 = 14, blue0 = 15;  // iods; the ifindex is ten less
constexpr uint32_t a = 0x0a000001, b = 0x0a000002, c = 0x0a000003, far = 0x0b000001, group = 0xef010203;
constexpr uint32_t everybody = 0xffffffff, self = 0x7f000001;
constexpr MacAddress own_mac = {2, 1, 1, 1, 1, 1}, virtual_mac = {0, 0, 0x5e, 0, 1, 7}, next_mac = {2, 0, 0, 0, 0, 1};
constexpr MacAddress mac_of_group = {1, 0, 0x5e, 1, 2, 3}, mac_of_all = {255, 255, 255, 255, 255, 255};

class BoxWithVrfs final : public ipd::control::Box {
 public:
  [[nodiscard]] std::optional<ipd::control::InterfaceFacts> interface(uint32_t iod) const override {
    return plain.interface(iod);
  }
  [[nodiscard]] std::optional<ipd::control::InterfaceFacts> interface_by_ifindex(uint32_t ifindex) const override {
    return plain.interface_by_ifindex(ifindex);
  }
  [[nodiscard]] std::vector<uint32_t> iods() const override { return plain.iods(); }
  void lend(const std::vector<ipd::UnnumberedRule> &) override {}
  [[nodiscard]] std::optional<ipd::control::ContextFacts> context(uint32_t id) const override {
    const auto vrf = vrfs.find(id);
    if (vrf != vrfs.end()) return ipd::control::ContextFacts{.vrf_ifindex = vrf->second};
    return Box::context(id);
  }

  test_support::FakeBox plain;
  std::map<uint32_t, uint32_t> vrfs;
};

class IpOutputTest : public ::testing::Test {
 protected:
  IpOutputTest() {
    box.plain.add(eth0, 2, "eth0").addresses = {{a, 24, false, 0}};
    box.plain.add(eth1, 3, "eth1").addresses = {{0x0a010001, 16, false, 0}, {0x0a010101, 24, false, 0}};
    box.plain.add(tun0, 4, "tun0").addresses = {{0x0a020001, 32, false, 0}};
    auto &blue = box.plain.add(blue0, 5, "blue0");
    blue.addresses = {{0x0a030001, 24, false, 0}};
    blue.state.context_id = 7;
    links.addresses = {{2, own_mac}, {3, own_mac}, {5, own_mac}};
    neighbors.set({.ifindex = 2, .addr = b}, NeighborState::usable, 1);
    neighbors.set({.ifindex = 2, .addr = c}, NeighborState::usable, 3);
  }

  Outcome send(const Way &way, const PacketFields &fields = {}) {
    packet = make_packet(fields);
    return output.send(way, packet);
  }
  void expect_nothing_sent() {
    EXPECT_TRUE(raw.sent.empty());
    EXPECT_TRUE(frames.sent.empty());
  }
  // The one packet that a raw socket took.
  const std::pair<RawWay, Packet> &routed() {
    EXPECT_TRUE(frames.sent.empty());
    EXPECT_EQ(raw.sent.size(), 1u);
    raw.sent.resize(1);
    return raw.sent[0];
  }
  const Packet &framed(uint32_t ifindex) {
    EXPECT_TRUE(raw.sent.empty());
    EXPECT_EQ(frames.sent.size(), 1u);
    frames.sent.resize(1);
    EXPECT_EQ(frames.sent[0].first, ifindex);
    return frames.sent[0].second;
  }

  Packet packet;
  BoxWithVrfs box;
  test_support::FakeLinks links;
  test_support::FakeRoutes routes;
  test_support::FakeRaw raw;
  test_support::FakeFrames frames;
  test_support::FakeNeighbors neighbors;
  NeighborOutput neighbor_output{neighbors, frames};
  FramedOutput framed_output{frames, neighbor_output};
  Identifications identifications{500};
  IpOutput output{box, links, routes, raw, framed_output, identifications};
};

TEST_F(IpOutputTest, WithoutFurtherWordsTheKernelRoutes) {
  EXPECT_EQ(send({}), Outcome::done);
  EXPECT_EQ(routes.questions, (std::vector{RouteQuestion{.destination = b, .source = a}}));
  EXPECT_EQ(routed().first, RawWay{.source = a});
  EXPECT_EQ(routed().second, make_packet());
}

TEST_F(IpOutputTest, WhatIsZeroIsFilledIn) {
  routes.route.source = c;
  const PacketFields empty{.source = 0, .ttl = 0, .identification = 0, .says_length = false};
  EXPECT_EQ(send({}, empty), Outcome::done);
  EXPECT_EQ(routed().second, make_packet({.source = c, .ttl = 64, .identification = 500}));
  EXPECT_EQ(packet, routed().second) << "in place";
}

TEST_F(IpOutputTest, ASourceThatIsNotOursDoesNotChooseTheRoute) {
  for (const int error : {EINVAL, ENETUNREACH}) {
    routes.foreign_source = error;
    routes.questions.clear();
    raw.sent.clear();
    EXPECT_EQ(send({}, {.source = far}), Outcome::done);
    EXPECT_EQ(routes.questions.size(), 2u);
    EXPECT_EQ(routed().first, RawWay{});
    EXPECT_EQ(ipv4::source(routed().second), far);
  }
}

TEST_F(IpOutputTest, WithoutASourceNothingIsSent) {
  routes.route.source = 0;
  EXPECT_EQ(send({}, {.source = 0}), Outcome::no_source);
  expect_nothing_sent();
  EXPECT_EQ(send({.iod = eth0}, {.source = 0, .destination = everybody}), Outcome::done);
  EXPECT_EQ(ipv4::source(routed().second), 0u);
}

TEST_F(IpOutputTest, ANamedInterfaceIsLeftBy) {
  EXPECT_EQ(send({.iod = eth0}), Outcome::done);
  EXPECT_EQ(routes.questions[0].ifindex, 2u);
  EXPECT_EQ(routed().first.ifindex, 2u);
}

TEST_F(IpOutputTest, AnInterfaceThatCannotBeUsedIsTold) {
  EXPECT_EQ(send({.iod = 99}), Outcome::no_interface);
  box.plain.interfaces.at(eth0).state.multicast = false;
  EXPECT_EQ(send({.iod = eth0}, {.destination = group}), Outcome::interface_down);
  EXPECT_EQ(send({.iod = eth0}), Outcome::done);
  raw.sent.clear();
  box.plain.interfaces.at(eth0).state.up = false;
  EXPECT_EQ(send({.iod = eth0}), Outcome::interface_down);
  routes.route.ifindex = 77;
  EXPECT_EQ(send({}), Outcome::no_interface) << "one that is not published";
  expect_nothing_sent();
}

TEST_F(IpOutputTest, TheKernelsRefusalsOfARouteAreTold) {
  const std::pair<int, Outcome> pairs[] = {{ENETUNREACH, Outcome::no_route}, {EHOSTUNREACH, Outcome::no_route},
                                           {EACCES, Outcome::no_route},      {EINVAL, Outcome::no_route},
                                           {ENODEV, Outcome::no_interface},  {ENXIO, Outcome::no_interface},
                                           {ENOMEM, Outcome::no_memory},     {ENETDOWN, Outcome::interface_down},
                                           {ENOBUFS, Outcome::no_memory},    {ETIMEDOUT, Outcome::kernel}};
  for (const auto &[error, outcome] : pairs) {
    routes.error = error;
    EXPECT_EQ(send({}), outcome) << error;
  }
  expect_nothing_sent();
}

TEST_F(IpOutputTest, TheSocketsRefusalIsTold) {
  raw.refuses_from = 0;
  raw.outcome = Outcome::no_privilege;
  EXPECT_EQ(send({}), Outcome::no_privilege);
}

TEST_F(IpOutputTest, APacketThatNobodyMaySendIsRefused) {
  EXPECT_EQ(send({}, {.source = group}), Outcome::bad_packet);
  EXPECT_EQ(send({}, {.destination = 0}), Outcome::bad_packet);
  expect_nothing_sent();
}

TEST_F(IpOutputTest, ALongPacketLeavesInFragmentsOfTheInterfacesSize) {
  EXPECT_EQ(send({}, {.data = 3000}), Outcome::done);
  ASSERT_EQ(raw.sent.size(), 3u);
  for (const auto &[way, fragment] : raw.sent) {
    EXPECT_EQ(way, RawWay{.source = a});
    EXPECT_LE(fragment.size(), 1500u);
    EXPECT_EQ(ipv4::identification(fragment), 0x1234);
  }
}

TEST_F(IpOutputTest, ThePathMayBeNarrowerThanTheInterface) {
  routes.route.mtu = 600;
  EXPECT_EQ(send({}, {.data = 1000}), Outcome::done);
  ASSERT_EQ(raw.sent.size(), 2u);
  EXPECT_LE(raw.sent[0].second.size(), 600u);
}

TEST_F(IpOutputTest, AFragmentThatIsNotSentEndsThePacket) {
  raw.refuses_from = 1;
  EXPECT_EQ(send({}, {.data = 4000}), Outcome::queue_full);
  EXPECT_EQ(raw.sent.size(), 1u);
}

TEST_F(IpOutputTest, ALongPacketThatMustStayWholeIsTooBig) {
  EXPECT_EQ(send({}, {.fragment = ipv4::dont_fragment, .data = 3000}), Outcome::too_big);
  EXPECT_EQ(send({.next_hop = c}, {.fragment = ipv4::dont_fragment, .data = 3000}), Outcome::too_big);
  expect_nothing_sent();
}

TEST_F(IpOutputTest, WhatIsForThisSystemIsTheKernels) {
  routes.route = {.type = RTN_LOCAL, .ifindex = 2, .source = a};
  EXPECT_EQ(send({.src_l2 = virtual_mac}, {.destination = a, .data = 9000}), Outcome::done);
  EXPECT_EQ(routed().second.size(), 9020u) << "no link bounds it";
}

TEST_F(IpOutputTest, AnotherNextHopGetsTheFrame) {
  EXPECT_EQ(send({.next_hop = c}, {.destination = far}), Outcome::done);
  EXPECT_EQ(routes.questions[0].destination, c);
  const Packet &frame = framed(2);
  EXPECT_EQ(test_support::frame_destination(frame), (MacAddress{2, 0, 0, 0, 0, 3}));
  EXPECT_EQ(test_support::frame_source(frame), own_mac);
  EXPECT_EQ(test_support::frame_packet(frame), make_packet({.destination = far}));
}

TEST_F(IpOutputTest, ANextHopBehindAnotherIsNoNeighbor) {
  routes.route.gateway = b;
  EXPECT_EQ(send({.next_hop = far}), Outcome::no_route);
  expect_nothing_sent();
}

TEST_F(IpOutputTest, ANextHopOnANamedInterfaceIsANeighborWhateverTheRouteSays) {
  routes.route.gateway = b;
  neighbors.set({.ifindex = 2, .addr = far}, NeighborState::usable, 9);
  EXPECT_EQ(send({.iod = eth0, .next_hop = far}), Outcome::done);
  EXPECT_EQ(test_support::frame_destination(framed(2)), (MacAddress{2, 0, 0, 0, 0, 9}));
}

TEST_F(IpOutputTest, ANextHopThatIsNoSingleHostIsRefused) {
  EXPECT_EQ(send({.next_hop = group}), Outcome::bad_field);
  EXPECT_EQ(send({.next_hop = everybody}), Outcome::bad_field);
  for (const uint8_t type : {RTN_LOCAL, RTN_BROADCAST}) {
    routes.route.type = type;
    EXPECT_EQ(send({.next_hop = c}), Outcome::bad_field) << int{type};
  }
  expect_nothing_sent();
}

TEST_F(IpOutputTest, TheDestinationAsNextHopIsOnTheLink) {
  EXPECT_EQ(send({.iod = eth0, .next_hop = b}), Outcome::done);
  EXPECT_EQ(routed().first, (RawWay{.ifindex = 2, .source = a, .dont_route = true}));
}

TEST_F(IpOutputTest, ATunnelHasNoNextHops) {
  routes.route.ifindex = 4;
  EXPECT_EQ(send({.next_hop = c, .src_l2 = virtual_mac}), Outcome::done);
  EXPECT_EQ(routed().first.ifindex, 4u);
}

TEST_F(IpOutputTest, AGivenSourceOfTheFrameIsHonoured) {
  EXPECT_EQ(send({.src_l2 = virtual_mac}), Outcome::done);
  const Packet &frame = framed(2);
  EXPECT_EQ(test_support::frame_source(frame), virtual_mac);
  EXPECT_EQ(test_support::frame_destination(frame), next_mac);
}

TEST_F(IpOutputTest, AFrameOfAGivenSourceGoesToTheRoutesGateway) {
  routes.route.gateway = c;
  EXPECT_EQ(send({.src_l2 = virtual_mac}, {.destination = far}), Outcome::done);
  EXPECT_EQ(test_support::frame_destination(framed(2)), (MacAddress{2, 0, 0, 0, 0, 3}));
}

TEST_F(IpOutputTest, AGatewayOfIpv6IsNoNeighborOfAFrame) {
  routes.route.via_ipv6 = true;
  EXPECT_EQ(send({.src_l2 = virtual_mac}, {.destination = far}), Outcome::no_neighbor);
  expect_nothing_sent();
  EXPECT_EQ(send({}, {.destination = far}), Outcome::done) << "but one of the kernel's";
}

TEST_F(IpOutputTest, FramesToManyHaveTheirAddress) {
  routes.route.type = RTN_MULTICAST;
  EXPECT_EQ(send({.iod = eth0, .src_l2 = virtual_mac}, {.destination = group}), Outcome::done);
  EXPECT_EQ(test_support::frame_destination(framed(2)), mac_of_group);
  frames.sent.clear();
  routes.route.type = RTN_BROADCAST;
  EXPECT_EQ(send({.iod = eth0, .src_l2 = virtual_mac}, {.destination = 0x0a0000ff}), Outcome::done);
  EXPECT_EQ(test_support::frame_destination(framed(2)), mac_of_all);
}

TEST_F(IpOutputTest, ASourceOfTheFrameThatNobodyHasIsRefused) {
  EXPECT_EQ(send({.src_l2 = mac_of_group}), Outcome::bad_field);
  EXPECT_EQ(send({.src_l2 = mac_of_all}), Outcome::bad_field);
  EXPECT_EQ(send({.src_l2 = MacAddress{}}), Outcome::bad_field);
  expect_nothing_sent();
}

TEST_F(IpOutputTest, LoopbackAddressesLeaveInNoFrame) {
  EXPECT_EQ(send({.src_l2 = virtual_mac}, {.source = self}), Outcome::bad_packet);
  EXPECT_EQ(send({.next_hop = c}, {.destination = self}), Outcome::bad_packet);
  expect_nothing_sent();
}

TEST_F(IpOutputTest, LongPacketsAreFragmentedInFramesToo) {
  EXPECT_EQ(send({.src_l2 = virtual_mac}, {.data = 3000}), Outcome::done);
  ASSERT_EQ(frames.sent.size(), 3u);
  for (const auto &[ifindex, frame] : frames.sent) {
    EXPECT_LE(frame.size(), 1514u);
    EXPECT_EQ(test_support::frame_source(frame), virtual_mac);
    EXPECT_TRUE(ipv4::checksum_is_good(test_support::frame_packet(frame)));
  }
}

TEST_F(IpOutputTest, AFragmentWithoutANumberKeepsItInAFrame) {
  const PacketFields fragment{.identification = 0, .fragment = 4};
  EXPECT_EQ(send({}, fragment), Outcome::done);
  EXPECT_EQ(test_support::frame_packet(framed(2)), make_packet(fragment));
}

TEST_F(IpOutputTest, GroupsComeBackWhenThatIsWanted) {
  routes.route.type = RTN_MULTICAST;
  EXPECT_EQ(send({.iod = eth0}, {.destination = group}), Outcome::done);
  EXPECT_FALSE(routed().first.loopback);
  raw.sent.clear();
  EXPECT_EQ(send({.iod = eth0, .flags = IP_OUTPUT_LOOPBACK}, {.destination = group}), Outcome::done);
  EXPECT_TRUE(routed().first.loopback);
}

TEST_F(IpOutputTest, WithoutRoutingOnlyOwnSubnetsAreReached) {
  const Way way{.iod = eth0, .flags = IP_OUTPUT_DONT_ROUTE};
  EXPECT_EQ(send(way, {.destination = far}), Outcome::no_route);
  EXPECT_EQ(send(way, {.destination = 0x0a010002}), Outcome::no_route) << "of another interface";
  expect_nothing_sent();
  routes.route.gateway = c;
  routes.route.source = far;
  EXPECT_EQ(send(way, {.source = 0}), Outcome::done);
  EXPECT_EQ(routed().first, (RawWay{.ifindex = 2, .dont_route = true}));
  EXPECT_EQ(ipv4::source(routed().second), a) << "the link's, not that of a route through a gateway";
}

TEST_F(IpOutputTest, WithoutRoutingTheClosestSubnetsInterfaceIsLeftBy) {
  box.plain.interfaces.at(eth0).addresses.push_back({0x0a010201, 8, false, 0});
  routes.route.ifindex = 3;
  EXPECT_EQ(send({.flags = IP_OUTPUT_DONT_ROUTE}, {.source = 0, .destination = 0x0a010177}), Outcome::done);
  EXPECT_EQ(routed().first.ifindex, 3u);
  EXPECT_EQ(send({.flags = IP_OUTPUT_DONT_ROUTE}, {.destination = far}), Outcome::no_route);
  box.plain.interfaces.at(eth1).state.up = false;
  EXPECT_EQ(send({.flags = IP_OUTPUT_DONT_ROUTE}, {.destination = 0x0a010177}), Outcome::interface_down);
}

TEST_F(IpOutputTest, WithoutRoutingAnotherNextHopMakesNoSense) {
  EXPECT_EQ(send({.next_hop = c, .flags = IP_OUTPUT_DONT_ROUTE}), Outcome::bad_field);
  expect_nothing_sent();
}

TEST_F(IpOutputTest, WithoutRoutingGroupsAndEverybodyAreReached) {
  EXPECT_EQ(send({.iod = eth0, .flags = IP_OUTPUT_DONT_ROUTE}, {.destination = group}), Outcome::done);
  EXPECT_EQ(send({.iod = eth0, .flags = IP_OUTPUT_DONT_ROUTE}, {.destination = everybody}), Outcome::done);
  EXPECT_EQ(raw.sent.size(), 2u);
}

TEST_F(IpOutputTest, AContextHasTheRoutesOfItsVrf) {
  box.vrfs[7] = 40;
  routes.route.ifindex = 5;
  EXPECT_EQ(send({.context_id = 7}), Outcome::done);
  EXPECT_EQ(routes.questions[0].ifindex, 40u);
  EXPECT_EQ(routed().first.ifindex, 40u);
}

TEST_F(IpOutputTest, AContextWithoutARouteOfItsOwnReachesNobody) {
  EXPECT_EQ(send({.context_id = 7}), Outcome::no_route) << "the route leads to eth0";
  expect_nothing_sent();
  routes.route.ifindex = 5;
  EXPECT_EQ(send({.context_id = 7}), Outcome::done);
  raw.sent.clear();
  routes.route = {.type = RTN_LOCAL, .ifindex = 5};
  EXPECT_EQ(send({.context_id = 7}, {.destination = 0x0a030001}), Outcome::done);
  EXPECT_EQ(send({.context_id = 7}, {.destination = a}), Outcome::no_route) << "an address of the default context";
}

TEST_F(IpOutputTest, AContextThatIsNotThereIsTold) {
  EXPECT_EQ(send({.context_id = 8}), Outcome::no_context);
  expect_nothing_sent();
}

TEST_F(IpOutputTest, AnInterfaceOfAnotherContextIsRefused) {
  EXPECT_EQ(send({.iod = eth0, .context_id = 7}), Outcome::bad_field);
  EXPECT_EQ(send({.iod = eth0, .context_id = 1}), Outcome::done);
  EXPECT_EQ(send({.iod = eth0, .context_id = -1}), Outcome::done);
  EXPECT_EQ(send({.iod = blue0}), Outcome::done);
}

TEST_F(IpOutputTest, TheSourceTowardsSomebodyIsTheRoutes) {
  EXPECT_EQ(output.source_towards({}, b), a);
  EXPECT_EQ(routes.questions, (std::vector{RouteQuestion{.destination = b}}));
  EXPECT_EQ(output.source_towards({.iod = 99}, b), 0u);
  routes.error = ENETUNREACH;
  EXPECT_EQ(output.source_towards({}, b), 0u);
  expect_nothing_sent();
}

TEST_F(IpOutputTest, TheMtuTowardsSomebodyIsTheRoutesElseTheInterfaces) {
  EXPECT_EQ(output.mtu_towards({}, b), 1500u);
  routes.route.mtu = 1280;
  EXPECT_EQ(output.mtu_towards({}, b), 1280u);
  EXPECT_EQ(output.mtu_towards({.iod = 99}, b), 0u);
  routes.error = ENETUNREACH;
  EXPECT_EQ(output.mtu_towards({}, b), 0u);
  expect_nothing_sent();
}

}  // namespace
