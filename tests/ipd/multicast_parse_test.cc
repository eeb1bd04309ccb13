// SPDX-License-Identifier: Apache-2.0
// Messages about multicast and the text file of groups, as the kernel makes them, and whatever else.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/mroute.h>

#include <random>
#include <variant>

#include "ipd/kernel/multicast_parse.h"
#include "ipd/netlink_messages.h"

namespace {

using ipd::kernel::ForwardingCounts;
using ipd::kernel::GroupMessage;
using namespace netlink_messages;

struct Heard final : ipd::kernel::MulticastSink {
  void group(uint32_t sequence, const GroupMessage &message) override { groups.emplace_back(sequence, message); }
  void received(uint32_t, uint32_t ifindex, uint64_t packets) override { packets_of.emplace_back(ifindex, packets); }
  void forwarded(uint32_t, uint32_t ifindex, const ForwardingCounts &counts) override {
    forwarding.emplace_back(ifindex, counts);
  }
  void interrupted(uint32_t sequence) override { interruptions.push_back(sequence); }
  void end_of_dump(uint32_t sequence, int error) override { ends.emplace_back(sequence, error); }
  void malformed() override { ++malformed_ones; }

  std::vector<std::pair<uint32_t, GroupMessage>> groups;
  std::vector<std::pair<uint32_t, uint64_t>> packets_of;
  std::vector<std::pair<uint32_t, ForwardingCounts>> forwarding;
  std::vector<uint32_t> interruptions;
  std::vector<std::pair<uint32_t, int>> ends;
  int malformed_ones = 0;
};

Bytes wire(uint16_t type, const Bytes &body, uint32_t sequence = 0, uint16_t flags = 0) {
  Bytes bytes;
  append(bytes, nlmsghdr{.nlmsg_len = static_cast<uint32_t>(sizeof(nlmsghdr) + body.size()),
                         .nlmsg_type = type,
                         .nlmsg_flags = flags,
                         .nlmsg_seq = sequence,
                         .nlmsg_pid = 0});
  bytes.insert(bytes.end(), body.begin(), body.end());
  pad(bytes);
  return bytes;
}

Bytes group_body(uint32_t ifindex, uint32_t group, uint8_t family = AF_INET) {
  Bytes body;
  ifaddrmsg fixed{};
  fixed.ifa_family = family;
  fixed.ifa_index = ifindex;
  append(body, fixed);
  attribute(body, IFA_MULTICAST, htonl(group));
  attribute(body, IFA_CACHEINFO, Bytes(16));
  return body;
}

Bytes statistics_body(uint32_t ifindex, uint64_t multicast, size_t size = sizeof(rtnl_link_stats64)) {
  Bytes body;
  if_stats_msg fixed{};
  fixed.ifindex = ifindex;
  append(body, fixed);
  Bytes statistics(sizeof(rtnl_link_stats64), std::byte{0xee});
  std::memcpy(statistics.data() + offsetof(rtnl_link_stats64, multicast), &multicast, sizeof multicast);
  statistics.resize(size);
  attribute(body, IFLA_STATS_LINK_64, statistics);
  return body;
}

void number64(Bytes &bytes, uint16_t type, uint64_t value) {
  Bytes payload;
  append(payload, value);
  attribute(bytes, type, payload);
}

Bytes routing_table_body(uint32_t ifindex, const ForwardingCounts &counts) {
  Bytes vif;
  attribute(vif, IPMRA_VIFA_IFINDEX, ifindex);
  number64(vif, IPMRA_VIFA_BYTES_IN, counts.bytes_in);
  number64(vif, IPMRA_VIFA_BYTES_OUT, counts.bytes_out);
  number64(vif, IPMRA_VIFA_PACKETS_IN, counts.packets_in);
  number64(vif, IPMRA_VIFA_PACKETS_OUT, counts.packets_out);
  Bytes vifs;
  attribute(vifs, IPMRA_VIF | NLA_F_NESTED, vif);
  Bytes table;
  attribute(table, IPMRA_TABLE_ID, 253u);
  attribute(table, IPMRA_TABLE_VIFS | NLA_F_NESTED, vifs);
  Bytes body;
  ifinfomsg fixed{};
  fixed.ifi_family = RTNL_FAMILY_IPMR;
  append(body, fixed);
  attribute(body, IFLA_AF_SPEC, table);
  return body;
}

Heard heard(const Bytes &bytes) {
  Heard sink;
  ipd::kernel::parse_multicast(bytes, sink);
  return sink;
}

constexpr uint16_t joined = 56, left_group = 57, dump_entry = 58;

TEST(MulticastParse, ReadsJoinsLeavesAndEntriesOfADump) {
  Bytes bytes = wire(joined, group_body(3, 0xe0000001));
  for (const Bytes &more :
       {wire(left_group, group_body(3, 0xef010203)), wire(dump_entry, group_body(4, 0xe0000002), 9)}) {
    bytes.insert(bytes.end(), more.begin(), more.end());
  }
  const Heard sink = heard(bytes);
  EXPECT_EQ(sink.groups,
            (std::vector<std::pair<uint32_t, GroupMessage>>{{0, {.ifindex = 3, .group = 0xe0000001, .left = false}},
                                                            {0, {.ifindex = 3, .group = 0xef010203, .left = true}},
                                                            {9, {.ifindex = 4, .group = 0xe0000002, .left = false}}}));
  EXPECT_EQ(sink.malformed_ones, 0);
}

TEST(MulticastParse, PassesOverIpv6) {
  const Heard sink = heard(wire(joined, group_body(3, 0xe0000001, AF_INET6)));
  EXPECT_TRUE(sink.groups.empty());
  EXPECT_EQ(sink.malformed_ones, 0);
}

TEST(MulticastParse, RefusesWhatIsNoGroupOrHasNoInterface) {
  for (const Bytes &body : {group_body(3, 0x0a000001), group_body(0, 0xe0000001), Bytes(4)}) {
    const Heard sink = heard(wire(joined, body));
    EXPECT_TRUE(sink.groups.empty());
    EXPECT_EQ(sink.malformed_ones, 1);
  }
}

TEST(MulticastParse, ReadsReceivedPackets) {
  const Heard sink = heard(wire(RTM_NEWSTATS, statistics_body(7, uint64_t{5} << 40)));
  EXPECT_EQ(sink.packets_of, (std::vector<std::pair<uint32_t, uint64_t>>{{7, uint64_t{5} << 40}}));
  EXPECT_EQ(heard(wire(RTM_NEWSTATS, statistics_body(7, 1, 71))).malformed_ones, 1) << "too short for the counter";
  EXPECT_EQ(heard(wire(RTM_NEWSTATS, statistics_body(7, 1, 72))).packets_of.size(), 1u) << "an older kernel's";
}

TEST(MulticastParse, ReadsWhatIsForwarded) {
  const ForwardingCounts counts{.bytes_in = 1000, .bytes_out = 2000, .packets_in = 10, .packets_out = 20};
  const Heard sink = heard(wire(RTM_NEWLINK, routing_table_body(5, counts)));
  EXPECT_EQ(sink.forwarding, (std::vector<std::pair<uint32_t, ForwardingCounts>>{{5, counts}}));
  Bytes other(sizeof(ifinfomsg));
  EXPECT_EQ(heard(wire(RTM_NEWLINK, other)).malformed_ones, 0) << "a link's own message is not ours";
}

TEST(MulticastParse, TellsEndsErrorsAndInterruptions) {
  Bytes refused;
  append(refused, nlmsgerr{.error = -EOPNOTSUPP, .msg = {}});
  Bytes good;
  append(good, nlmsgerr{.error = 0, .msg = {}});
  EXPECT_EQ(heard(wire(NLMSG_ERROR, refused, 4)).ends, (std::vector<std::pair<uint32_t, int>>{{4, EOPNOTSUPP}}));
  EXPECT_TRUE(heard(wire(NLMSG_ERROR, good, 4)).ends.empty()) << "an acknowledgement";
  EXPECT_EQ(heard(wire(NLMSG_DONE, Bytes(4), 5)).ends, (std::vector<std::pair<uint32_t, int>>{{5, 0}}));
  EXPECT_EQ(heard(wire(NLMSG_DONE, Bytes(4), 6, NLM_F_DUMP_INTR)).interruptions, std::vector<uint32_t>{6});
}

TEST(MulticastParse, DamagedMessagesNeverLeadOutside) {
  const uint32_t seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::vector<Bytes> originals = {wire(joined, group_body(3, 0xe0000001)),
                                        wire(RTM_NEWSTATS, statistics_body(7, 5)),
                                        wire(RTM_NEWLINK, routing_table_body(5, {}))};
  uint64_t told = 0;
  for (int round = 0; round < 20000; ++round) {
    Bytes bytes = originals[random() % originals.size()];
    for (uint32_t changes = random() % 4; changes > 0; --changes) {
      bytes[random() % bytes.size()] = static_cast<std::byte>(random());
    }
    bytes.resize(random() % 4 == 0 ? random() % bytes.size() : bytes.size());
    const Bytes exact(bytes);  // in memory of its size
    const Heard sink = heard(exact);
    for (const auto &[sequence, message] : sink.groups) {
      EXPECT_NE(message.ifindex, 0u);
      EXPECT_EQ(message.group >> 28, 0xeu);
    }
    told += sink.groups.size() + sink.packets_of.size() + sink.forwarding.size();
  }
  EXPECT_GT(told, 0u);
}

std::vector<GroupMessage> igmp(std::string_view text) {
  std::vector<GroupMessage> found;
  ipd::kernel::parse_igmp(text, [&found](const GroupMessage &message) { found.push_back(message); });
  return found;
}

// A group as the file shows it: the word in memory.
std::string shown(uint32_t group) {
  char text[9];
  snprintf(text, sizeof text, "%08X", htonl(group));
  return text;
}

TEST(IgmpText, ReadsGroupsUnderTheirInterfaces) {
  const std::string text =
      "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
      "1\tlo        :     1      V3\n\t\t\t\t" +
      shown(0xe0000001) + "     1 0:00000000\t\t0\n3\tva.5      :     2      V3\n\t\t\t\t" + shown(0xef010203) +
      "     2 0:00000000\t\t1\n\t\t\t\t" + shown(0xe0000001) + "     1 0:00000000\t\t0\n";
  EXPECT_EQ(igmp(text), (std::vector<GroupMessage>{{.ifindex = 1, .group = 0xe0000001, .left = false},
                                                   {.ifindex = 3, .group = 0xef010203, .left = false},
                                                   {.ifindex = 3, .group = 0xe0000001, .left = false}}));
}

TEST(IgmpText, PassesOverWhatItDoesNotUnderstand) {
  EXPECT_TRUE(igmp("").empty());
  EXPECT_TRUE(igmp("Idx\n\t\t\t\t" + shown(0xe0000001) + " 1\n").empty()) << "no interface";
  EXPECT_TRUE(igmp("1\tlo\n\t\t\t\t" + shown(0x0a000001) + " 1\n").empty()) << "no group";
  EXPECT_TRUE(igmp("1\tlo\n\t\t\t\tE00001 1\n").empty()) << "too short";
  EXPECT_TRUE(igmp("1\tlo\n\t\t\t\t" + shown(0xe0000001) + "0 1\n").empty()) << "too long";
  EXPECT_TRUE(igmp("99999999999\tlo\n\t\t\t\t" + shown(0xe0000001) + " 1\n").empty()) << "no ifindex";
  EXPECT_EQ(igmp("1\tlo\n\t" + shown(0xe0000001) + " 1").size(), 1u) << "without the last line's end";
}

}  // namespace
