// SPDX-License-Identifier: Apache-2.0
// Routes that a real routing peer finds: ipd and a router run in one namespace, two routers in others, in a triangle.
//
//            r1 (ipd, this process)
//        ra /      \ rb            10.12.12.0/24, 10.12.13.0/24
//          r2 ---- r3
//              rc                  10.12.23.0/24
//
// r2 and r3 announce hundreds of prefixes, some of them both at the same cost. Whatever OSPF has put into the kernel, a
// client of ipd answers as the kernel does, for random destinations.
#include <arpa/inet.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>

#define LIBIP_NO_INET_NTOA
#include "bird_router.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "route_agreement.h"
#include "support/kernel_routes.h"
#include "support/peer_namespace.h"

namespace {

using ipd_test::IpdTest;
using test_support::BirdRouter;
using test_support::DestinationsSeen;
using test_support::dotted;
using test_support::host_order;
using test_support::PeerNamespace;
using test_support::wait_until;

constexpr uint32_t default_context = 1;
constexpr int destinations = 10000;
constexpr int prefixes_of_each = 200;  // and as many of both

// Prefixes in 10.128.0.0/9, nested at random.
std::string random_prefix(std::mt19937 &random, std::set<std::string> &taken) {
  for (;;) {
    const auto len = static_cast<unsigned>(12 + random() % 19);
    const uint32_t addr = (0x0a800000u | (static_cast<uint32_t>(random()) & 0x7fffffu)) & (~0u << (32 - len));
    const std::string prefix = dotted(addr) + "/" + std::to_string(len);
    if (taken.insert(prefix).second) return prefix;
  }
}

class OspfPeersTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    RecordProperty("seed", std::to_string(seed));
    printf("seed %u\n", seed);
    r2_ = std::make_unique<PeerNamespace>();
    r3_ = std::make_unique<PeerNamespace>();
    ASSERT_EQ(test_support::connect("ra", "10.12.12.1/24", *r2_, "ra", "10.12.12.2/24"), "");
    ASSERT_EQ(test_support::connect("rb", "10.12.13.1/24", *r3_, "rb", "10.12.13.3/24"), "");
    ASSERT_EQ(test_support::connect(*r2_, "rc", "10.12.23.2/24", *r3_, "rc", "10.12.23.3/24"), "");
    // Not everything may be reached, whatever OSPF says about parts of it.
    for (const char *refused : {"unreachable 10.130.0.0/15", "blackhole 10.160.0.0/13", "prohibit 10.200.0.0/14"}) {
      ip(std::string("route add ") + refused);
    }
    start_ipd();
    attach();
    start_routers();
  }

  void start_routers() {
    std::set<std::string> taken;
    std::vector<test_support::AnnouncedPrefix> at_r2;
    std::vector<test_support::AnnouncedPrefix> at_r3;
    for (int i = 0; i < prefixes_of_each; ++i) {
      at_r2.push_back({random_prefix(random_, taken)});
      at_r3.push_back({random_prefix(random_, taken)});
      const std::string shared = random_prefix(random_, taken);
      at_r2.push_back({shared});
      at_r3.push_back({shared});
    }
    taken.insert("10.12.12.128/25");  // inside the subnet between r1 and r2
    at_r3.push_back({"10.12.12.128/25"});
    announced_ = std::move(taken);
    const std::string directory = run_directory_.path();
    const auto start = [&](const test_support::BirdDescription &description, const PeerNamespace *where) {
      routers_.push_back(std::make_unique<BirdRouter>(directory, description, where));
    };
    start({"r1", "10.0.0.1", {"ra", "rb"}, {}, true}, nullptr);
    start({"r2", "10.0.0.2", {"ra", "rc"}, at_r2, false}, r2_.get());
    start({"r3", "10.0.0.3", {"rb", "rc"}, at_r3, false}, r3_.get());
  }

  // How many of the announced routes the kernel has, and how many of them leave by this device, alone or beside
  // others.
  struct Learnt {
    size_t all = 0, by_ra = 0, multipath = 0;
  };
  Learnt learnt() const {
    const std::string text = kernels_own_words();
    Learnt found;
    for (size_t begin = 0; begin < text.size();) {
      const size_t end = std::min(text.find('\n', begin), text.size());
      const std::string line = text.substr(begin, end - begin);
      begin = end + 1;
      // OSPF knows the links' own subnets as well.
      if (!announced_.contains(line.substr(0, line.find(' ')))) continue;
      ++found.all;
      if (line.find("dev ra") != std::string::npos) ++found.by_ra;
      if (line.find("nexthop") != std::string::npos) ++found.multipath;
    }
    return found;
  }

  static std::string kernels_own_words() {
    std::string text;
    test_support::run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -o -4 route show proto bird"}, &text);
    return text;
  }

  bool wait_for_routes(const std::function<bool(const Learnt &)> &condition) {
    test_support::KernelRouteNews news;
    Learnt last = learnt();
    const auto running = [](const auto &router) { return router->running(); };
    const bool there = wait_until(
        [&] {
          if (condition(last)) return true;
          news.wait(std::chrono::milliseconds(200));
          last = learnt();
          return !std::all_of(routers_.begin(), routers_.end(), running);
        },
        std::chrono::seconds(90));
    if (!there || !condition(last)) {
      ADD_FAILURE() << last.all << " routes of " << announced_.size() << ", " << last.by_ra << " by ra, "
                    << last.multipath << " multipath\n"
                    << kernels_own_words();
      for (const auto &router : routers_) printf("%s\n", router->log().c_str());
    }
    return condition(last);
  }

  uint32_t random_destination() {
    const auto any = static_cast<uint32_t>(random_());
    switch (random_() % 8) {
      case 0:
        return any;
      case 1:
        return 0x0a0c0c00u + any % 0x1000u;  // the links between the routers, and beside them
      case 2:
        return 0x7f000000u + any % 0x200u;
      default:
        return 0x0a800000u | (any & 0x7fffffu);
    }
  }

  // The kernel has come to rest.
  DestinationsSeen expect_agreement() {
    std::vector<uint32_t> questions;
    for (int i = 0; i < destinations; ++i) questions.push_back(random_destination());
    const auto result = test_support::RouteAgreement().wait_for(questions);
    EXPECT_EQ(result.differences, 0) << "of " << destinations << ", the first: " << result.first;
    EXPECT_GT(result.seen.unicast, destinations / 4);
    EXPECT_GT(result.seen.local, destinations / 20);
    EXPECT_GT(result.seen.none, destinations / 20);
    return result.seen;
  }

  static constexpr uint32_t seed = 20240711;
  std::mt19937 random_{seed};
  std::unique_ptr<PeerNamespace> r2_;
  std::unique_ptr<PeerNamespace> r3_;
  std::vector<std::unique_ptr<BirdRouter>> routers_;  // gone before their namespaces
  std::set<std::string> announced_;
};

TEST_F(OspfPeersTest, AClientAnswersAsTheKernelDoesBeforeAndAfterOspfFindsAnotherWay) {
  ASSERT_TRUE(wait_for_routes([&](const Learnt &now) {
    return now.all == announced_.size() && now.multipath == prefixes_of_each && now.by_ra == 2 * prefixes_of_each;
  }));
  EXPECT_GT(expect_agreement().multipath, destinations / 20);
  // A way through r3 is the better one for half of the subnet between r1 and r2; the subnet is attached all the same.
  uint32_t out = 0;
  EXPECT_EQ(dotted(ip_get_route(default_context, htonl(host_order("10.12.12.200")), &out)), "10.12.13.1");
  EXPECT_EQ(out, iod("rb"));
  EXPECT_EQ(ip_is_addr_attached("default", host_order("10.12.12.200")), iod("ra"));

  // The link between r1 and r2 loses its carrier at r1's end: everything goes through r3.
  ASSERT_EQ(r2_->ip("link set ra down"), "");
  ASSERT_TRUE(wait_for_routes([&](const Learnt &now) { return now.all == announced_.size() && now.by_ra == 0; }));
  EXPECT_EQ(expect_agreement().multipath, 0);

  // It comes back, and then r1 takes its own end down: the link's subnet is attached no more.
  ASSERT_EQ(r2_->ip("link set ra up"), "");
  ASSERT_TRUE(wait_for_routes([&](const Learnt &now) { return now.multipath == prefixes_of_each; }));
  EXPECT_GT(expect_agreement().multipath, destinations / 20);
  ip("link set ra down");
  ASSERT_TRUE(wait_for_routes([&](const Learnt &now) { return now.all == announced_.size() && now.by_ra == 0; }));
  expect_agreement();
  EXPECT_EQ(ip_is_addr_attached("default", host_order("10.12.12.2")), 0u);
}

}  // namespace
