// SPDX-License-Identifier: Apache-2.0
// The example driver: who sends a packet into its tunnel gets the ICMP error of a router, decoded by tshark where it
// arrives.
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <memory>

#include "ip_api.h"
#include "ipd_fixture.h"
#include "packet_wire.h"
#include "peer_sender.h"

namespace {

using ipd_test::IpdTest;
using test_support::PeerNamespace;
using test_support::Process;
using test_support::wait_until;

constexpr auto deadline = std::chrono::seconds(60);
constexpr uint32_t beyond = 0xc0000207;  // 192.0.2.7
constexpr uint16_t port = 5000;

// A datagram from the peer to 192.0.2.7.
struct Datagram {
  int ttl = 64;
  size_t size = 100;  // of its data
  bool dont_fragment = false;
};

int send_from_peer(const Datagram &datagram) {
  const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int discover = datagram.dont_fragment ? IP_PMTUDISC_PROBE : IP_PMTUDISC_DONT;
  if (setsockopt(sender, IPPROTO_IP, IP_TTL, &datagram.ttl, sizeof datagram.ttl) != 0 ||
      setsockopt(sender, IPPROTO_IP, IP_MTU_DISCOVER, &discover, sizeof discover) != 0) {
    return 1;
  }
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(beyond);
  const std::string bytes(datagram.size, 'x');
  const auto sent = sendto(sender, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
  return sent == static_cast<ssize_t>(bytes.size()) ? 0 : 2;
}

class IcmpDriverExampleTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    peer_ = std::make_unique<PeerNamespace>();
    ASSERT_EQ(test_support::connect("va", "10.0.0.1/24", *peer_, "vb", "10.0.0.2/24"), "");
    ASSERT_EQ(peer_->ip("route add 192.0.2.0/24 via 10.0.0.1"), "");
    set_sysctl("ip_forward", "1");
    ASSERT_NO_FATAL_FAILURE(start_ipd());
    attach();
  }

  void start_driver() {
    driver_ = Process({ICMP_ERRORS, "--tun", "far", "--mtu", "1280"});
    ASSERT_TRUE(wait_until([&] { return said("far is there\n") || !driver_.running(); }, deadline));
    ASSERT_TRUE(driver_.running()) << driver_.output();
    ip("link set far up");
    ip("route add 192.0.2.0/24 dev far");
    ASSERT_TRUE(wait_until([] { return iod("far") != 0; }, deadline));
  }
  bool said(const std::string &text) { return driver_.output().find(text) != std::string::npos; }
  void send(const Datagram &datagram) {
    ASSERT_EQ(test_support::run_in(*peer_, [&] { return send_from_peer(datagram); }), 0);
  }

  std::unique_ptr<PeerNamespace> peer_;
  Process driver_;
};

TEST_F(IcmpDriverExampleTest, EachSenderIsToldWhyItsPacketGoesNoFurther) {
  start_driver();
  test_support::PacketWire wire(*peer_, "vb", "icmp",
                                {"ip.src", "ip.dst", "icmp.type", "icmp.code", "icmp.mtu", "icmp.checksum.status"});
  ASSERT_TRUE(wire.captures("10.0.0.2")) << wire.output();
  const auto expect_error = [&](size_t number, const char *type, const char *code, const char *mtu) {
    const auto seen = wire.wait_for(number);
    ASSERT_EQ(seen.size(), number) << wire.output() << driver_.output() << ipd_.output();
    auto error = seen.back();
    EXPECT_EQ(error["ip.src"], "10.0.0.1");
    EXPECT_EQ(error["ip.dst"], "10.0.0.2");
    EXPECT_EQ(error["icmp.type"], type) << wire.output();
    EXPECT_EQ(error["icmp.code"], code) << wire.output();
    EXPECT_EQ(error["icmp.mtu"], mtu) << wire.output();
    EXPECT_EQ(error["icmp.checksum.status"], "1");
  };
  // The kernel counts one down before the driver has it.
  send({.ttl = 2});
  expect_error(1, "11", "0", "");
  EXPECT_TRUE(said("10.0.0.2 > 192.0.2.7, 128 bytes: its TTL ends here\n")) << driver_.output();
  send({});
  expect_error(2, "3", "1", "");
  send({.size = 1400});
  expect_error(3, "3", "1", "");
  EXPECT_TRUE(said("10.0.0.2 > 192.0.2.7, 1428 bytes: nobody is there\n")) << driver_.output();
  // The last one: the peer may take the MTU to heart.
  send({.size = 1400, .dont_fragment = true});
  expect_error(4, "3", "4", "1280");
  EXPECT_TRUE(said("10.0.0.2 > 192.0.2.7, 1428 bytes: too long, and not to be fragmented\n")) << driver_.output();
}

TEST_F(IcmpDriverExampleTest, ItEndsWithItsDeviceWhenItIsInterrupted) {
  for (const int signal : {SIGINT, SIGTERM}) {
    start_driver();
    driver_.signal(signal);
    EXPECT_EQ(driver_.wait(), 0) << driver_.output();
    EXPECT_EQ(ifindex("far"), 0);
  }
}

TEST_F(IcmpDriverExampleTest, WhatIsMissingIsSaid) {
  std::string output;
  EXPECT_EQ(test_support::run({ICMP_ERRORS, "--help"}, &output), 0);
  EXPECT_TRUE(output.starts_with("usage: icmp_errors ")) << output;
  EXPECT_EQ(test_support::run({ICMP_ERRORS}, &output), 2);
  EXPECT_EQ(test_support::run({ICMP_ERRORS, "--tun", "far", "--mtu", "67"}, &output), 2);
  EXPECT_NE(output.find("67 is no MTU from 68 to 65535"), std::string::npos) << output;
  EXPECT_EQ(test_support::run({ICMP_ERRORS, "--tun", "va"}, &output), 1);
  EXPECT_NE(output.find("cannot make the tun device va: "), std::string::npos) << output;
  const test_support::RunDirectory empty;
  EXPECT_EQ(test_support::run({ICMP_ERRORS, "--tun", "far"}, &output), 1);
  EXPECT_NE(output.find("no ipd to ask"), std::string::npos) << output;
}

}  // namespace
