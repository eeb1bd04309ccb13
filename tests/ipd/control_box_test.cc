// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "ipd/control/live_box.h"
#include "ipd/kernel_messages.h"
#include "ipd/process/log.h"
#include "ipd/recording_publisher.h"

namespace {

using namespace ipd;
using namespace ipd::control;
using namespace ipd::kernel;
using kernel_messages::address;
using kernel_messages::link;
using kernel_messages::link_gone;

constexpr uint32_t a1 = 0x0a000001, a2 = 0x0a000002, b1 = 0x0a010001;
using Set = std::set<uint32_t>;
using Loans = std::vector<UnnumberedRule>;

class LiveBoxTest : public testing::Test {
 protected:
  LiveBoxTest() {
    set_log_limit(LOG_CRIT);
    state.after_commit([this](const Set &ifindexes) { told.push_back(ifindexes); });
  }
  ~LiveBoxTest() override { set_log_limit(LOG_NOTICE); }

  void configure(const std::string &json) {
    std::string reason;
    const auto configuration = parse_configuration(json, "test", &reason);
    ASSERT_TRUE(configuration) << reason;
    state.configure(*configuration);
  }
  void update() { ASSERT_TRUE(state.update(picture, picture.take_changes())); }
  [[nodiscard]] uint32_t iod(uint32_t ifindex) const { return publisher.iod(ifindex); }
  [[nodiscard]] uint32_t lender_of(uint32_t ifindex) const { return publisher.interfaces.at(ifindex).lender.first; }

  test_support::RecordingPublisher publisher;
  ContextIds ids{""};
  Picture picture;
  State state{publisher, ids};
  LiveBox box{state, publisher};
  std::vector<Set> told;  // each call after a commit
};

TEST_F(LiveBoxTest, AnInterfaceIsFoundByBothOfItsNumbers) {
  picture.link(link(1, "lo"));
  picture.link(link(7, "eth0"));
  picture.address(address(7, a2));
  picture.address(address(7, a1, true));
  update();
  const auto facts = box.interface(iod(7));
  ASSERT_TRUE(facts);
  EXPECT_EQ(facts->iod, iod(7));
  EXPECT_EQ(facts->state, publisher.interfaces.at(7).state);
  EXPECT_EQ(facts->addresses, publisher.interfaces.at(7).addresses);
  EXPECT_EQ(facts->addresses.size(), 2u);
  EXPECT_EQ(facts->lender_iod, 0u);
  EXPECT_EQ(box.interface_by_ifindex(7)->iod, iod(7));
}

TEST_F(LiveBoxTest, WhatIsNotThereIsNotFound) {
  picture.link(link(7, "eth0"));
  update();
  for (uint32_t unknown : {0u, iod(7) + 1, 0xffffffffu}) EXPECT_FALSE(box.interface(unknown)) << unknown;
  for (uint32_t unknown : {0u, 6u, 0xffffffffu}) EXPECT_FALSE(box.interface_by_ifindex(unknown)) << unknown;
}

TEST_F(LiveBoxTest, AnInterfaceThatWentIsNotFoundUnderItsOldNumber) {
  picture.link(link(7, "eth0"));
  update();
  const uint32_t old = iod(7);
  picture.link(link_gone(7));
  picture.link(link(7, "eth0"));
  update();
  EXPECT_NE(iod(7), old);
  EXPECT_FALSE(box.interface(old));
  EXPECT_EQ(box.iods(), std::vector<uint32_t>{iod(7)});
}

TEST_F(LiveBoxTest, TheAddressesOfAContextAreThoseOfItsInterfaces) {
  configure(R"({"contexts": [{"name": "red", "id": 7, "table": 100, "interfaces": ["eth1"]}]})");
  for (uint32_t i = 0; i < 3; ++i) picture.link(link(2 + i, "eth" + std::to_string(i)));
  picture.address(address(2, a1));
  picture.address(address(2, a2, true));
  picture.address(address(3, a1));
  picture.address(address(4, b1));
  update();
  const auto found_in = [this](uint32_t context) {
    std::set<std::pair<uint32_t, uint32_t>> found;
    for (const auto &[iod, address] : box.addresses_of_context(context)) found.emplace(iod, address.addr);
    return found;
  };
  using Found = std::set<std::pair<uint32_t, uint32_t>>;
  EXPECT_EQ(found_in(1), (Found{{iod(2), a1}, {iod(2), a2}, {iod(4), b1}}));
  EXPECT_EQ(found_in(7), (Found{{iod(3), a1}}));
  EXPECT_EQ(found_in(8), Found{});
}

TEST_F(LiveBoxTest, ALoanIsPublishedAtOnce) {
  picture.link(link(1, "lo"));
  picture.link(link(5, "tun0"));
  update();
  const uint32_t commits = publisher.commits;
  told.clear();
  box.lend({{.interface = "tun0", .source = "lo"}});
  EXPECT_EQ(lender_of(5), 1u);
  EXPECT_EQ(publisher.commits, commits + 1);
  EXPECT_EQ(told, std::vector<Set>{{5}});
  EXPECT_EQ(box.interface(iod(5))->lender_iod, iod(1));
}

TEST_F(LiveBoxTest, LoansThatAreSaidAgainAreNoNews) {
  picture.link(link(1, "lo"));
  picture.link(link(5, "tun0"));
  update();
  const Loans loans{{.interface = "tun0", .source = "lo"}};
  box.lend(loans);
  publisher.calls.clear();
  told.clear();
  box.lend(loans);
  EXPECT_TRUE(publisher.calls.empty());
  EXPECT_TRUE(told.empty());
}

TEST_F(LiveBoxTest, ALoanThatIsNotAmongThemAnyMoreEnds) {
  picture.link(link(1, "lo"));
  picture.link(link(5, "tun0"));
  picture.link(link(6, "tun1"));
  update();
  box.lend({{.interface = "tun0", .source = "lo"}, {.interface = "tun1", .source = "lo"}});
  told.clear();
  box.lend({{.interface = "tun1", .source = "lo"}});
  EXPECT_EQ(lender_of(5), 0u);
  EXPECT_EQ(lender_of(6), 1u);
  EXPECT_EQ(told, std::vector<Set>{{5}});
  EXPECT_EQ(box.interface(iod(5))->lender_iod, 0u);
}

TEST_F(LiveBoxTest, TheConfigurationsWordAboutABorrowerHolds) {
  configure(R"({"unnumbered": [{"interface": "tun0", "source": "lo"}]})");
  for (uint32_t i = 0; i < 2; ++i) picture.link(link(6 + i, "eth" + std::to_string(i)));
  picture.link(link(5, "tun0"));
  update();
  box.lend({{.interface = "tun0", .source = "eth0"}});
  EXPECT_EQ(lender_of(5), 0u) << "even while its lender is not there";
  picture.link(link(1, "lo"));
  update();
  EXPECT_EQ(lender_of(5), 1u);
}

TEST_F(LiveBoxTest, ALoanComesIntoForceWhenTheConfigurationSaysNothingMore) {
  configure(R"({"unnumbered": [{"interface": "tun0", "source": "lo"}]})");
  picture.link(link(1, "lo"));
  picture.link(link(6, "eth0"));
  picture.link(link(5, "tun0"));
  update();
  box.lend({{.interface = "tun0", .source = "eth0"}});
  configure("{}");
  update();
  EXPECT_EQ(lender_of(5), 6u);
}

TEST_F(LiveBoxTest, ALoanWaitsForItsLender) {
  picture.link(link(5, "tun0"));
  update();
  box.lend({{.interface = "tun0", .source = "eth0"}});
  EXPECT_EQ(lender_of(5), 0u);
  picture.link(link(6, "eth0"));
  update();
  EXPECT_EQ(lender_of(5), 6u);
  picture.link(link_gone(6));
  update();
  EXPECT_EQ(lender_of(5), 0u);
}

TEST_F(LiveBoxTest, NothingIsLentBeforeTheFirstPublication) {
  picture.link(link(1, "lo"));
  picture.link(link(5, "tun0"));
  box.lend({{.interface = "tun0", .source = "lo"}});
  EXPECT_TRUE(publisher.calls.empty());
  EXPECT_EQ(publisher.commits, 0u);
  update();
  EXPECT_EQ(lender_of(5), 1u);
}

TEST_F(LiveBoxTest, NobodyBorrowsFromItself) {
  picture.link(link(5, "tun0"));
  update();
  publisher.calls.clear();
  box.lend({{.interface = "tun0", .source = "tun0"}});
  EXPECT_TRUE(publisher.calls.empty());
}

TEST_F(LiveBoxTest, AfterACommitEachInterfaceThatChangedIsTold) {
  picture.link(link(2, "eth0"));
  picture.link(link(3, "eth1"));
  update();
  EXPECT_EQ(told, (std::vector<Set>{{2, 3}}));
  told.clear();
  picture.address(address(3, b1));
  update();
  EXPECT_EQ(told, std::vector<Set>{{3}}) << "an address alone";
  told.clear();
  picture.link(link_gone(3));
  update();
  EXPECT_EQ(told, std::vector<Set>{{3}});
}

TEST_F(LiveBoxTest, ABorrowerIsToldWithItsLender) {
  picture.link(link(2, "eth0"));
  picture.link(link(5, "tun0"));
  update();
  box.lend({{.interface = "tun0", .source = "eth0"}});
  told.clear();
  picture.address(address(2, a1));
  update();
  EXPECT_EQ(told, (std::vector<Set>{{2, 5}}));
  told.clear();
  picture.link(link_gone(2));
  update();
  EXPECT_EQ(told, (std::vector<Set>{{2, 5}}));
}

TEST_F(LiveBoxTest, WhoeverIsToldMayLend) {
  picture.link(link(1, "lo"));
  picture.link(link(5, "tun0"));
  state.after_commit([this](const Set &ifindexes) {
    told.push_back(ifindexes);
    box.lend({{.interface = "tun0", .source = "lo"}});
  });
  update();
  EXPECT_EQ(lender_of(5), 1u);
  EXPECT_EQ(told, (std::vector<Set>{{1, 5}, {5}}));
}

TEST_F(LiveBoxTest, AContextIsKnownWithItsVrfDevice) {
  EXPECT_FALSE(box.context(1)) << "before anything is published";
  ipd::kernel::LinkMessage blue = link(9, "blue");
  blue.kind = "vrf";
  blue.vrf_table = 1001;
  picture.link(blue);
  update();
  ASSERT_TRUE(box.context(1));
  EXPECT_EQ(box.context(1)->vrf_ifindex, 0u);
  const auto facts = box.interface_by_ifindex(9);
  ASSERT_TRUE(facts);
  ASSERT_NE(facts->state.context_id, 1u);
  ASSERT_TRUE(box.context(facts->state.context_id));
  EXPECT_EQ(box.context(facts->state.context_id)->vrf_ifindex, 9u);
  EXPECT_FALSE(box.context(99));
}

}  // namespace
