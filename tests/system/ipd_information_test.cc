// SPDX-License-Identifier: Apache-2.0
// What ipd tells its clients of interfaces in messages, held against what the kernel tells ip(8).
#include <signal.h>

#include <cerrno>
#include <fstream>
#include <memory>

#define LIBIP_NO_INET_NTOA
#include "interface_information.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "mts/mts_server.h"
#include "system_pictures.h"

namespace {

using ipd_test::IpdTest;
using test_support::first_addresses_of;
using test_support::InterfaceInformation;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);

class IpdInformationTest : public IpdTest {
 protected:
  void begin(const std::vector<std::string> &arguments = {}) {
    start_ipd(arguments);
    attach();
  }

  void expect_full_set(InterfaceInformation &information, uint32_t mode = IP_DOWNLOAD_FOLLOW) {
    ASSERT_TRUE(information.ask(mode));
    EXPECT_TRUE(wait_until(
        [&] {
          information.read();
          return information.full_set_is_there();
        },
        patience))
        << ipd_.output();
  }

  // What came says what ip(8) says, soon.
  void expect_told_as_kernel(InterfaceInformation &information) {
    std::string kernel;
    const bool same = wait_until(
        [&] {
          information.read();
          kernel = first_addresses_of(test_support::kernels_picture());
          return !kernel.empty() && kernel == information.picture();
        },
        patience);
    EXPECT_TRUE(same) << "kernel:\n" << kernel << "told:\n" << information.picture() << "ipd:\n" << ipd_.output();
  }

  // Many commands of ip(8) in one process.
  void ip_batch(const std::string &commands) {
    const std::string file = run_directory_.path() + "/batch";
    std::ofstream(file) << commands;
    ip("-batch " + file);
  }
};

TEST_F(IpdInformationTest, TheFullSetIsWhatIpSays) {
  add_pair("va", "vb");
  ip("addr add 10.1.0.1/24 dev va");
  ip("addr add 10.1.0.2/24 dev va");
  ip("addr add 10.2.0.1/16 dev va");
  ip("link add quiet type veth peer name bare");
  ip("link set quiet mtu 1400");
  ip("addr add 192.0.2.1/32 dev quiet");
  ip("link set bare multicast off");
  begin();
  InterfaceInformation information;
  expect_full_set(information);
  EXPECT_EQ(information.messages(), 1u);
  EXPECT_EQ(information.full_sets(), 1u);
  EXPECT_EQ(information.picture(), first_addresses_of(test_support::kernels_picture()));
  for (const auto &[number, entry] : information.interfaces()) EXPECT_EQ(number, iod(entry.f1));
}

TEST_F(IpdInformationTest, ChangesFollowTheFullSet) {
  begin();
  InterfaceInformation information;
  expect_full_set(information);
  ip("link add va type veth peer name vb");
  expect_told_as_kernel(information);
  ip("link set va up");
  ip("link set vb up");
  expect_told_as_kernel(information);
  ip("addr add 10.1.0.1/24 dev va");
  expect_told_as_kernel(information);
  ip("addr add 10.2.0.1/24 dev va");
  ip("addr del 10.1.0.1/24 dev va");
  expect_told_as_kernel(information);
  const uint32_t there = iod("va");
  ip("link set va name uplink");
  ip("link set uplink mtu 1300");
  expect_told_as_kernel(information);
  ASSERT_NE(information.find("uplink"), nullptr);
  EXPECT_EQ(information.find("uplink")->f0, there);
  ip("link set vb down");
  expect_told_as_kernel(information);
  EXPECT_EQ(information.removals(), 0u);
  ip("link del uplink");
  expect_told_as_kernel(information);
  EXPECT_EQ(information.removals(), 2u);
  EXPECT_EQ(information.removals_of_unknown(), 0u);
  EXPECT_EQ(information.full_sets(), 1u);
}

TEST_F(IpdInformationTest, ContextsForwardingAndLoansAreTold) {
  ip("link add va type veth peer name vb");
  ip("link add r0 type veth peer name r1");
  ip("addr add 10.1.0.1/24 dev vb");
  write_configuration(R"({"contexts": [{"name": "red", "table": 100, "interfaces": ["r*"]}],
                          "unnumbered": [{"interface": "va", "source": "vb"}]})");
  begin({"--config", configuration_file()});
  InterfaceInformation information;
  expect_full_set(information);
  ASSERT_EQ(information.interfaces().size(), 5u);
  EXPECT_NE(ip_get_api_context_id("red"), 1u);
  EXPECT_EQ(information.find("r0")->f7, ip_get_api_context_id("red"));
  EXPECT_EQ(information.find("r1")->f7, ip_get_api_context_id("red"));
  EXPECT_EQ(information.find("va")->f7, 1u);
  EXPECT_EQ(information.find("va")->f10, iod("vb"));
  EXPECT_NE(information.find("va")->f2 & IP_IF_INFO_UNNUMBERED, 0u);
  EXPECT_EQ(information.find("va")->f4, 0u) << "the address is the other one's";
  EXPECT_EQ(information.find("vb")->f2 & IP_IF_INFO_UNNUMBERED, 0u);

  const auto forwards = [&](const std::string &name) {
    information.read();
    return (information.find(name)->f2 & IP_IF_INFO_FORWARDING) != 0;
  };
  EXPECT_FALSE(forwards("vb"));
  set_sysctl("conf/vb/forwarding", "1");
  EXPECT_TRUE(wait_until([&] { return forwards("vb"); }, patience));

  // Without its lender it borrows nothing, and with the next one of that name again.
  ip("link set vb name other");
  EXPECT_TRUE(wait_until([&] { return information.read(), information.find("va")->f10 == 0; }, patience));
  EXPECT_EQ(information.find("va")->f2 & IP_IF_INFO_UNNUMBERED, 0u);
  ip("link set other name vb");
  EXPECT_TRUE(wait_until([&] { return information.read(), information.find("va")->f10 != 0; }, patience));
}

TEST_F(IpdInformationTest, MoreThanAMessageHoldsIsCompleteAndSoIsItsEnd) {
  std::string add;
  for (int i = 0; i < 300; ++i) {
    add += "link add d" + std::to_string(i) + " type veth peer name e" + std::to_string(i) + "\n";
  }
  ip_batch(add);
  begin();
  InterfaceInformation information;
  expect_full_set(information);
  EXPECT_EQ(information.messages(), 2u);
  expect_told_as_kernel(information);
  std::string remove;
  for (int i = 0; i < 40; ++i) remove += "link del d" + std::to_string(i) + "\n";
  ip_batch(remove);
  expect_told_as_kernel(information);
  EXPECT_EQ(information.removals(), 80u);
  EXPECT_EQ(information.removals_of_unknown(), 0u);
}

TEST_F(IpdInformationTest, AReceiverThatReadsLateIsToldHowThingsAre) {
  constexpr uint32_t downloads = 60;
  ip("link add d0 type veth peer name e0");
  begin();
  InterfaceInformation late;
  InterfaceInformation prompt;
  for (uint32_t cookie = 0; cookie < downloads; ++cookie) ASSERT_TRUE(late.ask(IP_DOWNLOAD_FOLLOW, cookie));
  expect_full_set(prompt);
  // More messages than a socket holds.
  const auto failures = [] {
    for (const rsw::MtsQueueUse &queue : rsw::mts_queues()) {
      if (queue.sap == IP_SAP_CONTROL) return queue.send_failures;
    }
    return uint32_t{0};
  };
  for (uint32_t mtu = 1300; mtu < 1400 && failures() == 0 && !HasFailure(); ++mtu) {
    ip("link set d0 mtu " + std::to_string(mtu));
    expect_told_as_kernel(prompt);
  }
  EXPECT_GT(failures(), 0u);
  ip("link set d0 name uplink");
  ip("link del uplink");
  ip("link add d0 type veth peer name e0");
  expect_told_as_kernel(prompt);
  expect_told_as_kernel(late);
  EXPECT_EQ(late.full_sets(), downloads);
}

TEST_F(IpdInformationTest, OnceAndEndMeanNoMoreChanges) {
  ip("link add d0 type veth peer name e0");
  begin();
  InterfaceInformation once;
  InterfaceInformation ended;
  InterfaceInformation following;
  expect_full_set(once, IP_DOWNLOAD_ONCE);
  expect_full_set(ended);
  ASSERT_TRUE(ended.ask(IP_DOWNLOAD_END));
  expect_full_set(following);
  ip("link set d0 mtu 1400");
  expect_told_as_kernel(following);
  once.read();
  ended.read();
  EXPECT_EQ(once.messages(), 1u);
  EXPECT_EQ(ended.messages(), 1u);
}

TEST_F(IpdInformationTest, TheSameCookieBeginsAgainAndAnotherOneIsADownloadOfItsOwn) {
  ip("link add d0 type veth peer name e0");
  begin();
  InterfaceInformation information;
  const auto sets_become = [&](uint32_t sets) {
    return wait_until([&] { return information.read(), information.full_sets() == sets; }, patience);
  };
  ASSERT_TRUE(information.ask(IP_DOWNLOAD_FOLLOW, 1));
  EXPECT_TRUE(sets_become(1));
  ASSERT_TRUE(information.ask(IP_DOWNLOAD_FOLLOW, 1));
  EXPECT_TRUE(sets_become(2));
  ASSERT_TRUE(information.ask(IP_DOWNLOAD_FOLLOW, 2));
  EXPECT_TRUE(sets_become(3));
  const uint32_t before = information.messages();
  ip("link set d0 mtu 1400");
  EXPECT_TRUE(wait_until([&] { return information.read(), information.messages() == before + 2; }, patience));
  expect_told_as_kernel(information);
}

// A dynamic SAP is given again at once: what its last owner asked for must not come to the next one.
TEST_F(IpdInformationTest, TheNextOwnerOfASapIsNotToldWhatTheLastOneAskedFor) {
  ip("link add d0 type veth peer name e0");
  begin();
  auto last = std::make_unique<InterfaceInformation>();
  expect_full_set(*last);
  const uint32_t sap = last->sap();
  last.reset();
  InterfaceInformation next;
  ASSERT_EQ(next.sap(), sap);
  InterfaceInformation following;
  expect_full_set(following);
  ip("link set d0 mtu 1400");
  expect_told_as_kernel(following);
  next.read();
  EXPECT_EQ(next.messages(), 0u);
}

TEST_F(IpdInformationTest, AReceiverHearsThatIpdIsGoneAndAsksTheNextOne) {
  ip("link add d0 type veth peer name e0");
  begin();
  InterfaceInformation information;
  expect_full_set(information);
  ipd_.kill_now();
  mts_msg_ref_t message = nullptr;
  mts_recv_opts options{};
  options.w[0] = 1;
  options.w[2] = 60;
  EXPECT_LT(mts_recv(information.queue(), &message, &options), 0);
  EXPECT_EQ(errno, ECONNRESET);
  EXPECT_FALSE(information.ask(IP_DOWNLOAD_FOLLOW)) << "nobody is there";
  ip("link set d0 name uplink");
  start_ipd();
  ASSERT_TRUE(information.ask(IP_DOWNLOAD_FOLLOW));
  expect_told_as_kernel(information);
  EXPECT_EQ(information.full_sets(), 2u);
}

TEST_F(IpdInformationTest, AKilledClientCostsTheOthersNothing) {
  ip("link add d0 type veth peer name e0");
  begin();
  InterfaceInformation following;
  expect_full_set(following);
  test_support::Process client({INFORMATION_CLIENT, "follow"});
  ASSERT_TRUE(wait_until([&] { return client.output().find("end\n") != std::string::npos; }, patience))
      << client.output();
  ip("link set d0 mtu 1400");
  ASSERT_TRUE(wait_until([&] { return client.output().find(" mtu 1400 ") != std::string::npos; }, patience))
      << client.output();
  client.signal(SIGSTOP);
  ip("link set d0 mtu 1401");
  expect_told_as_kernel(following);
  client.kill_now();
  ip("link set d0 mtu 1402");
  expect_told_as_kernel(following);
  EXPECT_TRUE(ipd_.running());
}

}  // namespace
