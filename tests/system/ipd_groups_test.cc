// SPDX-License-Identifier: Apache-2.0
// What a client reads about multicast, load sharing and router ids, while real sockets join and leave and the kernel
// counts.
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "im.h"
#include "ip_api.h"
#include "ipd/publish/publisher.h"
#include "ipd_fixture.h"

namespace {

using ipd_test::groups_of;
using ipd_test::IpdTest;
using test_support::wait_until;
using Groups = std::vector<uint32_t>;

constexpr uint32_t all_hosts = 0xe0000001;
constexpr uint32_t stream = 0xef010203;

// A socket and what it has joined.
class Member {
 public:
  Member() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
  ~Member() { close(socket_); }
  Member(const Member &) = delete;
  Member &operator=(const Member &) = delete;

  bool change(int option, int ifindex, uint32_t group) {
    ip_mreqn request{};
    request.imr_multiaddr.s_addr = htonl(group);
    request.imr_ifindex = ifindex;
    return setsockopt(socket_, IPPROTO_IP, option, &request, sizeof request) == 0;
  }
  bool join(int ifindex, uint32_t group) { return change(IP_ADD_MEMBERSHIP, ifindex, group); }
  bool leave(int ifindex, uint32_t group) { return change(IP_DROP_MEMBERSHIP, ifindex, group); }
  bool send_to(int ifindex, uint32_t group) {
    ip_mreqn out{};
    out.imr_ifindex = ifindex;
    if (setsockopt(socket_, IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof out) != 0) return false;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9999);
    to.sin_addr.s_addr = htonl(group);
    return sendto(socket_, "x", 1, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 1;
  }

 private:
  int socket_;
};

bool groups_become(uint32_t iod, const Groups &groups) {
  return wait_until([&] { return groups_of(iod) == groups; }, std::chrono::seconds(30));
}

uint32_t received(uint32_t iod) {
  uint32_t packets = 0;
  return ip_get_mcast_pkt_stats_orig(iod, &packets, nullptr, nullptr, nullptr, nullptr) == 1 ? packets : 0;
}

bool load_share_becomes(uint32_t mode, uint32_t value) {
  return wait_until([&] {
    ip_ecmp_loadshare_status status{};
    return ip_get_ecmp_loadshare_status(&status) == 1 && status.mode == mode && status.value == value;
  });
}

class IpdGroupsTest : public IpdTest {
 protected:
  void make_pair() { add_pair("va", "vb"); }
};

TEST_F(IpdGroupsTest, AClientSeesWhatSocketsJoinAndLeave) {
  make_pair();
  Member early;
  ASSERT_TRUE(early.join(ifindex("va"), stream));
  start_ipd();
  attach();
  EXPECT_EQ(groups_of(iod("va")), (Groups{all_hosts, stream})) << "there when ipd says that it is live";
  EXPECT_EQ(groups_of(iod("lo")), Groups{all_hosts});

  Member late;
  ASSERT_TRUE(late.join(ifindex("va"), stream + 1));
  ASSERT_TRUE(late.join(ifindex("lo"), stream + 2));
  EXPECT_TRUE(groups_become(iod("va"), {all_hosts, stream, stream + 1}));
  EXPECT_TRUE(groups_become(iod("lo"), {all_hosts, stream + 2}));
  EXPECT_EQ(groups_of(iod("vb")), Groups{all_hosts});
  ASSERT_TRUE(early.leave(ifindex("va"), stream));
  EXPECT_TRUE(groups_become(iod("va"), {all_hosts, stream + 1}));
}

TEST_F(IpdGroupsTest, GroupsFollowTheInterface) {
  make_pair();
  start_ipd();
  attach();
  const uint32_t there = iod("va");
  Member member;
  ASSERT_TRUE(member.join(ifindex("va"), stream));
  ASSERT_TRUE(groups_become(there, {all_hosts, stream}));
  ip("link set va down");
  EXPECT_TRUE(groups_become(there, {stream})) << "the kernel keeps what was joined, and leaves 224.0.0.1";
  ip("link set va name uplink");
  ip("link set uplink up");
  EXPECT_TRUE(groups_become(there, {all_hosts, stream}));
  EXPECT_EQ(iod("uplink"), there);
}

TEST_F(IpdGroupsTest, AnInterfaceUnderAnIfindexThatWasAnothersHasItsOwnGroups) {
  ip("link add va index 77 type veth peer name vb");
  ip("link set va up");
  ip("link set vb up");
  start_ipd();
  attach();
  const uint32_t before = iod("va");
  Member member;
  ASSERT_TRUE(member.join(77, stream));
  ASSERT_TRUE(groups_become(before, {all_hosts, stream}));
  ip("link del va");
  ip("link add vn index 77 type veth peer name vo");
  ip("link set vn up");
  ip("link set vo up");
  ASSERT_TRUE(wait_until([&] { return iod("vn") != 0 && iod("vn") != before; }));
  EXPECT_TRUE(groups_become(iod("vn"), {all_hosts}));
  EXPECT_EQ(groups_of(before), Groups{});
}

TEST_F(IpdGroupsTest, ManyJoinsInAMomentAreAllThere) {
  make_pair();
  start_ipd();
  attach();
  Groups expected{all_hosts};
  std::vector<std::unique_ptr<Member>> members;
  for (uint32_t i = 0; i < 300; ++i) {
    if (i % 20 == 0) members.push_back(std::make_unique<Member>());  // net.ipv4.igmp_max_memberships
    ASSERT_TRUE(members.back()->join(ifindex("va"), stream + i));
    expected.push_back(stream + i);
  }
  EXPECT_TRUE(groups_become(iod("va"), expected));
  members.clear();
  EXPECT_TRUE(groups_become(iod("va"), {all_hosts}));
}

// A veth device does not count multicast packets, a macvlan device on it does.
TEST_F(IpdGroupsTest, ReceivedMulticastPacketsAreCountedLive) {
  make_pair();
  ip("link add mac0 link vb type macvlan mode bridge");
  ip("link set mac0 up");
  ip("addr add 10.0.0.1/24 dev va");
  start_ipd();
  attach();
  const uint32_t there = iod("mac0");
  ASSERT_TRUE(wait_until([&] { return ip_get_mcast_byte_stats_orig(there, nullptr, nullptr) == 1; }));
  Member listener;
  ASSERT_TRUE(listener.join(ifindex("mac0"), stream));
  const uint32_t before = received(there);
  Member sender;
  uint32_t sent = 0;
  EXPECT_TRUE(wait_until(
      [&] {
        sent += sender.send_to(ifindex("va"), stream) ? 1 : 0;
        return received(there) >= before + 20;
      },
      std::chrono::seconds(60)));
  EXPECT_GE(sent, 1u);

  // A restart tells the same counter, not another one.
  const uint32_t counted = received(there);
  ipd_.signal(SIGKILL);
  ipd_.wait();
  EXPECT_GE(received(there), counted);
  start_ipd();
  EXPECT_GE(received(there), counted) << "there from the first moment";
  EXPECT_TRUE(wait_until(
      [&] {
        (void)sender.send_to(ifindex("va"), stream);
        return received(there) > counted + 5;
      },
      std::chrono::seconds(60)));
}

TEST_F(IpdGroupsTest, GroupsAreThereThroughAKillAndARestart) {
  make_pair();
  Member member;
  ASSERT_TRUE(member.join(ifindex("va"), stream));
  start_ipd();
  attach();
  const uint32_t there = iod("va");
  ASSERT_TRUE(groups_become(there, {all_hosts, stream}));
  ipd_.signal(SIGKILL);
  ipd_.wait();
  ASSERT_TRUE(member.join(ifindex("va"), stream + 1));
  EXPECT_EQ(groups_of(there), (Groups{all_hosts, stream}));
  start_ipd();
  EXPECT_EQ(iod("va"), there);
  EXPECT_EQ(groups_of(there), (Groups{all_hosts, stream, stream + 1})) << "when ipd says that it is live";
}

// Nothing but a publisher counts asserts yet: this one stands for the ipd that was there before.
TEST_F(IpdGroupsTest, TheCountOfPimAssertsOutlivesKillsAndRestarts) {
  {
    std::string reason;
    const auto earlier = ipd::Publisher::open(&reason);
    ASSERT_NE(earlier, nullptr) << reason;
    ipd::InterfaceState loopback{};
    loopback.ifindex = 1;
    loopback.name = "lo";
    loopback.loopback = true;
    loopback.context_id = 1;
    ASSERT_TRUE(earlier->set_context({.id = 1, .name = "default", .table_id = 254, .router_id = 0}));
    ASSERT_TRUE(earlier->set_interface(loopback));
    ASSERT_TRUE(earlier->set_pim_asserts(1, 4711));
    ASSERT_TRUE(earlier->commit());
  }
  start_ipd();
  attach();
  EXPECT_EQ(ip_get_pim_assert_sent_count(iod("lo")), 4711u);
  ipd_.signal(SIGKILL);
  ipd_.wait();
  EXPECT_EQ(ip_get_pim_assert_sent_count(iod("lo")), 4711u);
  start_ipd();
  EXPECT_EQ(ip_get_pim_assert_sent_count(iod("lo")), 4711u);
  EXPECT_EQ(groups_of(iod("lo")), Groups{all_hosts});
}

TEST_F(IpdGroupsTest, TheLoadShareSettingIsTheKernelsUnlessItIsConfigured) {
  set_sysctl("fib_multipath_hash_policy", "1");
  write_configuration("{}");
  start_ipd({"--config", configuration_file()});
  attach();
  EXPECT_TRUE(load_share_becomes(1, 0));
  set_sysctl("fib_multipath_hash_fields", "55");
  set_sysctl("fib_multipath_hash_policy", "3");
  EXPECT_TRUE(load_share_becomes(3, 55));
  write_configuration(R"({"load_share": {"mode": "inner-l3", "value": 16909060}})");
  ipd_.signal(SIGHUP);
  EXPECT_TRUE(load_share_becomes(2, 0x01020304));
  write_configuration("{}");
  ipd_.signal(SIGHUP);
  EXPECT_TRUE(load_share_becomes(3, 55));
}

TEST_F(IpdGroupsTest, EachContextHasARouterIdAndTheInterfaceItCameFrom) {
  make_pair();
  ip("addr add 10.9.0.1/24 dev va");
  ip("addr add 10.8.0.1/24 dev vb");
  write_configuration(R"({"contexts": [{"name": "lab", "table": 1000, "interfaces": ["vb"]}]})");
  start_ipd({"--config", configuration_file()});
  attach();
  EXPECT_EQ(ip_get_router_id_by_name("default"), 0x0a090001u);
  EXPECT_EQ(ip_get_router_id_iod_by_name("default"), iod("va"));
  EXPECT_EQ(ip_get_router_id_by_name("lab"), 0x0a080001u);
  EXPECT_EQ(ip_get_router_id_iod_by_name("lab"), iod("vb"));
  EXPECT_EQ(ip_get_router_id(1), 0x0a090001u);

  ip("addr add 1.1.1.1/32 dev lo");
  EXPECT_TRUE(wait_until([] { return ip_get_router_id(1) == 0x01010101u; })) << "a loopback's goes before a higher one";
  EXPECT_EQ(ip_get_router_id_iod(1), iod("lo"));
  EXPECT_EQ(ip_get_router_id_by_name("lab"), 0x0a080001u) << "another context's loopback does not count";

  write_configuration(
      R"({"router_id": "10.9.0.1", "contexts": [{"name": "lab", "table": 1000, "interfaces": ["vb"], "router_id": "9.9.9.9"}]})");
  ipd_.signal(SIGHUP);
  EXPECT_TRUE(wait_until([] { return ip_get_router_id_by_name("lab") == 0x09090909u; }));
  EXPECT_EQ(ip_get_router_id_iod_by_name("lab"), 0u) << "no interface has it";
  EXPECT_EQ(ip_get_router_id(1), 0x0a090001u);
  EXPECT_EQ(ip_get_router_id_iod(1), iod("va"));
  EXPECT_EQ(ip_get_router_id(4711), 0u);
}

}  // namespace
