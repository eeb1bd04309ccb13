// SPDX-License-Identifier: Apache-2.0
// Counted memory: the contract's calls, beside a twin that keeps every block, and the counters of other processes.
#include "mtrack.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "mtrack/mtrack_writer.h"
#include "platform/standard_error.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using rsw::MemoryUse;
using test_support::Process;
using test_support::RunDirectory;
using test_support::wait_until;

constexpr uint32_t component = 900;
const char *private_names[] = {"TEST_none", "TEST_one", "TEST_two"};
const char *shared_names[] = {"TEST_SM_none", "TEST_SM_record"};

std::optional<MemoryUse> use_of(pid_t pid, bool shared, uint32_t type) {
  for (MemoryUse &use : rsw::mtrack_report()) {
    if (use.pid == pid && use.component == component && use.shared == shared && use.type == type) return use;
  }
  return std::nullopt;
}

// The numbers of a private type of this process; zeros before its first allocation.
MemoryUse own(uint32_t type) {
  return use_of(getpid(), false, type).value_or(MemoryUse{});
}

class MemoryTracker : public testing::Test {
 protected:
  MemoryTracker() {
    EXPECT_EQ(mtrack_init("Test component", component, private_names, 3), 1u);
    EXPECT_EQ(mtrack_sm_init("Test component", component, shared_names, 2), 1u);
  }
  const RunDirectory directory_;
};

TEST_F(MemoryTracker, CountsWithoutASegment) {
  const MemoryUse before = own(1);
  void *block = mtrack_alloc(component, 1, 232);
  ASSERT_NE(block, nullptr);
  const MemoryUse during = own(1);
  EXPECT_EQ(during.blocks - before.blocks, 1u);
  EXPECT_EQ(during.bytes - before.bytes, 232u);
  EXPECT_EQ(during.allocations - before.allocations, 1u);
  EXPECT_EQ(during.description, "Test component");
  EXPECT_EQ(during.type_name, "TEST_one");
  mtrack_free(block);
  EXPECT_EQ(own(1).blocks, before.blocks);
  EXPECT_EQ(own(1).bytes, before.bytes);
}

TEST_F(MemoryTracker, NamesAreCopied) {
  char name[] = "TEST_changed";
  const char *names[] = {name};
  mtrack_init("Test component", component + 1, names, 1);
  memcpy(name, "xxxx", 4);
  void *block = mtrack_alloc(component + 1, 0, 1);
  bool found = false;
  for (const MemoryUse &use : rsw::mtrack_report()) found = found || use.type_name == "TEST_changed";
  EXPECT_TRUE(found);
  mtrack_free(block);
}

TEST_F(MemoryTracker, FreeOfNullIsNothing) {
  const MemoryUse before = own(1);
  mtrack_free(nullptr);
  EXPECT_EQ(own(1).blocks, before.blocks);
}

TEST_F(MemoryTracker, ABlockOfNoBytesIsABlock) {
  void *block = mtrack_alloc(component, 1, 0);
  EXPECT_NE(block, nullptr);
  EXPECT_EQ(own(1).blocks, 1u);
  mtrack_free(block);
  EXPECT_EQ(own(1).blocks, 0u);
}

TEST_F(MemoryTracker, AllOfABlockIsTheCallers) {
  for (uint32_t size = 0; size < 600; ++size) {
    auto *block = static_cast<unsigned char *>(mtrack_alloc(component, 2, size));
    memset(block, 0xff, size);
    mtrack_free(block);
  }
  EXPECT_EQ(own(2).blocks, 0u);
  EXPECT_EQ(own(2).bytes, 0u);
}

TEST_F(MemoryTracker, FreeReleasesABlockThatStaysCounted) {
  const MemoryUse before = own(1);
  void *block = mtrack_alloc(component, 1, 100);
  free(block);
  EXPECT_EQ(own(1).blocks - before.blocks, 1u);
  EXPECT_EQ(own(1).bytes - before.bytes, 100u);
}

TEST_F(MemoryTracker, AMallocBlockIsReleasedAndNotCounted) {
  const MemoryUse before = own(0);
  for (const size_t size : {size_t{0}, size_t{1}, size_t{12}, size_t{24}, size_t{4096}, size_t{1} << 20}) {
    void *block = malloc(size);
    memset(block, 0, size);
    mtrack_free(block);
  }
  for (uint32_t type = 0; type < 3; ++type) EXPECT_LT(own(type).blocks, 1000u);
  EXPECT_EQ(own(0).blocks, before.blocks);
}

TEST_F(MemoryTracker, AnUnregisteredTypeIsCountedAsOther) {
  void *block = mtrack_alloc(component, 99, 50);
  std::optional<MemoryUse> other;
  for (MemoryUse &use : rsw::mtrack_report()) {
    if (use.pid == getpid() && use.type_name == "(other)") other = use;
  }
  ASSERT_TRUE(other.has_value());
  EXPECT_EQ(other->blocks, 1u);
  EXPECT_EQ(other->bytes, 50u);
  mtrack_free(block);
}

TEST_F(MemoryTracker, ABlockFromBeforeTheRegistrationIsTakenOffWhereItWasCounted) {
  void *block = mtrack_alloc(component + 2, 0, 50);
  const char *names[] = {"TEST_late"};
  mtrack_init("Late", component + 2, names, 1);
  mtrack_free(block);
  for (const MemoryUse &use : rsw::mtrack_report()) {
    if (use.type_name == "(other)" || use.type_name == "TEST_late") {
      EXPECT_EQ(use.blocks, 0u) << use.type_name;
    }
  }
}

TEST_F(MemoryTracker, RegisteringAgainRenamesAndKeepsTheCounts) {
  void *block = mtrack_alloc(component, 1, 10);
  const MemoryUse before = own(1);
  const char *names[] = {"TEST_none", "TEST_renamed", "TEST_two"};
  EXPECT_EQ(mtrack_init("Test component", component, names, 3), 1u);
  EXPECT_EQ(own(1).type_name, "TEST_renamed");
  EXPECT_EQ(own(1).allocations, before.allocations);
  mtrack_free(block);
}

TEST_F(MemoryTracker, MoreTypesThanThereIsRoomForAreRefused) {
  std::vector<const char *> names(1000, "TEST_many");
  const std::string text = test_support::standard_error_of(
      [&] { EXPECT_EQ(mtrack_init("Too many", component + 3, names.data(), 1000), 0u); });
  EXPECT_NE(text.find("no room for 1000 private types of component 903"), std::string::npos) << text;
  EXPECT_EQ(mtrack_init("No names", component + 3, nullptr, 3), 0u);
}

TEST_F(MemoryTracker, AgreesWithATwinThatKeepsEveryBlock) {
  std::mt19937 random(11);
  std::map<void *, std::pair<uint32_t, uint32_t>> twin;  // block: type, size
  MemoryUse start[3] = {own(0), own(1), own(2)};
  for (int i = 0; i < 20000; ++i) {
    if (twin.empty() || random() % 2 == 0) {
      const auto type = static_cast<uint32_t>(random() % 3);
      const auto size = static_cast<uint32_t>(random() % 3000);
      void *block = mtrack_alloc(component, type, size);
      ASSERT_TRUE(twin.emplace(block, std::pair(type, size)).second);
    } else {
      auto victim = std::next(twin.begin(), static_cast<std::ptrdiff_t>(random() % std::min<size_t>(twin.size(), 20)));
      mtrack_free(victim->first);
      twin.erase(victim);
    }
  }
  for (uint32_t type = 0; type < 3; ++type) {
    uint64_t blocks = 0;
    uint64_t bytes = 0;
    for (const auto &[block, what] : twin) {
      blocks += what.first == type ? 1 : 0;
      bytes += what.first == type ? what.second : 0;
    }
    EXPECT_EQ(own(type).blocks - start[type].blocks, blocks);
    EXPECT_EQ(own(type).bytes - start[type].bytes, bytes);
  }
  for (const auto &[block, what] : twin) mtrack_free(block);
}

TEST_F(MemoryTracker, ThreadsLoseNoCount) {
  std::string reason;
  ASSERT_TRUE(rsw::mtrack_open_for_writing(&reason)) << reason;
  const MemoryUse before = own(2);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (uint32_t i = 0; i < 2000; ++i) {
        void *kept = mtrack_alloc(component, 2, i);
        mtrack_free(mtrack_alloc(component, 2, 7));
        mtrack_free(kept);
      }
    });
  }
  for (int i = 0; i < 50; ++i) EXPECT_LE(own(2).blocks - before.blocks, 8u);
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(own(2).blocks, before.blocks);
  EXPECT_EQ(own(2).bytes, before.bytes);
  EXPECT_EQ(own(2).allocations - before.allocations, 16000u);
}

TEST_F(MemoryTracker, SharedRecordsAreWhatTheirOwnerSays) {
  rsw::mtrack_shared_set(component, 1, 5000000000u, 60000000000u);
  const std::optional<MemoryUse> use = use_of(getpid(), true, 1);
  ASSERT_TRUE(use.has_value());
  EXPECT_EQ(use->blocks, 5000000000u);
  EXPECT_EQ(use->bytes, 60000000000u);
  EXPECT_EQ(use->type_name, "TEST_SM_record");
  rsw::mtrack_shared_set(component, 1, 0, 0);
  EXPECT_FALSE(use_of(getpid(), true, 1).has_value());
}

TEST_F(MemoryTracker, SharedFiguresFromBeforeTheRegistrationCountOnceItComes) {
  constexpr uint32_t late = component + 4;
  rsw::mtrack_shared_set(late, 0, 1, 1);
  rsw::mtrack_shared_set(late, 0, 9, 90);
  rsw::mtrack_shared_set(late, 1, 5, 50);
  const char *names[] = {"TEST_SM_late"};
  ASSERT_EQ(mtrack_sm_init("Late", late, names, 1), 1u);
  std::vector<MemoryUse> found;
  for (const MemoryUse &use : rsw::mtrack_report()) {
    if (use.component == late) found.push_back(use);
  }
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].type_name, "TEST_SM_late");
  EXPECT_EQ(found[0].blocks, 9u);
  EXPECT_EQ(found[0].bytes, 90u);
  rsw::mtrack_shared_set(late, 0, 0, 0);
}

// A child that counts in the segment until it is killed: so many blocks of 100 bytes of type 1, and a shared figure.
Process client_with(uint32_t blocks) {
  return Process([blocks] {
    mtrack_init("Client", component, private_names, 3);
    for (uint32_t i = 0; i < blocks; ++i) mtrack_alloc(component, 1, 100);
    rsw::mtrack_shared_set(component, 1, 70, 8000000000u);
    while (true) pause();
    return 0;
  });
}

TEST_F(MemoryTracker, AnotherProcessIsSeenWhileItLivesAndGoneWhenItIsKilled) {
  std::string reason;
  ASSERT_TRUE(rsw::mtrack_open_for_writing(&reason)) << reason;
  Process client = client_with(12);
  ASSERT_TRUE(wait_until([&] {
    const std::optional<MemoryUse> shared = use_of(client.pid(), true, 1);
    return shared.has_value() && shared->bytes == 8000000000u;
  }));
  const std::optional<MemoryUse> use = use_of(client.pid(), false, 1);
  ASSERT_TRUE(use.has_value());
  EXPECT_EQ(use->description, "Client");
  EXPECT_EQ(use->type_name, "TEST_one");
  EXPECT_GE(use->blocks, 12u);
  client.kill_now();
  EXPECT_FALSE(use_of(client.pid(), false, 1).has_value());
  EXPECT_FALSE(use_of(client.pid(), true, 1).has_value());
}

TEST_F(MemoryTracker, TheBlockOfAKilledProcessIsTakenByTheNext) {
  std::string reason;
  ASSERT_TRUE(rsw::mtrack_open_for_writing(&reason)) << reason;
  for (int i = 0; i < 5; ++i) {
    Process client = client_with(1);
    EXPECT_TRUE(wait_until([&] { return use_of(client.pid(), true, 1).has_value(); }));
    client.kill_now();
  }
  size_t storage = 0;
  struct stat file {};
  ASSERT_EQ(stat((directory_.path() + "/mtrack").c_str(), &file), 0);
  storage = static_cast<size_t>(file.st_blocks) * 512;
  EXPECT_LE(storage, 4096u + 3 * 8192u);
}

TEST_F(MemoryTracker, AChildThatDiesDoesNotTakeItsParentsBlockAway) {
  std::string reason;
  ASSERT_TRUE(rsw::mtrack_open_for_writing(&reason)) << reason;
  Process parent([] {
    mtrack_free(mtrack_alloc(component, 1, 100));
    Process child([] {
      mtrack_free(mtrack_alloc(component, 1, 100));
      return 0;
    });
    child.wait();
    rsw::mtrack_shared_set(component, 1, 1, 1);
    while (true) pause();
    return 0;
  });
  EXPECT_TRUE(wait_until([&] { return use_of(parent.pid(), true, 1).has_value(); }));
}

TEST_F(MemoryTracker, AParentThatDiesIsGoneWhileItsChildLives) {
  std::string reason;
  ASSERT_TRUE(rsw::mtrack_open_for_writing(&reason)) << reason;
  int child_pid[2];
  ASSERT_EQ(pipe(child_pid), 0);
  Process parent([&] {
    rsw::mtrack_shared_set(component, 1, 1, 1);
    const pid_t child = fork();
    if (child == 0) {
      while (true) pause();
    }
    if (write(child_pid[1], &child, sizeof child) != sizeof child) return 1;
    while (true) pause();
    return 0;
  });
  pid_t child = -1;
  ASSERT_EQ(read(child_pid[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
  EXPECT_TRUE(use_of(parent.pid(), true, 1).has_value());
  parent.kill_now();
  EXPECT_TRUE(wait_until([&] { return !use_of(parent.pid(), true, 1).has_value(); }));
  kill(child, SIGKILL);
  close(child_pid[0]);
  close(child_pid[1]);
}

TEST_F(MemoryTracker, AProcessThatClosedAllItsDescriptorsLeavesItsBlockToTheNextOwner) {
  std::string reason;
  ASSERT_TRUE(rsw::mtrack_open_for_writing(&reason)) << reason;
  int go[2];
  int done[2];
  ASSERT_EQ(pipe(go), 0);
  ASSERT_EQ(pipe(done), 0);
  Process daemon([&] {
    char byte = 0;
    rsw::mtrack_shared_set(component, 1, 1, 1);
    if (write(done[1], "x", 1) != 1 || read(go[0], &byte, 1) != 1) return 1;
    for (int fd = 3; fd < 1024; ++fd) {
      if (fd != go[0] && fd != done[1]) close(fd);
    }
    if (write(done[1], "x", 1) != 1 || read(go[0], &byte, 1) != 1) return 1;
    rsw::mtrack_shared_set(component, 1, 2, 2);
    if (write(done[1], "x", 1) != 1) return 1;
    while (true) pause();
    return 0;
  });
  char byte = 0;
  ASSERT_EQ(read(done[0], &byte, 1), 1);
  ASSERT_TRUE(use_of(daemon.pid(), true, 1).has_value());
  ASSERT_EQ(write(go[1], "x", 1), 1);
  ASSERT_EQ(read(done[0], &byte, 1), 1);
  EXPECT_FALSE(use_of(daemon.pid(), true, 1).has_value());
  Process other = client_with(1);
  ASSERT_TRUE(wait_until([&] { return use_of(other.pid(), true, 1).has_value(); }));
  ASSERT_EQ(write(go[1], "x", 1), 1);
  ASSERT_EQ(read(done[0], &byte, 1), 1);
  EXPECT_EQ(use_of(other.pid(), true, 1).value_or(MemoryUse{}).blocks, 70u);
  for (const int fd : {go[0], go[1], done[0], done[1]}) close(fd);
}

TEST_F(MemoryTracker, ANewRunDirectoryIsANewSegment) {
  std::string reason;
  ASSERT_TRUE(rsw::mtrack_open_for_writing(&reason)) << reason;
  const RunDirectory other;
  Process writer([] {
    std::string why;
    if (!rsw::mtrack_open_for_writing(&why)) return 1;
    rsw::mtrack_shared_set(component, 1, 3, 3);
    while (true) pause();
    return 0;
  });
  EXPECT_TRUE(wait_until([&] {
    mtrack_init("Test component", component, private_names, 3);
    return use_of(writer.pid(), true, 1).has_value();
  }));
}

TEST_F(MemoryTracker, ATakenOverSegmentKeepsItsClients) {
  Process first([] {
    std::string why;
    if (!rsw::mtrack_open_for_writing(&why)) return 1;
    while (true) pause();
    return 0;
  });
  ASSERT_TRUE(wait_until([&] { return access((directory_.path() + "/mtrack").c_str(), F_OK) == 0; }));
  Process client = client_with(2);
  ASSERT_TRUE(wait_until([&] { return use_of(client.pid(), true, 1).has_value(); }));
  first.kill_now();
  std::string reason;
  ASSERT_TRUE(rsw::mtrack_open_for_writing(&reason)) << reason;
  EXPECT_TRUE(use_of(client.pid(), true, 1).has_value());
}

// A sanitizer's allocator does not fail in the way that these two need.
#ifndef LIBIP_SANITIZED

int allocate_with_no_memory_left() {
  const rlimit none{0, RLIM_INFINITY};
  if (setrlimit(RLIMIT_AS, &none) != 0) return 2;
  return mtrack_alloc(component, 1, 1u << 30) == nullptr ? 0 : 1;
}

TEST_F(MemoryTracker, AFailedAllocationAbortsWithALine) {
  Process child([] { return allocate_with_no_memory_left(); });
  EXPECT_EQ(child.wait(), 128 + SIGABRT);
}

TEST_F(MemoryTracker, AFailedAllocationIsNullAndCountedWhenAbortsAreIgnored) {
  Process child([] {
    mtrack_ignore_alloc_abort(1);
    const uint64_t before = own(1).failures;
    if (allocate_with_no_memory_left() != 0) return 1;
    const rlimit all{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_AS, &all);
    return own(1).failures == before + 1 ? 0 : 2;
  });
  EXPECT_EQ(child.wait(), 0);
}

#endif

}  // namespace
