// SPDX-License-Identifier: Apache-2.0
#include "ipd/kernel/parse.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <utility>

#include "ipd/netlink_messages.h"

namespace {

using namespace ipd::kernel;
namespace nl = netlink_messages;
using nl::operator+;

struct Recorder final : Sink {
  std::vector<LinkMessage> links;
  std::vector<AddressMessage> addresses;
  std::vector<NetconfMessage> settings;
  std::vector<Origin> origins;
  std::vector<int> ends;
  std::vector<std::pair<uint32_t, int>> failures;
  std::vector<Refusal> refusals;
  int losses = 0;

  void link(const Origin &origin, const LinkMessage &message) override {
    origins.push_back(origin);
    links.push_back(message);
  }
  void address(const Origin &origin, const AddressMessage &message) override {
    origins.push_back(origin);
    addresses.push_back(message);
  }
  void netconf(const Origin &origin, const NetconfMessage &message) override {
    origins.push_back(origin);
    settings.push_back(message);
  }
  void route(const Origin &, const RouteMessage &) override {}
  void nexthop(const Origin &, const NexthopMessage &) override {}
  void end_of_dump(const Origin &, int error) override { ends.push_back(error); }
  void request_failed(const Origin &origin, int error) override { failures.emplace_back(origin.sequence, error); }
  void events_lost() override { ++losses; }
  void refused(Refusal refusal, uint16_t) override { refusals.push_back(refusal); }
  [[nodiscard]] size_t taken() const { return links.size() + addresses.size() + settings.size(); }
};

// Parses a copy that ends where its allocation ends, so that a sanitizer sees a read beyond it.
Recorder parsed(const nl::Bytes &bytes) {
  Recorder recorder;
  const std::unique_ptr<std::byte[]> copy(new std::byte[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), copy.get());
  parse(std::span<const std::byte>(copy.get(), bytes.size()), recorder);
  return recorder;
}

void set_length(nl::Bytes &bytes, size_t at, uint16_t length) {
  std::memcpy(bytes.data() + at, &length, sizeof length);
}

constexpr size_t link_attributes = sizeof(nlmsghdr) + sizeof(ifinfomsg);

TEST(Parse, ALinkComesOutWithAllItsFields) {
  const auto got = parsed(nl::link({.ifindex = 7,
                                    .name = "swp1",
                                    .flags = 0x11043,
                                    .mtu = 9000,
                                    .master = 3,
                                    .kind = "veth",
                                    .hardware_address = "\x02\x11\x22\x33\x44\x55"}));
  ASSERT_EQ(got.links.size(), 1u);
  const LinkMessage &link = got.links[0];
  EXPECT_EQ(link.ifindex, 7u);
  EXPECT_FALSE(link.removed);
  EXPECT_EQ(link.name, "swp1");
  EXPECT_EQ(link.flags, 0x11043u);
  EXPECT_EQ(link.mtu, 9000u);
  EXPECT_EQ(link.master, 3u);
  EXPECT_EQ(link.kind, "veth");
  EXPECT_EQ(link.vrf_table, 0u);
  EXPECT_EQ(link.hardware_address_len, 6);
  EXPECT_EQ(link.hardware_address[1], 0x11);
  EXPECT_TRUE(got.refusals.empty());
}

TEST(Parse, AVrfDeviceBringsItsTable) {
  const auto got = parsed(nl::link({.ifindex = 9, .name = "blue", .kind = "vrf", .vrf_table = 1001}));
  ASSERT_EQ(got.links.size(), 1u);
  EXPECT_EQ(got.links[0].kind, "vrf");
  EXPECT_EQ(got.links[0].vrf_table, 1001u);
}

TEST(Parse, TheTableOfAVrfIsFoundWhenItsDataComesBeforeItsKind) {
  nl::Bytes data;
  nl::attribute(data, IFLA_VRF_TABLE, 77u);
  nl::Bytes information;
  nl::attribute(information, IFLA_INFO_DATA, data);
  nl::attribute(information, IFLA_INFO_KIND, std::string_view("vrf"));
  nl::Bytes body = nl::link_body({});
  nl::attribute(body, IFLA_LINKINFO, information);
  const auto got = parsed(nl::message(RTM_NEWLINK, body));
  ASSERT_EQ(got.links.size(), 1u);
  EXPECT_EQ(got.links[0].vrf_table, 77u);
}

TEST(Parse, DataOfAnotherKindIsNotTakenForAVrfTable) {
  const auto got = parsed(nl::link({.kind = "bridge", .vrf_table = 12}));
  ASSERT_EQ(got.links.size(), 1u);
  EXPECT_EQ(got.links[0].vrf_table, 0u);
}

TEST(Parse, AnAddressComesOutInHostOrder) {
  const auto got = parsed(nl::address({.ifindex = 4, .local = 0xc0000201, .prefix_len = 26, .scope = 253}));
  ASSERT_EQ(got.addresses.size(), 1u);
  EXPECT_EQ(got.addresses[0], (AddressMessage{.ifindex = 4,
                                              .removed = false,
                                              .local = 0xc0000201,
                                              .peer = 0xc0000201,
                                              .prefix_len = 26,
                                              .scope = 253,
                                              .secondary = false}));
}

TEST(Parse, TheWideFlagsOfAnAddressBeatTheNarrowOnes) {
  nl::Bytes body = nl::address_body({.flags = 0});
  body[2] = std::byte{IFA_F_SECONDARY};  // ifa_flags
  EXPECT_FALSE(parsed(nl::message(RTM_NEWADDR, body)).addresses.at(0).secondary);
  EXPECT_TRUE(parsed(nl::address({.flags = IFA_F_SECONDARY})).addresses.at(0).secondary);
}

TEST(Parse, AnAddressWithAPeerKeepsBoth) {
  const auto got = parsed(nl::address({.local = 0x0a000001, .peer = 0x0a000002, .prefix_len = 32}));
  ASSERT_EQ(got.addresses.size(), 1u);
  EXPECT_EQ(got.addresses[0].local, 0x0a000001u);
  EXPECT_EQ(got.addresses[0].peer, 0x0a000002u);
}

TEST(Parse, AnAddressWithoutALocalPartIsItsOwnPeer) {
  nl::Bytes body;
  ifaddrmsg fixed{};
  fixed.ifa_family = AF_INET;
  fixed.ifa_prefixlen = 8;
  fixed.ifa_index = 1;
  nl::append(body, fixed);
  nl::attribute(body, IFA_ADDRESS, htonl(0x7f000001));
  const auto got = parsed(nl::message(RTM_NEWADDR, body));
  ASSERT_EQ(got.addresses.size(), 1u);
  EXPECT_EQ(got.addresses[0].local, 0x7f000001u);
  EXPECT_EQ(got.addresses[0].peer, 0x7f000001u);
}

TEST(Parse, SettingsThatAreNotToldStayOpen) {
  const auto got = parsed(nl::netconf(5, 1, -1) + nl::netconf(netconf_all, -1, 1));
  ASSERT_EQ(got.settings.size(), 2u);
  EXPECT_EQ(got.settings[0].ifindex, 5);
  EXPECT_EQ(got.settings[0].forwarding, true);
  EXPECT_EQ(got.settings[0].directed_broadcast, std::nullopt);
  EXPECT_EQ(got.settings[1].ifindex, netconf_all);
  EXPECT_EQ(got.settings[1].directed_broadcast, true);
}

TEST(Parse, RemovalsAreMarked) {
  nl::Bytes bytes = nl::link_gone(3) + nl::address_gone({}) + nl::message(RTM_DELNETCONF, nl::netconf_body(3, -1, -1));
  const auto got = parsed(bytes);
  EXPECT_TRUE(got.links.at(0).removed);
  EXPECT_TRUE(got.addresses.at(0).removed);
  EXPECT_TRUE(got.settings.at(0).removed);
}

TEST(Parse, ABridgePortThatLeavesItsBridgeIsNotADeviceThatGoes) {
  const auto got = parsed(nl::message(RTM_DELLINK, nl::link_body({.family = AF_BRIDGE})));
  EXPECT_EQ(got.taken(), 0u);
  EXPECT_TRUE(got.refusals.empty());
}

TEST(Parse, AddressesOfAnotherFamilyArePassedOver) {
  const auto got = parsed(nl::address({.family = AF_INET6}) + nl::address({.ifindex = 8}));
  ASSERT_EQ(got.addresses.size(), 1u);
  EXPECT_EQ(got.addresses[0].ifindex, 8u);
  EXPECT_TRUE(got.refusals.empty());
}

TEST(Parse, TypesThatAreNotOursArePassedOver) {
  const auto got = parsed(nl::message(RTM_NEWROUTE, nl::Bytes(12)) + nl::message(NLMSG_NOOP, {}) + nl::link({}));
  EXPECT_EQ(got.taken(), 1u);
  EXPECT_TRUE(got.refusals.empty());
}

TEST(Parse, TheOriginSaysWhoAskedAndWhetherTheDumpWasDisturbed) {
  const auto got = parsed(nl::link({}, {.flags = NLM_F_MULTI | NLM_F_DUMP_INTR, .sequence = 17, .port = 99}));
  ASSERT_EQ(got.origins.size(), 1u);
  EXPECT_EQ(got.origins[0].sequence, 17u);
  EXPECT_EQ(got.origins[0].port, 99u);
  EXPECT_TRUE(got.origins[0].interrupted);
}

TEST(Parse, TheEndOfADumpCarriesItsError) {
  const auto got = parsed(nl::done({.sequence = 1}) + nl::done({.sequence = 2}, -105) + nl::message(NLMSG_DONE, {}));
  EXPECT_EQ(got.ends, (std::vector<int>{0, 105, 0}));
}

TEST(Parse, ARefusedRequestIsNamedByItsNumber) {
  const auto got = parsed(nl::error({.sequence = 33}, 16));
  ASSERT_EQ(got.failures.size(), 1u);
  EXPECT_EQ(got.failures[0], (std::pair<uint32_t, int>{33, 16}));
}

TEST(Parse, TheKernelsOverrunMessageIsReported) {
  EXPECT_EQ(parsed(nl::message(NLMSG_OVERRUN, {})).losses, 1);
}

TEST(Parse, AnEmptyDatagramSaysNothing) {
  const auto got = parsed({});
  EXPECT_EQ(got.taken(), 0u);
  EXPECT_TRUE(got.refusals.empty());
}

// Every message, cut off at every length: refused once, and what came before it is kept.
TEST(Parse, AMessageCutAtAnyLengthIsRefusedAlone) {
  const std::vector<nl::Bytes> whole = {nl::link({.kind = "vrf", .vrf_table = 10}), nl::address({}),
                                        nl::netconf(2, 1, 1), nl::done({}), nl::error({}, 16)};
  const nl::Bytes before = nl::address({.ifindex = 77});
  for (const nl::Bytes &message : whole) {
    for (size_t length = 1; length < message.size(); ++length) {
      const nl::Bytes cut(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(length));
      const auto got = parsed(before + cut);
      EXPECT_EQ(got.taken(), 1u);
      ASSERT_EQ(got.refusals.size(), 1u);
      EXPECT_EQ(got.refusals[0], length < sizeof(nlmsghdr) ? Refusal::short_header : Refusal::lying_length);
    }
  }
}

// The header's length made to agree with the cut: what is left is judged by its own parts.
TEST(Parse, AShortenedMessageThatAgreesWithItselfIsNeverReadBeyondItsEnd) {
  const std::vector<nl::Bytes> whole = {nl::link({.kind = "vrf", .vrf_table = 10}), nl::address({}),
                                        nl::netconf(2, 1, 1)};
  for (const nl::Bytes &message : whole) {
    for (size_t length = sizeof(nlmsghdr); length < message.size(); ++length) {
      nl::Bytes cut(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(length));
      const auto stated = static_cast<uint32_t>(length);
      std::memcpy(cut.data(), &stated, sizeof stated);
      const auto got = parsed(cut);
      EXPECT_EQ(got.taken() + got.refusals.size(), 1u) << "length " << length;
    }
  }
}

TEST(Parse, AMessageWithoutItsFixedPartIsRefused) {
  for (uint16_t type : {RTM_NEWLINK, RTM_NEWADDR, RTM_NEWNETCONF}) {
    const auto got = parsed(nl::message(type, nl::Bytes(3)));
    EXPECT_EQ(got.refusals, std::vector<Refusal>{Refusal::short_body});
  }
}

TEST(Parse, AHeaderShorterThanAHeaderEndsTheDatagram) {
  nl::Bytes bytes = nl::link({}) + nl::link({});
  const uint32_t lie = sizeof(nlmsghdr) - 1;
  std::memcpy(bytes.data(), &lie, sizeof lie);
  const auto got = parsed(bytes);
  EXPECT_EQ(got.taken(), 0u);
  EXPECT_EQ(got.refusals, std::vector<Refusal>{Refusal::lying_length});
}

TEST(Parse, AHeaderLongerThanTheDatagramEndsIt) {
  for (uint32_t lie : {200u, 0x7fffffffu, 0xffffffffu}) {
    nl::Bytes bytes = nl::address({});
    std::memcpy(bytes.data(), &lie, sizeof lie);
    EXPECT_EQ(parsed(bytes).refusals, std::vector<Refusal>{Refusal::lying_length});
  }
}

TEST(Parse, AnAttributeThatLiesAboutItsLengthCostsOnlyItsMessage) {
  for (uint16_t lie : {uint16_t{0}, uint16_t{3}, uint16_t{0xffff}}) {
    nl::Bytes bytes = nl::link({});
    set_length(bytes, link_attributes, lie);
    const auto got = parsed(bytes + nl::address({}));
    EXPECT_EQ(got.refusals, std::vector<Refusal>{Refusal::lying_attribute});
    EXPECT_EQ(got.links.size(), 0u);
    EXPECT_EQ(got.addresses.size(), 1u);
  }
}

TEST(Parse, ANestedAttributeThatLiesCostsItsMessage) {
  nl::Bytes information;
  nl::attribute(information, IFLA_INFO_KIND, std::string_view("vrf"));
  set_length(information, 0, 100);
  nl::Bytes body = nl::link_body({});
  nl::attribute(body, IFLA_LINKINFO, information);
  EXPECT_EQ(parsed(nl::message(RTM_NEWLINK, body)).refusals, std::vector<Refusal>{Refusal::lying_attribute});
}

TEST(Parse, ANumberOfAnotherSizeIsRefused) {
  const std::vector<std::pair<uint16_t, uint16_t>> numbers = {
      {RTM_NEWLINK, IFLA_MTU},           {RTM_NEWLINK, IFLA_MASTER}, {RTM_NEWADDR, IFA_LOCAL},
      {RTM_NEWADDR, IFA_ADDRESS},        {RTM_NEWADDR, IFA_FLAGS},   {RTM_NEWNETCONF, NETCONFA_FORWARDING},
      {RTM_NEWNETCONF, NETCONFA_IFINDEX}};
  for (const auto &[type, attribute] : numbers) {
    for (size_t size : {size_t{0}, size_t{2}, size_t{8}}) {
      nl::Bytes body = type == RTM_NEWLINK   ? nl::link_body({})
                       : type == RTM_NEWADDR ? nl::address_body({})
                                             : nl::netconf_body(1, 1, 1);
      nl::attribute(body, attribute, nl::Bytes(size));
      EXPECT_EQ(parsed(nl::message(type, body)).refusals, std::vector<Refusal>{Refusal::wrong_attribute_size});
    }
  }
}

TEST(Parse, AHardwareAddressLongerThanAnyIsRefused) {
  EXPECT_EQ(parsed(nl::link({.hardware_address = std::string(33, 'x')})).refusals,
            std::vector<Refusal>{Refusal::wrong_attribute_size});
  EXPECT_EQ(parsed(nl::link({.hardware_address = std::string(32, 'x')})).links.size(), 1u);
}

TEST(Parse, NamesThatCannotBeAreRefused) {
  EXPECT_EQ(parsed(nl::link({.name = ""})).refusals, std::vector<Refusal>{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::link({.name = "sixteen-letters-"})).refusals, std::vector<Refusal>{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::link({.name = "fifteen-letters"})).links.size(), 1u);
  nl::Bytes body = nl::link_body({});
  nl::attribute(body, IFLA_IFNAME, nl::Bytes(4, std::byte{'e'}));  // not terminated
  EXPECT_EQ(parsed(nl::message(RTM_NEWLINK, body)).refusals, std::vector<Refusal>{Refusal::bad_value});
}

TEST(Parse, ValuesOutOfRangeAreRefused) {
  EXPECT_EQ(parsed(nl::link({.ifindex = 0})).refusals, std::vector<Refusal>{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::link({.ifindex = -4})).refusals, std::vector<Refusal>{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::address({.ifindex = 0})).refusals, std::vector<Refusal>{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::address({.prefix_len = 33})).refusals, std::vector<Refusal>{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::netconf(0, 1, 1)).refusals, std::vector<Refusal>{Refusal::bad_value});
  EXPECT_EQ(parsed(nl::netconf(-3, 1, 1)).refusals, std::vector<Refusal>{Refusal::bad_value});
}

TEST(Parse, WhatAMessageNeedsMustBeThere) {
  nl::Bytes link;
  ifinfomsg fixed_link{};
  fixed_link.ifi_index = 3;
  nl::append(link, fixed_link);
  nl::Bytes address;
  ifaddrmsg fixed_address{};
  fixed_address.ifa_family = AF_INET;
  fixed_address.ifa_index = 3;
  nl::append(address, fixed_address);
  nl::Bytes settings;
  nl::append(settings, netconfmsg{.ncm_family = AF_INET});
  nl::pad(settings);
  const auto got = parsed(nl::message(RTM_NEWLINK, link) + nl::message(RTM_NEWADDR, address) +
                          nl::message(RTM_NEWNETCONF, settings));
  EXPECT_EQ(got.taken(), 0u);
  EXPECT_EQ(got.refusals, std::vector<Refusal>(3, Refusal::missing_attribute));
}

TEST(Parse, EveryRefusalHasAText) {
  for (size_t i = 0; i < refusal_count; ++i) EXPECT_STRNE(refusal_text(static_cast<Refusal>(i)), "unknown");
}

// Any byte of a good datagram changed to anything: it returns, and takes or refuses.
TEST(Parse, DamagedBytesNeverLeadOutsideTheDatagram) {
  std::mt19937 random(20240601);
  const nl::Bytes whole =
      nl::link({.kind = "vrf", .vrf_table = 10}) + nl::address({}) + nl::netconf(2, 1, 1) + nl::done({});
  size_t taken = 0;
  size_t refused = 0;
  for (int round = 0; round < 20000; ++round) {
    nl::Bytes bytes = whole;
    for (int i = 0; i < 3; ++i) bytes[random() % bytes.size()] = static_cast<std::byte>(random());
    bytes.resize(1 + random() % bytes.size());
    const auto got = parsed(bytes);
    taken += got.taken();
    refused += got.refusals.size();
  }
  EXPECT_GT(taken, 0u);
  EXPECT_GT(refused, 0u);
}

}  // namespace
