// SPDX-License-Identifier: Apache-2.0
#include "ipd/kernel/mirror.h"

#include <gtest/gtest.h>

#include "ipd/netlink_messages.h"

namespace {

using namespace ipd::kernel;
namespace nl = netlink_messages;
using nl::operator+;

constexpr uint32_t our_port = 4711;

// A socket without a kernel: remembers what was asked; the test says what is answered.
class MirrorTest : public testing::Test, protected Requests {
 protected:
  MirrorTest() { mirror.set_port(our_port); }

  bool request_dump(DumpOf what, uint32_t sequence) override {
    if (!can_send) return false;
    asked.emplace_back(what, sequence);
    return true;
  }
  bool request_system_settings(uint32_t sequence) override {
    if (!can_send) return false;
    polled.push_back(sequence);
    return true;
  }
  void feed(const nl::Bytes &bytes) { parse(bytes, mirror); }
  [[nodiscard]] nl::Header answer(uint16_t flags = 0) const {
    return {.flags = static_cast<uint16_t>(NLM_F_MULTI | flags), .sequence = asked.back().second, .port = our_port};
  }
  void finish_dump(uint16_t flags = 0) { feed(nl::done(answer(flags))); }
  // Answers the three requests of a cycle.
  void answer_cycle(const std::vector<nl::LinkFields> &links, const std::vector<nl::AddressFields> &addresses,
                    uint16_t flags = 0) {
    for (const auto &link : links) feed(nl::link(link, answer(flags)));
    finish_dump(flags);
    for (const auto &address : addresses) feed(nl::address(address, answer()));
    finish_dump();
    for (const auto &link : links) feed(nl::netconf(link.ifindex, 1, 0, answer()));
    finish_dump();
  }
  [[nodiscard]] std::vector<uint32_t> listed(uint32_t ifindex) const {
    std::vector<uint32_t> list;
    if (const auto *addresses = picture.addresses(ifindex)) {
      for (const auto &[place, key] : addresses->in_order()) list.push_back(key.addr);
    }
    return list;
  }

  Picture picture;
  std::vector<std::pair<DumpOf, uint32_t>> asked;
  std::vector<uint32_t> polled;
  bool can_send = true;
  Mirror mirror{picture, *this};
  Mirror::Clock::time_point now{};
};

using List = std::vector<uint32_t>;

TEST_F(MirrorTest, AsksForLinksThenAddressesThenSettings) {
  mirror.start(now);
  EXPECT_FALSE(mirror.complete());
  answer_cycle({{.ifindex = 2}}, {{.ifindex = 2, .local = 1}});
  ASSERT_EQ(asked.size(), 3u);
  EXPECT_EQ(asked[0].first, DumpOf::links);
  EXPECT_EQ(asked[1].first, DumpOf::addresses);
  EXPECT_EQ(asked[2].first, DumpOf::settings);
  EXPECT_TRUE(mirror.complete());
  EXPECT_TRUE(mirror.settled());
  EXPECT_EQ(listed(2), List{1});
  EXPECT_TRUE(picture.forwarding(2));
}

TEST_F(MirrorTest, EventsFollowAtOnceWhenTheDumpIsComplete) {
  mirror.start(now);
  answer_cycle({{.ifindex = 2}}, {});
  feed(nl::address({.ifindex = 2, .local = 9}));
  EXPECT_EQ(listed(2), List{9});
  feed(nl::address_gone({.ifindex = 2, .local = 9}));
  EXPECT_EQ(listed(2), List{});
}

TEST_F(MirrorTest, AnEventThatBearsSomebodyElsesRequestIsAnEvent) {
  mirror.start(now);
  // A change made through netlink is told under the number and the port of the one who made it.
  feed(nl::address_gone({.ifindex = 2, .local = 1}, {.sequence = asked.back().second, .port = our_port + 1}));
  answer_cycle({{.ifindex = 2}}, {{.ifindex = 2, .local = 1}});
  EXPECT_EQ(listed(2), List{}) << "the event beats the dump";
}

TEST_F(MirrorTest, AnInterruptedDumpIsMadeAgain) {
  mirror.start(now);
  answer_cycle({{.ifindex = 2}}, {{.ifindex = 2, .local = 1}}, NLM_F_DUMP_INTR);
  EXPECT_FALSE(mirror.complete());
  mirror.drained(now);
  ASSERT_EQ(asked.size(), 4u);
  EXPECT_EQ(asked[3].first, DumpOf::links);
  answer_cycle({{.ifindex = 2}}, {{.ifindex = 2, .local = 2}});
  EXPECT_TRUE(mirror.settled());
  EXPECT_EQ(listed(2), List{2});
  EXPECT_EQ(mirror.counts().interrupted, 1u);
}

TEST_F(MirrorTest, TheMarkOnTheLastMessageAloneCountsToo) {
  mirror.start(now);
  finish_dump(NLM_F_DUMP_INTR);
  finish_dump();
  finish_dump();
  EXPECT_FALSE(mirror.complete());
}

TEST_F(MirrorTest, ADumpThatTheKernelGaveUpIsMadeAgain) {
  mirror.start(now);
  feed(nl::done(answer(), -105));
  finish_dump();
  finish_dump();
  EXPECT_FALSE(mirror.complete());
  EXPECT_EQ(mirror.counts().failed, 1u);
}

TEST_F(MirrorTest, APictureComesOutThoughEveryDumpIsInterrupted) {
  mirror.start(now);
  int cycles = 0;
  while (!mirror.complete() && cycles < 100) {
    answer_cycle({{.ifindex = 2}}, {{.ifindex = 2, .local = 1}}, NLM_F_DUMP_INTR);
    mirror.drained(now);
    ++cycles;
  }
  EXPECT_EQ(cycles, 5);
  EXPECT_EQ(listed(2), List{1});
  EXPECT_FALSE(mirror.settled()) << "another try is due";
  const size_t so_far = asked.size();
  mirror.tick(now + std::chrono::milliseconds(500));
  EXPECT_EQ(asked.size(), so_far) << "not at once";
  mirror.tick(now + std::chrono::milliseconds(1500));
  EXPECT_EQ(asked.size(), so_far + 1);
}

TEST_F(MirrorTest, LostEventsLeadToADumpWhenTheQueueIsEmptyAndNotEarlier) {
  mirror.start(now);
  answer_cycle({{.ifindex = 2}}, {{.ifindex = 2, .local = 1}});
  mirror.overrun();
  feed(nl::address({.ifindex = 2, .local = 5}));  // was in the queue before the loss
  EXPECT_EQ(asked.size(), 3u);
  mirror.drained(now);
  ASSERT_EQ(asked.size(), 4u);
  answer_cycle({{.ifindex = 2}}, {{.ifindex = 2, .local = 7}});
  EXPECT_EQ(listed(2), List{7}) << "1 and 5 are gone, and nobody had told";
  EXPECT_EQ(mirror.counts().overruns, 1u);
  EXPECT_TRUE(mirror.settled());
}

TEST_F(MirrorTest, TheKernelsOwnWordOfLossCountsAsOne) {
  mirror.start(now);
  answer_cycle({}, {});
  feed(nl::message(NLMSG_OVERRUN, {}));
  mirror.drained(now);
  EXPECT_EQ(asked.size(), 4u);
}

TEST_F(MirrorTest, EventsLostDuringADumpSpoilItButItIsReadToItsEnd) {
  mirror.start(now);
  feed(nl::link({.ifindex = 2}, answer()));
  mirror.overrun();
  mirror.drained(now);
  EXPECT_EQ(asked.size(), 1u) << "the kernel would refuse a second dump now";
  finish_dump();
  EXPECT_EQ(asked.size(), 1u) << "no use in going on";
  mirror.drained(now);
  ASSERT_EQ(asked.size(), 2u);
  EXPECT_EQ(asked[1].first, DumpOf::links);
  answer_cycle({{.ifindex = 3}}, {});
  EXPECT_TRUE(picture.links().contains(3));
  EXPECT_FALSE(picture.links().contains(2));
}

TEST_F(MirrorTest, ALateAnswerToAnOlderRequestIsNotTakenForADump) {
  mirror.start(now);
  const nl::Header old = answer();
  finish_dump();
  feed(nl::done(old));
  EXPECT_EQ(asked.size(), 2u);
  EXPECT_EQ(asked.back().first, DumpOf::addresses);
}

TEST_F(MirrorTest, ARequestThatCouldNotBeSentIsSentAtATick) {
  can_send = false;
  mirror.start(now);
  EXPECT_TRUE(asked.empty());
  can_send = true;
  mirror.tick(now);
  ASSERT_EQ(asked.size(), 1u);
  answer_cycle({}, {});
  EXPECT_TRUE(mirror.settled());
}

TEST_F(MirrorTest, ARequestThatTheKernelRefusedIsSentAgain) {
  mirror.start(now);
  feed(nl::error(answer(), 16));
  EXPECT_EQ(mirror.counts().failed, 1u);
  mirror.tick(now);
  ASSERT_EQ(asked.size(), 2u);
  EXPECT_EQ(asked[1].first, DumpOf::links);
  EXPECT_NE(asked[1].second, asked[0].second);
}

TEST_F(MirrorTest, ARequestThatIsNeverAnsweredIsGivenUp) {
  mirror.start(now);
  mirror.tick(now + std::chrono::seconds(5));
  EXPECT_EQ(asked.size(), 1u);
  mirror.tick(now + std::chrono::seconds(20));
  EXPECT_EQ(asked.size(), 2u);
}

TEST_F(MirrorTest, SettingsWithoutEventsAreAskedForNowAndThen) {
  mirror.start(now);
  answer_cycle({{.ifindex = 2}}, {});
  now += std::chrono::seconds(10);
  mirror.tick(now);
  ASSERT_EQ(polled.size(), 1u);
  mirror.tick(now + std::chrono::seconds(1));
  EXPECT_EQ(polled.size(), 1u) << "not at every tick";
  feed(nl::netconf(netconf_all, 0, 0, {.sequence = polled[0], .port = our_port}));
  mirror.tick(now + std::chrono::seconds(3));
  ASSERT_EQ(polled.size(), 2u);
  feed(nl::netconf(netconf_all, 0, 1, {.sequence = polled[1], .port = our_port}));
  EXPECT_TRUE(picture.directed_broadcast_allowed());
  EXPECT_EQ(asked.size(), 3u);
  mirror.tick(now + std::chrono::seconds(3));
  ASSERT_EQ(asked.size(), 4u) << "with the switch on, the interfaces' settings matter, at once";
  EXPECT_EQ(asked[3].first, DumpOf::settings);
  EXPECT_TRUE(picture.forwarding(2));
  feed(nl::netconf(2, 0, 1, answer()));
  finish_dump();
  EXPECT_TRUE(picture.directed_broadcast(2));
  EXPECT_TRUE(picture.forwarding(2)) << "that has events: an answer may be older than they are";
}

TEST_F(MirrorTest, ANewDumpWaitsForTheEndOfAPoll) {
  mirror.start(now);
  answer_cycle({{.ifindex = 2}}, {});
  feed(nl::netconf(netconf_all, -1, 1));
  mirror.tick(now);
  ASSERT_EQ(asked.size(), 4u);
  mirror.overrun();
  mirror.drained(now);
  EXPECT_EQ(asked.size(), 4u);
  finish_dump();
  mirror.drained(now);
  ASSERT_EQ(asked.size(), 5u);
  EXPECT_EQ(asked[4].first, DumpOf::links);
}

TEST_F(MirrorTest, MalformedMessagesAreCountedByReason) {
  mirror.start(now);
  feed(nl::link({.ifindex = 0}));
  feed(nl::address({.prefix_len = 33}));
  feed(nl::Bytes(5));
  EXPECT_EQ(mirror.counts().refused[static_cast<size_t>(Refusal::bad_value)], 2u);
  EXPECT_EQ(mirror.counts().refused[static_cast<size_t>(Refusal::short_header)], 1u);
}

}  // namespace
