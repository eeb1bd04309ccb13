// SPDX-License-Identifier: Apache-2.0
// What the words of output messages mean.
#include <gtest/gtest.h>

#include "control_fakes.h"
#include "ip_packet.h"
#include "ipd/packet/links.h"
#include "ipd/packet/output_l2.h"
#include "ipd/packet/output_message.h"
#include "packet_kernel_fakes.h"

namespace {

using namespace ipd::packet;
using ipd::kernel::NeighborState;
using test_support::make_packet;
using test_support::Packet;
using test_support::PacketFields;

constexpr uint32_t eth0 = 12, tun0 = 14;
constexpr uint32_t a = 0x0a000001, b = 0x0a000002, c = 0x0a000003, far = 0x0b000001, group = 0xef010203;
constexpr MacAddress own_mac = {2, 1, 1, 1, 1, 1}, other_mac = {2, 9, 9, 9, 9, 9};
constexpr MacAddress mac_of_group = {1, 0, 0x5e, 1, 2, 3}, mac_of_all = {255, 255, 255, 255, 255, 255};

template <class Record>
Request request_of(const Record &record, uint16_t minor, Packet &packet) {
  return {.sender = {}, .minor = minor, .message = std::as_bytes(std::span(&record, 1)), .packet = packet};
}

class RecordingOutput final : public Output {
 public:
  Outcome send(const Way &way, std::span<std::byte> packet) override {
    ways.push_back(way);
    packets.emplace_back(packet.begin(), packet.end());
    return outcome;
  }
  uint32_t source_towards(const Way &, uint32_t) override { return 0; }
  std::vector<Way> ways;
  std::vector<Packet> packets;
  Outcome outcome = Outcome::done;
};

TEST(OutputMessageTest, EachWordIsHandedOn) {
  RecordingOutput output;
  OutputMessage handler(output);
  Packet packet = make_packet();
  ip_msg_output message{};
  message.iod = eth0;
  message.next_hop = c;
  message.context_id = -3;
  message.flags = IP_OUTPUT_DONT_ROUTE;
  message.src_l2_valid = 1;
  std::ranges::copy(other_mac, message.src_l2_addr);
  Request request = request_of(message, IP_MSG_OUTPUT, packet);
  EXPECT_EQ(handler.handle(request), Outcome::done);
  EXPECT_EQ(output.ways,
            (std::vector{Way{
                .iod = eth0, .next_hop = c, .context_id = -3, .flags = IP_OUTPUT_DONT_ROUTE, .src_l2 = other_mac}}));
  EXPECT_EQ(output.packets, std::vector<Packet>{packet});
}

TEST(OutputMessageTest, ASourceOfTheFrameThatWasNotGivenIsNone) {
  RecordingOutput output;
  OutputMessage handler(output);
  Packet packet = make_packet();
  ip_msg_output message{};
  std::ranges::copy(other_mac, message.src_l2_addr);
  Request request = request_of(message, IP_MSG_OUTPUT, packet);
  output.outcome = Outcome::no_route;
  EXPECT_EQ(handler.handle(request), Outcome::no_route);
  EXPECT_EQ(output.ways, std::vector{Way{}});
}

class OutputL2Test : public ::testing::Test {
 protected:
  OutputL2Test() {
    box.add(eth0, 2, "eth0").addresses = {{a, 24, false, 0}, {0x0a010001, 16, false, 0}};
    box.add(tun0, 4, "tun0");
    links.addresses = {{2, own_mac}};
    neighbors.set({.ifindex = 2, .addr = b}, NeighborState::usable, 2);
    neighbors.set({.ifindex = 2, .addr = c}, NeighborState::usable, 3);
    message.iod = eth0;
  }

  Outcome send(const PacketFields &fields = {}, uint16_t minor = IP_MSG_OUTPUT_L2) {
    frames.sent.clear();
    packet = make_packet(fields);
    Request request = request_of(message, minor, packet);
    return handler.handle(request);
  }
  // The frame that left by eth0.
  Packet frame(const PacketFields &fields = {}, uint16_t minor = IP_MSG_OUTPUT_L2) {
    EXPECT_EQ(send(fields, minor), Outcome::done);
    EXPECT_EQ(frames.sent.size(), 1u);
    if (frames.sent.size() != 1) return Packet(100);
    EXPECT_EQ(frames.sent[0].first, 2u);
    return frames.sent[0].second;
  }
  Outcome refused(const PacketFields &fields = {}, uint16_t minor = IP_MSG_OUTPUT_L2) {
    const Outcome outcome = send(fields, minor);
    EXPECT_TRUE(frames.sent.empty());
    return outcome;
  }

  ip_msg_output_l2 message{};
  Packet packet;
  test_support::FakeBox box;
  test_support::FakeLinks links;
  test_support::FakeFrames frames;
  test_support::FakeNeighbors neighbors;
  NeighborOutput neighbor_output{neighbors, frames};
  FramedOutput framed{frames, neighbor_output};
  Identifications identifications{500};
  OutputL2 handler{box, links, framed, identifications};
};

TEST_F(OutputL2Test, AGivenDestinationIsTheFrames) {
  std::ranges::copy(other_mac, message.dst_l2_addr);
  message.next_hop = c;
  const Packet sent = frame({.destination = far});
  EXPECT_EQ(test_support::frame_destination(sent), other_mac);
  EXPECT_EQ(test_support::frame_source(sent), own_mac);
  EXPECT_EQ(ipv4::read16(sent, 12), 0x0800);
  EXPECT_EQ(test_support::frame_packet(sent), make_packet({.destination = far}));
}

TEST_F(OutputL2Test, OtherwiseItIsTheNextHopsThenThePacketsDestinations) {
  EXPECT_EQ(test_support::frame_destination(frame()), (MacAddress{2, 0, 0, 0, 0, 2}));
  message.next_hop = c;
  EXPECT_EQ(test_support::frame_destination(frame()), (MacAddress{2, 0, 0, 0, 0, 3}));
}

TEST_F(OutputL2Test, FramesToManyHaveTheirAddress) {
  EXPECT_EQ(test_support::frame_destination(frame({.destination = group})), mac_of_group);
  EXPECT_EQ(test_support::frame_destination(frame({.destination = 0xffffffff})), mac_of_all);
  EXPECT_EQ(test_support::frame_destination(frame({.destination = 0x0a0000ff})), mac_of_all);
  EXPECT_EQ(test_support::frame_destination(frame({.destination = 0x0a01ffff})), mac_of_all);
  EXPECT_EQ(send({.destination = 0x0a0100ff}), Outcome::done);
  EXPECT_EQ(neighbor_output.waiting(), 1u) << "a host of the wider subnet";
}

TEST_F(OutputL2Test, AVlanIsTheFramesTag) {
  message.vlan = 0xa064;
  const Packet sent = frame();
  EXPECT_EQ(ipv4::read16(sent, 12), 0x8100);
  EXPECT_EQ(ipv4::read16(sent, 14), 0xa064);
  EXPECT_EQ(ipv4::read16(sent, 16), 0x0800);
  EXPECT_EQ(Packet(sent.begin() + 18, sent.end()), make_packet());
}

TEST_F(OutputL2Test, AVlanThatCannotBeIsRefused) {
  message.vlan = 0x10000;
  EXPECT_EQ(refused(), Outcome::bad_field);
  message.vlan = 4095;
  EXPECT_EQ(refused(), Outcome::bad_field);
}

TEST_F(OutputL2Test, WhatIsZeroIsFilledIn) {
  const Packet sent = frame({.source = 0, .ttl = 0, .identification = 0, .says_length = false});
  EXPECT_EQ(test_support::frame_packet(sent), make_packet({.source = a, .ttl = 64, .identification = 500}));
}

TEST_F(OutputL2Test, TheSourceIsOfTheSubnetWhereThePacketGoes) {
  std::ranges::copy(other_mac, message.dst_l2_addr);
  const auto source = [&](uint32_t destination) {
    return ipv4::source(test_support::frame_packet(frame({.source = 0, .destination = destination})));
  };
  EXPECT_EQ(source(0x0a010009), 0x0a010001u);
  EXPECT_EQ(source(far), a);
  box.interfaces.at(eth0).addresses.clear();
  EXPECT_EQ(refused({.source = 0, .destination = far}), Outcome::no_source);
}

TEST_F(OutputL2Test, APacketThatIsToStayAsItIsStaysAsItIs) {
  message.flags = IP_L2_UNCHANGED;
  std::ranges::copy(other_mac, message.dst_l2_addr);
  const PacketFields empty{.source = 0, .ttl = 0, .identification = 0, .says_length = false};
  EXPECT_EQ(test_support::frame_packet(frame(empty)), make_packet(empty));
  EXPECT_EQ(test_support::frame_packet(frame(empty, IP_MSG_OUTPUT_L2)), make_packet(empty));
  EXPECT_EQ(refused({.data = 1500}), Outcome::too_big) << "in one frame or none";
}

TEST_F(OutputL2Test, ALongPacketIsFragmented) {
  EXPECT_EQ(send({.data = 3000}), Outcome::done);
  EXPECT_EQ(frames.sent.size(), 3u);
  EXPECT_EQ(refused({.fragment = ipv4::dont_fragment, .data = 3000}), Outcome::too_big);
}

TEST_F(OutputL2Test, OnlyEthernetHasFrames) {
  message.iod = tun0;
  EXPECT_EQ(refused(), Outcome::interface_down);
  message.iod = 0;
  EXPECT_EQ(refused(), Outcome::no_interface);
  message.iod = eth0;
  box.interfaces.at(eth0).state.up = false;
  EXPECT_EQ(refused(), Outcome::interface_down);
}

TEST_F(OutputL2Test, APacketThatNobodyMaySendIsRefused) {
  EXPECT_EQ(refused({.source = group}), Outcome::bad_packet);
  Packet short_packet(19);
  Request request = request_of(message, IP_MSG_OUTPUT_L2, short_packet);
  EXPECT_EQ(handler.handle(request), Outcome::bad_packet);
}

TEST_F(OutputL2Test, ANextHopThatIsNoneIsRefused) {
  message.next_hop = 0x7f000001;
  EXPECT_EQ(refused(), Outcome::bad_field);
}

TEST_F(OutputL2Test, MvrIsForGroups) {
  message.mvr = 1;
  message.vlan = 100;
  EXPECT_EQ(test_support::frame_destination(frame({.destination = group}, IP_MSG_OUTPUT_L2_MVR)), mac_of_group);
  EXPECT_EQ(refused({}, IP_MSG_OUTPUT_L2_MVR), Outcome::bad_packet);
}

TEST_F(OutputL2Test, DceHasTheSourceOfTheFrame) {
  std::ranges::copy(other_mac, message.src_l2_addr);
  EXPECT_EQ(test_support::frame_source(frame({}, IP_MSG_OUTPUT_L2_DCE)), other_mac);
  EXPECT_EQ(test_support::frame_source(frame({}, IP_MSG_OUTPUT_L2)), own_mac) << "not its field";
  std::ranges::copy(mac_of_group, message.src_l2_addr);
  EXPECT_EQ(refused({}, IP_MSG_OUTPUT_L2_DCE), Outcome::bad_field);
  std::ranges::fill(message.src_l2_addr, uint8_t{0});
  EXPECT_EQ(test_support::frame_source(frame({}, IP_MSG_OUTPUT_L2_DCE)), own_mac);
}

TEST_F(OutputL2Test, WhatDceSaysOfItsFabricIsNotLookedAt) {
  const Packet plain = frame({}, IP_MSG_OUTPUT_L2_DCE);
  message.argument7 = message.argument8 = message.argument9 = message.argument10 = 0xffff;
  message.argument11 = message.argument12 = message.argument13 = message.argument14 = 0xffff;
  message.word108 = message.word112 = 0xffffffff;
  message.flags = IP_L2_UNCHANGED;  // not its field either
  EXPECT_EQ(frame({}, IP_MSG_OUTPUT_L2_DCE), plain);
  EXPECT_EQ(ipv4::ttl(test_support::frame_packet(frame({.ttl = 0}, IP_MSG_OUTPUT_L2_DCE))), 64);
}

TEST_F(OutputL2Test, ARefusalOfTheInterfaceIsTold) {
  frames.refuses_from = 0;
  EXPECT_EQ(refused(), Outcome::queue_full);
}

TEST(KernelLinksTest, AnEthernetLinkHasItsAddress) {
  ipd::kernel::Picture picture;
  const KernelLinks links(picture);
  EXPECT_EQ(links.ethernet_address(2), std::nullopt);
  ipd::kernel::LinkMessage link;
  link.ifindex = 2;
  link.name = "eth0";
  link.mtu = 1500;
  link.hardware_type = 1;
  link.hardware_address_len = 6;
  std::ranges::copy(own_mac, link.hardware_address.begin());
  picture.link(link);
  EXPECT_EQ(links.ethernet_address(2), own_mac);
  link.hardware_type = 772;  // a loopback: of the same length, and means nothing
  picture.link(link);
  EXPECT_EQ(links.ethernet_address(2), std::nullopt);
  link.hardware_type = 1;
  link.hardware_address_len = 20;
  picture.link(link);
  EXPECT_EQ(links.ethernet_address(2), std::nullopt);
}

}  // namespace
