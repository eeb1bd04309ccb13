// SPDX-License-Identifier: Apache-2.0
// Routes and nexthop objects out of bytes.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "ipd/kernel/parse.h"
#include "ipd/route_messages.h"

namespace {

using namespace ipd::kernel;
namespace nl = netlink_messages;
using nl::operator+;

struct Recorder final : Sink {
  std::vector<RouteMessage> routes;
  std::vector<NexthopMessage> nexthops;
  std::vector<Refusal> refusals;

  void link(const Origin &, const LinkMessage &) override {}
  void address(const Origin &, const AddressMessage &) override {}
  void netconf(const Origin &, const NetconfMessage &) override {}
  void route(const Origin &, const RouteMessage &message) override { routes.push_back(message); }
  void nexthop(const Origin &, const NexthopMessage &message) override { nexthops.push_back(message); }
  void end_of_dump(const Origin &, int) override {}
  void request_failed(const Origin &, int) override {}
  void events_lost() override {}
  void refused(Refusal refusal, uint16_t) override { refusals.push_back(refusal); }
};

// Parses a copy that ends where its allocation ends, so that a sanitizer sees a read beyond it.
Recorder parsed(const nl::Bytes &bytes) {
  Recorder recorder;
  const std::unique_ptr<std::byte[]> copy(new std::byte[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), copy.get());
  parse(std::span<const std::byte>(copy.get(), bytes.size()), recorder);
  return recorder;
}

const std::string neighbour = std::string("\xfe\x80") + std::string(13, '\0') + "\x01";
using Refusals = std::vector<Refusal>;

TEST(ParseRoutes, ARouteComesOutWithAllItsFields) {
  const auto got = parsed(nl::route({.addr = 0x0a010000,
                                     .len = 16,
                                     .table = 1001,
                                     .ifindex = 7,
                                     .gateway = 0xc0000201,
                                     .metric = 20,
                                     .pref_src = 0x0a000001,
                                     .tos = 4,
                                     .type = RTN_UNICAST,
                                     .scope = RT_SCOPE_SITE,
                                     .protocol = RTPROT_OSPF}));
  ASSERT_EQ(got.routes.size(), 1u);
  const RouteMessage &route = got.routes[0];
  EXPECT_FALSE(route.removed);
  EXPECT_EQ(route.addr, 0x0a010000u);
  EXPECT_EQ(route.len, 16);
  EXPECT_EQ(route.table, 1001u);
  EXPECT_EQ(route.metric, 20u);
  EXPECT_EQ(route.pref_src, 0x0a000001u);
  EXPECT_EQ(route.tos, 4);
  EXPECT_EQ(route.type, RTN_UNICAST);
  EXPECT_EQ(route.scope, RT_SCOPE_SITE);
  EXPECT_EQ(route.protocol, RTPROT_OSPF);
  ASSERT_EQ(route.hops.size(), 1u);
  EXPECT_EQ(route.hops[0], (RouteHop{.ifindex = 7, .gateway = 0xc0000201}));
  EXPECT_EQ(route.dead, std::vector<bool>{false});
}

TEST(ParseRoutes, TheDefaultRouteHasNoDestination) {
  const auto got = parsed(nl::route({.addr = 0, .len = 0, .gateway = 1}));
  ASSERT_EQ(got.routes.size(), 1u);
  EXPECT_EQ(got.routes[0].addr, 0u);
  EXPECT_EQ(got.routes[0].len, 0);
}

TEST(ParseRoutes, ATableBelow256StandsInTheFixedPartToo) {
  nl::Bytes body;
  rtmsg fixed{};
  fixed.rtm_family = AF_INET;
  fixed.rtm_table = 99;
  fixed.rtm_type = RTN_BLACKHOLE;
  nl::append(body, fixed);
  const auto got = parsed(nl::message(RTM_NEWROUTE, body));
  ASSERT_EQ(got.routes.size(), 1u);
  EXPECT_EQ(got.routes[0].table, 99u);
}

TEST(ParseRoutes, TheFlagsOfAnEventSayWhereTheRouteStands) {
  const std::vector<std::pair<uint16_t, RoutePlace>> places = {{nl::event_alone, RoutePlace::alone},
                                                               {nl::event_first, RoutePlace::first},
                                                               {nl::event_last, RoutePlace::last},
                                                               {nl::event_instead, RoutePlace::instead},
                                                               {0, RoutePlace::unsaid}};
  for (const auto &[flags, place] : places) {
    const auto got = parsed(nl::route({}, {.flags = flags}));
    ASSERT_EQ(got.routes.size(), 1u);
    EXPECT_EQ(got.routes[0].place, place) << flags;
  }
  EXPECT_TRUE(parsed(nl::route_gone({})).routes.at(0).removed);
}

TEST(ParseRoutes, AMultipathRouteKeepsItsHopsWithWeightsAndDeaths) {
  const auto got =
      parsed(nl::route({.multipath = {{.ifindex = 3, .gateway = 0x0a000001, .weight = 1},
                                      {.ifindex = 4, .weight = 256, .flags = RTNH_F_DEAD},
                                      {.ifindex = 5, .gateway_ipv6 = neighbour, .flags = RTNH_F_LINKDOWN}}}));
  ASSERT_EQ(got.routes.size(), 1u);
  const RouteMessage &route = got.routes[0];
  ASSERT_EQ(route.hops.size(), 3u);
  EXPECT_EQ(route.hops[0], (RouteHop{.ifindex = 3, .gateway = 0x0a000001, .weight = 1}));
  EXPECT_EQ(route.hops[1], (RouteHop{.ifindex = 4, .weight = 256}));
  EXPECT_TRUE(route.hops[2].via_ipv6);
  EXPECT_EQ(route.hops[2].gateway_ipv6[15], 1);
  EXPECT_EQ(route.dead, (std::vector<bool>{false, true, false}));
}

TEST(ParseRoutes, ASingleHopsDeathStandsInTheFixedPart) {
  EXPECT_EQ(parsed(nl::route({.flags = RTNH_F_DEAD})).routes.at(0).dead, std::vector<bool>{true});
}

TEST(ParseRoutes, AnIpv6NeighbourIsKept) {
  const auto got = parsed(nl::route({.gateway_ipv6 = neighbour}));
  ASSERT_EQ(got.routes.size(), 1u);
  EXPECT_TRUE(got.routes[0].hops.at(0).via_ipv6);
  EXPECT_EQ(got.routes[0].hops[0].gateway, 0u);
}

TEST(ParseRoutes, ANexthopObjectIsNamedAndItsHopsAreLeftAside) {
  const auto got = parsed(nl::route({.nexthop_id = 17, .multipath = {{.ifindex = 3}, {.ifindex = 4}}}));
  ASSERT_EQ(got.routes.size(), 1u);
  EXPECT_EQ(got.routes[0].nexthop_id, 17u);
  EXPECT_TRUE(got.routes[0].hops.empty());
}

TEST(ParseRoutes, ARouteThatDropsHasNoHop) {
  for (uint8_t type : {RTN_BLACKHOLE, RTN_UNREACHABLE, RTN_PROHIBIT, RTN_THROW}) {
    const auto got = parsed(nl::route({.ifindex = type == RTN_BLACKHOLE ? 0u : 1u, .type = type}));
    ASSERT_EQ(got.routes.size(), 1u);
    EXPECT_TRUE(got.routes[0].hops.empty());
  }
}

TEST(ParseRoutes, WhatTheKernelDoesBesideTheHopIsKeptAsARoute) {
  nl::Bytes body = nl::route_body({});
  nl::attribute(body, RTA_ENCAP, nl::Bytes(12));
  nl::attribute(body, RTA_ENCAP_TYPE, nl::Bytes(2));
  nl::attribute(body, RTA_METRICS, nl::Bytes(8));
  const auto got = parsed(nl::message(RTM_NEWROUTE, body));
  EXPECT_EQ(got.routes.size(), 1u);
  EXPECT_TRUE(got.refusals.empty());
}

TEST(ParseRoutes, CacheEntriesAndOtherFamiliesArePassedOver) {
  nl::Bytes other = nl::route_body({});
  other[0] = std::byte{AF_INET6};
  const auto got = parsed(nl::route({.flags = RTM_F_CLONED}) + nl::message(RTM_NEWROUTE, other));
  EXPECT_TRUE(got.routes.empty());
  EXPECT_TRUE(got.refusals.empty());
}

TEST(ParseRoutes, ARouteThatLeadsNowhereIsRefused) {
  EXPECT_EQ(parsed(nl::route({.ifindex = 0})).refusals, Refusals{Refusal::missing_attribute});
}

TEST(ParseRoutes, ValuesOutOfRangeAreRefused) {
  EXPECT_EQ(parsed(nl::route({.len = 33})).refusals, Refusals{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::route({.addr = 0x0a000001, .len = 31})).refusals, Refusals{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::route({.table = 0})).refusals, Refusals{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::route({.ifindex = 0x80000000})).refusals, Refusals{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::route({.multipath = {{.ifindex = -1}}})).refusals, Refusals{Refusal::bad_value});
  nl::Bytes body = nl::route_body({});
  nl::Bytes via;
  nl::append(via, uint16_t{77});
  nl::attribute(body, RTA_VIA, via);
  EXPECT_EQ(parsed(nl::message(RTM_NEWROUTE, body)).refusals, Refusals{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::nexthop({.id = 0})).refusals, Refusals{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::nexthop({.group = {{0, 1}}})).refusals, Refusals{Refusal::bad_value});
}

TEST(ParseRoutes, AttributesOfAnotherSizeAreRefused) {
  for (uint16_t type : {RTA_DST, RTA_TABLE, RTA_PRIORITY, RTA_PREFSRC, RTA_NH_ID, RTA_OIF, RTA_GATEWAY}) {
    nl::Bytes body = nl::route_body({});
    nl::attribute(body, type, nl::Bytes(3));
    EXPECT_EQ(parsed(nl::message(RTM_NEWROUTE, body)).refusals, Refusals{Refusal::wrong_attribute_size}) << type;
  }
  for (uint16_t type : {NHA_ID, NHA_GROUP, NHA_OIF, NHA_GATEWAY}) {
    nl::Bytes body = nl::nexthop_body({});
    nl::attribute(body, type, nl::Bytes(3));
    EXPECT_EQ(parsed(nl::message(RTM_NEWNEXTHOP, body)).refusals, Refusals{Refusal::wrong_attribute_size}) << type;
  }
  EXPECT_EQ(parsed(nl::route({.gateway_ipv6 = "short"})).refusals, Refusals{Refusal::wrong_attribute_size});
}

TEST(ParseRoutes, AHopThatLiesAboutItsLengthCostsItsMessage) {
  for (uint16_t lie : {uint16_t{0}, uint16_t{7}, uint16_t{9}, uint16_t{200}}) {
    nl::Bytes hops = nl::hop_bytes({.ifindex = 3});
    std::memcpy(hops.data(), &lie, sizeof lie);
    nl::Bytes body = nl::route_body({});
    nl::attribute(body, RTA_MULTIPATH, hops);
    const auto got = parsed(nl::message(RTM_NEWROUTE, body) + nl::route({}));
    EXPECT_EQ(got.refusals, Refusals{Refusal::lying_attribute}) << lie;
    EXPECT_EQ(got.routes.size(), 1u);
  }
}

TEST(ParseRoutes, ABodyThatIsCutShortIsRefused) {
  for (uint16_t type : {RTM_NEWROUTE, RTM_DELROUTE, RTM_NEWNEXTHOP, RTM_DELNEXTHOP}) {
    EXPECT_EQ(parsed(nl::message(type, nl::Bytes(7))).refusals, Refusals{Refusal::short_body});
  }
}

TEST(ParseRoutes, NexthopObjectsOfEveryKindComeOut) {
  const auto got = parsed(nl::nexthop({.id = 1, .ifindex = 3, .gateway = 0x0a000001}) +
                          nl::nexthop({.id = 2, .ifindex = 4, .gateway_ipv6 = neighbour}) +
                          nl::nexthop({.id = 3, .blackhole = true}) +
                          nl::nexthop({.id = 4, .group = {{1, 1}, {2, 256}, {3, 300}}}) + nl::nexthop_gone({.id = 1}));
  ASSERT_EQ(got.nexthops.size(), 5u);
  EXPECT_EQ(got.nexthops[0].hop, (RouteHop{.ifindex = 3, .gateway = 0x0a000001}));
  EXPECT_TRUE(got.nexthops[1].hop.via_ipv6);
  EXPECT_TRUE(got.nexthops[2].blackhole);
  using Member = NexthopMessage::Member;
  EXPECT_EQ(got.nexthops[3].members, (std::vector<Member>{{1, 1}, {2, 256}, {3, 300}}));
  EXPECT_TRUE(got.nexthops[4].removed);
}

TEST(ParseRoutes, NexthopObjectsOfABridgeArePassedOver) {
  const auto got = parsed(nl::nexthop({.id = 9, .ifindex = 0, .gateway = 1, .fdb = true}));
  EXPECT_TRUE(got.nexthops.empty());
  EXPECT_TRUE(got.refusals.empty());
}

TEST(ParseRoutes, ANexthopObjectWithoutANumberOrAPlaceIsRefused) {
  nl::Bytes body;
  nl::append(body, nhmsg{});
  EXPECT_EQ(parsed(nl::message(RTM_NEWNEXTHOP, body)).refusals, Refusals{Refusal::missing_attribute});
  nl::attribute(body, NHA_ID, 5u);
  EXPECT_EQ(parsed(nl::message(RTM_NEWNEXTHOP, body)).refusals, Refusals{Refusal::missing_attribute});
  EXPECT_EQ(parsed(nl::message(RTM_DELNEXTHOP, body)).nexthops.size(), 1u);
}

// Any byte of a good datagram changed to anything: it returns, and takes or refuses.
TEST(ParseRoutes, DamagedBytesNeverLeadOutsideTheDatagram) {
  constexpr uint32_t seed = 20260701;
  std::mt19937 random(seed);
  const nl::Bytes whole = nl::route({.gateway = 5, .pref_src = 9}) +
                          nl::route({.multipath = {{.gateway = 1}, {.gateway_ipv6 = neighbour}}}) +
                          nl::nexthop({.group = {{1, 2}, {3, 4}}});
  size_t taken = 0;
  size_t refused = 0;
  for (int round = 0; round < 20000; ++round) {
    nl::Bytes bytes = whole;
    for (int i = 0; i < 3; ++i) bytes[random() % bytes.size()] = static_cast<std::byte>(random());
    bytes.resize(1 + random() % bytes.size());
    const auto got = parsed(bytes);
    for (const RouteMessage &route : got.routes) {
      ASSERT_LE(route.len, 32) << "seed " << seed;
      ASSERT_EQ(route.hops.size(), route.dead.size()) << "seed " << seed;
    }
    taken += got.routes.size() + got.nexthops.size();
    refused += got.refusals.size();
  }
  EXPECT_GT(taken, 0u);
  EXPECT_GT(refused, 0u);
}

}  // namespace
