// SPDX-License-Identifier: Apache-2.0
// Packets of a client on the wire: a real ipd, a neighbour in a namespace of its own, and tshark there.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "ip_packet.h"
#include "ipd/packet_bytes.h"
#include "ipd_fixture.h"
#include "packet_wire.h"

namespace {

using ipd_test::IpdTest;
using test_support::make_packet;
using test_support::Packet;
using test_support::PacketFields;
using test_support::PacketWire;
using test_support::Process;
using test_support::SeenPacket;
namespace ipv4 = ipd::packet::ipv4;

constexpr uint32_t own = 0x0a000001, neighbor = 0x0a000002, far = 0xc0000201, group = 0xef010203;
constexpr const char *own_mac = "02:00:00:00:00:0a", *neighbor_mac = "02:00:00:00:00:0b";
constexpr const char *virtual_mac = "00:00:5e:00:01:07", *other_mac = "02:00:00:00:00:77";
constexpr auto deadline = std::chrono::seconds(60);
constexpr uint8_t protocol = 253;

std::string hex(ipv4::Bytes bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  for (const std::byte byte : bytes) {
    text += digits[std::to_integer<size_t>(byte >> 4)];
    text += digits[std::to_integer<size_t>(byte & std::byte{15})];
  }
  return text;
}

std::string data_of(const Packet &packet) {
  return hex(ipv4::Bytes(packet).subspan(ipv4::header_length(packet)));
}

// How packets travel from the client to ipd.
enum class Carriage : bool { by_reference, by_segments };

class PacketOutputTest : public IpdTest, public ::testing::WithParamInterface<Carriage> {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    const std::string problem = test_support::connect("va", "10.0.0.1/24", peer_, "vb", "10.0.0.2/24");
    ASSERT_TRUE(problem.empty()) << problem;
    ip(std::string("link set va address ") + own_mac);
    const std::string address = peer_.ip(std::string("link set vb address ") + neighbor_mac);
    ASSERT_TRUE(address.empty()) << address;
    start_ipd();
    expect_up();
    wire_.emplace(peer_, "vb", "ip.proto == 253 and not icmp",
                  std::vector<std::string>{"eth.dst", "eth.src", "vlan.id", "vlan.priority", "ip.src", "ip.dst",
                                           "ip.ttl", "ip.id", "ip.flags.mf", "ip.frag_offset", "ip.len",
                                           "ip.checksum.status", "ip.reassembled.length", "data.data"});
    ASSERT_TRUE(wire_->captures("10.0.0.2")) << wire_->output();
  }

  // Until ipd has seen it, the interface takes no packets.
  void expect_up() {
    attach();
    expect_same_as_kernel();
  }

  // Runs the client: the steps behind its becoming one. Each call it makes must have sent its message.
  void run_client(const std::vector<std::string> &steps) {
    std::vector<std::string> words = {OUTPUT_CLIENT, "attach",
                                      GetParam() == Carriage::by_segments ? "segments" : "reference"};
    words.insert(words.end(), steps.begin(), steps.end());
    std::string output;
    ASSERT_EQ(test_support::run(words, &output), 0) << output;
    EXPECT_EQ(output.find(" 0\n"), std::string::npos) << output;
  }
  // One packet by one call.
  void hand_over(const Packet &packet, const std::vector<std::string> &call) {
    std::vector<std::string> steps = {"packet", hex(packet)};
    steps.insert(steps.end(), call.begin(), call.end());
    run_client(steps);
  }
  // The only packet that the neighbour saw.
  SeenPacket seen() {
    auto packets = wire_->wait_for(1);
    EXPECT_EQ(packets.size(), 1u) << wire_->output() << ipd_.output();
    packets.resize(1);
    EXPECT_EQ(packets[0]["ip.checksum.status"], "1");
    return packets[0];
  }

  test_support::PeerNamespace peer_;
  std::optional<PacketWire> wire_;
};

// Receives packets of this system's own.
class Receiver {
 public:
  explicit Receiver(int ifindex) : socket_(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol)) {
    ip_mreqn membership{};
    membership.imr_multiaddr.s_addr = htonl(group);
    membership.imr_ifindex = ifindex;
    EXPECT_EQ(setsockopt(socket_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership), 0);
  }
  ~Receiver() { close(socket_); }
  Receiver(const Receiver &) = delete;
  Receiver &operator=(const Receiver &) = delete;

  // The next packet; empty: none comes.
  Packet next() {
    Packet room(65535);
    ssize_t got = -1;
    (void)test_support::wait_until(
        [&] {
          got = recv(socket_, room.data(), room.size(), 0);
          return got >= 0;
        },
        deadline);
    room.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return room;
  }

 private:
  int socket_;
};

TEST_P(PacketOutputTest, WhatIsZeroIsFilledIn) {
  const Packet packet = make_packet({.source = 0, .ttl = 0, .identification = 0, .says_length = false});
  hand_over(packet, {"output", "-", "0.0.0.0", "0", "0"});
  SeenPacket shown = seen();
  EXPECT_EQ(shown["eth.src"], own_mac);
  EXPECT_EQ(shown["eth.dst"], neighbor_mac);
  EXPECT_EQ(shown["ip.src"], "10.0.0.1");
  EXPECT_EQ(shown["ip.dst"], "10.0.0.2");
  EXPECT_EQ(shown["ip.ttl"], "64");
  EXPECT_EQ(shown["ip.len"], std::to_string(packet.size()));
  EXPECT_NE(shown["ip.id"], "0x0000");
  EXPECT_EQ(shown["data.data"], data_of(packet));
}

TEST_P(PacketOutputTest, WhatIsThereStays) {
  const Packet packet = make_packet({.source = far, .ttl = 7, .identification = 0x4321});
  hand_over(packet, {"output", "va", "0.0.0.0", "0", "0"});
  SeenPacket shown = seen();
  EXPECT_EQ(shown["ip.src"], "192.0.2.1");
  EXPECT_EQ(shown["ip.ttl"], "7");
  EXPECT_EQ(shown["ip.id"], "0x4321");
}

TEST_P(PacketOutputTest, ALongPacketIsPutTogetherAgainByTheNeighbor) {
  const Packet packet = make_packet({.data = 4000});
  hand_over(packet, {"output", "-", "0.0.0.0", "0", "0"});
  auto fragments = wire_->wait_for(3);
  ASSERT_EQ(fragments.size(), 3u) << wire_->output() << ipd_.output();
  for (SeenPacket &fragment : fragments) EXPECT_EQ(fragment["ip.checksum.status"], "1");
  EXPECT_EQ(fragments[0]["ip.len"], "1500");
  EXPECT_EQ(fragments[2]["ip.reassembled.length"], "4000") << wire_->output();
  EXPECT_EQ(fragments[2]["data.data"], data_of(packet));
}

TEST_P(PacketOutputTest, ASourceOfTheFrameIsHonoured) {
  const Packet packet = make_packet();
  hand_over(packet, {"from", virtual_mac, "va", "0.0.0.0", "0", "0"});
  SeenPacket shown = seen();
  EXPECT_EQ(shown["eth.src"], virtual_mac);
  EXPECT_EQ(shown["eth.dst"], neighbor_mac);
  EXPECT_EQ(shown["data.data"], data_of(packet));
}

TEST_P(PacketOutputTest, ANextHopThatIsFirstAskedGetsThePacket) {
  ip("neigh flush all");
  const Packet packet = make_packet({.destination = far, .data = 3000});
  hand_over(packet, {"output", "va", "10.0.0.2", "0", "0"});
  auto fragments = wire_->wait_for(3);
  ASSERT_EQ(fragments.size(), 3u) << wire_->output() << ipd_.output();
  for (SeenPacket &fragment : fragments) {
    EXPECT_EQ(fragment["eth.dst"], neighbor_mac);
    EXPECT_EQ(fragment["ip.dst"], "192.0.2.1");
    EXPECT_EQ(fragment["ip.checksum.status"], "1");
  }
  EXPECT_EQ(fragments[2]["data.data"], data_of(packet));
}

TEST_P(PacketOutputTest, APacketToAGroupHasItsAddressAndIsNotForwarded) {
  hand_over(make_packet({.destination = group, .ttl = 0}), {"output", "va", "0.0.0.0", "0", "0"});
  SeenPacket shown = seen();
  EXPECT_EQ(shown["eth.dst"], "01:00:5e:01:02:03");
  EXPECT_EQ(shown["ip.ttl"], "1");
}

TEST_P(PacketOutputTest, ABroadcastOfTheSubnetIsToEverybody) {
  hand_over(make_packet({.destination = own | 0xff}), {"output", "-", "0.0.0.0", "0", "0"});
  EXPECT_EQ(seen()["eth.dst"], "ff:ff:ff:ff:ff:ff");
}

// Of two packets the second alone is seen, and the service keeps their order.
TEST_P(PacketOutputTest, WithoutRoutingADestinationBehindAGatewayIsNotReached) {
  ip("route add 192.0.2.0/24 via 10.0.0.2");
  const std::string flags = std::to_string(IP_OUTPUT_DONT_ROUTE);
  run_client({"packet", hex(make_packet({.destination = far})), "output", "va", "0.0.0.0", "0", flags, "packet",
              hex(make_packet()), "output", "va", "0.0.0.0", "0", flags});
  EXPECT_EQ(seen()["ip.dst"], "10.0.0.2");
}

TEST_P(PacketOutputTest, WithRoutingADestinationBehindAGatewayIsReached) {
  ip("route add 192.0.2.0/24 via 10.0.0.2");
  hand_over(make_packet({.destination = far}), {"output", "-", "0.0.0.0", "0", "0"});
  SeenPacket shown = seen();
  EXPECT_EQ(shown["ip.dst"], "192.0.2.1");
  EXPECT_EQ(shown["eth.dst"], neighbor_mac);
}

TEST_P(PacketOutputTest, OwnMembersGetAPacketToTheirGroupWhenThatIsWanted) {
  Receiver receiver(ifindex("va"));
  run_client({"packet", hex(make_packet({.destination = group, .identification = 1})), "output", "va", "0.0.0.0", "0",
              "0", "packet", hex(make_packet({.destination = group, .identification = 2})), "output", "va", "0.0.0.0",
              "0", std::to_string(IP_OUTPUT_LOOPBACK)});
  const Packet got = receiver.next();
  ASSERT_GE(got.size(), 20u) << ipd_.output();
  EXPECT_EQ(ipv4::identification(got), 2);
  EXPECT_EQ(wire_->wait_for(2).size(), 2u) << "both are on the wire";
}

TEST_P(PacketOutputTest, APacketToThisSystemArrivesThere) {
  Receiver receiver(ifindex("va"));
  const Packet packet = make_packet({.destination = own, .data = 3000});
  hand_over(packet, {"output", "-", "0.0.0.0", "0", "0"});
  EXPECT_EQ(receiver.next(), packet);
}

TEST_P(PacketOutputTest, AFrameIsAsItsCallDescribesIt) {
  const Packet packet = make_packet({.source = 0, .destination = far, .ttl = 0});
  hand_over(packet, {"l2", "va", "0.0.0.0", "100", other_mac, "0"});
  SeenPacket shown = seen();
  EXPECT_EQ(shown["eth.dst"], other_mac);
  EXPECT_EQ(shown["eth.src"], own_mac);
  EXPECT_EQ(shown["vlan.id"], "100");
  EXPECT_EQ(shown["ip.src"], "10.0.0.1");
  EXPECT_EQ(shown["ip.ttl"], "64");
  EXPECT_EQ(shown["data.data"], data_of(packet));
}

TEST_P(PacketOutputTest, AFrameWithoutADestinationGoesToTheNextHop) {
  ip("neigh flush all");
  hand_over(make_packet({.destination = far}), {"l2", "va", "10.0.0.2", "0", "-", "0"});
  SeenPacket shown = seen();
  EXPECT_EQ(shown["eth.dst"], neighbor_mac);
  EXPECT_EQ(shown["vlan.id"], "");
}

TEST_P(PacketOutputTest, APacketThatIsToStayAsItIsStaysAsItIs) {
  const std::string flags = std::to_string(IP_OUTPUT_L2_UNCHANGED);
  hand_over(make_packet({.source = 0, .ttl = 0, .identification = 0}), {"l2", "va", "10.0.0.2", "0", other_mac, flags});
  SeenPacket shown = seen();
  EXPECT_EQ(shown["ip.src"], "0.0.0.0");
  EXPECT_EQ(shown["ip.ttl"], "0");
  EXPECT_EQ(shown["ip.id"], "0x0000");
}

TEST_P(PacketOutputTest, MvrTagsAPacketToAGroup) {
  hand_over(make_packet({.destination = group, .ttl = 5}), {"mvr", "va", "0.0.0.0", "0xa00a", "-", "0"});
  SeenPacket shown = seen();
  EXPECT_EQ(shown["eth.dst"], "01:00:5e:01:02:03");
  EXPECT_EQ(shown["vlan.id"], "10");
  EXPECT_EQ(shown["vlan.priority"], "5");
  EXPECT_EQ(shown["ip.ttl"], "5");
}

TEST_P(PacketOutputTest, DceHasTheSourceOfTheFrame) {
  hand_over(make_packet(), {"dce", "va", "0.0.0.0", "0", "-", "0", virtual_mac});
  SeenPacket shown = seen();
  EXPECT_EQ(shown["eth.dst"], neighbor_mac);
  EXPECT_EQ(shown["eth.src"], virtual_mac);
}

INSTANTIATE_TEST_SUITE_P(EachCarriage, PacketOutputTest,
                         ::testing::Values(Carriage::by_reference, Carriage::by_segments),
                         [](const ::testing::TestParamInfo<Carriage> &tested) {
                           return tested.param == Carriage::by_segments ? "BySegments" : "ByReference";
                         });

}  // namespace
