// SPDX-License-Identifier: Apache-2.0
#include "ipd/kernel/picture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

namespace {

using namespace ipd::kernel;

LinkMessage link(uint32_t ifindex, const std::string &name, uint8_t hardware = 1) {
  LinkMessage message;
  message.ifindex = ifindex;
  message.name = name;
  message.mtu = 1500;
  message.hardware_type = 1;
  message.hardware_address[0] = hardware;
  message.hardware_address_len = 6;
  return message;
}

LinkMessage link_gone(uint32_t ifindex) {
  LinkMessage message;
  message.ifindex = ifindex;
  message.removed = true;
  return message;
}

AddressMessage address(uint32_t ifindex, uint32_t local, bool secondary = false, uint8_t scope = 0) {
  return {.ifindex = ifindex, .local = local, .peer = local, .prefix_len = 24, .scope = scope, .secondary = secondary};
}

AddressMessage gone(AddressMessage message) {
  message.removed = true;
  return message;
}

std::vector<uint32_t> listed(const Picture &picture, uint32_t ifindex) {
  std::vector<uint32_t> list;
  if (const auto *addresses = picture.addresses(ifindex)) {
    for (const auto &[place, key] : addresses->in_order()) list.push_back(key.addr);
  }
  return list;
}

using List = std::vector<uint32_t>;

TEST(Picture, PrimariesStandByScopeAndSecondariesBehindThem) {
  Picture picture;
  picture.address(address(2, 0x0a000001));
  picture.address(address(2, 0x0a000002, true));
  picture.address(address(2, 0x0a000101));
  picture.address(address(2, 0x0a000201, false, 253));
  picture.address(address(2, 0x0a000301, false, 254));
  picture.address(address(2, 0x0a000401, false, 253));
  EXPECT_EQ(listed(picture, 2), (List{0x0a000301, 0x0a000201, 0x0a000401, 0x0a000001, 0x0a000101, 0x0a000002}));
}

TEST(Picture, APromotedSecondaryComesBehindTheOtherPrimaries) {
  Picture picture;
  picture.address(address(2, 0x0a000001));
  picture.address(address(2, 0x0a000101));
  picture.address(address(2, 0x0a000002, true));
  picture.address(address(2, 0x0a000102, true));
  picture.address(gone(address(2, 0x0a000001)));
  picture.address(address(2, 0x0a000002, false));
  EXPECT_EQ(listed(picture, 2), (List{0x0a000101, 0x0a000002, 0x0a000102}));
}

TEST(Picture, ARepeatedAddressKeepsItsPlace) {
  Picture picture;
  picture.address(address(2, 1));
  picture.address(address(2, 2));
  picture.address(address(2, 1));
  EXPECT_EQ(listed(picture, 2), (List{1, 2}));
}

TEST(Picture, AddressesThatDifferInTheirPeerOnlyAreOneToReaders) {
  Picture picture;
  AddressMessage one = address(2, 0x0a000001);
  one.peer = 0x0a000002;
  one.prefix_len = 32;
  AddressMessage two = one;
  two.peer = 0x0a000003;
  picture.address(one);
  picture.address(two);
  ASSERT_NE(picture.addresses(2), nullptr);
  EXPECT_NE(picture.addresses(2)->find(0x0a000001, 32), nullptr);
  picture.address(gone(one));
  EXPECT_NE(picture.addresses(2)->find(0x0a000001, 32), nullptr);
  picture.address(gone(two));
  EXPECT_EQ(picture.addresses(2), nullptr);
}

TEST(Picture, APeersPrefixIsNotTheAddressesOwn) {
  AddressMessage message = address(2, 0x0a000001);
  message.peer = 0x0a010000;
  message.prefix_len = 24;
  EXPECT_EQ(address_key(message).mask_len, 32);
  EXPECT_EQ(address_key(address(2, 0x0a000001)).mask_len, 24);
}

TEST(Picture, AnAddressMayComeBeforeItsLink) {
  Picture picture;
  picture.address(address(5, 1));
  EXPECT_TRUE(picture.links().empty());
  picture.link(link(5, "late"));
  EXPECT_EQ(picture.links().at(5).told.name, "late");
  EXPECT_EQ(listed(picture, 5), List{1});
}

TEST(Picture, ALinkThatGoesTakesItsAddressesAndSettingsAlong) {
  Picture picture;
  picture.link(link(5, "a"));
  picture.address(address(5, 1));
  picture.netconf({.ifindex = 5, .forwarding = true});
  picture.link(link_gone(5));
  EXPECT_TRUE(picture.links().empty());
  EXPECT_EQ(listed(picture, 5), List{});
  EXPECT_FALSE(picture.forwarding(5));
}

TEST(Picture, ADeviceUnderTheSameIfindexIsAnotherIncarnation) {
  Picture picture;
  picture.link(link(5, "a"));
  const uint64_t first = picture.links().at(5).incarnation;
  picture.link(link_gone(5));
  picture.link(link(5, "a"));
  EXPECT_NE(picture.links().at(5).incarnation, first);
}

TEST(Picture, ARenameIsTheSameIncarnation) {
  Picture picture;
  picture.link(link(5, "a"));
  const uint64_t first = picture.links().at(5).incarnation;
  picture.link(link(5, "b"));
  EXPECT_EQ(picture.links().at(5).incarnation, first);
  EXPECT_EQ(picture.links().at(5).told.name, "b");
}

TEST(Picture, ANewHardwareAddressAloneIsTheSameDevice) {
  Picture picture;
  picture.link(link(5, "a", 1));
  const uint64_t first = picture.links().at(5).incarnation;
  picture.link(link(5, "a", 2));
  EXPECT_EQ(picture.links().at(5).incarnation, first);
}

TEST(Picture, AfterLostEventsAnotherHardwareAddressIsAnotherDevice) {
  for (const bool event_first : {false, true}) {
    Picture picture;
    picture.link(link(5, "a", 1));
    picture.link(link(6, "b", 1));
    const uint64_t reused = picture.links().at(5).incarnation;
    const uint64_t kept = picture.links().at(6).incarnation;
    picture.doubt();
    picture.begin_dump();
    if (event_first) picture.link(link(5, "a", 2));
    picture.dump_link(link(5, "a", 2));
    picture.dump_link(link(6, "b", 1));
    picture.end_dump(true);
    EXPECT_NE(picture.links().at(5).incarnation, reused);
    EXPECT_EQ(picture.links().at(6).incarnation, kept);
    // Certainty is back: from now on a new hardware address is only that.
    const uint64_t now = picture.links().at(5).incarnation;
    picture.link(link(5, "a", 3));
    EXPECT_EQ(picture.links().at(5).incarnation, now);
  }
}

TEST(Picture, AfterLostEventsAnotherKindIsAnotherDevice) {
  Picture picture;
  picture.link(link(5, "a"));
  const uint64_t first = picture.links().at(5).incarnation;
  picture.doubt();
  picture.begin_dump();
  LinkMessage bridge = link(5, "a");
  bridge.kind = "bridge";
  picture.dump_link(bridge);
  picture.end_dump(true);
  EXPECT_NE(picture.links().at(5).incarnation, first);
}

TEST(Picture, AMessageWithoutAnMtuTellsOnlyFlagsAndName) {
  Picture picture;
  LinkMessage whole = link(5, "a");
  whole.master = 9;
  whole.flags = 1;
  picture.link(whole);
  LinkMessage part = link(5, "a2");
  part.mtu.reset();
  part.flags = 3;
  part.hardware_address_len = 0;
  picture.link(part);
  EXPECT_EQ(picture.links().at(5).told.name, "a2");
  EXPECT_EQ(picture.links().at(5).told.flags, 3u);
  EXPECT_EQ(picture.links().at(5).told.master, 9u);
  EXPECT_EQ(picture.links().at(5).told.mtu, 1500u);
  LinkMessage unknown = part;
  unknown.ifindex = 6;
  picture.link(unknown);
  EXPECT_FALSE(picture.links().contains(6));
}

TEST(Picture, DirectedBroadcastNeedsTheSystemsSwitchToo) {
  Picture picture;
  picture.netconf({.ifindex = 5, .forwarding = false, .directed_broadcast = true});
  EXPECT_FALSE(picture.directed_broadcast(5));
  picture.netconf({.ifindex = netconf_all, .directed_broadcast = true});
  EXPECT_TRUE(picture.directed_broadcast(5));
  EXPECT_FALSE(picture.directed_broadcast(6));
}

TEST(Picture, TheSystemsSwitchTouchesEveryLink) {
  Picture picture;
  picture.link(link(5, "a"));
  picture.link(link(6, "b"));
  (void)picture.take_changes();
  picture.netconf({.ifindex = netconf_all, .directed_broadcast = true});
  EXPECT_EQ(picture.changes().links, (std::set<uint32_t>{5, 6}));
}

TEST(Picture, ChangesNameWhatAnEventTouched) {
  Picture picture;
  picture.link(link(5, "a"));
  picture.address(address(5, 1));
  const Changes changes = picture.take_changes();
  EXPECT_FALSE(changes.everything);
  EXPECT_EQ(changes.links, std::set<uint32_t>{5});
  ASSERT_EQ(changes.addresses.size(), 1u);
  EXPECT_TRUE(picture.changes().empty());
  picture.link(link(5, "a"));
  EXPECT_TRUE(picture.changes().empty()) << "nothing changed";
}

TEST(Picture, ADumpRemovesWhatItDoesNotName) {
  Picture picture;
  picture.link(link(5, "a"));
  picture.link(link(6, "b"));
  picture.address(address(5, 1));
  picture.address(address(5, 2));
  picture.begin_dump();
  picture.dump_link(link(5, "a"));
  picture.dump_address(address(5, 2));
  picture.end_dump(true);
  EXPECT_EQ(picture.links().size(), 1u);
  EXPECT_EQ(listed(picture, 5), List{2});
  EXPECT_TRUE(picture.changes().everything);
}

TEST(Picture, ADumpThatMayHaveMissedSomethingRemovesNothing) {
  Picture picture;
  picture.link(link(5, "a"));
  picture.address(address(5, 1));
  picture.netconf({.ifindex = 5, .forwarding = true});
  picture.begin_dump();
  picture.dump_address(address(5, 2));
  picture.end_dump(false);
  EXPECT_TRUE(picture.links().contains(5));
  EXPECT_EQ(listed(picture, 5), (List{2, 1}));
  EXPECT_TRUE(picture.forwarding(5));
}

TEST(Picture, WhatAnEventRemovedDuringAnUncertainDumpStaysRemoved) {
  Picture picture;
  picture.link(link(5, "a"));
  picture.address(address(5, 1));
  picture.begin_dump();
  picture.address(gone(address(5, 1)));
  picture.link(link_gone(5));
  picture.end_dump(false);
  EXPECT_TRUE(picture.links().empty());
  EXPECT_EQ(listed(picture, 5), List{});
}

// An event and the dump entry of the same object, in both orders.
TEST(Picture, AnEventBeatsADumpEntryInEitherOrder) {
  for (const bool event_first : {true, false}) {
    Picture picture;
    picture.begin_dump();
    const auto event = [&] {
      picture.link(link(5, "new"));
      picture.address(gone(address(5, 1)));
      picture.netconf({.ifindex = 5, .forwarding = true});
    };
    const auto entry = [&] {
      picture.dump_link(link(5, "old"));
      picture.dump_address(address(5, 1));
      picture.dump_netconf({.ifindex = 5, .forwarding = false, .directed_broadcast = true});
    };
    if (event_first) event();
    entry();
    if (!event_first) event();
    picture.netconf({.ifindex = netconf_all, .directed_broadcast = true});
    picture.end_dump(true);
    EXPECT_EQ(picture.links().at(5).told.name, "new");
    EXPECT_EQ(listed(picture, 5), List{});
    EXPECT_TRUE(picture.forwarding(5));
    EXPECT_TRUE(picture.directed_broadcast(5)) << "the event did not tell it, the dump did";
  }
}

TEST(Picture, ALinkRemovedDuringADumpDoesNotComeBackWithIt) {
  Picture picture;
  picture.link(link(5, "a"));
  picture.begin_dump();
  picture.link(link_gone(5));
  picture.dump_link(link(5, "a"));
  picture.end_dump(true);
  EXPECT_TRUE(picture.links().empty());
}

TEST(Picture, AnAddressThatAnEventBroughtEarlyStandsWhereTheDumpHasIt) {
  Picture picture;
  picture.begin_dump();
  picture.address(address(5, 3));
  for (uint32_t local : {1u, 2u, 3u}) picture.dump_address(address(5, local));
  picture.end_dump(true);
  EXPECT_EQ(listed(picture, 5), (List{1, 2, 3}));
}

TEST(Picture, AnEventAfterItsInterfacesEntriesComesBehindThem) {
  Picture picture;
  picture.begin_dump();
  picture.dump_address(address(5, 1));
  picture.dump_address(address(5, 2));
  picture.address(address(5, 3));
  picture.end_dump(true);
  EXPECT_EQ(listed(picture, 5), (List{1, 2, 3}));
}

TEST(Picture, EventsGoOnToShowDuringADump) {
  Picture picture;
  picture.link(link(5, "a"));
  picture.begin_dump();
  picture.address(address(5, 1));
  EXPECT_EQ(listed(picture, 5), List{1});
}

}  // namespace
