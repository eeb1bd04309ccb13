// SPDX-License-Identifier: Apache-2.0
// The example VRRP speaker and keepalived in a second namespace elect the holder of an address. What a client finds
// about the address is the speaker's doing: ipd, the speaker and the library, without a keepalived here.
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <optional>

#include "im.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "keepalived_router.h"
#include "peer_sender.h"
#include "support/kernel_routes.h"

namespace {

using ipd_test::IpdTest;
using test_support::host_order;
using test_support::KeepalivedRouter;
using test_support::PeerNamespace;
using test_support::Process;
using test_support::wait_until;

constexpr auto deadline = std::chrono::seconds(60);
constexpr uint32_t default_context = 1;
constexpr char shared[] = "10.0.0.100";
constexpr char peer_address[] = "10.0.0.102";

// RFC 5798, 5.1: an advertisement of one address, as the peer sends it; in network order.
struct Advertisement {
  uint8_t version_type = 0x31, vrid = 51, priority = 255, count = 1;
  uint16_t interval = htons(4095);  // so that nobody misses the next one while a test looks
  uint16_t checksum = 0;
  uint32_t address = htonl(0x0a000064);
};

// With the pseudo-header that RFC 5798, 5.2.8 asks for.
void fill_checksum(Advertisement *message) {
  const uint8_t pseudo_header[] = {10, 0, 0, 102, 224, 0, 0, 18, 0, 112, 0, sizeof *message};
  uint32_t sum = 0;
  const auto add = [&sum](const uint8_t *bytes, size_t size) {
    for (size_t i = 0; i < size; i += 2) sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
  };
  message->checksum = 0;
  add(pseudo_header, sizeof pseudo_header);
  add(reinterpret_cast<const uint8_t *>(message), sizeof *message);
  while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
  message->checksum = htons(static_cast<uint16_t>(~sum));
}

class VrrpSpeakerTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    peer_ = std::make_unique<PeerNamespace>();
    kernel_ = std::make_unique<test_support::KernelRoutes>();
    ASSERT_EQ(test_support::connect("va", "10.0.0.101/24", *peer_, "vb", std::string(peer_address) + "/24"), "");
    write_configuration(R"({"vips": [{"interface": "va", "address": "10.0.0.100"}]})");
    ASSERT_NO_FATAL_FAILURE(start_ipd({"--config", configuration_file()}));
    attach();
    // A new link has its carrier a moment after it was set up.
    ASSERT_TRUE(wait_until([] { return im_is_if_up(iod("va")) != 0; }, deadline));
  }

  void start_speaker(const std::string &priority) {
    speaker_ = Process({VRRP_SPEAKER, "va", "51", priority, "20", shared});
    ASSERT_TRUE(says("backup: just begun\n")) << speaker_.output();
  }
  void start_keepalived(unsigned priority) {
    keepalived_ = std::make_unique<KeepalivedRouter>(
        run_directory_.path(), test_support::VrrpDescription{"there", "vb", "", shared, priority}, peer_.get());
  }

  // What it says from here on.
  bool says(const std::string &text) {
    size_t found = 0;
    const bool said = wait_until(
        [&] {
          found = speaker_.output().find(text, read_);
          return found != std::string::npos || !speaker_.running();
        },
        deadline);
    if (!said || found == std::string::npos) return false;
    read_ = found + text.size();
    return true;
  }
  bool the_peer_holds_it() {
    const auto command = peer_->command({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -4 addr show dev vb"});
    std::string text;
    return test_support::run(command, &text) == 0 && text.find(std::string(shared) + "/32") != std::string::npos;
  }
  bool keepalived_gave_way() {
    const std::string log = keepalived_->log();
    const size_t master = log.find("Entering MASTER STATE");
    return master != std::string::npos && log.find("Entering BACKUP STATE", master) != std::string::npos;
  }
  // The interface that clients find the address on: as a virtual one, and while it is here.
  static uint32_t found_on() { return ip_is_addr_local_vip(default_context, host_order(shared)); }
  static uint32_t active_on() { return ip_is_addr_local_active("default", host_order(shared)); }

  // The address is published when the speaker says that it is the master; its local route comes right behind.
  void expect_master() {
    ASSERT_TRUE(says("master\n")) << everything();
    EXPECT_EQ(found_on(), iod("va"));
    EXPECT_EQ(kernel_->way({.dest = host_order(shared)}).type, RTN_LOCAL);
    EXPECT_TRUE(wait_until([] { return active_on() == iod("va"); }, deadline)) << everything();
  }
  void expect_backup(const std::string &why) {
    ASSERT_TRUE(says("backup: " + why + "\n")) << everything();
    EXPECT_TRUE(wait_until([] { return active_on() == 0; }, deadline)) << everything();
    EXPECT_EQ(found_on(), iod("va")) << "it stays a virtual address of the configuration";
    EXPECT_EQ(ip_get_local_addr(iod("va")), host_order("10.0.0.101"));
  }
  std::string everything() {
    return "speaker:\n" + speaker_.output() + "keepalived:\n" + (keepalived_ == nullptr ? "" : keepalived_->log()) +
           "ipd:\n" + ipd_.output();
  }
  // From the peer, once for each.
  void advertise(const std::vector<Advertisement> &messages, int ttl = 255) {
    EXPECT_EQ(test_support::run_in(*peer_, [&] { return send_all(messages, ttl); }), 0);
  }
  static int send_all(const std::vector<Advertisement> &messages, int ttl) {
    const int sender = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, 112);
    ip_mreqn by{};
    by.imr_address.s_addr = htonl(host_order(peer_address));
    if (setsockopt(sender, IPPROTO_IP, IP_MULTICAST_IF, &by, sizeof by) != 0 ||
        setsockopt(sender, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) != 0) {
      return 1;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(0xe0000012);
    for (const Advertisement &message : messages) {
      const auto sent = sendto(sender, &message, sizeof message, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
      if (sent != sizeof message) return 2;
    }
    return 0;
  }

  std::unique_ptr<PeerNamespace> peer_;
  std::unique_ptr<test_support::KernelRoutes> kernel_;
  Process speaker_;
  std::unique_ptr<KeepalivedRouter> keepalived_;
  size_t read_ = 0;
};

TEST_F(VrrpSpeakerTest, WithTheHigherPriorityItTakesTheAddressFromKeepalivedAndGivesItBackWhenItEnds) {
  start_keepalived(100);
  ASSERT_TRUE(wait_until([&] { return the_peer_holds_it(); }, deadline)) << everything();
  start_speaker("200");
  expect_master();
  EXPECT_TRUE(wait_until([&] { return !the_peer_holds_it(); }, deadline)) << everything();
  EXPECT_TRUE(wait_until([&] { return keepalived_gave_way(); }, deadline)) << everything();
  speaker_.signal(SIGTERM);
  EXPECT_EQ(speaker_.wait(), 0) << everything();
  EXPECT_NE(kernel_->way({.dest = host_order(shared)}).type, RTN_LOCAL) << "it is withdrawn when the speaker has ended";
  EXPECT_TRUE(wait_until([] { return active_on() == 0; }, deadline));
  EXPECT_TRUE(wait_until([&] { return the_peer_holds_it(); }, deadline)) << everything();
}

TEST_F(VrrpSpeakerTest, WithTheLowerPriorityItIsTheMasterAsLongAsKeepalivedIsNotThere) {
  start_speaker("100");
  expect_master();
  start_keepalived(200);
  expect_backup(peer_address);
  EXPECT_TRUE(wait_until([&] { return the_peer_holds_it(); }, deadline)) << everything();
  EXPECT_TRUE(keepalived_->stop());
  expect_master();
  start_keepalived(200);
  expect_backup(peer_address);
  speaker_.signal(SIGINT);
  EXPECT_EQ(speaker_.wait(), 0) << everything();
  EXPECT_TRUE(wait_until([&] { return the_peer_holds_it(); }, deadline)) << everything();
}

TEST_F(VrrpSpeakerTest, AnIpdThatIsStartedAgainHasItAgain) {
  start_speaker("200");
  expect_master();
  ipd_.kill_now();
  EXPECT_TRUE(says("outside: ipd is gone\n")) << everything();
  start_ipd({"--config", configuration_file()});
  expect_backup("just begun");
  expect_master();
  start_keepalived(250);
  expect_backup(peer_address);
}

TEST_F(VrrpSpeakerTest, AdvertisementsThatAreNotRightAreDropped) {
  start_speaker("200");
  expect_master();
  Advertisement good;
  fill_checksum(&good);
  advertise({good}, 254);
  EXPECT_TRUE(says("its TTL is not 255")) << everything();
  Advertisement of_another = good;
  of_another.vrid = 52;
  fill_checksum(&of_another);
  Advertisement damaged = good;
  damaged.checksum ^= 1;
  advertise({of_another, damaged});
  EXPECT_TRUE(says("its checksum is wrong")) << everything();
  Advertisement older = good;
  older.version_type = 0x21;
  fill_checksum(&older);
  advertise({older});
  EXPECT_TRUE(says("no advertisement of version 3")) << everything();
  Advertisement shorter = good;
  shorter.count = 2;
  fill_checksum(&shorter);
  advertise({shorter});
  EXPECT_TRUE(says("not as long as its addresses")) << everything();
  EXPECT_EQ(active_on(), iod("va")) << everything();
  EXPECT_EQ(speaker_.output().find("backup: 10"), std::string::npos) << "none of them was a reason to give way";
  advertise({good});
  expect_backup(peer_address);
}

TEST_F(VrrpSpeakerTest, NeighborsAreToldWhoHasTheAddressNow) {
  ASSERT_EQ(peer_->ip("neigh replace 10.0.0.100 lladdr 02:00:00:00:00:63 dev vb nud stale"), "");
  start_speaker("200");
  expect_master();
  std::string ours, known;
  ASSERT_EQ(test_support::run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -br link show va"}, &ours), 0);
  const auto command = peer_->command({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip neigh show 10.0.0.100"});
  const auto is_ours = [&] {
    if (test_support::run(command, &known) != 0) return false;
    const size_t address = known.find("lladdr ");
    return address != std::string::npos && ours.find(known.substr(address + 7, 17)) != std::string::npos;
  };
  EXPECT_TRUE(wait_until(is_ours, deadline)) << "the peer knows: " << known << "and we are " << ours;
}

TEST_F(VrrpSpeakerTest, OtherAddressesThanItsOwnAreTold) {
  start_speaker("200");
  Advertisement other;
  other.address = htonl(0x0a000065);
  fill_checksum(&other);
  advertise({other});
  EXPECT_TRUE(says("10.0.0.102 advertises other addresses\n")) << everything();
}

TEST_F(VrrpSpeakerTest, OfEqualsTheOneWithTheHigherAddressWins) {
  start_speaker("200");
  expect_master();
  Advertisement equal;
  equal.priority = 200;
  fill_checksum(&equal);
  advertise({equal});
  expect_backup(peer_address);
}

TEST_F(VrrpSpeakerTest, WhatIsMissingIsSaid) {
  std::string output;
  EXPECT_EQ(test_support::run({VRRP_SPEAKER, "--help"}, &output), 0);
  EXPECT_TRUE(output.starts_with("usage: vrrp_speaker ")) << output;
  EXPECT_EQ(test_support::run({VRRP_SPEAKER, "va", "51"}, &output), 2);
  EXPECT_EQ(test_support::run({VRRP_SPEAKER, "va", "256", "200", "20", shared}, &output), 2);
  EXPECT_NE(output.find("256 is not a number from 1 to 255"), std::string::npos) << output;
  EXPECT_EQ(test_support::run({VRRP_SPEAKER, "va", "51", "200", "20", "10.0.0"}, &output), 2);
  EXPECT_NE(output.find("10.0.0 is not an IPv4 address"), std::string::npos) << output;
  EXPECT_EQ(test_support::run({VRRP_SPEAKER, "vx", "51", "200", "20", shared}, &output), 1);
  EXPECT_NE(output.find("there is no such interface"), std::string::npos) << output;
  const test_support::RunDirectory empty;
  EXPECT_EQ(test_support::run({VRRP_SPEAKER, "va", "51", "200", "20", shared}, &output), 1);
  EXPECT_NE(output.find("no ipd to ask"), std::string::npos) << output;
}

}  // namespace
