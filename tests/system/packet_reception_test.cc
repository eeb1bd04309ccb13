// SPDX-License-Identifier: Apache-2.0
// Packets from a neighbour to clients, and from clients into this system and to other links, with a real ipd and a real
// kernel.
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <sstream>

#include "ipd_fixture.h"
#include "mbuf/pool.h"
#include "reception_rig.h"
#include "support/peer_namespace.h"

namespace {

using namespace ipd_test;
using namespace reception_rig;
using test_support::PeerNamespace;

// RFC 792.
std::string echo_request() {
  std::string message = std::string("\x08\0\0\0\x12\x34\0\x01", 8) + "are you there?";
  const auto bytes = std::as_writable_bytes(std::span(message.data(), message.size()));
  ipv4::write16(bytes, 2, ipv4::checksum_of(bytes));
  return message;
}

// What passes a peer's device, decoded by tshark: one line "source > destination protocol ttl ICMP-type data" each.
class Wire {
 public:
  Wire(const PeerNamespace &peer, const std::string &device)
      : tshark_(peer.command({"tshark",
                              "-i",
                              device,
                              "-n",
                              "-l",
                              "-o",
                              "ip.check_checksum:TRUE",
                              "-f",
                              "icmp or proto 103 or proto 253 or udp port 9999",
                              "-T",
                              "fields",
                              "-E",
                              "separator= ",
                              "-e",
                              "ip.src",
                              "-e",
                              "ip.dst",
                              "-e",
                              "ip.proto",
                              "-e",
                              "ip.ttl",
                              "-e",
                              "ip.checksum.status",
                              "-e",
                              "icmp.type",
                              "-e",
                              "data.data",
                              "-e",
                              "udp.dstport"})) {}
  ~Wire() {
    tshark_.signal(SIGINT);  // its capturing child ends with it then
    tshark_.wait();
  }
  Wire(const Wire &) = delete;
  Wire &operator=(const Wire &) = delete;

  // Sends datagrams to the peer until one is seen: from then on nothing is missed.
  bool captures(uint32_t peer_address) {
    const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9999);
    to.sin_addr.s_addr = htonl(peer_address);
    const bool seen = wait_until(
        [&] {
          (void)sendto(sender, "x", 1, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
          return said(" 9999\n");
        },
        deadline);
    close(sender);
    return seen;
  }
  bool says(const std::string &text) {
    return wait_until([&] { return said(text); }, deadline);
  }
  bool said(const std::string &text) { return tshark_.output().find(text) != std::string::npos; }
  const std::string &output() { return tshark_.output(); }

 private:
  Process tshark_;
};

class PacketReceptionTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    peer_.emplace();
    ASSERT_EQ(test_support::connect("va", "10.0.0.1/24", *peer_, "vb", "10.0.0.2/24"), "");
  }
  void start(const std::string &configuration = "{}") {
    write_configuration(configuration);
    ASSERT_NO_FATAL_FAILURE(start_ipd({"--config", configuration_file()}));
    attach();
  }

  // From the peer, numbered from `first` on.
  void send(uint8_t protocol, uint32_t to, uint32_t first, uint32_t count = 1) {
    Process sender([&] { return send_from_peer(protocol, to, first, count); });
    ASSERT_EQ(sender.wait(deadline), 0);
  }
  [[nodiscard]] int send_from_peer(uint8_t protocol, uint32_t to, uint32_t first, uint32_t count) const {
    const int space = open(("/proc/" + peer_->id() + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
    if (space < 0 || setns(space, CLONE_NEWNET) != 0) return 2;
    const int descriptor = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, protocol);
    ip_mreqn by{};
    by.imr_address.s_addr = htonl(neighbor);
    if (descriptor < 0 || setsockopt(descriptor, IPPROTO_IP, IP_MULTICAST_IF, &by, sizeof by) != 0) return 3;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(to);
    for (uint32_t i = 0; i < count; ++i) {
      const std::string bytes = payload(first + i);
      while (sendto(descriptor, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&address),
                    sizeof address) < 0) {
        if (errno != ENOBUFS && errno != EAGAIN) return 4;
      }
    }
    return 0;
  }
  // How the client prints it when it came in by va.
  std::string line(const std::string &addresses, uint8_t protocol, uint32_t number,
                   const std::string &source_l2 = "000000000000") {
    return "packet iod " + std::to_string(iod("va")) + " context 1 segments " + addresses + " protocol " +
           std::to_string(protocol) + " length 28 of 28 from " + source_l2 + " " + hex(payload(number));
  }
  [[nodiscard]] static bool shows(const std::string &text) {
    std::string output;
    return test_support::run({IPSH, "show", "packets"}, &output) == 0 && output.find(text) != std::string::npos;
  }

  std::optional<PeerNamespace> peer_;
};

TEST_F(PacketReceptionTest, APacketOfARegisteredProtocolArrivesWithItsInterfaceAndContext) {
  ASSERT_NO_FATAL_FAILURE(start());
  Client client({"register", "ospf", "89", "receive"});
  ASSERT_TRUE(client.receives()) << client.output();
  send(pim, our_address, 1);
  send(ospf, our_address, 2);
  ASSERT_TRUE(client.gets(2)) << client.output();
  EXPECT_EQ(client.packets(), (Words{line("10.0.0.2 10.0.0.1", ospf, 2)}));
}

TEST_F(PacketReceptionTest, APacketArrivesByReferenceAtWhomWantsThat) {
  ASSERT_NO_FATAL_FAILURE(start());
  Client client({"reference", "register", "ospf", "89", "receive"});
  Client other({"register", "other", "89", "receive"});
  ASSERT_TRUE(client.receives() && other.receives()) << client.output();
  constexpr uint32_t count = 20;
  send(ospf, our_address, 0, count);
  ASSERT_TRUE(client.gets(count - 1) && other.gets(count - 1)) << client.output();
  const Words got = client.packets();
  ASSERT_EQ(got.size(), count);
  for (uint32_t i = 0; i < count; ++i) {
    std::string expected = line("10.0.0.2 10.0.0.1", ospf, i);
    EXPECT_EQ(got[i], expected.replace(expected.find("segments"), 8, "reference"));
  }
  EXPECT_EQ(other.packets()[0], line("10.0.0.2 10.0.0.1", ospf, 0));
  rsw::PoolReport pool;
  std::string reason;
  EXPECT_TRUE(wait_until([&] { return rsw::report_pool(&pool, &reason) && pool.in_use == 0; }, deadline))
      << reason << ": " << pool.in_use << " buffers in use";
}

TEST_F(PacketReceptionTest, AGroupArrivesAtWhomJoinedItOnly) {
  ASSERT_NO_FATAL_FAILURE(start());
  Client member({"register", "ospf", "89", "join", "224.0.0.5", "va", "receive"});
  Client other({"register", "other", "89", "join", "224.0.0.6", "va", "receive"});
  ASSERT_TRUE(member.receives() && other.receives());
  EXPECT_TRUE(wait_until(
      [&] {
        send(ospf, all_ospf, 1);
        return member.has(1);
      },
      deadline))
      << member.output();
  send(ospf, our_address, 2);
  ASSERT_TRUE(member.gets(2) && other.gets(2));
  EXPECT_EQ(other.packets(), (Words{line("10.0.0.2 10.0.0.1", ospf, 2)}));
  EXPECT_EQ(member.packets()[0], line("10.0.0.2 224.0.0.5", ospf, 1));
}

TEST_F(PacketReceptionTest, AChannelArrivesFromItsSourceOnly) {
  ASSERT_NO_FATAL_FAILURE(start());
  Client member({"register", "a", "103", "channel", "239.1.2.3", "10.0.0.2", "va", "receive"});
  Client other({"register", "b", "103", "channel", "239.1.2.3", "10.0.0.3", "va", "receive"});
  ASSERT_TRUE(member.receives() && other.receives());
  EXPECT_TRUE(wait_until(
      [&] {
        send(pim, stream, 1);
        return member.has(1);
      },
      deadline))
      << member.output();
  send(pim, our_address, 2);
  ASSERT_TRUE(other.gets(2));
  EXPECT_FALSE(other.has(1)) << other.output();
}

TEST_F(PacketReceptionTest, WhatIsForAllHostsArrivesAtEveryClient) {
  ASSERT_NO_FATAL_FAILURE(start());
  Client one({"register", "a", "89", "receive"});
  Client two({"register", "b", "89", "receive"});
  ASSERT_TRUE(one.receives() && two.receives());
  send(ospf, 0xe0000001, 1);
  EXPECT_TRUE(one.gets(1) && two.gets(1)) << one.output() << two.output();
}

TEST_F(PacketReceptionTest, AClientThatLeftGetsNothingMore) {
  ASSERT_NO_FATAL_FAILURE(start());
  Client leaver({"register", "a", "89", "deregister", "a", "89", "receive"});
  Client other({"register", "b", "89", "receive"});
  ASSERT_TRUE(leaver.receives() && other.receives());
  send(ospf, our_address, 1);
  ASSERT_TRUE(other.gets(1));
  EXPECT_TRUE(leaver.packets().empty()) << leaver.output();
}

TEST_F(PacketReceptionTest, AClientThatDoesNotReadHurtsNoOther) {
  ASSERT_NO_FATAL_FAILURE(start());
  Client stuck({"register", "stuck", "89", "wait"});
  Client other({"register", "b", "89", "receive"});
  ASSERT_TRUE(stuck.says("waits 1\n") && other.receives());
  // Few enough that the one that reads has room for them, until the one that does not has lost something.
  constexpr uint32_t burst = 64;
  uint32_t sent = 0;
  EXPECT_TRUE(wait_until(
      [&] {
        send(ospf, our_address, sent, burst);
        sent += burst;
        return other.gets(sent - 1) && shows("queue-full");
      },
      std::chrono::minutes(2)))
      << ipd_.output();
  const Words got = other.packets();
  ASSERT_EQ(got.size(), sent);
  for (uint32_t i = 0; i < sent; ++i) ASSERT_TRUE(got[i].ends_with(hex(payload(i)))) << got[i];
}

TEST_F(PacketReceptionTest, AKilledClientLeavesItsPlaceToTheNext) {
  ASSERT_NO_FATAL_FAILURE(start());
  Client killed({"register", "ospf", "89", "receive"});
  Client other({"register", "b", "89", "receive"});
  ASSERT_TRUE(killed.receives() && other.receives());
  send(ospf, our_address, 1);
  ASSERT_TRUE(killed.gets(1) && other.gets(1));
  killed.process().kill_now();
  send(ospf, our_address, 2);
  EXPECT_TRUE(other.gets(2));
  Client next({"register", "ospf", "89", "receive"});
  ASSERT_TRUE(next.receives());
  send(ospf, our_address, 3);
  EXPECT_TRUE(next.gets(3) && other.gets(3)) << next.output();
}

TEST_F(PacketReceptionTest, WhoMayNotConfigureGetsNoPackets) {
  // Only root can become somebody else.
  if (Process([] { return setgid(65534) == 0 && setuid(65534) == 0 ? 0 : 1; }).wait() != 0) return;
  std::filesystem::permissions(run_directory_.path(), std::filesystem::perms(0755));
  ASSERT_NO_FATAL_FAILURE(start());
  Client stranger({"become", "65534", "attach", "register", "a", "89", "receive"});
  Client root({"register", "b", "89", "receive"});
  ASSERT_TRUE(stranger.receives() && root.receives());
  ASSERT_TRUE(stranger.said("become 1\nattach 1\nregister 1\n")) << stranger.output();
  send(ospf, our_address, 1);
  ASSERT_TRUE(root.gets(1));
  EXPECT_TRUE(stranger.packets().empty());
}

TEST_F(PacketReceptionTest, APacketThatAClientHandsInArrivesAtTheOthers) {
  ASSERT_NO_FATAL_FAILURE(start());
  Client receiver({"register", "ospf", "89", "receive"});
  ASSERT_TRUE(receiver.receives());
  Client driver({"register", "driver", "89", "packet", packet_of({}, payload(1)), "input", "va", "packet",
                 packet_of({}, payload(2)), "consume", "va", "receive"});
  ASSERT_TRUE(receiver.gets(2)) << driver.output();
  EXPECT_EQ(receiver.packets(),
            (Words{line("10.0.0.2 10.0.0.1", ospf, 1), line("10.0.0.2 10.0.0.1", ospf, 2, "020304050607")}));
  send(ospf, our_address, 3);
  ASSERT_TRUE(driver.gets(3));
  EXPECT_EQ(driver.packets().size(), 1u) << "what it handed in comes not back: " << driver.output();
}

TEST_F(PacketReceptionTest, WhatIsForAnotherSystemIsNotTaken) {
  ASSERT_NO_FATAL_FAILURE(start());
  Client receiver({"register", "ospf", "89", "receive"});
  ASSERT_TRUE(receiver.receives());
  Client driver({"register", "driver", "0", "packet", packet_of({.destination = 0x0a000009}, payload(1)), "input", "va",
                 "packet", packet_of({}, payload(2)), "input", "va", "wait"});
  ASSERT_TRUE(receiver.gets(2)) << driver.output();
  EXPECT_EQ(receiver.packets().size(), 1u);
}

TEST_F(PacketReceptionTest, TheKernelAnswersWhatGoesToItAsInput) {
  ASSERT_NO_FATAL_FAILURE(start(R"({"input_to_kernel": true})"));
  Wire wire(*peer_, "vb");
  ASSERT_TRUE(wire.captures(neighbor)) << wire.output();
  Client driver(
      {"register", "driver", "0", "packet", packet_of({.protocol = icmp}, echo_request()), "input", "va", "wait"});
  ASSERT_TRUE(driver.says("waits 1\n")) << driver.output();
  EXPECT_TRUE(wire.says("10.0.0.1 10.0.0.2 1 64 1 0 " + hex("are you there?"))) << wire.output() << ipd_.output();
}

TEST_F(PacketReceptionTest, WhatGoesToTheKernelIsNotDeliveredTwice) {
  ASSERT_NO_FATAL_FAILURE(start(R"({"input_to_kernel": true})"));
  Client receiver({"register", "ospf", "89", "receive"});
  ASSERT_TRUE(receiver.receives());
  Client driver({"register", "driver", "0", "packet", packet_of({}, payload(1)), "input", "va", "input", "va", "wait"});
  ASSERT_TRUE(driver.says("waits 1\n")) << driver.output();
  ASSERT_TRUE(wait_until([&] { return receiver.packets().size() >= 2; }, deadline));
  // The raw sockets hand packets over in order: what went in before would have come before this one.
  send(ospf, our_address, 3);
  ASSERT_TRUE(receiver.gets(3));
  EXPECT_EQ(receiver.packets().size(), 3u) << receiver.output();
}

TEST_F(PacketReceptionTest, TheConfigurationSwitchesTheKernelsDeviceOnAndOff) {
  ASSERT_NO_FATAL_FAILURE(start());
  EXPECT_EQ(ifindex("rswin0"), 0);
  write_configuration(R"({"input_to_kernel": true})");
  ipd_.signal(SIGHUP);
  EXPECT_TRUE(wait_until([] { return ifindex("rswin0") != 0; }, deadline)) << ipd_.output();
  write_configuration("{}");
  ipd_.signal(SIGHUP);
  EXPECT_TRUE(wait_until([] { return ifindex("rswin0") == 0; }, deadline)) << ipd_.output();
}

}  // namespace
