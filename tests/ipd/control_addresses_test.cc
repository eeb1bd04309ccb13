// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/addresses.h"

#include <gtest/gtest.h>

#include "ipd/control_fakes.h"

namespace {

using namespace ipd;
using namespace ipd::control;
using test_support::FakeBox;
using test_support::FakeTransport;

constexpr uint32_t eth0 = 10, eth1 = 11, red0 = 12;  // iods
constexpr uint32_t a1 = 0x0a000001;                  // 10.0.0.1

class FakeKernel final : public kernel::AddressRequests {
 public:
  struct Call {
    uint32_t ifindex, addr;
    uint8_t mask_len;
    bool operator==(const Call &) const = default;
  };
  int add(uint32_t ifindex, uint32_t addr, uint8_t mask_len) override {
    calls.push_back({ifindex, addr, mask_len});
    return error;
  }
  int remove(uint32_t ifindex, uint32_t addr, uint8_t mask_len) override {
    removals.push_back({ifindex, addr, mask_len});
    return error;
  }
  std::vector<Call> calls;
  std::vector<Call> removals;
  int error = 0;
};

class ControlAddressesTest : public testing::Test {
 protected:
  ControlAddressesTest() {
    box.add(eth0, 2, "eth0");
    box.add(eth1, 3, "eth1");
    box.add(red0, 4, "red0").state.context_id = 7;
  }

  static ip_msg_config_address ask(uint32_t iod, uint32_t addr, uint8_t mask_len, uint32_t flags = 0) {
    ip_msg_config_address message{};
    message.header.major_type = IP_MAJOR_CLIENT;
    message.header.minor_type = IP_MSG_CONFIG_ADDRESS;
    message.iod = iod;
    message.address = addr;
    message.mask_len = mask_len;
    message.cfg_flags = flags;
    return message;
  }
  Refusal configure(const ip_msg_config_address &message, const Sender &sender) {
    return addresses.handle(test_support::request_of(message, sender, IP_OPCODE_CONFIGURE));
  }
  Refusal configure(const ip_msg_config_address &message) { return configure(message, client); }
  void refuse(const ip_msg_config_address &message, Refusal reason) {
    addresses.refused(test_support::request_of(message, client, IP_OPCODE_CONFIGURE), reason);
  }
  // The kernel's address arrives and is published.
  void publish(uint32_t iod, uint32_t addr, uint8_t mask_len) {
    InterfaceFacts &facts = box.interfaces.at(iod);
    facts.addresses.push_back({.addr = addr, .mask_len = mask_len, .secondary = false, .scope = 0});
    addresses.interfaces_changed({facts.state.ifindex});
  }
  // The kernel's removal arrives and is published.
  void withdraw(uint32_t iod, uint32_t addr) {
    InterfaceFacts &facts = box.interfaces.at(iod);
    std::erase_if(facts.addresses, [addr](const AddressState &address) { return address.addr == addr; });
    addresses.interfaces_changed({facts.state.ifindex});
  }
  void expect_only_reply(uint32_t status, uint32_t result) {
    ASSERT_EQ(transport.sent.size(), 1u);
    const FakeTransport::Sent &sent = transport.sent[0];
    EXPECT_EQ(sent.sap, client.sap);
    EXPECT_EQ(sent.opcode, IP_OPCODE_CONFIGURE);
    EXPECT_EQ(sent.bytes.size(), IP_MSG_SIZE);
    const auto reply = sent.as<ip_msg_config_reply>();
    EXPECT_EQ(reply.header.major_type, IP_MAJOR_CLIENT);
    EXPECT_EQ(reply.header.minor_type, IP_MSG_CONFIG_ADDRESS);
    EXPECT_EQ(reply.status, status);
    EXPECT_EQ(reply.cfg_result, result);
  }

  const Sender client{.pid = 100, .uid = 0, .sap = 2048};
  FakeBox box;
  FakeKernel kernel_requests;
  FakeTransport transport;
  Addresses addresses{box, kernel_requests, transport};
  const Handler::Clock::time_point start = Handler::Clock::now();
};

TEST_F(ControlAddressesTest, IsDoneWhenTheAddressIsPublishedAndNotBefore) {
  EXPECT_EQ(configure(ask(eth0, a1, 24)), Refusal::none);
  EXPECT_EQ(kernel_requests.calls, (std::vector<FakeKernel::Call>{{2, a1, 24}}));
  addresses.interfaces_changed({2});
  addresses.tick(start);
  EXPECT_TRUE(transport.sent.empty());
  publish(eth0, a1, 24);
  expect_only_reply(IP_CONFIG_STATUS_DONE, 0);
  EXPECT_EQ(addresses.waiting(), 0u);
}

TEST_F(ControlAddressesTest, AnotherMaskLengthIsAnotherAddress) {
  configure(ask(eth0, a1, 24));
  publish(eth0, a1, 25);
  EXPECT_TRUE(transport.sent.empty());
  publish(eth0, a1, 24);
  expect_only_reply(IP_CONFIG_STATUS_DONE, 0);
}

TEST_F(ControlAddressesTest, TheSameAddressOnAnotherInterfaceIsNotIt) {
  configure(ask(eth0, a1, 24));
  publish(red0, a1, 24);
  EXPECT_TRUE(transport.sent.empty());
}

TEST_F(ControlAddressesTest, AnAddressThatIsThereIsDoneAtOnce) {
  publish(eth0, a1, 24);
  kernel_requests.error = EEXIST;
  EXPECT_EQ(configure(ask(eth0, a1, 24)), Refusal::none);
  expect_only_reply(IP_CONFIG_STATUS_DONE, 0);
}

TEST_F(ControlAddressesTest, AnAddressThatOnlyTheKernelHasYetIsWaitedFor) {
  kernel_requests.error = EEXIST;
  EXPECT_EQ(configure(ask(eth0, a1, 24)), Refusal::none);
  EXPECT_TRUE(transport.sent.empty());
  publish(eth0, a1, 24);
  expect_only_reply(IP_CONFIG_STATUS_DONE, 0);
}

TEST_F(ControlAddressesTest, AMaskLengthThatIsNoneIsMalformed) {
  for (const uint8_t mask_len : {uint8_t{0}, uint8_t{33}, uint8_t{255}}) {
    transport.sent.clear();
    EXPECT_EQ(configure(ask(eth0, a1, mask_len)), Refusal::bad_field);
    expect_only_reply(IP_CONFIG_STATUS_MALFORMED, 0);
  }
  EXPECT_TRUE(kernel_requests.calls.empty());
}

TEST_F(ControlAddressesTest, EveryMaskLengthFromOneToThirtyTwoIsGood) {
  for (uint8_t mask_len = 1; mask_len <= 32; ++mask_len) {
    FakeBox alone;
    alone.add(eth0, 2, "eth0");
    Addresses handler(alone, kernel_requests, transport);
    const auto message = ask(eth0, 0xaaaaaaaa, mask_len);
    EXPECT_EQ(handler.handle(test_support::request_of(message, client, IP_OPCODE_CONFIGURE)), Refusal::none);
    EXPECT_EQ(handler.waiting(), 1u) << int{mask_len};
  }
  EXPECT_TRUE(transport.sent.empty());
}

TEST_F(ControlAddressesTest, AnAddressThatNoHostMayHaveIsMartian) {
  const std::vector<std::pair<uint32_t, uint8_t>> martians = {
      {0, 24},          {0x00010203, 24}, {0x7f000001, 8},  {0xffffffff, 32}, {0xe0000001, 32}, {0xefffffff, 24},
      {0x0a000000, 24}, {0x0a0000ff, 24}, {0x0a000000, 30}, {0x0a000003, 30}, {0x0affffffu, 8},
  };
  for (const auto &[addr, mask_len] : martians) {
    transport.sent.clear();
    EXPECT_EQ(configure(ask(eth0, addr, mask_len)), Refusal::bad_field) << print_address(addr);
    expect_only_reply(IP_CONFIG_STATUS_MARTIAN, 0);
  }
  EXPECT_TRUE(kernel_requests.calls.empty());
}

TEST_F(ControlAddressesTest, BothAddressesOfALinkOfTwoAreGood) {
  EXPECT_EQ(configure(ask(eth0, 0x0a000002, 31)), Refusal::none);
  EXPECT_EQ(configure(ask(eth0, 0x0a000003, 31)), Refusal::none);
  EXPECT_EQ(kernel_requests.calls.size(), 2u);
  EXPECT_TRUE(transport.sent.empty());
}

TEST_F(ControlAddressesTest, AnInterfaceThatIsUnknownIsSaidToBe) {
  for (const uint32_t iod : {0u, 99u}) {
    transport.sent.clear();
    EXPECT_EQ(configure(ask(iod, a1, 24)), Refusal::no_interface);
    expect_only_reply(IP_CONFIG_STATUS_NO_INTERFACE, 0);
  }
  EXPECT_TRUE(kernel_requests.calls.empty());
}

TEST_F(ControlAddressesTest, APrefixOfAnotherInterfaceOfTheContextOverlaps) {
  publish(eth1, 0x0a000101, 24);  // 10.0.1.1/24
  const std::vector<std::pair<uint32_t, uint8_t>> overlapping = {
      {0x0a000101, 24}, {0x0a000102, 24}, {0x0a000102, 32}, {0x0a000002, 16}, {0x0a000181, 25}};
  for (const auto &[addr, mask_len] : overlapping) {
    transport.sent.clear();
    EXPECT_EQ(configure(ask(eth0, addr, mask_len)), Refusal::bad_field) << print_address(addr) << "/" << int{mask_len};
    expect_only_reply(IP_CONFIG_STATUS_OVERLAP, eth1);
  }
  EXPECT_TRUE(kernel_requests.calls.empty());
}

TEST_F(ControlAddressesTest, NeighboursOtherContextsAndTheInterfaceItselfDoNotOverlap) {
  publish(eth1, 0x0a000101, 24);
  EXPECT_EQ(configure(ask(eth0, 0x0a000001, 24)), Refusal::none) << "the prefix beside it";
  EXPECT_EQ(configure(ask(red0, 0x0a000101, 24)), Refusal::none) << "another context";
  EXPECT_EQ(configure(ask(eth1, 0x0a000102, 24)), Refusal::none) << "its own subnet";
  EXPECT_EQ(configure(ask(eth1, 0x0a000003, 16)), Refusal::bad_field) << "the first one waits already";
  EXPECT_EQ(kernel_requests.calls.size(), 3u);
}

TEST_F(ControlAddressesTest, OfTwoRequestsForOnePrefixTheSecondOverlapsWhileTheFirstWaits) {
  configure(ask(eth0, 0x0a000001, 24, IP_CONFIG_NO_WAIT));
  EXPECT_EQ(configure(ask(eth1, 0x0a000002, 24)), Refusal::bad_field);
  expect_only_reply(IP_CONFIG_STATUS_OVERLAP, eth0);
  EXPECT_EQ(kernel_requests.calls.size(), 1u);
}

TEST_F(ControlAddressesTest, AKernelThatDoesNotLetUsIsAPrivilegeThatWeLack) {
  for (const int error : {EPERM, EACCES}) {
    transport.sent.clear();
    kernel_requests.error = error;
    EXPECT_EQ(configure(ask(eth0, a1, 24)), Refusal::kernel);
    expect_only_reply(IP_CONFIG_STATUS_NO_PRIVILEGE, static_cast<uint32_t>(error));
  }
}

TEST_F(ControlAddressesTest, AKernelThatRefusesIsQuoted) {
  for (const int error : {EINVAL, ENOBUFS, ENOMEM, ETIMEDOUT}) {
    transport.sent.clear();
    kernel_requests.error = error;
    EXPECT_EQ(configure(ask(eth0, a1, 24)), Refusal::kernel);
    expect_only_reply(IP_CONFIG_STATUS_KERNEL, static_cast<uint32_t>(error));
  }
  EXPECT_EQ(addresses.waiting(), 0u);
}

TEST_F(ControlAddressesTest, AnInterfaceThatTheKernelLacksIsUnknown) {
  kernel_requests.error = ENODEV;
  EXPECT_EQ(configure(ask(eth0, a1, 24)), Refusal::no_interface);
  expect_only_reply(IP_CONFIG_STATUS_NO_INTERFACE, 0);
}

TEST_F(ControlAddressesTest, AnInterfaceThatGoesMeanwhileIsUnknown) {
  configure(ask(eth0, a1, 24));
  box.interfaces.erase(eth0);
  addresses.interfaces_changed({2});
  expect_only_reply(IP_CONFIG_STATUS_NO_INTERFACE, 0);
  EXPECT_EQ(addresses.waiting(), 0u);
}

TEST_F(ControlAddressesTest, AProcessWithTooManyRequestsIsBusyAndOthersAreNot) {
  for (uint32_t i = 0; i < Addresses::most_waiting_of_a_process; ++i) {
    ASSERT_EQ(configure(ask(eth0, a1 + i, 24)), Refusal::none);
  }
  EXPECT_EQ(configure(ask(eth0, 0x0a000101, 24)), Refusal::limit);
  expect_only_reply(IP_CONFIG_STATUS_BUSY, 0);
  EXPECT_EQ(kernel_requests.calls.size(), Addresses::most_waiting_of_a_process);
  EXPECT_EQ(configure(ask(eth0, 0x0a000101, 24), {.pid = 101, .uid = 0, .sap = 2049}), Refusal::none);
}

TEST_F(ControlAddressesTest, TooManyRequestsOfAllAreBusyUntilOneIsDone) {
  for (uint32_t i = 0; i < Addresses::most_waiting; ++i) {
    const auto pid = static_cast<int32_t>(1000 + i);
    ASSERT_EQ(configure(ask(eth0, 0x0b000001 + (i << 8), 24), {.pid = pid, .uid = 0, .sap = 3000 + i}), Refusal::none);
  }
  EXPECT_EQ(configure(ask(eth0, a1, 24)), Refusal::limit);
  expect_only_reply(IP_CONFIG_STATUS_BUSY, 0);
  publish(eth0, 0x0b000001, 24);
  EXPECT_EQ(configure(ask(eth0, a1, 24)), Refusal::none);
}

TEST_F(ControlAddressesTest, ARemovalIsDoneWhenTheAddressIsNotPublishedAnyMore) {
  publish(eth0, a1, 24);
  EXPECT_EQ(configure(ask(eth0, a1, 24, IP_CONFIG_REMOVE)), Refusal::none);
  EXPECT_EQ(kernel_requests.removals, (std::vector<FakeKernel::Call>{{2, a1, 24}}));
  EXPECT_TRUE(kernel_requests.calls.empty());
  addresses.interfaces_changed({2});
  EXPECT_TRUE(transport.sent.empty());
  withdraw(eth0, a1);
  expect_only_reply(IP_CONFIG_STATUS_DONE, 0);
  EXPECT_EQ(addresses.waiting(), 0u);
}

TEST_F(ControlAddressesTest, TheRemovalOfWhatIsNotThereIsDoneAtOnce) {
  kernel_requests.error = EADDRNOTAVAIL;
  EXPECT_EQ(configure(ask(eth0, a1, 24, IP_CONFIG_REMOVE)), Refusal::none);
  expect_only_reply(IP_CONFIG_STATUS_DONE, 0);
}

TEST_F(ControlAddressesTest, ARemovalThatOnlyTheKernelKnowsOfYetIsWaitedFor) {
  publish(eth0, a1, 24);
  kernel_requests.error = EADDRNOTAVAIL;
  EXPECT_EQ(configure(ask(eth0, a1, 24, IP_CONFIG_REMOVE)), Refusal::none);
  EXPECT_TRUE(transport.sent.empty());
  withdraw(eth0, a1);
  expect_only_reply(IP_CONFIG_STATUS_DONE, 0);
}

TEST_F(ControlAddressesTest, ARemovalIsDoneWhenItsInterfaceGoes) {
  publish(eth0, a1, 24);
  configure(ask(eth0, a1, 24, IP_CONFIG_REMOVE));
  box.interfaces.erase(eth0);
  addresses.interfaces_changed({2});
  expect_only_reply(IP_CONFIG_STATUS_DONE, 0);
}

TEST_F(ControlAddressesTest, ARemovalDoesNotKeepThePrefixFromOthers) {
  EXPECT_EQ(configure(ask(eth0, a1, 24, IP_CONFIG_REMOVE)), Refusal::none);
  EXPECT_EQ(configure(ask(eth1, a1, 24)), Refusal::none);
  EXPECT_EQ(kernel_requests.calls, (std::vector<FakeKernel::Call>{{3, a1, 24}}));
}

TEST_F(ControlAddressesTest, ARemovalThatTheKernelRefusesIsQuoted) {
  publish(eth0, a1, 24);
  kernel_requests.error = EPERM;
  EXPECT_EQ(configure(ask(eth0, a1, 24, IP_CONFIG_REMOVE)), Refusal::kernel);
  expect_only_reply(IP_CONFIG_STATUS_NO_PRIVILEGE, EPERM);
  transport.sent.clear();
  EXPECT_EQ(configure(ask(99, a1, 24, IP_CONFIG_REMOVE)), Refusal::no_interface);
  expect_only_reply(IP_CONFIG_STATUS_NO_INTERFACE, 0);
}

TEST_F(ControlAddressesTest, AnAddressIsAnnouncedWhenTheKernelHasJustGotIt) {
  std::vector<std::pair<uint32_t, uint32_t>> announced;
  Addresses announcing(box, kernel_requests, transport,
                       [&](uint32_t ifindex, uint32_t addr) { announced.emplace_back(ifindex, addr); });
  const auto handle = [&](const ip_msg_config_address &message) {
    (void)announcing.handle(test_support::request_of(message, client, IP_OPCODE_CONFIGURE));
  };
  handle(ask(eth0, a1, 24));
  EXPECT_EQ(announced, (std::vector<std::pair<uint32_t, uint32_t>>{{2, a1}}));
  handle(ask(eth0, a1, 24, IP_CONFIG_REMOVE));
  kernel_requests.error = EEXIST;
  handle(ask(eth0, a1, 24));
  kernel_requests.error = EPERM;
  handle(ask(eth0, a1 + 1, 24));
  EXPECT_EQ(announced.size(), 1u);
}

TEST_F(ControlAddressesTest, WhoDoesNotWaitGetsNoReply) {
  EXPECT_EQ(configure(ask(eth0, a1, 24, IP_CONFIG_NO_WAIT)), Refusal::none);
  EXPECT_EQ(configure(ask(99, a1, 24, IP_CONFIG_NO_WAIT)), Refusal::no_interface);
  refuse(ask(eth0, a1, 24, IP_CONFIG_NO_WAIT), Refusal::not_allowed);
  publish(eth0, a1, 24);
  EXPECT_TRUE(transport.sent.empty());
  EXPECT_EQ(addresses.waiting(), 0u);
}

TEST_F(ControlAddressesTest, WhoCollectsTheReplyGetsIt) {
  configure(ask(eth0, a1, 24, IP_CONFIG_COLLECT));
  publish(eth0, a1, 24);
  expect_only_reply(IP_CONFIG_STATUS_DONE, 0);
}

TEST_F(ControlAddressesTest, ACallerThatDiesGetsNoReplyAndItsPrefixStaysTaken) {
  configure(ask(eth0, a1, 24));
  addresses.process_gone(client.pid);
  EXPECT_EQ(configure(ask(eth1, a1, 24), {.pid = 101, .uid = 0, .sap = 2049}), Refusal::bad_field);
  transport.sent.clear();
  publish(eth0, a1, 24);
  EXPECT_TRUE(transport.sent.empty());
  EXPECT_EQ(addresses.waiting(), 0u);
}

TEST_F(ControlAddressesTest, AQueueThatIsGoneGetsNoReplyAndAnotherOfTheProcessDoes) {
  const Sender other{.pid = client.pid, .uid = 0, .sap = 2050};
  configure(ask(eth0, a1, 24));
  configure(ask(eth0, a1 + 1, 24), other);
  addresses.queue_gone(client);
  publish(eth0, a1, 24);
  publish(eth0, a1 + 1, 24);
  ASSERT_EQ(transport.sent.size(), 1u);
  EXPECT_EQ(transport.sent[0].sap, other.sap);
}

TEST_F(ControlAddressesTest, WhatIsNeverPublishedEndsAfterAWhile) {
  configure(ask(eth0, a1, 24));
  addresses.tick(start);
  addresses.tick(start + Addresses::patience - std::chrono::milliseconds(1));
  EXPECT_TRUE(transport.sent.empty());
  addresses.tick(start + Addresses::patience);
  expect_only_reply(IP_CONFIG_STATUS_KERNEL, ETIMEDOUT);
  EXPECT_EQ(addresses.waiting(), 0u);
}

TEST_F(ControlAddressesTest, AReplyThatFindsNoRoomIsTriedAgain) {
  configure(ask(eth0, a1, 24));
  transport.error = EAGAIN;
  publish(eth0, a1, 24);
  addresses.tick(start);
  EXPECT_EQ(addresses.waiting(), 1u);
  transport.error = 0;
  addresses.tick(start + std::chrono::milliseconds(250));
  expect_only_reply(IP_CONFIG_STATUS_DONE, 0);
  EXPECT_EQ(addresses.waiting(), 0u);
}

TEST_F(ControlAddressesTest, ARefusalThatFindsNoRoomIsTriedAgain) {
  transport.error = EAGAIN;
  EXPECT_EQ(configure(ask(99, a1, 24)), Refusal::no_interface);
  transport.error = 0;
  addresses.tick(start);
  expect_only_reply(IP_CONFIG_STATUS_NO_INTERFACE, 0);
}

TEST_F(ControlAddressesTest, AReplyThatNeverFindsRoomIsDropped) {
  transport.error = EAGAIN;
  configure(ask(99, a1, 24));
  addresses.tick(start);
  addresses.tick(start + Addresses::patience);
  EXPECT_EQ(addresses.waiting(), 0u);
}

TEST_F(ControlAddressesTest, RepliesThatWaitForRoomAreBounded) {
  transport.error = EAGAIN;
  for (uint32_t i = 0; i < 2 * Addresses::most_waiting_of_a_process; ++i) configure(ask(99, a1, 24));
  EXPECT_EQ(addresses.waiting(), Addresses::most_waiting_of_a_process);
}

TEST_F(ControlAddressesTest, ACallerThatIsNotThereAnyMoreIsNotTriedAgain) {
  publish(eth0, a1, 24);
  kernel_requests.error = EEXIST;
  for (const int error : {ECONNREFUSED, ECONNRESET}) {
    transport.error = error;
    EXPECT_EQ(configure(ask(eth0, a1, 24)), Refusal::no_answer);
    EXPECT_EQ(addresses.waiting(), 0u);
  }
}

TEST_F(ControlAddressesTest, RepliesThatWaitForRoomAreForgottenWithTheirProcess) {
  transport.error = EAGAIN;
  configure(ask(99, a1, 24));
  addresses.process_gone(client.pid);
  EXPECT_EQ(addresses.waiting(), 0u);
}

TEST_F(ControlAddressesTest, WhoMayNotIsToldSo) {
  refuse(ask(eth0, a1, 24), Refusal::not_allowed);
  expect_only_reply(IP_CONFIG_STATUS_NO_PRIVILEGE, 0);
}

TEST_F(ControlAddressesTest, ARequestOfTheWrongSizeIsMalformed) {
  const auto message = ask(eth0, a1, 24);
  for (const Refusal reason : {Refusal::too_short, Refusal::too_long}) {
    transport.sent.clear();
    Request request = test_support::request_of(message, client, IP_OPCODE_CONFIGURE);
    request.bytes = request.bytes.first(24);
    addresses.refused(request, reason);
    expect_only_reply(IP_CONFIG_STATUS_MALFORMED, 0);
  }
}

TEST_F(ControlAddressesTest, ARequestUnderAnotherOpcodeHasNoReply) {
  refuse(ask(eth0, a1, 24), Refusal::wrong_opcode);
  EXPECT_TRUE(transport.sent.empty());
}

}  // namespace
