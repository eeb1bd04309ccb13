// SPDX-License-Identifier: Apache-2.0
// What a neighbour on the wire sees of ICMP that clients ask for, decoded by tshark on a veth pair of the test's own.
// ipd's counters tell that a request was handled; a mark on the wire, that everything before it was seen.
#include <signal.h>

#include <cstdio>
#include <optional>
#include <span>
#include <string>

#include "control_shown.h"
#include "icmp_wire.h"
#include "ip_api.h"
#include "ipd/icmp_packets.h"
#include "ipd_fixture.h"
#include "mbuf/buffers.h"
#include "mts.h"

namespace {

using namespace icmp_packets;
using ipd_test::IcmpSeen;
using ipd_test::IcmpWire;
using ipd_test::IpdTest;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);
// What tshark knows nothing about, so that it shows it as data (RFC 3692).
constexpr uint8_t experimental = 253;

std::string digits_of(std::span<const std::byte> bytes) {
  std::string text;
  for (const std::byte byte : bytes) {
    char two[3];
    snprintf(two, sizeof two, "%02x", std::to_integer<unsigned>(byte));
    text += two;
  }
  return text;
}

mbuf *chain_of(const Bytes &packet) {
  return rsw::make_packet({reinterpret_cast<const uint8_t *>(packet.data()), packet.size()});
}

class IcmpWireTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    ip("link add va type veth peer name vb");
    ip("addr add 10.0.0.1/24 dev va");
    ip("link set va mtu 1400 up");
    ip("link set vb up");
    // Nobody is there to answer.
    ip("neigh add 10.0.0.2 lladdr 02:00:00:00:00:02 dev va nud permanent");
    ip("neigh add 10.0.0.3 lladdr 02:00:00:00:00:03 dev va nud permanent");
    ip("route add 192.0.2.0/24 via 10.0.0.3");
    wire.emplace("vb");
    ASSERT_TRUE(wire->mark(ifindex("va"))) << wire->output();
  }
  void TearDown() override {
    if (has_queue_) mts_unbind(ip_client.data_q, 0);
    IpdTest::TearDown();
  }
  // With a queue to send from; packets go by reference or by segments.
  void become_client(uint32_t flags) {
    attach();
    open_queue();
    ip_client.flags = flags;
    ASSERT_TRUE(wait_until([] { return iod("va") != 0; }, patience));
  }
  void open_queue() {
    ASSERT_NE(ip_init_mts(&ip_client.data_q, -1), 0u);
    has_queue_ = true;
  }

  static size_t count(uint16_t minor, uint32_t outcome) {
    return static_cast<size_t>(ipd_test::shown_packets(minor, outcome));
  }
  // Asks, and waits until ipd has handled it with this outcome.
  static void ask(uint32_t type, uint32_t code, const Bytes &offending, uint32_t rest = 0,
                  uint32_t outcome = IP_SHOW_PACKET_DONE) {
    const size_t before = count(IP_MSG_ICMP_ERROR, outcome);
    ASSERT_EQ(ip_icmp_error(iod("va"), chain_of(offending), type, code, &ip_client, 0, rest), 1u);
    EXPECT_TRUE(wait_until([=] { return count(IP_MSG_ICMP_ERROR, outcome) > before; }, patience))
        << "type " << type << " code " << code;
  }
  static void ask_many(uint32_t how_many, const Bytes &offending) {
    const auto handled = [] {
      return count(IP_MSG_ICMP_ERROR, IP_SHOW_PACKET_DONE) + count(IP_MSG_ICMP_ERROR, IP_SHOW_PACKET_RATE_LIMITED);
    };
    const size_t before = handled();
    for (uint32_t i = 0; i < how_many; ++i) {
      ASSERT_EQ(ip_icmp_error(iod("va"), chain_of(offending), icmp::unreachable, 1, &ip_client, 0, 0), 1u);
    }
    ASSERT_TRUE(wait_until([=] { return handled() == before + how_many; }, patience)) << handled() - before;
  }

  // The error of this type and code about the packet, as everybody should see it.
  static IcmpSeen error_about(const Bytes &offending, uint32_t type, uint32_t code, size_t quoted) {
    IcmpSeen error;
    error.source = "10.0.0.1,10.0.0.2";
    error.destination = "10.0.0.2,192.0.2.7";
    error.tos = "0xc0,0x00";
    error.ttl = "64,3";
    error.length = std::to_string(28 + quoted) + "," + std::to_string(ipv4::total_length(offending));
    error.header_checksum = "1,1";
    error.type = std::to_string(type);
    error.code = std::to_string(code);
    error.checksum = "1";
    error.data = digits_of(std::span(offending).first(quoted).subspan(ipv4::header_length(offending)));
    return error;
  }
  static IcmpSeen error_about(const Bytes &offending, uint32_t type, uint32_t code) {
    return error_about(offending, type, code, offending.size());
  }
  void expect_error(size_t index, const IcmpSeen &expected) {
    auto error = wire->wait_for(index);
    ASSERT_TRUE(error) << wire->output();
    EXPECT_TRUE(error->identification.ends_with(",0xabcd")) << error->identification << ": it is not quoted as it came";
    error->identification.clear();
    EXPECT_TRUE(*error == expected) << wire->output();
  }
  void expect_nothing_more_than(size_t packets) {
    ASSERT_TRUE(wire->mark(ifindex("va"))) << wire->output();
    EXPECT_EQ(wire->seen().size(), packets) << wire->output();
  }

  std::optional<IcmpWire> wire;

 private:
  bool has_queue_ = false;
};

// By both ways in which a packet goes to ipd.
class IcmpOnTheWire : public IcmpWireTest, public testing::WithParamInterface<uint32_t> {
 protected:
  void SetUp() override {
    IcmpWireTest::SetUp();
    start_ipd();
    become_client(GetParam());
  }
};
INSTANTIATE_TEST_SUITE_P(Carriage, IcmpOnTheWire, testing::Values(0u, IP_CLIENT_RECV_MTS),
                         [](const auto &param) { return param.param == 0 ? "ByReference" : "BySegments"; });

TEST_P(IcmpOnTheWire, ErrorsOfEachTypeQuoteThePacket) {
  const Bytes offending = packet_of({.protocol = experimental});
  ask(icmp::unreachable, 1, offending);
  ask(icmp::unreachable, 4, offending, 1280);
  ask(icmp::redirect, 1, offending, second_neighbor);
  ask(icmp::time_exceeded, 0, offending);
  ask(icmp::parameter_problem, 0, offending, 20u << 24);
  expect_error(0, error_about(offending, 3, 1));
  IcmpSeen too_big = error_about(offending, 3, 4);
  too_big.mtu = "1280";
  expect_error(1, too_big);
  IcmpSeen redirect = error_about(offending, 5, 1);
  redirect.gateway = "10.0.0.3";
  redirect.data.resize(16);  // tshark shows no more of a redirect than what RFC 792 asks for
  expect_error(2, redirect);
  expect_error(3, error_about(offending, 11, 0));
  IcmpSeen problem = error_about(offending, 12, 0);
  problem.pointer = "20";
  expect_error(4, problem);
  expect_nothing_more_than(5);
}

TEST_P(IcmpOnTheWire, ALongPacketIsQuotedUpTo576Bytes) {
  const Bytes offending = packet_of({.protocol = experimental}, 1480);
  ask(icmp::unreachable, 4, offending);
  IcmpSeen error = error_about(offending, 3, 4, 548);
  error.mtu = "1400";  // of the way that it would have to go
  expect_error(0, error);
}

TEST_P(IcmpOnTheWire, NoneIsSentThatMustNotBe) {
  const Bytes forbidden[] = {
      icmp_packet(icmp::time_exceeded),
      packet_of({.fragment = 4}),
      packet_of({.destination = address(239, 1, 2, 3)}),
      packet_of({.destination = address(10, 0, 0, 255)}),
      packet_of({.destination = 0xffffffff}),
      packet_of({.source = 0}),
      packet_of({.source = address(127, 0, 0, 1)}),
      packet_of({.source = address(224, 0, 0, 5)}),
      packet_of({.source = address(10, 0, 0, 255)}),
      packet_of({.source = address(240, 0, 0, 1)}),
  };
  for (const Bytes &offending : forbidden) {
    ask(icmp::unreachable, 1, offending, 0, IP_SHOW_PACKET_NOT_ELIGIBLE);
  }
  ask(icmp::source_quench, 0, packet_of({}), 0, IP_SHOW_PACKET_BAD_FIELD);
  ask(icmp::redirect, 0, packet_of({}), second_neighbor, IP_SHOW_PACKET_BAD_FIELD);
  expect_nothing_more_than(0);
}

TEST_P(IcmpOnTheWire, ACompletePacketLeavesWithItsChecksumFilledIn) {
  Bytes echo = packet_of({.source = 0, .destination = neighbor, .protocol = icmp::protocol}, 24);
  ipv4::write16(echo, 20, icmp::echo_request << 8);
  ipv4::write16(echo, 22, 0);
  ASSERT_EQ(ip_cl_icmp_output(0, chain_of(echo), 0, &ip_client, 0), 1u);
  const auto seen = wire->wait_for(0);
  ASSERT_TRUE(seen) << wire->output();
  EXPECT_EQ(seen->type, "8");
  EXPECT_EQ(seen->checksum, "1");
  EXPECT_EQ(seen->header_checksum, "1");
  EXPECT_EQ(seen->source, "10.0.0.1");
  EXPECT_EQ(seen->destination, "10.0.0.2");
  EXPECT_EQ(seen->data, digits_of(std::span(echo).subspan(28)));
}

TEST_P(IcmpOnTheWire, APacketOfAnotherProtocolIsNotSentAsIcmp) {
  ASSERT_EQ(ip_cl_icmp_output(0, chain_of(packet_of({.destination = neighbor})), 0, &ip_client, 0), 1u);
  EXPECT_TRUE(wait_until([] { return count(IP_MSG_ICMP_OUTPUT, IP_SHOW_PACKET_BAD_PACKET) == 1; }, patience));
  expect_nothing_more_than(0);
}

TEST_F(IcmpWireTest, MoreErrorsThanADestinationMayGetAreNotSentAndCounted) {
  start_ipd();
  become_client(0);
  constexpr uint32_t wanted = 100;
  ask_many(wanted, packet_of({.protocol = experimental}));
  const size_t sent = count(IP_MSG_ICMP_ERROR, IP_SHOW_PACKET_DONE);
  EXPECT_GE(sent, 6u);
  EXPECT_LT(sent, wanted);
  expect_nothing_more_than(sent);
  ask(icmp::unreachable, 1, packet_of({.source = second_neighbor, .protocol = experimental}));
  const auto other = wire->wait_for(sent);
  ASSERT_TRUE(other) << wire->output();
  EXPECT_EQ(other->destination, "10.0.0.3,192.0.2.7");
}

TEST_F(IcmpWireTest, ALimitThatTheConfigurationLiftsIsLiftedAtOnce) {
  write_configuration(R"({"icmp_errors": {"destination_rate": 1, "destination_burst": 1}})");
  start_ipd({"--config", configuration_file()});
  become_client(0);
  ask_many(50, packet_of({.protocol = experimental}));
  EXPECT_GT(count(IP_MSG_ICMP_ERROR, IP_SHOW_PACKET_RATE_LIMITED), 0u);
  write_configuration(R"({"icmp_errors": {"rate": 0, "destination_rate": 0}})");
  ipd_.signal(SIGHUP);
  ASSERT_TRUE(wait_until([this] { return ipd_said("configuration read again"); }, patience)) << ipd_.output();
  const size_t limited = count(IP_MSG_ICMP_ERROR, IP_SHOW_PACKET_RATE_LIMITED);
  ask_many(200, packet_of({.protocol = experimental}));
  EXPECT_EQ(count(IP_MSG_ICMP_ERROR, IP_SHOW_PACKET_RATE_LIMITED), limited);
  expect_nothing_more_than(count(IP_MSG_ICMP_ERROR, IP_SHOW_PACKET_DONE));
}

TEST_F(IcmpWireTest, ADriverThatNeverRegisteredHasAnErrorSent) {
  start_ipd();
  open_queue();
  const Bytes offending = packet_of({.protocol = experimental}, 1480);
  for (const uint32_t quoted : {28u, 68u}) {
    ASSERT_EQ(ip_driver_send_icmp_unreachable(quoted, offending.data()), 1u);
  }
  IcmpSeen error = error_about(offending, 3, 4, 28);
  error.mtu = "1400";
  expect_error(0, error);
  error = error_about(offending, 3, 4, 68);
  error.mtu = "1400";
  expect_error(1, error);
  EXPECT_TRUE(wait_until([] { return count(IP_MSG_DRIVER_ICMP, IP_SHOW_PACKET_DONE) == 2; }, patience));
}

}  // namespace
