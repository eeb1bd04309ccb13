// SPDX-License-Identifier: Apache-2.0
// Segments that others may write and cut short: their writer goes on, and everything else that is a bus error stays
// one.
#include "sm/length_keeper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "mbuf.h"
#include "mbuf/pool.h"
#include "mtrack.h"
#include "mtrack/mtrack_writer.h"
#include "support/process.h"
#include "support/run_directory.h"
#include "tsp.h"
#include "tsp/epochs.h"
#include "tsp/slots.h"

namespace {

using rsw::Domain;
using rsw::Epochs;
using rsw::mend_lengths;
using rsw::segment_mtrack;
using rsw::segment_page;
using rsw::SegmentLayout;
using rsw::SegmentMap;
using Names = std::vector<std::string>;

volatile uint32_t &word_at(uint32_t address) {
  return *reinterpret_cast<volatile uint32_t *>(static_cast<uintptr_t>(address));
}

std::string file_of(const SegmentLayout &layout) {
  return rsw::segment_path(layout.name);
}

off_t length_of(const SegmentLayout &layout) {
  struct stat file {};
  return stat(file_of(layout).c_str(), &file) == 0 ? file.st_size : -1;
}

void cut(const SegmentLayout &layout, off_t length) {
  ASSERT_EQ(truncate(file_of(layout).c_str(), length), 0);
}

bool has_events() {
  pollfd waiting{.fd = rsw::length_events(), .events = POLLIN, .revents = 0};
  return poll(&waiting, 1, 0) == 1;
}

class LengthKeeper : public testing::Test {
 protected:
  void SetUp() override {
    std::string reason;
    map_ = SegmentMap::create(segment_mtrack, &reason);
    ASSERT_NE(map_, nullptr) << reason;
    ASSERT_TRUE(map_->grow(segment_mtrack.base + 5 * segment_page, &reason)) << reason;
    ASSERT_TRUE(map_->publish_name(&reason)) << reason;
    rsw::keep_length(*map_);
    ASSERT_EQ(mend_lengths(), Names{});
  }
  void expect_whole() {
    EXPECT_EQ(length_of(segment_mtrack), static_cast<off_t>(segment_mtrack.size));
    EXPECT_EQ(map_->header()->magic, rsw::segment_magic);
    EXPECT_EQ(map_->header()->layout_hash, segment_mtrack.layout_hash);
    EXPECT_EQ(map_->header()->used_end, segment_mtrack.base + 5 * segment_page);
    EXPECT_STREQ(map_->header()->name, "/rsw/shm/mtrack");
  }

  test_support::RunDirectory run_;
  std::shared_ptr<SegmentMap> map_;
};

TEST_F(LengthKeeper, AReadOfWhatWasCutOffFindsZerosAndAWholeFile) {
  for (const off_t length : {0, 1, 95, 96, 4096, 8191}) {
    word_at(segment_mtrack.base + 3 * segment_page) = 7;
    cut(segment_mtrack, length);
    EXPECT_EQ(word_at(segment_mtrack.base + 3 * segment_page), 0u) << length;
    expect_whole();
    EXPECT_EQ(mend_lengths(), Names{"/rsw/shm/mtrack"}) << length;
  }
}

TEST_F(LengthKeeper, AStoreIntoWhatWasCutOffStands) {
  cut(segment_mtrack, 0);
  word_at(segment_mtrack.base + 2 * segment_page) = 7;
  EXPECT_EQ(word_at(segment_mtrack.base + 2 * segment_page), 7u);
  expect_whole();
}

TEST_F(LengthKeeper, WhatWasNotCutOffStays) {
  word_at(segment_mtrack.base + segment_page) = 7;
  cut(segment_mtrack, 2 * segment_page);
  EXPECT_EQ(word_at(segment_mtrack.base + 4 * segment_page), 0u);
  EXPECT_EQ(word_at(segment_mtrack.base + segment_page), 7u);
  expect_whole();
}

TEST_F(LengthKeeper, ACutIsAnEventAndIsMendedWithoutAnybodyTouchingIt) {
  EXPECT_FALSE(has_events());
  cut(segment_mtrack, 0);
  EXPECT_TRUE(has_events());
  EXPECT_EQ(mend_lengths(), Names{"/rsw/shm/mtrack"});
  expect_whole();
  EXPECT_EQ(mend_lengths(), Names{});  // told once, and our own lengthening is none
  EXPECT_FALSE(has_events());
}

TEST_F(LengthKeeper, OthersCanAttachAgainAfterwards) {
  cut(segment_mtrack, 0);
  mend_lengths();
  test_support::Process other([] {
    std::string reason;
    return SegmentMap::attach(segment_mtrack, &reason) != nullptr ? 0 : 1;
  });
  EXPECT_EQ(other.wait(), 0);
}

TEST_F(LengthKeeper, WhatIsUsedHasStorageAgain) {
  cut(segment_mtrack, 0);
  mend_lengths();
  struct stat file {};
  ASSERT_EQ(stat(file_of(segment_mtrack).c_str(), &file), 0);
  EXPECT_GE(file.st_blocks * 512, 5 * static_cast<off_t>(segment_page));
}

// Not before there is room for the header, so that nobody finds a whole file without one.
TEST(LengthKeeperInAFullFileSystem, TriesAgainUntilThereIsRoom) {
  if (geteuid() != 0) return;  // needs a small file system of its own
  const test_support::RunDirectory run;
  ASSERT_EQ(mount("none", run.path().c_str(), "tmpfs", 0, "mode=755,size=64k"), 0) << strerror(errno);
  const std::string filler = run.path() + "/filler";
  {
    std::string reason;
    const auto map = SegmentMap::create(segment_mtrack, &reason);
    ASSERT_NE(map, nullptr) << reason;
    ASSERT_TRUE(map->publish_name(&reason)) << reason;
    rsw::keep_length(*map);
    cut(segment_mtrack, 0);
    const int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string page(segment_page, 'x');
    while (write(fd, page.data(), page.size()) > 0) {
    }
    close(fd);
    EXPECT_EQ(mend_lengths(), Names{});
    EXPECT_EQ(length_of(segment_mtrack), 0);
    unlink(filler.c_str());
    EXPECT_EQ(mend_lengths(), Names{"/rsw/shm/mtrack"});
    EXPECT_EQ(length_of(segment_mtrack), static_cast<off_t>(segment_mtrack.size));
    EXPECT_EQ(map->header()->magic, rsw::segment_magic);
  }
  EXPECT_EQ(umount2(run.path().c_str(), MNT_DETACH), 0);
}

TEST_F(LengthKeeper, ALongerFileIsWhole) {
  cut(segment_mtrack, static_cast<off_t>(segment_mtrack.size) + 4096);
  EXPECT_EQ(mend_lengths(), Names{});
  EXPECT_EQ(map_->header()->magic, rsw::segment_magic);
}

// Ends by a bus error, or with the sanitizer's report of one.
#define EXPECT_BUS_ERROR(statement) EXPECT_DEATH(statement, "")

void touch_another_file_past_its_end(const std::string &path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  void *const page = mmap(nullptr, segment_page, PROT_READ, MAP_SHARED, fd, 0);
  if (fd < 0 || page == MAP_FAILED) _exit(0);
  const uint32_t read = *static_cast<volatile uint32_t *>(page);
  _exit(read == 0 ? 0 : 1);
}

TEST_F(LengthKeeper, ABusErrorElsewhereStaysOne) {
  EXPECT_BUS_ERROR(touch_another_file_past_its_end(run_.path() + "/other"));
}

void set_a_handler_and_fault(const std::string &path) {
  struct sigaction ours {};
  ours.sa_handler = [](int) { _exit(0); };
  sigaction(SIGBUS, &ours, nullptr);  // before the keeper's, which comes with the first segment
  std::string reason;
  const auto map = SegmentMap::create(segment_mtrack, &reason);
  if (map == nullptr || !map->publish_name(&reason)) _exit(2);
  rsw::keep_length(*map);
  touch_another_file_past_its_end(path);
}

TEST(LengthKeeperHandler, GivesOtherBusErrorsToWhoHandledThemBefore) {
  const test_support::RunDirectory run;
  EXPECT_EXIT(set_a_handler_and_fault(run.path() + "/other"), testing::ExitedWithCode(0), "");
}

void fault_with_another_file_under_the_number(const SegmentMap &map, const std::string &path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || dup2(fd, map.descriptor()) < 0 || truncate(file_of(segment_mtrack).c_str(), 0) != 0) _exit(0);
  const uint32_t read = word_at(segment_mtrack.base + segment_page);
  _exit(read == 0 ? 0 : 1);
}

TEST_F(LengthKeeper, NeverLengthensAFileThatTookItsNumber) {
  const std::string other = run_.path() + "/other";
  EXPECT_BUS_ERROR(fault_with_another_file_under_the_number(*map_, other));
  struct stat file {};
  ASSERT_EQ(stat(other.c_str(), &file), 0);
  EXPECT_EQ(file.st_size, 0);
}

TEST_F(LengthKeeper, LetsGoWithTheMapping) {
  map_.reset();
  cut(segment_mtrack, 0);
  EXPECT_EQ(mend_lengths(), Names{});
  EXPECT_EQ(length_of(segment_mtrack), 0);
}

TEST(LengthKeeperOfTheReaderLock, GoesOnWhereItWas) {
  const test_support::RunDirectory run;
  std::string reason;
  const auto epochs = Epochs::open(&reason);
  ASSERT_NE(epochs, nullptr) << reason;
  const uint32_t lock = tsp_create_rwsem_lock(0, 6);
  ASSERT_NE(lock, 0u);
  tsp_lock_acquire_rdlock(lock);
  tsp_lock_release_rdlock(lock);
  const uint32_t before = epochs->advance(Domain::database);
  cut(rsw::segment_tsp, 0);
  const uint32_t after = epochs->advance(Domain::database);  // runs into it
  EXPECT_EQ(after, before + rsw::epoch_step);
  EXPECT_EQ(mend_lengths(), Names{"/rsw/shm/tsp"});
  epochs->put_back();
  EXPECT_EQ(rsw::slot_control().lock[0].epoch, after);
  EXPECT_NE(rsw::slot_control().lock[1].epoch, 0u);
  // A reader of before is seen again from its next query on, without anybody else raising the number of slots.
  tsp_lock_acquire_rdlock(lock);
  const uint32_t unlinked = epochs->advance(Domain::database);
  EXPECT_FALSE(epochs->passed(Domain::database, unlinked));
  tsp_lock_release_rdlock(lock);
  EXPECT_TRUE(epochs->passed(Domain::database, unlinked));
  tsp_destroy_lock(lock);
}

TEST(LengthKeeperOfThePool, HasAllItsBuffersAgain) {
  const test_support::RunDirectory run;
  std::string reason;
  ASSERT_TRUE(rsw::mbuf_open_for_writing(&reason)) << reason;
  cut(rsw::segment_mbuf, 0);
  rsw::PoolReport report;
  ASSERT_TRUE(rsw::report_pool(&report, &reason)) << reason;  // runs into it
  EXPECT_EQ(mend_lengths(), Names{"/rsw/shm/mbuf"});
  rsw::mbuf_put_back();
  struct mbuf *const packet = m_gethdr();
  ASSERT_NE(packet, nullptr);
  ASSERT_TRUE(rsw::report_pool(&report, &reason)) << reason;
  EXPECT_EQ(report.in_use, 1u);
  m_freem(packet);
  rsw::mbuf_leave();
}

TEST(LengthKeeperOfTheCounters, TheProcessTakesABlockAgain) {
  const test_support::RunDirectory run;
  std::string reason;
  ASSERT_TRUE(rsw::mtrack_open_for_writing(&reason)) << reason;
  cut(segment_mtrack, 0);
  void *const block = mtrack_alloc(0, 0, 100);
  EXPECT_EQ(mend_lengths(), Names{"/rsw/shm/mtrack"});
  // Another process sees it: its count, in a block whose name and number are written anew.
  mtrack_free(block);
  test_support::Process other([parent = getpid()] {
    for (const rsw::MemoryUse &use : rsw::mtrack_report()) {
      if (use.pid == parent) return use.allocations == 1 ? 0 : 2;
    }
    return 1;
  });
  EXPECT_EQ(other.wait(), 0);
}

}  // namespace
