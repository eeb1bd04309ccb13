// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/loans.h"

#include <gtest/gtest.h>

#include "ip_msg.h"
#include "ipd/control_fakes.h"
#include "ipd/control_lists.h"

namespace {

using namespace ipd;
using namespace ipd::control;
using test_support::FakeBox;
using Rules = std::vector<UnnumberedRule>;

constexpr uint32_t eth0 = 10, tun0 = 11, tun1 = 12;  // iods

class ControlLoansTest : public testing::Test {
 protected:
  ControlLoansTest() {
    box.add(eth0, 2, "eth0");
    box.add(tun0, 3, "tun0");
    box.add(tun1, 4, "tun1");
  }

  Refusal ask(uint16_t minor, uint32_t iod, const std::string &lender, int32_t pid) {
    ip_msg_unnumbered message{};
    message.header.major_type = IP_MAJOR_CLIENT;
    message.header.minor_type = minor;
    message.iod = iod;
    std::memcpy(message.lender, lender.data(), std::min(lender.size(), sizeof message.lender));
    return loans.handle(test_support::request_of(message, {.pid = pid, .uid = 0, .sap = 2048}, IP_OPCODE_CLIENT));
  }
  Refusal set(uint32_t iod, const std::string &lender, int32_t pid = 100) {
    return ask(IP_MSG_SET_UNNUMBERED, iod, lender, pid);
  }
  Refusal unset(uint32_t iod, int32_t pid = 100) { return ask(IP_MSG_UNSET_UNNUMBERED, iod, "", pid); }
  Refusal clean_up(const std::vector<uint32_t> &iods) {
    const test_support::InterfaceList list(IP_MSG_UNNUMBERED_PSS_CLEANUP, iods);
    return loans.handle(list.request());
  }
  [[nodiscard]] Rules lent() const { return box.loans.empty() ? Rules{} : box.loans.back(); }

  FakeBox box;
  Loans loans{box};
};

TEST_F(ControlLoansTest, ALoanReachesTheBox) {
  EXPECT_EQ(set(tun0, "eth0"), Refusal::none);
  EXPECT_EQ(lent(), (Rules{{.interface = "tun0", .source = "eth0"}}));
}

TEST_F(ControlLoansTest, EachCallSaysAllLoans) {
  set(tun0, "eth0");
  set(tun1, "eth0");
  EXPECT_EQ(lent(), (Rules{{.interface = "tun0", .source = "eth0"}, {.interface = "tun1", .source = "eth0"}}));
}

TEST_F(ControlLoansTest, ALenderThatIsNotThereYetIsGood) {
  EXPECT_EQ(set(tun0, "eth7"), Refusal::none);
  EXPECT_EQ(lent(), (Rules{{.interface = "tun0", .source = "eth7"}}));
}

TEST_F(ControlLoansTest, ALoanThatIsAskedForAgainIsNoNews) {
  set(tun0, "eth0");
  EXPECT_EQ(set(tun0, "eth0"), Refusal::none);
  EXPECT_EQ(box.loans.size(), 1u);
}

TEST_F(ControlLoansTest, TheLastLenderCounts) {
  set(tun0, "eth0");
  set(tun0, "tun1");
  EXPECT_EQ(lent(), (Rules{{.interface = "tun0", .source = "tun1"}}));
}

TEST_F(ControlLoansTest, ABorrowerThatIsUnknownIsRefused) {
  EXPECT_EQ(set(99, "eth0"), Refusal::no_interface);
  EXPECT_EQ(set(0, "eth0"), Refusal::no_interface);
  EXPECT_EQ(unset(99), Refusal::no_interface);
  EXPECT_TRUE(box.loans.empty());
}

TEST_F(ControlLoansTest, ALendersNameIsOneToThirtyNineCharacters) {
  EXPECT_EQ(set(tun0, ""), Refusal::bad_field);
  EXPECT_EQ(set(tun0, std::string(40, 'x')), Refusal::bad_field) << "not terminated";
  EXPECT_TRUE(box.loans.empty());
  EXPECT_EQ(set(tun0, std::string(39, 'x')), Refusal::none);
  EXPECT_EQ(lent()[0].source, std::string(39, 'x'));
}

TEST_F(ControlLoansTest, NobodyBorrowsFromItself) {
  EXPECT_EQ(set(tun0, "tun0"), Refusal::bad_field);
  EXPECT_TRUE(box.loans.empty());
}

TEST_F(ControlLoansTest, AnybodyMayEndALoan) {
  set(tun0, "eth0", 100);
  EXPECT_EQ(unset(tun0, 101), Refusal::none);
  EXPECT_EQ(lent(), Rules{});
  EXPECT_EQ(box.loans.size(), 2u);
}

TEST_F(ControlLoansTest, EndingWhatIsNotLentIsNoNews) {
  EXPECT_EQ(unset(tun0), Refusal::none);
  EXPECT_TRUE(box.loans.empty());
}

TEST_F(ControlLoansTest, LoansEndWithTheProcessThatAskedForThemLast) {
  set(tun0, "eth0", 100);
  set(tun1, "eth0", 101);
  loans.process_gone(100);
  EXPECT_EQ(lent(), (Rules{{.interface = "tun1", .source = "eth0"}}));
  set(tun1, "eth0", 102);
  loans.process_gone(101);
  EXPECT_EQ(lent().size(), 1u) << "another one holds it now";
  loans.process_gone(102);
  EXPECT_EQ(lent(), Rules{});
}

TEST_F(ControlLoansTest, AProcessThatHeldNothingEndsNothing) {
  set(tun0, "eth0", 100);
  loans.process_gone(101);
  EXPECT_EQ(box.loans.size(), 1u);
}

TEST_F(ControlLoansTest, ABorrowerThatIsRenamedKeepsItsLoan) {
  set(tun0, "eth0");
  box.interfaces.at(tun0).state.name = "uplink";
  loans.interfaces_changed({3});
  EXPECT_EQ(lent(), (Rules{{.interface = "uplink", .source = "eth0"}}));
}

TEST_F(ControlLoansTest, ABorrowerThatIsGoneLosesItsLoanForGood) {
  set(tun0, "eth0");
  const InterfaceFacts gone = box.interfaces.at(tun0);
  box.interfaces.erase(tun0);
  loans.interfaces_changed({3});
  EXPECT_EQ(lent(), Rules{});
  box.interfaces[13] = gone;
  loans.interfaces_changed({3});
  EXPECT_EQ(lent(), Rules{});
}

TEST_F(ControlLoansTest, OtherChangesAreNoNews) {
  set(tun0, "eth0");
  box.interfaces.at(eth0).state.mtu = 9000;
  loans.interfaces_changed({2});
  EXPECT_EQ(box.loans.size(), 1u);
}

TEST_F(ControlLoansTest, ACleanUpEndsTheLoansThatItListsInOneCall) {
  set(tun0, "eth0", 100);
  set(tun1, "eth0", 101);
  EXPECT_EQ(clean_up({tun0, tun1}), Refusal::none);
  EXPECT_EQ(lent(), Rules{});
  EXPECT_EQ(box.loans.size(), 3u);
}

TEST_F(ControlLoansTest, ACleanUpLeavesTheOthers) {
  set(tun0, "eth0");
  set(tun1, "eth0");
  EXPECT_EQ(clean_up({tun1, 99, tun1}), Refusal::none) << "one that is not there, one twice";
  EXPECT_EQ(lent(), (Rules{{.interface = "tun0", .source = "eth0"}}));
  EXPECT_EQ(clean_up({}), Refusal::none);
  EXPECT_EQ(lent().size(), 1u);
}

TEST_F(ControlLoansTest, ACleanUpOfMoreThanTheMessageHoldsIsRefusedAndEndsNothing) {
  set(tun0, "eth0");
  for (const uint32_t count : {2u, 0u, 50u, 0x40000001u, 0xffffffffu}) {
    test_support::InterfaceList list(IP_MSG_UNNUMBERED_PSS_CLEANUP, {tun0});
    list.claim(count);
    EXPECT_EQ(loans.handle(list.request()), Refusal::bad_field) << count;
  }
  EXPECT_EQ(lent().size(), 1u);
}

TEST_F(ControlLoansTest, ManyLoansAreToldTogetherAtTheNextTick) {
  constexpr uint32_t many = Loans::few + 100;
  for (uint32_t i = 0; i < many; ++i) {
    box.add(1000 + i, 1000 + i, "sub" + std::to_string(i));
    ASSERT_EQ(set(1000 + i, "eth0"), Refusal::none);
  }
  EXPECT_EQ(box.loans.size(), Loans::few);
  loans.tick({});
  EXPECT_EQ(box.loans.size(), Loans::few + 1);
  EXPECT_EQ(lent().size(), many);
  loans.tick({});
  EXPECT_EQ(box.loans.size(), Loans::few + 1) << "nothing is new";
  loans.process_gone(100);
  EXPECT_EQ(lent(), Rules{});
}

TEST_F(ControlLoansTest, AnotherMessageIsNotIts) {
  EXPECT_EQ(ask(IP_MSG_JOIN_GROUP, tun0, "eth0", 100), Refusal::unknown_minor);
  EXPECT_TRUE(box.loans.empty());
}

}  // namespace
