// SPDX-License-Identifier: Apache-2.0
// Receivers of interface information, beside a receiver that knows nothing but what it was sent.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "ip_msg.h"
#include "ipd/control/downloads.h"
#include "ipd/control_fakes.h"

namespace {

using ipd::control::Downloads;
using ipd::control::Refusal;
using ipd::control::Sender;
using std::chrono::milliseconds;
using Entry = ip_if_info_msg_entry;

constexpr Sender here{.pid = 100, .uid = 0, .sap = 2048};
constexpr Sender there{.pid = 200, .uid = 0, .sap = 2049};

std::string name_of(const Entry &entry) {
  return {entry.f1, strnlen(entry.f1, sizeof entry.f1)};
}

// What a client makes of its notifications.
struct Learned {
  std::map<uint32_t, Entry> interfaces;
  std::vector<std::string> story;  // "1 lo", "2 -eth0": gone
  uint32_t marks = 0;              // of a last entry
  uint32_t messages = 0;
  uint32_t empty_messages = 0;

  void take(const std::vector<Entry> &entries) {
    ++messages;
    if (entries.empty()) ++empty_messages;
    for (Entry entry : entries) {
      const bool gone = (entry.f2 & IP_IF_INFO_REMOVED) != 0;
      if ((entry.f2 & IP_IF_INFO_LAST) != 0) ++marks;
      entry.f2 &= ~IP_IF_INFO_LAST;
      story.push_back(std::to_string(entry.f0) + (gone ? " -" : " ") + name_of(entry));
      if (gone) {
        EXPECT_EQ(interfaces.erase(entry.f0), 1u) << "gone, and never told of: " << story.back();
      } else {
        interfaces[entry.f0] = entry;
      }
    }
  }
};

// Queues by SAP, each with room for some messages; in the form that the fixture's encoding makes.
class Queues final : public ipd::control::Transport {
 public:
  int send(const ipd::control::Sender &to, uint32_t opcode, std::span<const std::byte> message) override {
    ++tries;
    EXPECT_EQ(opcode, IP_OPCODE_IF_INFO);
    if (error != 0) return error;
    if (room.contains(to.sap)) {
      if (room[to.sap] == 0) return EAGAIN;
      --room[to.sap];
    }
    std::vector<Entry> entries(message.size() / sizeof(Entry));
    if (!entries.empty()) std::memcpy(entries.data(), message.data(), message.size());
    learned[to.sap].take(entries);
    return 0;
  }
  int answer(const ipd::control::Request &, std::span<const std::byte>) override { return EINVAL; }
  int reject(const ipd::control::Request &) override { return EINVAL; }

  std::map<uint32_t, Learned> learned;
  std::map<uint32_t, uint32_t> room;  // messages; without an entry: as many as are sent
  int error = 0;
  uint32_t tries = 0;
};

class ControlDownloads : public testing::Test {
 protected:
  Refusal ask(const Sender &sender, uint32_t mode, uint32_t cookie = 0) {
    ip_msg_download asked{};
    asked.header.minor_type = IP_MSG_DOWNLOAD_IF_INFO;
    asked.cookie = cookie;
    asked.node = IP_NODE_LOCAL;
    asked.sap = sender.sap;
    asked.mode = mode;
    return send(sender, asked);
  }
  Refusal send(const Sender &sender, const ip_msg_download &asked) {
    return downloads_.handle(test_support::request_of(asked, sender, IP_OPCODE_CLIENT));
  }
  void add(uint32_t count) {
    for (uint32_t i = 1; i <= count; ++i) box_.add(i, 1000 + i, "eth" + std::to_string(i));
  }
  void change(uint32_t iod, uint32_t mtu) {
    box_.interfaces.at(iod).state.mtu = mtu;
    tell_of(iod);
  }
  void tell_of(uint32_t iod) { downloads_.interfaces_changed({box_.interfaces.at(iod).state.ifindex}); }
  void remove(uint32_t iod) {
    const uint32_t ifindex = box_.interfaces.at(iod).state.ifindex;
    box_.interfaces.erase(iod);
    downloads_.interfaces_changed({ifindex});
  }
  void pass(milliseconds time) {
    now_ += time;
    downloads_.tick(now_);
  }
  // Everything is told, whatever pauses there are.
  void pass_long() {
    for (int i = 0; i < 200; ++i) pass(milliseconds(2500));
  }
  Learned &learned(const Sender &sender = here) { return queues_.learned[sender.sap]; }
  void expect_as_the_box(const Sender &sender = here) {
    EXPECT_EQ(learned(sender).interfaces.size(), box_.interfaces.size());
    for (const auto &[iod, facts] : box_.interfaces) {
      const Entry expected = ipd::control::entry_of(facts);
      ASSERT_TRUE(learned(sender).interfaces.contains(iod)) << iod;
      EXPECT_EQ(std::memcmp(&learned(sender).interfaces[iod], &expected, sizeof expected), 0) << iod;
    }
  }

  test_support::FakeBox box_;
  Queues queues_;
  bool memory_ = true;
  Downloads downloads_{box_, queues_, [this](std::span<const Entry> entries) {
                         const auto bytes = std::as_bytes(entries);
                         return memory_ ? std::optional(std::vector<std::byte>(bytes.begin(), bytes.end()))
                                        : std::nullopt;
                       }};
  Downloads::Clock::time_point now_{};
};

TEST_F(ControlDownloads, AnEntrySaysWhatIsPublishedOfAnInterface) {
  auto &facts = box_.add(7, 70, "tunnel1");
  facts.state.context_id = 3;
  facts.state.mtu = 1400;
  facts.addresses = {{.addr = 0x0a000001, .mask_len = 24, .secondary = false, .scope = 0},
                     {.addr = 0x0a000002, .mask_len = 25, .secondary = true, .scope = 0}};
  facts.lender_iod = 9;
  Entry entry = ipd::control::entry_of(facts);
  EXPECT_EQ(entry.f0, 7u);
  EXPECT_EQ(entry.f3, 70u);
  EXPECT_EQ(entry.f7, 3u);
  EXPECT_EQ(entry.f2, IP_IF_INFO_UP | IP_IF_INFO_ADMIN_UP | IP_IF_INFO_MULTICAST | IP_IF_INFO_UNNUMBERED);
  EXPECT_EQ(entry.f4, 0x0a000001u);
  EXPECT_EQ(entry.f8, 24u);
  EXPECT_EQ(entry.f9, 1400u);
  EXPECT_EQ(entry.f10, 9u);
  EXPECT_EQ(name_of(entry), "tunnel1");

  facts.state.up = facts.state.admin_up = facts.state.multicast = false;
  facts.state.loopback = facts.state.forwarding = true;
  facts.addresses.clear();
  facts.lender_iod = 0;
  entry = ipd::control::entry_of(facts);
  EXPECT_EQ(entry.f2, IP_IF_INFO_LOOPBACK | IP_IF_INFO_FORWARDING);
  EXPECT_EQ(entry.f4, 0u);
  EXPECT_EQ(entry.f8, 0u);
}

TEST_F(ControlDownloads, TheFullSetIsByIodAndItsLastEntryIsMarked) {
  add(3);
  EXPECT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  EXPECT_EQ(learned().story, (std::vector<std::string>{"1 eth1", "2 eth2", "3 eth3"}));
  EXPECT_EQ(learned().marks, 1u);
  EXPECT_EQ(learned().messages, 1u);
  expect_as_the_box();
}

TEST_F(ControlDownloads, WithoutAnyInterfaceOneEmptyNotificationIsTheFullSet) {
  EXPECT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  pass_long();
  EXPECT_EQ(learned().messages, 1u);
  EXPECT_EQ(learned().empty_messages, 1u);
  box_.add(1, 1, "lo");
  tell_of(1);
  expect_as_the_box();
  EXPECT_EQ(learned().marks, 0u);
}

TEST_F(ControlDownloads, ChangesFollowOneByOne) {
  add(2);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  learned().story.clear();
  box_.add(3, 1003, "eth3");
  tell_of(3);
  change(1, 9000);
  box_.interfaces.at(2).state.name = "uplink";
  tell_of(2);
  remove(2);
  EXPECT_EQ(learned().story, (std::vector<std::string>{"3 eth3", "1 eth1", "2 uplink", "2 -uplink"}));
  EXPECT_EQ(learned().marks, 1u) << "only the first full set has a mark";
  expect_as_the_box();
}

TEST_F(ControlDownloads, WhatAnEntryDoesNotSayIsNoChange) {
  add(1);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  box_.interfaces.at(1).addresses = {{.addr = 0x0a000001, .mask_len = 24, .secondary = false, .scope = 0}};
  tell_of(1);
  EXPECT_EQ(learned().messages, 2u);
  box_.interfaces.at(1).addresses.push_back({.addr = 0x0a000002, .mask_len = 24, .secondary = true, .scope = 0});
  tell_of(1);
  downloads_.interfaces_changed({4711});
  pass_long();
  EXPECT_EQ(learned().messages, 2u);
}

TEST_F(ControlDownloads, OnceIsTheFullSetAndNoMore) {
  add(2);
  EXPECT_EQ(ask(here, IP_DOWNLOAD_ONCE), Refusal::none);
  EXPECT_EQ(learned().marks, 1u);
  EXPECT_EQ(downloads_.count(), 0u);
  change(1, 9000);
  EXPECT_EQ(learned().messages, 1u);
  EXPECT_EQ(ask(here, IP_DOWNLOAD_END), Refusal::not_registered);
}

TEST_F(ControlDownloads, AnEndEndsTheDownloadOfItsCookieOnly) {
  add(1);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW, 1), Refusal::none);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW, 2), Refusal::none);
  EXPECT_EQ(ask(here, IP_DOWNLOAD_END, 1), Refusal::none);
  EXPECT_EQ(ask(here, IP_DOWNLOAD_END, 1), Refusal::not_registered);
  EXPECT_EQ(ask(here, IP_DOWNLOAD_END, 3), Refusal::not_registered);
  EXPECT_EQ(learned().messages, 2u);
  change(1, 9000);
  EXPECT_EQ(learned().messages, 3u);
  EXPECT_EQ(ask(here, IP_DOWNLOAD_END, 2), Refusal::none);
}

TEST_F(ControlDownloads, TheSameCookieAgainBeginsAgain) {
  add(2);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW, 5), Refusal::none);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW, 5), Refusal::none);
  EXPECT_EQ(downloads_.count(), 1u);
  EXPECT_EQ(learned().marks, 2u);
  change(1, 9000);
  EXPECT_EQ(learned().messages, 3u) << "told once, not twice";
  ASSERT_EQ(ask(here, IP_DOWNLOAD_ONCE, 5), Refusal::none);
  EXPECT_EQ(downloads_.count(), 0u) << "what was once more asked for is all";
}

TEST_F(ControlDownloads, AMessageThatMakesNoSenseIsRefused) {
  add(1);
  ip_msg_download good{};
  good.node = IP_NODE_LOCAL;
  good.sap = here.sap;
  auto bad = good;
  bad.node = 0xfe000001;
  EXPECT_EQ(send(here, bad), Refusal::bad_field);
  bad = good;
  bad.mode = 3;
  EXPECT_EQ(send(here, bad), Refusal::bad_field);
  bad = good;
  bad.sap = there.sap;
  EXPECT_EQ(send(here, bad), Refusal::bad_field) << "for somebody else's queue";
  bad = good;
  bad.sap = 0;
  EXPECT_EQ(send({.pid = 100, .uid = 0, .sap = 0}, bad), Refusal::bad_field);
  EXPECT_EQ(queues_.tries, 0u);
  EXPECT_EQ(downloads_.count(), 0u);
  EXPECT_EQ(send(here, good), Refusal::none);
}

TEST_F(ControlDownloads, AThousandInterfacesAreSplitAndComplete) {
  add(1300);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  EXPECT_EQ(learned().messages, 3u);
  EXPECT_EQ(learned().marks, 1u);
  EXPECT_EQ(learned().story.size(), 1300u);
  EXPECT_EQ(learned().story.back(), "1300 eth1300");
  expect_as_the_box();
}

TEST_F(ControlDownloads, ASetOfExactlyOneMessageIsMarkedInIt) {
  add(ipd::control::most_entries);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  EXPECT_EQ(learned().messages, 1u);
  EXPECT_EQ(learned().marks, 1u);
}

TEST_F(ControlDownloads, AReceiverWithoutRoomGetsTheRestWhenItHasSome) {
  add(1300);
  queues_.room[here.sap] = 1;
  EXPECT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  EXPECT_EQ(learned().story.size(), 512u);
  EXPECT_EQ(learned().marks, 0u);
  queues_.room[here.sap] = 1;
  pass(milliseconds(250));
  EXPECT_EQ(learned().story.size(), 1024u);
  queues_.room.erase(here.sap);
  pass_long();
  EXPECT_EQ(learned().marks, 1u);
  expect_as_the_box();
}

TEST_F(ControlDownloads, AReceiverWithoutRoomIsTriedLessAndLess) {
  add(1);
  queues_.room[here.sap] = 0;
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  EXPECT_EQ(queues_.tries, 1u);
  for (int i = 0; i < 100; ++i) change(1, 2000 + static_cast<uint32_t>(i));
  EXPECT_EQ(queues_.tries, 1u) << "changes alone are no reason to try again";
  for (int i = 0; i < 400; ++i) pass(milliseconds(250));
  EXPECT_LE(queues_.tries, 60u) << "in 100 seconds";
  EXPECT_GE(queues_.tries, 40u);
  queues_.room.erase(here.sap);
  pass(milliseconds(2000));
  EXPECT_EQ(learned().messages, 1u);
  expect_as_the_box();
}

TEST_F(ControlDownloads, ManyChangesOfOneInterfaceBecomeOne) {
  add(3);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  ASSERT_EQ(ask(there, IP_DOWNLOAD_FOLLOW), Refusal::none);
  learned().story.clear();
  queues_.room[here.sap] = 0;
  for (uint32_t i = 0; i < 50; ++i) {
    change(2, 2000 + i);
    change(3, 3000 + i);
  }
  EXPECT_EQ(learned(there).messages, 101u) << "another receiver waits for nobody";
  queues_.room.erase(here.sap);
  pass_long();
  EXPECT_EQ(learned().story, (std::vector<std::string>{"2 eth2", "3 eth3"}));
  expect_as_the_box();
}

TEST_F(ControlDownloads, AnInterfaceThatCameAndWentUnheardIsNotTold) {
  add(1);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  queues_.room[here.sap] = 0;
  change(1, 9000);
  box_.add(2, 1002, "short");
  tell_of(2);
  remove(2);
  queues_.room.erase(here.sap);
  pass_long();
  EXPECT_EQ(learned().story, (std::vector<std::string>{"1 eth1", "1 eth1"}));
}

TEST_F(ControlDownloads, WhatIsGoneIsToldBeforeWhatHasItsNameNow) {
  box_.add(1, 1, "lo");
  box_.add(5, 50, "eth0");
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  learned().story.clear();
  queues_.room[here.sap] = 0;
  change(1, 1000);
  remove(5);
  box_.add(3, 51, "eth0");
  tell_of(3);
  queues_.room.erase(here.sap);
  pass_long();
  EXPECT_EQ(learned().story, (std::vector<std::string>{"5 -eth0", "1 lo", "3 eth0"}));
  expect_as_the_box();
}

TEST_F(ControlDownloads, AnIfindexThatIsAnotherInterfacesNowIsARemovalAndAnInterface) {
  box_.add(1, 50, "old");
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  learned().story.clear();
  box_.interfaces.clear();
  box_.add(2, 50, "new");
  tell_of(2);
  EXPECT_EQ(learned().story, (std::vector<std::string>{"1 -old", "2 new"}));
  expect_as_the_box();
}

TEST_F(ControlDownloads, AnIodThatIsAnotherInterfacesNowIsNotGone) {
  for (const bool ascending : {true, false}) {
    SCOPED_TRACE(ascending);
    box_.interfaces.clear();
    box_.add(1, ascending ? 50 : 60, "old");
    ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
    learned().story.clear();
    box_.interfaces.clear();
    box_.add(1, ascending ? 60 : 50, "new");
    downloads_.interfaces_changed({50, 60});
    EXPECT_EQ(learned().story, std::vector<std::string>{"1 new"});
    expect_as_the_box();
    remove(1);
    EXPECT_EQ(learned().story.back(), "1 -new");
  }
}

TEST_F(ControlDownloads, ChangesDuringTheFullSetAreToldInItOrAfterIt) {
  add(1100);
  queues_.room[here.sap] = 1;
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  ASSERT_EQ(learned().story.size(), 512u);
  learned().story.clear();
  change(10, 9000);    // told of: a change
  change(1000, 9000);  // yet to come: as it is then
  remove(20);
  remove(1001);
  box_.add(1101, 2101, "eth1101");
  tell_of(1101);
  queues_.room.erase(here.sap);
  pass_long();
  ASSERT_EQ(learned().story.size(), 588u + 2u);
  EXPECT_EQ(learned().story[587], "1101 eth1101") << "the last of the full set";
  EXPECT_EQ(learned().story[588], "20 -eth20");
  EXPECT_EQ(learned().story[589], "10 eth10");
  EXPECT_EQ(learned().marks, 1u);
  expect_as_the_box();
}

TEST_F(ControlDownloads, TheMarkIsSentThoughTheRestOfTheSetHasGone) {
  add(513);
  queues_.room[here.sap] = 1;
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  remove(513);
  queues_.room.erase(here.sap);
  pass_long();
  EXPECT_EQ(learned().marks, 1u);
  EXPECT_EQ(learned().story.back(), "512 eth512");
  expect_as_the_box();
}

TEST_F(ControlDownloads, AllMayGoWhileTheFullSetIsUnderWay) {
  add(513);
  queues_.room[here.sap] = 1;
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  for (uint32_t i = 1; i <= 513; ++i) remove(i);
  queues_.room.erase(here.sap);
  pass_long();
  EXPECT_EQ(learned().empty_messages, 1u);
  EXPECT_TRUE(learned().interfaces.empty());
}

TEST_F(ControlDownloads, TheDownloadsOfAProcessEndWithIt) {
  add(1);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW, 1), Refusal::none);
  ASSERT_EQ(ask({.pid = 100, .uid = 0, .sap = 2100}, IP_DOWNLOAD_FOLLOW), Refusal::none);
  ASSERT_EQ(ask(there, IP_DOWNLOAD_FOLLOW), Refusal::none);
  downloads_.process_gone(100);
  EXPECT_EQ(downloads_.count(), 1u);
  change(1, 9000);
  EXPECT_EQ(learned().messages, 1u);
  EXPECT_EQ(learned(there).messages, 2u);
}

TEST_F(ControlDownloads, TheDownloadsOfAQueueEndWithIt) {
  add(1);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW, 1), Refusal::none);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW, 2), Refusal::none);
  ASSERT_EQ(ask({.pid = 100, .uid = 0, .sap = 2100}, IP_DOWNLOAD_FOLLOW), Refusal::none);
  downloads_.queue_gone(here);
  EXPECT_EQ(downloads_.count(), 1u);
  downloads_.queue_gone({.pid = 999, .uid = 0, .sap = 2100});
  EXPECT_EQ(downloads_.count(), 1u) << "that was another process's queue under the same SAP";
}

TEST_F(ControlDownloads, ASapThatAnotherProcessHasNowIsTheOtherOnes) {
  add(1);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  ASSERT_EQ(ask({.pid = 300, .uid = 0, .sap = here.sap}, IP_DOWNLOAD_FOLLOW), Refusal::none);
  downloads_.queue_gone(here);
  EXPECT_EQ(downloads_.count(), 1u);
  downloads_.process_gone(300);
  EXPECT_EQ(downloads_.count(), 0u);
}

TEST_F(ControlDownloads, ADownloadEndsWhenNobodyIsAtItsSapAnyMore) {
  add(1);
  for (const int error : {ECONNREFUSED, ECONNRESET, EINVAL}) {
    SCOPED_TRACE(error);
    queues_.error = 0;
    ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
    queues_.error = error;
    change(1, 2000 + static_cast<uint32_t>(error));
    EXPECT_EQ(downloads_.count(), 0u);
    EXPECT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::no_answer);
    EXPECT_EQ(downloads_.count(), 0u);
  }
}

TEST_F(ControlDownloads, ADownloadOutlivesAShortageOfDescriptorsOrMemory) {
  add(1);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  for (const int error : {EAGAIN, ENOMEM, ENOBUFS, EMFILE, ENFILE}) {
    SCOPED_TRACE(error);
    queues_.error = error;
    change(1, 2000 + static_cast<uint32_t>(error));
    pass(milliseconds(250));
    queues_.error = 0;
    pass_long();
    expect_as_the_box();
  }
  EXPECT_EQ(downloads_.count(), 1u);
}

TEST_F(ControlDownloads, WhatFoundNoMemoryIsToldLater) {
  add(2);
  memory_ = false;
  EXPECT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  EXPECT_EQ(queues_.tries, 0u);
  pass_long();
  memory_ = true;
  pass_long();
  EXPECT_EQ(learned().marks, 1u);
  expect_as_the_box();
}

TEST_F(ControlDownloads, AProcessHasALimit) {
  add(1);
  for (uint32_t i = 0; i < Downloads::most_of_a_process; ++i) {
    ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW, i), Refusal::none);
  }
  EXPECT_EQ(ask(here, IP_DOWNLOAD_FOLLOW, 4711), Refusal::limit);
  EXPECT_EQ(ask(here, IP_DOWNLOAD_FOLLOW, 5), Refusal::none) << "one that is there may begin again";
  EXPECT_EQ(ask(there, IP_DOWNLOAD_FOLLOW, 4711), Refusal::none);
}

TEST_F(ControlDownloads, AllProcessesTogetherHaveALimit) {
  add(1);
  const auto sender = [](uint32_t number) {
    return Sender{.pid = static_cast<int32_t>(number), .uid = 0, .sap = 2048 + number};
  };
  for (uint32_t i = 0; i < Downloads::most_of_all; ++i) ASSERT_EQ(ask(sender(i), IP_DOWNLOAD_FOLLOW), Refusal::none);
  EXPECT_EQ(ask(sender(9999), IP_DOWNLOAD_FOLLOW), Refusal::limit);
  downloads_.process_gone(7);
  EXPECT_EQ(ask(sender(9999), IP_DOWNLOAD_FOLLOW), Refusal::none);
}

TEST_F(ControlDownloads, MoreThanARoundTakesIsToldInLaterRounds) {
  add(100);
  const auto sender = [](uint32_t number) {
    return Sender{.pid = static_cast<int32_t>(number), .uid = 0, .sap = 2048 + number};
  };
  for (uint32_t i = 1; i <= 1500; ++i) ASSERT_EQ(ask(sender(i), IP_DOWNLOAD_FOLLOW), Refusal::none);
  change(1, 9000);
  const uint32_t at_once = queues_.tries - 1500;
  EXPECT_LT(at_once, 1500u);
  EXPECT_GT(at_once, 500u);
  pass(milliseconds(250));
  pass(milliseconds(250));
  EXPECT_EQ(queues_.tries, 3000u) << "each of them once";
  for (uint32_t i = 1; i <= 1500; ++i) expect_as_the_box(sender(i));
}

TEST_F(ControlDownloads, ABigSetIsCompleteThoughARoundDoesNotTakeIt) {
  add(40000);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  EXPECT_LT(learned().story.size(), 40000u);
  pass(milliseconds(250));
  EXPECT_EQ(learned().story.size(), 40000u);
  EXPECT_EQ(learned().marks, 1u);
}

TEST_F(ControlDownloads, WhatHappensWithoutDownloadsIsKnownToTheNextOne) {
  add(2);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  ASSERT_EQ(ask(here, IP_DOWNLOAD_END), Refusal::none);
  remove(1);
  change(2, 9000);
  learned() = {};
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  EXPECT_EQ(learned().story, std::vector<std::string>{"2 eth2"});
  expect_as_the_box();
}

// Whatever changes in whatever order, and however little room there is: in the end the receivers know what is.
TEST_F(ControlDownloads, RandomChangesLeaveEachReceiverWithWhatIs) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  add(600);
  queues_.room = {{here.sap, 0}, {there.sap, 0}};
  ASSERT_EQ(ask(here, IP_DOWNLOAD_FOLLOW), Refusal::none);
  ASSERT_EQ(ask(there, IP_DOWNLOAD_FOLLOW), Refusal::none);
  for (int step = 0; step < 5000; ++step) {
    std::set<uint32_t> touched;
    for (uint32_t i = below(4); i-- > 0;) {
      const uint32_t iod = 1 + below(700);
      const auto old = box_.interfaces.find(iod);
      if (old != box_.interfaces.end()) touched.insert(old->second.state.ifindex);
      const bool removed = old != box_.interfaces.end() && below(3) == 0;
      if (removed) {
        box_.interfaces.erase(old);
      } else if (old != box_.interfaces.end()) {
        old->second.state.mtu = below(3);
      }
      // A new one, maybe under the same iod, maybe with an ifindex that was another one's.
      const uint32_t ifindex = 1000 + below(800);
      if ((old == box_.interfaces.end() || removed) && !box_.interface_by_ifindex(ifindex)) {
        box_.add(iod, ifindex, "if" + std::to_string(below(1000)));
        touched.insert(ifindex);
      }
    }
    downloads_.interfaces_changed(touched);
    if (below(10) == 0) queues_.room[here.sap] = below(3);
    if (below(50) == 0) queues_.room[there.sap] = below(3);
    if (below(5) == 0) pass(milliseconds(below(1000)));
    if (HasFailure()) return;
  }
  queues_.room.clear();
  pass_long();
  expect_as_the_box();
  expect_as_the_box(there);
  EXPECT_EQ(learned().marks, 1u);
  EXPECT_EQ(learned(there).marks, 1u);
}

}  // namespace
