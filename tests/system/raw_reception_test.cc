// SPDX-License-Identifier: Apache-2.0
// Packets from this kernel and into it, in a network namespace of the test's own.
#include "ipd/kernel/raw_reception.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ipd/kernel/tun_input.h"
#include "ipd/packet/ipv4.h"
#include "support/network_namespace.h"
#include "support/peer_namespace.h"
#include "support/run_directory.h"

namespace {

using namespace ipd::kernel;
namespace ipv4 = ipd::packet::ipv4;
using test_support::wait_until;

using Bytes = std::vector<std::byte>;

constexpr uint8_t ospf = 89, pim = 103;
constexpr uint32_t loopback = 0x7f000001, local_address = 0x0a000001, elsewhere = 0xc0000201;
constexpr auto deadline = std::chrono::seconds(60);

struct Seen {
  uint32_t ifindex;
  bool truncated;
  Bytes bytes;
};

class KernelPacketsTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string reason;
    ASSERT_TRUE(test_support::enter_network_namespace(&reason)) << reason;
    ASSERT_EQ(test_support::run_ip("link set lo up"), "");
    ASSERT_EQ(test_support::run_ip("addr add 10.0.0.1/32 dev lo"), "");
    int error = 0;
    sockets_ = RawReception::make(&error);
    ASSERT_NE(sockets_, nullptr) << std::strerror(error);
  }

  // By a raw socket of the test's own, to an address of this system.
  static void send(uint8_t protocol, const Bytes &payload, uint32_t to = loopback) {
    const int descriptor = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, protocol);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(to);
    EXPECT_EQ(sendto(descriptor, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr *>(&address),
                     sizeof address),
              static_cast<ssize_t>(payload.size()))
        << std::strerror(errno);
    close(descriptor);
  }
  // Until the kernel has done with what was sent by the loopback interface, which it does later when it is busy.
  static bool all_are_delivered(uint64_t sent) {
    return wait_until([sent] { return delivered() >= sent; }, deadline);
  }
  // Of this namespace, from its beginning on: to whoever had room for them.
  static uint64_t delivered() {
    std::ifstream file("/proc/thread-self/net/snmp");
    std::string names, values;
    std::getline(file, names) && std::getline(file, values);
    std::istringstream name(names), value(values);
    for (std::string column, number; name >> column && value >> number;) {
      if (column == "InDelivers") return std::stoull(number);
    }
    return 0;
  }
  [[nodiscard]] bool readable() const {
    pollfd waiting{.fd = sockets_->descriptor(), .events = POLLIN, .revents = 0};
    return poll(&waiting, 1, 0) == 1;
  }
  size_t read(size_t most = 1000) {
    return sockets_->read(most, [this](const RawPacket &packet) {
      seen_.push_back({packet.ifindex, packet.truncated, {packet.bytes.begin(), packet.bytes.end()}});
    });
  }
  bool sees(size_t count) {
    return wait_until(
        [&] {
          read();
          return seen_.size() >= count;
        },
        deadline);
  }

  std::unique_ptr<RawReception> sockets_;
  std::vector<Seen> seen_;
};

Bytes filled(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::byte>(i * 7);
  return bytes;
}

Bytes packet_from(uint32_t source, uint32_t destination, uint8_t protocol, const Bytes &payload) {
  Bytes packet(ipv4::shortest_header, std::byte{0});
  ipv4::set_version_and_header_length(packet, ipv4::shortest_header);
  ipv4::write16(packet, ipv4::total_length_at, static_cast<uint16_t>(packet.size() + payload.size()));
  ipv4::write8(packet, ipv4::ttl_at, 7);
  ipv4::write8(packet, ipv4::protocol_at, protocol);
  ipv4::write32(packet, ipv4::source_at, source);
  ipv4::write32(packet, ipv4::destination_at, destination);
  ipv4::write_checksum(packet);
  for (const std::byte each : payload) packet.push_back(each);
  return packet;
}

TEST_F(KernelPacketsTest, AProtocolThatWasOpenedIsReceivedWithItsInterface) {
  ASSERT_EQ(sockets_->open(ospf), 0);
  const Bytes payload = filled(100);
  send(ospf, payload);
  ASSERT_TRUE(sees(1));
  EXPECT_EQ(seen_[0].ifindex, if_nametoindex("lo"));
  EXPECT_FALSE(seen_[0].truncated);
  ASSERT_EQ(seen_[0].bytes.size(), 120u);
  EXPECT_EQ(ipv4::total_length(seen_[0].bytes), 120u);
  EXPECT_EQ(ipv4::protocol(seen_[0].bytes), ospf);
  EXPECT_TRUE(std::equal(payload.begin(), payload.end(), seen_[0].bytes.begin() + 20));
}

TEST_F(KernelPacketsTest, TheDescriptorIsReadableWhileSomethingWaits) {
  ASSERT_EQ(sockets_->open(ospf), 0);
  EXPECT_FALSE(readable());
  send(ospf, filled(8));
  ASSERT_TRUE(wait_until([this] { return readable(); }, deadline));
  ASSERT_TRUE(sees(1));
  EXPECT_FALSE(readable());
}

TEST_F(KernelPacketsTest, OtherProtocolsAreNot) {
  ASSERT_EQ(sockets_->open(ospf), 0);
  send(pim, filled(8));
  send(ospf, filled(9));
  ASSERT_TRUE(sees(1));
  ASSERT_EQ(seen_.size(), 1u);
  EXPECT_EQ(seen_[0].bytes.size(), 29u);
}

TEST_F(KernelPacketsTest, AClosedProtocolIsReceivedNoMore) {
  ASSERT_EQ(sockets_->open(ospf), 0);
  ASSERT_EQ(sockets_->open(pim), 0);
  sockets_->close(ospf);
  sockets_->close(ospf);
  send(ospf, filled(8));
  send(pim, filled(9));
  ASSERT_TRUE(sees(1));
  ASSERT_EQ(seen_.size(), 1u);
  EXPECT_EQ(ipv4::protocol(seen_[0].bytes), pim);
}

TEST_F(KernelPacketsTest, OpeningTwiceDeliversOnce) {
  ASSERT_EQ(sockets_->open(ospf), 0);
  ASSERT_EQ(sockets_->open(ospf), 0);
  send(ospf, filled(8));
  send(ospf, filled(9));
  ASSERT_TRUE(sees(2));
  EXPECT_EQ(seen_.size(), 2u);
}

TEST_F(KernelPacketsTest, ThePacketIsWholeAlthoughItCameInFragments) {
  ASSERT_EQ(test_support::run_ip("link set lo mtu 1500"), "");
  ASSERT_EQ(sockets_->open(ospf), 0);
  const Bytes payload = filled(60000);
  send(ospf, payload);
  ASSERT_TRUE(sees(1));
  ASSERT_EQ(seen_[0].bytes.size(), 60020u);
  EXPECT_FALSE(ipv4::is_fragment(seen_[0].bytes));
  EXPECT_EQ(ipv4::total_length(seen_[0].bytes), 60020u);
  EXPECT_TRUE(std::equal(payload.begin(), payload.end(), seen_[0].bytes.begin() + 20));
}

TEST_F(KernelPacketsTest, AFloodOfOneProtocolDoesNotHoldUpAnother) {
  ASSERT_EQ(sockets_->open(ospf), 0);
  ASSERT_EQ(sockets_->open(pim), 0);
  const uint64_t before = delivered();
  for (int i = 0; i < 500; ++i) send(ospf, filled(8));
  send(pim, filled(8));
  ASSERT_TRUE(all_are_delivered(before + 501));
  ASSERT_EQ(read(64), 64u);
  EXPECT_EQ(std::ranges::count_if(seen_, [](const Seen &each) { return ipv4::protocol(each.bytes) == pim; }), 1);
}

TEST_F(KernelPacketsTest, WhatTheKernelHasNoRoomForIsCounted) {
  ASSERT_EQ(sockets_->open(ospf), 0);
  constexpr size_t sent = 20000;
  const Bytes payload = filled(8);
  const uint64_t delivered_before = delivered();
  for (size_t i = 0; i < sent; ++i) send(ospf, payload);
  ASSERT_TRUE(all_are_delivered(delivered_before + sent));
  while (read() > 0) continue;
  ASSERT_LT(seen_.size(), sent) << "there was room for all of them";
  // The count comes with the next packet.
  const size_t before = seen_.size();
  send(ospf, payload);
  ASSERT_TRUE(sees(before + 1));
  EXPECT_EQ(sockets_->lost(), sent + 1 - seen_.size());
}

TEST_F(KernelPacketsTest, WhoeverReadsMayCloseMeanwhile) {
  ASSERT_EQ(sockets_->open(ospf), 0);
  for (int i = 0; i < 3; ++i) send(ospf, filled(8));
  size_t seen = 0;
  ASSERT_TRUE(wait_until([this] { return readable(); }, deadline));
  sockets_->read(10, [&](const RawPacket &) {
    ++seen;
    sockets_->close(ospf);
  });
  EXPECT_EQ(seen, 1u);
}

TEST_F(KernelPacketsTest, WithoutTheRightNothingIsOpened) {
  const int status = test_support::Process([this] {
                       if (setresuid(65534, 65534, 65534) != 0) return 0;  // a user namespace without that user
                       return sockets_->open(ospf) == EPERM ? 0 : 1;
                     }).wait();
  EXPECT_EQ(status, 0);
}

TEST_F(KernelPacketsTest, WhatIsPutInComesInByTheDevice) {
  const auto tun = TunInput::make();
  EXPECT_EQ(tun->ifindex(), 0u);
  ASSERT_EQ(tun->open(), 0);
  EXPECT_EQ(tun->ifindex(), if_nametoindex("rswin0"));
  ASSERT_EQ(sockets_->open(ospf), 0);
  const Bytes packet = packet_from(elsewhere, local_address, ospf, filled(50));
  ASSERT_EQ(tun->input(packet), 0);
  ASSERT_TRUE(sees(1));
  EXPECT_EQ(seen_[0].ifindex, tun->ifindex());
  EXPECT_EQ(seen_[0].bytes, packet);
}

TEST_F(KernelPacketsTest, WhereTheSourceIsCheckedEverywhereThereIsNoDevice) {
  const auto check_everywhere = [](const char *how) {
    std::ofstream file("/proc/sys/net/ipv4/conf/all/rp_filter");
    file << how << std::flush;
    EXPECT_TRUE(file.good());
  };
  const auto tun = TunInput::make();
  for (const char *how : {"1", "2"}) {
    check_everywhere(how);
    EXPECT_EQ(tun->open(), ENOTSUP);
    EXPECT_EQ(tun->ifindex(), 0u);
    EXPECT_EQ(if_nametoindex("rswin0"), 0u);
    EXPECT_EQ(tun->input(packet_from(elsewhere, local_address, ospf, {})), ENOTSUP);
  }
  check_everywhere("0");
  EXPECT_EQ(tun->open(), 0);
}

TEST_F(KernelPacketsTest, APacketOfAnySizeGoesIn) {
  const auto tun = TunInput::make();
  ASSERT_EQ(tun->open(), 0);
  ASSERT_EQ(sockets_->open(ospf), 0);
  ASSERT_EQ(tun->input(packet_from(elsewhere, local_address, ospf, filled(65515))), 0);
  ASSERT_TRUE(sees(1));
  EXPECT_EQ(seen_[0].bytes.size(), 65535u);
}

TEST_F(KernelPacketsTest, TheDeviceIsGoneWhenItIsClosed) {
  const auto tun = TunInput::make();
  ASSERT_EQ(tun->open(), 0);
  ASSERT_EQ(tun->open(), 0);
  tun->close();
  EXPECT_EQ(if_nametoindex("rswin0"), 0u);
  EXPECT_EQ(tun->ifindex(), 0u);
  EXPECT_EQ(tun->input(packet_from(elsewhere, local_address, ospf, {})), EBADF);
  ASSERT_EQ(tun->open(), 0);
  EXPECT_NE(if_nametoindex("rswin0"), 0u);
}

TEST_F(KernelPacketsTest, WhatIsNoIpv4PacketIsRefused) {
  const auto tun = TunInput::make();
  ASSERT_EQ(tun->open(), 0);
  EXPECT_EQ(tun->input(Bytes(20, std::byte{0})), EINVAL);
}

TEST_F(KernelPacketsTest, WithoutTheRightThereIsNoDevice) {
  const int status = test_support::Process([] {
                       if (setresuid(65534, 65534, 65534) != 0) return 0;  // a user namespace without that user
                       const auto tun = TunInput::make();
                       const int error = tun->open();
                       return (error == EPERM || error == EACCES) && tun->ifindex() == 0 ? 0 : 1;
                     }).wait();
  EXPECT_EQ(status, 0);
}

}  // namespace
