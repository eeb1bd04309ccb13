// SPDX-License-Identifier: Apache-2.0
// The reader lock between threads and processes: nesting, independence of the two locks, threads and processes that
// end, fork, stop or are killed while they are inside, on both sides.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <latch>
#include <optional>
#include <thread>

#include "platform/standard_error.h"
#include "sm/segment_map.h"
#include "support/process.h"
#include "support/run_directory.h"
#include "tsp.h"
#include "tsp/epochs.h"
#include "tsp/reader_locks.h"
#include "tsp/slots.h"

namespace {

using rsw::Domain;
using rsw::Epochs;
using test_support::Environment;
using test_support::Process;
using test_support::RunDirectory;
using test_support::standard_error_of;
using test_support::wait_until;

class Held {  // the lock, for a scope
 public:
  explicit Held(uint32_t lock) : lock_(lock) { tsp_lock_acquire_rdlock(lock_); }
  ~Held() { tsp_lock_release_rdlock(lock_); }
  Held(const Held &) = delete;
  Held &operator=(const Held &) = delete;

 private:
  uint32_t lock_;
};

class ReaderLock : public testing::Test {
 protected:
  void SetUp() override { start(); }
  ~ReaderLock() override {
    while (opened_ > 0) {
      tsp_destroy_lock(lock_);
      --opened_;
    }
  }
  void start() {
    start_writer();
    lock_ = tsp_create_rwsem_lock(0, 6);
    ASSERT_NE(lock_, 0u);
    ++opened_;
  }
  void start_writer() {
    epochs_.reset();
    std::string reason;
    epochs_ = Epochs::open(&reason);
    ASSERT_NE(epochs_, nullptr) << reason;
  }
  // Unlinks something, so to speak, and asks whether its memory may be used again.
  bool passes_now(Domain domain = Domain::database) { return epochs_->passed(domain, epochs_->advance(domain)); }

  RunDirectory run_;
  std::unique_ptr<Epochs> epochs_;
  uint32_t lock_ = 0;
  int opened_ = 0;
};

// A reader in a process of its own: takes the lock, says so, and lives until it is told otherwise.
class ReaderProcess {
 public:
  explicit ReaderProcess(uint32_t lock, bool inside = true) {
    if (pipe(ready_) != 0 || pipe(go_on_) != 0) throw std::runtime_error("pipe");
    process_.emplace([this, lock, inside] {
      if (!inside) static_cast<void>(Held{lock});
      if (inside) tsp_lock_acquire_rdlock(lock);
      char byte = 'r';
      if (write(ready_[1], &byte, 1) != 1 || read(go_on_[0], &byte, 1) != 1) return 1;
      if (inside) tsp_lock_release_rdlock(lock);
      byte = 'l';
      if (write(ready_[1], &byte, 1) != 1 || read(go_on_[0], &byte, 1) != 1) return 1;
      return 0;
    });
    wait();
  }
  ~ReaderProcess() {
    process_.reset();
    for (const int fd : {ready_[0], ready_[1], go_on_[0], go_on_[1]}) close(fd);
  }
  void wait() {
    char byte = 0;
    if (read(ready_[0], &byte, 1) != 1) throw std::runtime_error("the reader process is gone");
  }
  void leave() {
    if (write(go_on_[1], "x", 1) != 1) throw std::runtime_error("the reader process is gone");
    wait();
  }
  Process &process() { return *process_; }

 private:
  int ready_[2];
  int go_on_[2];
  std::optional<Process> process_;
};

TEST_F(ReaderLock, HasAHandleThatIsNotZero) {
  EXPECT_EQ(lock_, 1u);
  EXPECT_NE(tsp_is_proc_init(), 0u);
}

TEST_F(ReaderLock, OfAnotherKindIsRefused) {
  EXPECT_EQ(tsp_create_rwsem_lock(1, 6), 0u);
  EXPECT_EQ(tsp_create_rwsem_lock(0, 7), 0u);
}

TEST(ReaderLockWithoutWriter, IsRefusedWithAReason) {
  const RunDirectory run;
  uint32_t lock = 1;
  const std::string log = standard_error_of([&] { lock = tsp_create_rwsem_lock(0, 6); });
  EXPECT_EQ(lock, 0u);
  EXPECT_NE(log.find("No such file"), std::string::npos) << log;
}

TEST(ReaderLockWithoutWriter, UnknownHandlesAreIgnored) {
  for (const uint32_t lock : {0u, 1u, 2u, 3u, 0xffffffffu}) {
    tsp_lock_acquire_rdlock(lock);
    tsp_lock_release_rdlock(lock);
    tsp_destroy_lock(lock);
  }
  tsp_before_yield();
  tsp_after_yield();
}

TEST_F(ReaderLock, HoldsUpTheWriterWhileItIsHeld) {
  uint32_t epoch = 0;
  {
    const Held held(lock_);
    epoch = epochs_->advance(Domain::database);
    EXPECT_FALSE(epochs_->passed(Domain::database, epoch));
  }
  EXPECT_TRUE(epochs_->passed(Domain::database, epoch));
}

TEST_F(ReaderLock, TakenAfterTheChangeDoesNotHoldItUp) {
  const uint32_t epoch = epochs_->advance(Domain::database);
  const Held held(lock_);
  EXPECT_TRUE(epochs_->passed(Domain::database, epoch));
}

TEST_F(ReaderLock, TakenTwiceIsHeldUntilTheSecondRelease) {
  tsp_lock_acquire_rdlock(lock_);
  tsp_lock_acquire_rdlock(lock_);
  tsp_lock_release_rdlock(lock_);
  EXPECT_FALSE(passes_now());
  tsp_lock_release_rdlock(lock_);
  EXPECT_TRUE(passes_now());
}

TEST_F(ReaderLock, InnerAcquisitionKeepsTheOuterEpoch) {
  tsp_lock_acquire_rdlock(lock_);
  const uint32_t epoch = epochs_->advance(Domain::database);
  tsp_lock_acquire_rdlock(lock_);
  EXPECT_FALSE(epochs_->passed(Domain::database, epoch));
  tsp_lock_release_rdlock(lock_);
  tsp_lock_release_rdlock(lock_);
  EXPECT_TRUE(epochs_->passed(Domain::database, epoch));
}

TEST_F(ReaderLock, ReleasedWithoutBeingTakenIsIgnored) {
  tsp_lock_release_rdlock(lock_);
  tsp_lock_release_rdlock(2);
  tsp_lock_acquire_rdlock(lock_);
  EXPECT_FALSE(passes_now());
  tsp_lock_release_rdlock(lock_);
  EXPECT_TRUE(passes_now());
}

TEST_F(ReaderLock, DoesNotHoldUpTheOtherLocksWriter) {
  std::string reason;
  const uint32_t urib = rsw::open_reader_lock(Domain::urib, &reason);
  ASSERT_EQ(urib, 2u) << reason;
  tsp_lock_acquire_rdlock(lock_);
  EXPECT_TRUE(passes_now(Domain::urib));
  tsp_lock_acquire_rdlock(urib);
  tsp_lock_release_rdlock(lock_);
  EXPECT_TRUE(passes_now(Domain::database));
  EXPECT_FALSE(passes_now(Domain::urib));
  tsp_lock_release_rdlock(urib);
  EXPECT_TRUE(passes_now(Domain::urib));
  tsp_destroy_lock(urib);
}

TEST_F(ReaderLock, HolderIsNamed) {
  const Held held(lock_);
  const uint32_t epoch = epochs_->advance(Domain::database);
  const auto holders = epochs_->holders(Domain::database, epoch);
  ASSERT_EQ(holders.size(), 1u);
  EXPECT_EQ(holders[0].pid, getpid());
  EXPECT_EQ(std::string(holders[0].command, strnlen(holders[0].command, 16)),
            std::string(program_invocation_short_name).substr(0, 15));
}

TEST_F(ReaderLock, OverruledReaderCountsAgainWithItsNextQuery) {
  tsp_lock_acquire_rdlock(lock_);
  const uint32_t epoch = epochs_->advance(Domain::database);
  for (const auto &holder : epochs_->holders(Domain::database, epoch)) epochs_->overrule(holder);
  EXPECT_TRUE(epochs_->passed(Domain::database, epoch));
  EXPECT_TRUE(passes_now()) << "it still holds the same epoch";
  tsp_lock_release_rdlock(lock_);
  tsp_lock_acquire_rdlock(lock_);
  EXPECT_FALSE(passes_now());
  tsp_lock_release_rdlock(lock_);
}

TEST_F(ReaderLock, OverrulingOneLockLeavesTheOtherProtected) {
  std::string reason;
  const uint32_t urib = rsw::open_reader_lock(Domain::urib, &reason);
  tsp_lock_acquire_rdlock(lock_);
  tsp_lock_acquire_rdlock(urib);
  for (const auto &holder : epochs_->holders(Domain::database, epochs_->advance(Domain::database))) {
    epochs_->overrule(holder);
  }
  EXPECT_TRUE(passes_now(Domain::database));
  EXPECT_FALSE(passes_now(Domain::urib));
  tsp_lock_release_rdlock(urib);
  tsp_lock_release_rdlock(lock_);
  tsp_destroy_lock(urib);
}

// --- threads

TEST_F(ReaderLock, EachThreadHoldsItUpByItself) {
  constexpr int threads = 40;
  std::latch inside(threads);
  std::vector<std::atomic<bool>> may_leave(threads);
  std::vector<std::thread> readers;
  for (int i = 0; i < threads; ++i) {
    readers.emplace_back([&, i] {
      const Held held(lock_);
      inside.count_down();
      may_leave[static_cast<size_t>(i)].wait(false);
    });
  }
  inside.wait();
  const uint32_t epoch = epochs_->advance(Domain::database);
  EXPECT_EQ(epochs_->holders(Domain::database, epoch).size(), static_cast<size_t>(threads));
  for (int i = 0; i < threads; ++i) {
    EXPECT_FALSE(epochs_->passed(Domain::database, epoch)) << i;
    may_leave[static_cast<size_t>(i)] = true;
    may_leave[static_cast<size_t>(i)].notify_one();
    readers[static_cast<size_t>(i)].join();
  }
  EXPECT_TRUE(epochs_->passed(Domain::database, epoch));
}

TEST_F(ReaderLock, ThreadThatEndsInsideHoldsNothingUp) {
  std::thread([this] { tsp_lock_acquire_rdlock(lock_); }).join();
  EXPECT_TRUE(passes_now());
}

TEST_F(ReaderLock, SlotsOfEndedThreadsAreUsedAgain) {
  for (int i = 0; i < 3000; ++i) std::thread([this] { const Held held(lock_); }).join();
  const auto *in_use = reinterpret_cast<const uint32_t *>(static_cast<uintptr_t>(0x60000000u + 4096 + 128));
  EXPECT_LE(*in_use, 2u);
}

// A key whose destructor runs a query: the slot may be gone by then and must be given back once more.
TEST_F(ReaderLock, MayBeTakenInAThreadsExitHandler) {
  static uint32_t lock;
  lock = lock_;
  static std::atomic<int> ran;
  pthread_key_t key{};
  ASSERT_EQ(pthread_key_create(&key,
                               [](void *) {
                                 const Held held(lock);
                                 ++ran;
                               }),
            0);
  std::thread([&] {
    { const Held held(lock_); }
    pthread_setspecific(key, &key);
  }).join();
  EXPECT_EQ(ran, 1);
  EXPECT_TRUE(passes_now());
  EXPECT_TRUE(rsw::epoch_clients().empty());
  pthread_key_delete(key);
}

// --- processes

TEST_F(ReaderLock, ReaderInAnotherProcessHoldsItUpUntilItLeaves) {
  ReaderProcess reader(lock_);
  const uint32_t epoch = epochs_->advance(Domain::database);
  EXPECT_FALSE(epochs_->passed(Domain::database, epoch));
  reader.leave();
  EXPECT_TRUE(epochs_->passed(Domain::database, epoch));
}

TEST_F(ReaderLock, ReaderKilledInsideHoldsNothingUp) {
  ReaderProcess reader(lock_);
  const uint32_t epoch = epochs_->advance(Domain::database);
  EXPECT_FALSE(epochs_->passed(Domain::database, epoch));
  reader.process().kill_now();
  EXPECT_TRUE(epochs_->passed(Domain::database, epoch));
  EXPECT_TRUE(rsw::epoch_clients().empty());
}

TEST_F(ReaderLock, ReaderStoppedInsideDoesNotBlockTheWriterAndCanBeOverruled) {
  ReaderProcess reader(lock_);
  reader.process().signal(SIGSTOP);
  const uint32_t epoch = epochs_->advance(Domain::database);
  for (int i = 0; i < 1000; ++i) EXPECT_FALSE(epochs_->passed(Domain::database, epoch));
  const auto holders = epochs_->holders(Domain::database, epoch);
  ASSERT_EQ(holders.size(), 1u);
  EXPECT_EQ(holders[0].pid, reader.process().pid());
  epochs_->overrule(holders[0]);
  EXPECT_TRUE(epochs_->passed(Domain::database, epoch));
  reader.process().signal(SIGCONT);
  reader.leave();
  EXPECT_TRUE(passes_now());
}

// A process writes its slot itself, and may write there whatever it wants.
TEST_F(ReaderLock, AnEpochThatClaimsToBeAnotherLocksIsOverruledAllTheSame) {
  tsp_lock_acquire_rdlock(lock_);
  const uint32_t epoch = epochs_->advance(Domain::database);
  auto holders = epochs_->holders(Domain::database, epoch);
  ASSERT_EQ(holders.size(), 1u);
  rsw::slot_at(holders[0].slot).epoch[0] ^= 1u << rsw::epoch_lock_shift;
  holders = epochs_->holders(Domain::database, epoch);
  ASSERT_EQ(holders.size(), 1u);
  epochs_->overrule(holders[0]);
  EXPECT_TRUE(epochs_->passed(Domain::database, epoch));
  tsp_lock_release_rdlock(lock_);
}

TEST_F(ReaderLock, OneThatIsOverruledCannotHoldTheWriterUpWithOtherOldEpochs) {
  tsp_lock_acquire_rdlock(lock_);
  const uint32_t epoch = epochs_->advance(Domain::database);
  const auto holders = epochs_->holders(Domain::database, epoch);
  ASSERT_EQ(holders.size(), 1u);
  epochs_->overrule(holders[0]);
  for (uint32_t older = 1; older < 5; ++older) {
    rsw::slot_at(holders[0].slot).epoch[0] = holders[0].epoch - older * rsw::epoch_step;
    EXPECT_TRUE(passes_now()) << older;
  }
  tsp_lock_release_rdlock(lock_);
}

TEST_F(ReaderLock, WriterKilledDoesNotBlockReaders) {
  epochs_.reset();
  tsp_destroy_lock(lock_);
  opened_ = 0;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  Process writer([&] {
    std::string reason;
    const auto epochs = Epochs::open(&reason);
    if (epochs == nullptr || write(ready[1], "x", 1) != 1) return 1;
    for (;;) static_cast<void>(epochs->passed(Domain::database, epochs->advance(Domain::database)));
  });
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  lock_ = tsp_create_rwsem_lock(0, 6);
  ASSERT_NE(lock_, 0u);
  opened_ = 1;
  { const Held held(lock_); }
  writer.kill_now();
  { const Held held(lock_); }
  const Held held(lock_);
  start_writer();
  EXPECT_FALSE(passes_now()) << "the new writer finds the reader of the old one";
}

TEST_F(ReaderLock, WriterThatStartsAnewFindsTheReadersThatAreInside) {
  ReaderProcess reader(lock_);
  start_writer();
  const uint32_t epoch = epochs_->advance(Domain::database);
  EXPECT_FALSE(epochs_->passed(Domain::database, epoch));
  reader.leave();
  EXPECT_TRUE(epochs_->passed(Domain::database, epoch));
}

TEST_F(ReaderLock, OfAForkedChildIsItsOwn) {
  { const Held held(lock_); }
  ReaderProcess child(lock_);
  const uint32_t epoch = epochs_->advance(Domain::database);
  EXPECT_FALSE(epochs_->passed(Domain::database, epoch));
  { const Held held(lock_); }  // the parent's slot is another one
  EXPECT_FALSE(epochs_->passed(Domain::database, epoch));
  child.leave();
  EXPECT_TRUE(epochs_->passed(Domain::database, epoch));
}

TEST_F(ReaderLock, ForkedInsideProtectsTheChildAfterTheParentLeft) {
  int leave[2];
  ASSERT_EQ(pipe(leave), 0);
  tsp_lock_acquire_rdlock(lock_);
  Process child([&] {
    char byte = 0;
    if (read(leave[0], &byte, 1) != 1) return 1;
    tsp_lock_release_rdlock(lock_);
    return read(leave[0], &byte, 1) == 1 ? 0 : 1;
  });
  tsp_lock_release_rdlock(lock_);
  const uint32_t epoch = epochs_->advance(Domain::database);
  EXPECT_FALSE(epochs_->passed(Domain::database, epoch));
  ASSERT_EQ(epochs_->holders(Domain::database, epoch).size(), 1u);
  EXPECT_TRUE(wait_until([&] { return epochs_->holders(Domain::database, epoch)[0].pid == child.pid(); }));
  ASSERT_EQ(write(leave[1], "x", 1), 1);
  EXPECT_TRUE(wait_until([&] { return epochs_->passed(Domain::database, epoch); }));
  ASSERT_EQ(write(leave[1], "x", 1), 1);
  EXPECT_EQ(child.wait(), 0);
}

TEST_F(ReaderLock, ParentKilledWhileAForkedChildLivesHoldsNothingUp) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  Process parent([&] {
    { const Held held(lock_); }
    const pid_t grandchild = fork();
    if (grandchild == 0) {
      for (;;) pause();
    }
    tsp_lock_acquire_rdlock(lock_);
    if (write(ready[1], &grandchild, sizeof grandchild) != sizeof grandchild) return 1;
    for (;;) pause();
  });
  pid_t grandchild = 0;
  ASSERT_EQ(read(ready[0], &grandchild, sizeof grandchild), static_cast<ssize_t>(sizeof grandchild));
  const uint32_t epoch = epochs_->advance(Domain::database);
  EXPECT_FALSE(epochs_->passed(Domain::database, epoch));
  parent.kill_now();
  // The child gives its copy of the descriptor back when it first runs, which on a busy machine may be later than this.
  EXPECT_TRUE(wait_until([&] { return epochs_->passed(Domain::database, epoch); }));
  kill(grandchild, SIGKILL);
}

TEST_F(ReaderLock, ClientsAreListedByProcess) {
  EXPECT_TRUE(rsw::epoch_clients().empty());
  ReaderProcess inside(lock_);
  ReaderProcess outside(lock_, false);
  const auto clients = rsw::epoch_clients();
  ASSERT_EQ(clients.size(), 2u);
  for (const auto &client : clients) {
    EXPECT_EQ(client.threads, 1u);
    EXPECT_EQ(client.inside, client.pid == inside.process().pid());
  }
}

TEST_F(ReaderLock, SignaturesOfDeadProcessesAreSweptWithTime) {
  const auto *owner = reinterpret_cast<const volatile uint32_t *>(static_cast<uintptr_t>(0x60000000u + 8192 + 8));
  ReaderProcess reader(lock_, false);
  EXPECT_EQ(*owner, static_cast<uint32_t>(reader.process().pid()));
  reader.process().kill_now();
  EXPECT_TRUE(wait_until([&] { return passes_now() && *owner == 0; }));
}

TEST_F(ReaderLock, SegmentMadeAnewIsFoundByTheNextOpen) {
  tsp_destroy_lock(lock_);
  opened_ = 0;
  epochs_.reset();
  { const Held late(lock_); }  // a late query after the last close does no harm
  ASSERT_EQ(unlink(rsw::segment_path("/rsw/shm/tsp").c_str()), 0);
  start();
  const Held held(lock_);
  EXPECT_FALSE(passes_now());
}

// --- without membarrier

TEST_F(ReaderLock, WorksWithoutMembarrierAndSaysSoOnce) {
  epochs_.reset();
  tsp_destroy_lock(lock_);
  opened_ = 0;
  Process child([] {
    const RunDirectory run;
    const Environment without("RSW_NO_MEMBARRIER", "1");
    std::string reason;
    int verdict = 0;
    const std::string log = standard_error_of([&] {
      const auto epochs = Epochs::open(&reason);
      const uint32_t lock = tsp_create_rwsem_lock(0, 6);
      if (epochs == nullptr || lock == 0) {
        verdict = 2;
        return;
      }
      tsp_lock_acquire_rdlock(lock);
      const uint32_t epoch = epochs->advance(Domain::database);
      if (epochs->passed(Domain::database, epoch)) verdict = 3;
      tsp_lock_release_rdlock(lock);
      if (!epochs->passed(Domain::database, epoch)) verdict = 4;
    });
    const size_t said = log.find("without membarrier");
    if (said == std::string::npos || log.find("without membarrier", said + 1) != std::string::npos) verdict = 5;
    return verdict;
  });
  EXPECT_EQ(child.wait(), 0);
}

TEST_F(ReaderLock, NothingPassesForASecondAfterAChangeToFences) {
  const Environment without("RSW_NO_MEMBARRIER", "1");
  const auto begin = std::chrono::steady_clock::now();
  start_writer();
  const uint32_t epoch = epochs_->advance(Domain::database);
  EXPECT_TRUE(wait_until([&] { return epochs_->passed(Domain::database, epoch); }));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(990));
  const Held held(lock_);
  EXPECT_FALSE(passes_now());
}

TEST_F(ReaderLock, MembarrierLostAtWorkIsReplacedByFences) {
  EXPECT_TRUE(passes_now());
  const Environment without("RSW_NO_MEMBARRIER", "1");
  EXPECT_TRUE(wait_until([&] { return passes_now(); }));
  const Held held(lock_);
  EXPECT_FALSE(passes_now());
}

// --- exhaustion

TEST_F(ReaderLock, WithoutAFreeSlotQueriesGoOnUnprotected) {
  // Somebody else has locked the whole file.
  const int everything = open(rsw::segment_path("/rsw/shm/tsp").c_str(), O_RDWR | O_CLOEXEC);
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  ASSERT_EQ(fcntl(everything, F_OFD_SETLK, &range), 0);
  const std::string log = standard_error_of([&] {
    std::thread([&] {
      for (int i = 0; i < 5000; ++i) const Held held(lock_);
      tsp_lock_acquire_rdlock(lock_);
      EXPECT_TRUE(passes_now());
      tsp_lock_release_rdlock(lock_);
    }).join();
  });
  EXPECT_NE(log.find("go unprotected"), std::string::npos) << log;
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
  close(everything);
  const Held held(lock_);
  EXPECT_FALSE(passes_now()) << "another thread finds a slot again";
}

}  // namespace
