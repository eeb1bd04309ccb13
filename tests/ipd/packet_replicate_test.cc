// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/replicate.h"

#include "ipd/reception_rig.h"

namespace {

using namespace reception_rig;

constexpr int32_t forwarder = 10, member = 20;

class PacketReplicateTest : public testing::Test {
 protected:
  PacketReplicateTest() {
    for (uint32_t iod = 5; iod <= 8; ++iod) box_.add(iod, iod * 10, "eth" + std::to_string(iod));
  }
  Outcome replicate_bytes(Bytes packet, uint32_t iod = 5, uint8_t flags = 0, uint32_t context_id = 0) {
    ip_msg_replicate record{};
    record.iod = iod;
    record.context_id = context_id;
    record.flags = flags;
    Request request = request_of(record, IP_MSG_REPLICATE, forwarder, packet);
    return replicate_.handle(request);
  }
  Outcome replicate(const PacketFields &fields, uint32_t iod = 5, uint8_t flags = 0, uint32_t context_id = 0) {
    return replicate_bytes(packet_with(fields), iod, flags, context_id);
  }

  using Iods = std::vector<uint32_t>;
  static constexpr PacketFields stream{.destination = group, .ttl = 9};
  test_support::FakeBox box_;
  ListedAddresses addresses_;
  Members members_{box_};
  RecordingOutput output_;
  RecordingLocal local_;
  Replicate replicate_{box_, addresses_, members_.memberships, output_, local_};
};

TEST_F(PacketReplicateTest, EveryInterfaceThatJoinedTheGroupGetsACopyButTheOneItCameFrom) {
  members_.join(member, 5, group);
  members_.join(member, 6, group);
  members_.join(member, 7, group + 1);
  members_.join(member + 1, 8, group);
  EXPECT_EQ(replicate(stream), Outcome::done);
  EXPECT_EQ(output_.iods(), (Iods{6, 8}));
  EXPECT_EQ(output_.sent[0].second, packet_with(stream));
  EXPECT_EQ(output_.sent[1].second, packet_with(stream));
  Way way;
  way.iod = 6;
  way.context_id = 1;
  EXPECT_EQ(output_.sent[0].first, way);
  EXPECT_TRUE(local_.given.empty());
}

TEST_F(PacketReplicateTest, AChannelCountsWhenItsSourceIsThePackets) {
  members_.join(member, 6, group, neighbor);
  members_.join(member, 7, group, neighbor + 1);
  EXPECT_EQ(replicate(stream), Outcome::done);
  EXPECT_EQ(output_.iods(), (Iods{6}));
}

TEST_F(PacketReplicateTest, WhoTakesEveryGroupHasNotAskedForThisOne) {
  members_.join(member, 6, 0);
  EXPECT_EQ(replicate(stream), Outcome::no_member);
  EXPECT_TRUE(output_.sent.empty());
}

TEST_F(PacketReplicateTest, WithoutAnInterfaceEveryOneThatJoinedGetsACopy) {
  members_.join(member, 5, group);
  members_.join(member, 6, group);
  EXPECT_EQ(replicate(stream, 0), Outcome::done);
  EXPECT_EQ(output_.iods(), (Iods{5, 6}));
}

TEST_F(PacketReplicateTest, OnlyTheContextsInterfacesGetCopies) {
  members_.join(member, 6, group);
  members_.join(member, 7, group);
  box_.interfaces.at(7).state.context_id = 7;
  EXPECT_EQ(replicate(stream), Outcome::done);
  EXPECT_EQ(replicate(stream, 5, 0, 7), Outcome::done);
  EXPECT_EQ(output_.iods(), (Iods{6, 7}));
  EXPECT_EQ(output_.sent[1].first.context_id, 7);
}

TEST_F(PacketReplicateTest, InterfaceAndContextHaveToBeThere) {
  EXPECT_EQ(replicate(stream, 99), Outcome::no_interface);
  EXPECT_EQ(replicate(stream, 5, 0, 99), Outcome::no_context);
}

TEST_F(PacketReplicateTest, ALoopbackInterfaceGetsNoCopy) {
  members_.join(member, 6, group);
  box_.interfaces.at(6).state.loopback = true;
  EXPECT_EQ(replicate(stream), Outcome::no_member);
}

TEST_F(PacketReplicateTest, AnInterfaceThatIsDownGetsNone) {
  members_.join(member, 6, group);
  members_.join(member, 7, group);
  box_.interfaces.at(6).state.up = false;
  EXPECT_EQ(replicate(stream), Outcome::done);
  EXPECT_EQ(output_.iods(), (Iods{7}));
  box_.interfaces.at(7).state.up = false;
  EXPECT_EQ(replicate(stream), Outcome::interface_down);
}

TEST_F(PacketReplicateTest, WhatFailsOnOneLinkDoesNotKeepTheOthersFromTheirs) {
  members_.join(member, 6, group);
  members_.join(member, 7, group);
  output_.outcomes[6] = Outcome::no_privilege;
  EXPECT_EQ(replicate(stream), Outcome::done);
  output_.outcomes[7] = Outcome::kernel;
  EXPECT_EQ(replicate(stream), Outcome::no_privilege);
  EXPECT_EQ(output_.iods(), (Iods{6, 7, 6, 7}));
}

TEST_F(PacketReplicateTest, OneCopyGoesToOurOwnMembersWhenThatIsAskedFor) {
  members_.join(member, 6, group);
  EXPECT_EQ(replicate(stream, 5, IP_REPLICATE_LOCAL), Outcome::done);
  EXPECT_EQ(output_.iods(), (Iods{6}));
  ASSERT_EQ(local_.given.size(), 1u);
  EXPECT_EQ(local_.given[0].first, (Arrival{.iod = 5, .context_id = 1, .from_pid = forwarder}));
  EXPECT_EQ(local_.given[0].second, packet_with(stream));
}

TEST_F(PacketReplicateTest, TheOutcomeIsGoodWhenEitherKindOfCopyWentOut) {
  local_.outcome = Outcome::queue_full;
  EXPECT_EQ(replicate(stream, 5, IP_REPLICATE_LOCAL), Outcome::queue_full);
  members_.join(member, 6, group);
  EXPECT_EQ(replicate(stream, 5, IP_REPLICATE_LOCAL), Outcome::done);
  output_.outcomes[6] = Outcome::kernel;
  EXPECT_EQ(replicate(stream, 5, IP_REPLICATE_LOCAL), Outcome::kernel);
  local_.outcome = Outcome::done;
  EXPECT_EQ(replicate(stream, 5, IP_REPLICATE_LOCAL), Outcome::done);
}

TEST_F(PacketReplicateTest, GroupsOfTheLinkAndPacketsAtTheEndOfTheirWayStay) {
  for (const PacketFields &fields :
       {PacketFields{.destination = all_ospf, .ttl = 9}, PacketFields{.destination = 0xe00000ff, .ttl = 9},
        PacketFields{.destination = group, .ttl = 0}}) {
    members_.join(member, 6, fields.destination);
    EXPECT_EQ(replicate(fields), Outcome::bad_packet);
    EXPECT_EQ(replicate(fields, 5, IP_REPLICATE_LOCAL), Outcome::done);
  }
  EXPECT_TRUE(output_.sent.empty());
  EXPECT_EQ(local_.given.size(), 3u);
}

TEST_F(PacketReplicateTest, ATtlOfOneReachesTheNextLink) {
  members_.join(member, 6, group);
  EXPECT_EQ(replicate({.destination = group, .ttl = 1}), Outcome::done);
  ASSERT_EQ(output_.sent.size(), 1u);
  EXPECT_EQ(ipv4::ttl(output_.sent[0].second), 1);
}

TEST_F(PacketReplicateTest, TheFirstGroupBehindThoseOfTheLinkIsReplicated) {
  members_.join(member, 6, 0xe0000100);
  EXPECT_EQ(replicate({.destination = 0xe0000100, .ttl = 9}), Outcome::done);
}

TEST_F(PacketReplicateTest, OnlyGroupsAreReplicated) {
  for (const uint32_t destination : {our_address, subnet_broadcast, 0xffffffffu}) {
    EXPECT_EQ(replicate({.destination = destination, .ttl = 9}, 5, IP_REPLICATE_LOCAL), Outcome::bad_packet);
  }
  EXPECT_TRUE(local_.given.empty());
}

TEST_F(PacketReplicateTest, SourcesThatNoWireCarriesAreRefused) {
  members_.join(member, 6, group);
  for (const uint32_t source : {0u, 0x00000001u, 0x7f000001u, group, 0xf0000001u, 0xffffffffu}) {
    EXPECT_EQ(replicate({.source = source, .destination = group, .ttl = 9}), Outcome::bad_packet);
  }
  EXPECT_TRUE(output_.sent.empty());
}

TEST_F(PacketReplicateTest, MissingLengthAndChecksumAreFilledIn) {
  members_.join(member, 6, group);
  Bytes no_checksum = packet_with(stream), no_length = packet_with(stream), neither = packet_with(stream);
  ipv4::write16(no_checksum, ipv4::checksum_at, 0);
  ipv4::write16(no_length, ipv4::total_length_at, 0);
  ipv4::write_checksum(no_length);
  ipv4::write16(neither, ipv4::total_length_at, 0);
  ipv4::write16(neither, ipv4::checksum_at, 0);
  for (const Bytes &packet : {no_checksum, no_length, neither}) {
    EXPECT_EQ(replicate_bytes(packet, 5, IP_REPLICATE_LOCAL), Outcome::done);
    EXPECT_EQ(output_.sent.back().second, packet_with(stream));
    EXPECT_EQ(local_.given.back().second, packet_with(stream));
  }
}

TEST_F(PacketReplicateTest, ABadChecksumIsRefused) {
  members_.join(member, 6, group);
  Bytes packet = packet_with(stream);
  packet[ipv4::checksum_at] ^= std::byte{1};
  EXPECT_EQ(replicate_bytes(packet), Outcome::bad_packet);
  EXPECT_TRUE(output_.sent.empty());
}

}  // namespace
