// SPDX-License-Identifier: Apache-2.0
// The shared pool in one process and between processes: what is whose, and what is back when somebody dies.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <set>
#include <thread>

#include "pool_rig.h"
#include "standard_error.h"
#include "support/network_namespace.h"

namespace {

using namespace pool_rig;
using test_support::wait_until;

class Pool : public PoolTest {};

uint32_t reclaim_at_two_looks() {
  const uint32_t buffers = rsw::reclaim_buffers_of_the_dead();
  return buffers + rsw::reclaim_buffers_of_the_dead();
}

TEST_F(Pool, ABufferComesFromTheSharedWindow) {
  struct mbuf *m = rsw::take_buffer();
  ASSERT_NE(m, nullptr);
  rsw::pool::Place place{};
  EXPECT_TRUE(rsw::pool::find_place(reinterpret_cast<uintptr_t>(m), rsw::pool::group_limit, &place));
  EXPECT_EQ(m->owner, getpid());
  EXPECT_EQ(in_use(), 1u);
  m_freem(m);
  EXPECT_EQ(in_use(), 0u);
}

TEST_F(Pool, TheReportAddsUp) {
  std::vector<struct mbuf *> taken;
  for (int i = 0; i < 100; i++) taken.push_back(rsw::take_buffer());
  const rsw::PoolReport now = report();
  EXPECT_EQ(now.total, rsw::pool::buffer_limit);
  EXPECT_EQ(now.in_use, 100u);
  EXPECT_EQ(now.cached, 28u) << "four groups of 32 are this thread's";
  EXPECT_EQ(now.in_use + now.cached + now.free, now.total);
  EXPECT_EQ(now.high_water, 128u);
  ASSERT_EQ(now.owners.size(), 1u);
  EXPECT_EQ(now.owners[0].pid, getpid());
  EXPECT_EQ(now.owners[0].in_use, 100u);
  EXPECT_EQ(now.owners[0].cached, 28u);
  EXPECT_FALSE(now.owners[0].command.empty());
  for (struct mbuf *m : taken) m_freem(m);
}

TEST_F(Pool, BuffersGoRoundWithoutTheHighWaterMarkRising) {
  for (int i = 0; i < 10000; i++) {
    struct mbuf *packet = rsw::make_packet(numbered(5000));
    ASSERT_NE(packet, nullptr);
    m_freem(packet);
  }
  EXPECT_EQ(report().high_water, 32u);
}

TEST_F(Pool, ABufferGivenBackTwiceIsCountedAndFreeOnce) {
  struct mbuf *m = rsw::take_buffer();
  m_freem(m);
  m_freem(m);
  EXPECT_EQ(report().damaged, 1u);
  std::set<struct mbuf *> all;
  for (int i = 0; i < 64; i++) EXPECT_TRUE(all.insert(rsw::take_buffer()).second);
  for (struct mbuf *each : all) m_freem(each);
}

TEST_F(Pool, WhatIsNoBufferIsNotGivenBack) {
  struct mbuf *m = rsw::take_buffer();
  rsw::give_buffer_back(reinterpret_cast<struct mbuf *>(reinterpret_cast<uintptr_t>(m) + 64));
  struct mbuf of_its_own {};
  rsw::give_buffer_back(&of_its_own);
  EXPECT_EQ(report().damaged, 2u);
  EXPECT_EQ(in_use(), 1u);
  m_freem(m);
}

TEST_F(Pool, AllBuffersCanBeTakenAndThenThereIsNone) {
  std::vector<struct mbuf *> all;
  for (struct mbuf *m; (m = rsw::take_buffer()) != nullptr;) all.push_back(m);
  EXPECT_EQ(all.size(), rsw::pool::buffer_limit);
  EXPECT_EQ(std::set(all.begin(), all.end()).size(), all.size());
  EXPECT_EQ(rsw::make_packet(numbered(10)), nullptr);
  rsw::PoolReport now = report();
  EXPECT_EQ(now.refused, 2u);
  EXPECT_EQ(now.free + now.cached, 0u);
  m_freem(all[5]);
  EXPECT_EQ(rsw::take_buffer(), all[5]) << "what comes back is there again";
  for (struct mbuf *m : all) m_freem(m);
  now = report();
  EXPECT_EQ(now.in_use, 0u);
  EXPECT_EQ(now.damaged, 0u);
  EXPECT_EQ(now.high_water, now.total);
}

TEST_F(Pool, WithoutStorageForMoreThereAreThoseThatHaveItAndALineSaysWhy) {
  rsw::mbuf_leave();
  const std::string small = directory_.path() + "/small";
  ASSERT_EQ(mkdir(small.c_str(), 0755), 0);
  const int status = in_child([&small] {
    std::string reason;
    if (!test_support::enter_network_namespace(&reason) || unshare(CLONE_NEWNS) != 0) return 101;
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 102;
    if (mount("none", small.c_str(), "tmpfs", 0, "size=4m") != 0) return 103;
    setenv("RSW_RUN_DIR", small.c_str(), 1);
    if (!rsw::mbuf_open_for_writing(&reason)) return 104;
    uint32_t count = 0;
    const std::string said = test_support::standard_error_of([&count] {
      while (rsw::take_buffer() != nullptr) ++count;
    });
    if (count == 0 || count >= rsw::pool::buffer_limit) return 105;
    return said.find("no storage for more of them: No space left on device\n") != std::string::npos ? 0 : 106;
  });
  EXPECT_EQ(status, 0);
}

TEST_F(Pool, AThreadsEndGivesItsGroupsBack) {
  std::thread([] { m_freem(rsw::take_buffer()); }).join();
  const rsw::PoolReport now = report();
  EXPECT_EQ(now.cached, 0u);
  EXPECT_EQ(now.free, now.total);
}

TEST_F(Pool, WhatOneThreadTookAnotherOneGivesBack) {
  struct mbuf *packet = rsw::make_packet(numbered(100000));
  ASSERT_NE(packet, nullptr);
  std::thread([packet] { m_freem(packet); }).join();
  EXPECT_EQ(in_use(), 0u);
  const uint32_t before = report().high_water;
  packet = rsw::make_packet(numbered(100000));
  EXPECT_EQ(report().high_water, before) << "they are found again";
  m_freem(packet);
}

// One process's packet is read and freed by another one.
TEST_F(Pool, APacketTravelsByReference) {
  const SharedWords words;
  Process child([&] {
    struct mbuf *packet = m_packet_at(words.wait(0));
    if (packet == nullptr) return 1;
    if (bytes_of(packet) != numbered(5000)) return 2;
    m_freem(packet);
    return 0;
  });
  struct mbuf *packet = rsw::make_packet(numbered(5000));
  m_set_owner(packet, child.pid());
  words[0].store(reference_of(packet));
  EXPECT_EQ(child.wait(), 0) << child.output();
  EXPECT_EQ(in_use(), 0u);
  EXPECT_EQ(report().damaged, 0u);
}

TEST_F(Pool, AReferenceToSomebodyElsesPacketIsNone) {
  struct mbuf *packet = rsw::make_packet(numbered(10));
  EXPECT_EQ(m_packet_at(reference_of(packet)), packet);
  EXPECT_EQ(m_packet_at(reference_of(packet) + 4), nullptr);
  EXPECT_EQ(m_packet_at(0), nullptr);
  m_set_owner(packet, 1);
  EXPECT_EQ(m_packet_at(reference_of(packet)), nullptr);
  m_set_owner(packet, getpid());
  m_freem(packet);
  EXPECT_EQ(m_packet_at(reference_of(packet)), nullptr) << "it is free";
}

TEST_F(Pool, AForksChildBeginsWithNothing) {
  struct mbuf *mine = rsw::take_buffer();
  in_child([] {
    if (rsw::buffers_in_use() != 0) return 1;
    struct mbuf *m = rsw::take_buffer();
    if (m == nullptr || m->owner != getpid() || rsw::buffers_in_use() != 1) return 2;
    m_freem(m);
    return 0;
  });
  EXPECT_EQ(mine->owner, getpid());
  EXPECT_EQ(in_use(), 1u);
  m_freem(mine);
}

TEST_F(Pool, AChildsBuffersAreNotThoseOfItsParentsGroups) {
  struct mbuf *mine = rsw::take_buffer();
  const SharedWords words;
  in_child([&] {
    words[0].store(reference_of(rsw::take_buffer()));
    return 0;
  });
  EXPECT_NE(words[0].load() / 65536, reference_of(mine) / 65536);
  m_freem(mine);
}

TEST_F(Pool, WhatADeadProcessOwnedAndCachedIsTakenBack) {
  Process child([] {
    for (int i = 0; i < 70; i++) {
      if (rsw::take_buffer() == nullptr) return 1;
    }
    raise(SIGKILL);
    return 2;
  });
  EXPECT_EQ(child.wait(), 128 + SIGKILL);
  EXPECT_EQ(in_use(), 70u);
  EXPECT_EQ(rsw::reclaim_buffers_of(child.pid()), 96u) << "three groups of 32 are all its own";
  EXPECT_EQ(in_use(), 0u);
  EXPECT_EQ(report().cached, 0u);
  EXPECT_EQ(report().reclaimed, 96u);
  EXPECT_EQ(rsw::reclaim_buffers_of(child.pid()), 0u);
}

TEST_F(Pool, ALivingProcessKeepsItsBuffers) {
  const SharedWords words;
  Process child([&] {
    struct mbuf *m = rsw::take_buffer();
    words[0].store(reference_of(m));
    const bool is_told = words.wait(1) != 0;
    m_freem(m);
    return is_told ? 0 : 1;
  });
  ASSERT_NE(words.wait(0), 0u);
  EXPECT_EQ(rsw::reclaim_buffers_of(child.pid()), 0u);
  EXPECT_EQ(reclaim_at_two_looks(), 0u);
  EXPECT_EQ(in_use(), 1u);
  words[1].store(1);
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(report().damaged, 0u);
}

// A daemon closes every descriptor on its way, the one with its lock too.
TEST_F(Pool, AProcessThatLostItsDescriptorsKeepsItsBuffers) {
  const SharedWords words;
  Process child([&] {
    struct mbuf *m = rsw::take_buffer();
    for (int descriptor = 3; descriptor < 256; descriptor++) close(descriptor);
    words[0].store(1);
    const bool is_told = words.wait(1) != 0;
    m_freem(m);
    for (int i = 0; i < 1000; i++) {
      if (rsw::take_buffer() == nullptr) return 2;
    }
    return is_told ? 0 : 1;
  });
  ASSERT_NE(words.wait(0), 0u);
  EXPECT_EQ(rsw::reclaim_buffers_of(child.pid()), 0u);
  EXPECT_EQ(reclaim_at_two_looks(), 0u);
  EXPECT_EQ(in_use(), 1u);
  words[1].store(1);
  EXPECT_EQ(child.wait(), 0) << "groups get storage without a descriptor";
  EXPECT_GE(reclaim_at_two_looks(), 1000u);
  EXPECT_EQ(in_use(), 0u);
}

TEST_F(Pool, WhoDiedWithoutAWordIsFound) {
  Process child([] { return rsw::take_buffer() == nullptr ? 1 : 0; });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(in_use(), 1u);
  EXPECT_EQ(rsw::reclaim_buffers_of_the_dead(), 0u) << "what it sent may be on its way";
  EXPECT_EQ(rsw::reclaim_buffers_of_the_dead(), 32u);
  EXPECT_EQ(in_use(), 0u);
}

TEST_F(Pool, APacketHandedToAProcessThatNeverCameIsTakenBack) {
  Process child([] { return 0; });
  EXPECT_EQ(child.wait(), 0);
  struct mbuf *packet = rsw::make_packet(numbered(5000));
  m_set_owner(packet, child.pid());
  EXPECT_EQ(rsw::reclaim_buffers_of(child.pid()), 3u);
  EXPECT_EQ(in_use(), 0u);
}

TEST_F(Pool, AfterARefusalOwnersThatDoNotExistAreLookedFor) {
  struct mbuf *lost = rsw::take_buffer();
  m_set_owner(lost, -7);
  EXPECT_EQ(rsw::reclaim_buffers_of_the_dead(), 0u);
  std::vector<struct mbuf *> all;
  for (struct mbuf *m; (m = rsw::take_buffer()) != nullptr;) all.push_back(m);
  EXPECT_EQ(rsw::reclaim_buffers_of_the_dead(), 1u);
  EXPECT_EQ(rsw::take_buffer(), lost);
  m_freem(lost);
  for (struct mbuf *m : all) m_freem(m);
}

TEST_F(Pool, ANewMakerTakesBackWhatDeadOnesLeft) {
  rsw::mbuf_leave();
  in_child([] {
    std::string reason;
    if (!rsw::mbuf_open_for_writing(&reason)) return 1;
    struct mbuf *packet = rsw::make_packet(numbered(5000));
    m_set_owner(packet->next, 0x3fffff);  // a process that there is not
    return packet == nullptr ? 2 : 0;
  });
  open();
  const rsw::PoolReport now = report();
  EXPECT_EQ(now.in_use, 0u);
  EXPECT_EQ(now.reclaimed, 32u);
  EXPECT_EQ(now.high_water, 32u) << "it is the same pool";
}

TEST_F(Pool, ALivingClientGoesOnUnderANewMaker) {
  rsw::mbuf_leave();
  const SharedWords words;
  Process maker([] {
    std::string reason;
    return rsw::mbuf_open_for_writing(&reason) ? 0 : 1;
  });
  ASSERT_EQ(maker.wait(), 0);
  Process client([&] {
    struct mbuf *packet = rsw::make_packet(numbered(5000));
    words[0].store(reference_of(packet));
    if (words.wait(1) == 0 || bytes_of(packet) != numbered(5000)) return 1;
    m_freem(packet);
    return 0;
  });
  ASSERT_NE(words.wait(0), 0u);
  open();
  EXPECT_EQ(in_use(), 3u);
  words[1].store(1);
  EXPECT_EQ(client.wait(), 0);
  EXPECT_EQ(in_use(), 0u);
}

TEST_F(Pool, WithoutAPoolBuffersArePrivateUntilThereIsOne) {
  rsw::mbuf_leave();
  ASSERT_EQ(unlink((directory_.path() + "/mbuf").c_str()), 0);
  struct mbuf *own = rsw::make_packet(numbered(5000));
  ASSERT_NE(own, nullptr);
  rsw::pool::Place place{};
  EXPECT_FALSE(rsw::pool::find_place(reinterpret_cast<uintptr_t>(own), rsw::pool::group_limit, &place));
  Process maker([] {
    std::string reason;
    return rsw::mbuf_open_for_writing(&reason) ? 0 : 1;
  });
  ASSERT_EQ(maker.wait(), 0);
  EXPECT_TRUE(wait_until([&] {
    struct mbuf *m = rsw::take_buffer();
    const bool is_shared = rsw::pool::find_place(reinterpret_cast<uintptr_t>(m), rsw::pool::group_limit, &place);
    m_freem(m);
    return is_shared;
  })) << "a later buffer attaches the process";
  EXPECT_EQ(bytes_of(own), numbered(5000)) << "what it had stays";
  m_freem(own);
  EXPECT_EQ(rsw::buffers_in_use(), 0u);
}

TEST_F(Pool, ItIsOpenToTheGroupThatTheMakerNames) {
  const std::string path = directory_.path() + "/mbuf";
  struct stat file {};
  ASSERT_EQ(stat(path.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777u, 0600u);
  std::string reason;
  ASSERT_TRUE(rsw::mbuf_open_to_group(getgid(), &reason)) << reason;
  ASSERT_EQ(stat(path.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777u, 0660u);
  EXPECT_EQ(file.st_gid, getgid());
  ASSERT_TRUE(rsw::mbuf_open_to_group(std::nullopt, &reason)) << reason;
  ASSERT_EQ(stat(path.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777u, 0600u);
}

TEST_F(Pool, WhoMayNotWriteItHasPrivateBuffers) {
  rsw::mbuf_leave();
  in_child([] {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 1;
    if (geteuid() != 65534) return 0;  // nobody but root can be somebody else
    struct mbuf *m = rsw::take_buffer();
    rsw::pool::Place place{};
    if (m == nullptr) return 2;
    return rsw::pool::find_place(reinterpret_cast<uintptr_t>(m), rsw::pool::group_limit, &place) ? 3 : 0;
  });
}

}  // namespace
