// SPDX-License-Identifier: Apache-2.0
// The promise itself, under load: no reader ever sees a record of its query being used again. A writer replaces the
// records of a small table as fast as it can, without any quarantine; readers, in threads and in other processes, hold
// the lock, pick a record and look at it for a while. A record that is freed is torn at once by its next use, so one
// early reuse shows as a record whose words do not belong together.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/standard_error.h"
#include "sm/arena.h"
#include "support/process.h"
#include "support/run_directory.h"
#include "tsp.h"

namespace {

using namespace std::chrono_literals;
using rsw::Arena;
using rsw::Domain;
using rsw::Epochs;
using rsw::SegmentMap;
using test_support::Environment;
using test_support::Process;
using test_support::RunDirectory;
using test_support::wait_until;

constexpr uint32_t places = 16;
constexpr uint32_t table_offset = 8192;
constexpr uint32_t arena_offset = 12288;

struct Record {
  uint32_t value;
  uint32_t inverse;
  uint32_t copies[6];
};
constexpr rsw::RecordTypeInfo types[] = {{1, sizeof(Record), 64, 0, "record"}};

// What happens outside the segment; in memory that the test's processes share.
struct Control {
  std::atomic<bool> stop;
  std::atomic<uint64_t> torn;
  std::atomic<uint64_t> queries;
};

uint32_t *table() {
  return reinterpret_cast<uint32_t *>(static_cast<uintptr_t>(rsw::segment_ip.base + table_offset));
}

// The race detector gets plain accesses, as queries make them: it must find the lock's order sufficient. Otherwise
// words are read relaxed, so that the control below, which breaks that order, is still a defined program.
#if defined(__SANITIZE_THREAD__)
uint32_t peek(const uint32_t &word) {
  return word;
}
void put(uint32_t &word, uint32_t value) {
  word = value;
}
#else
uint32_t peek(const uint32_t &word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
void put(uint32_t &word, uint32_t value) {
  __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}
#endif

bool is_whole(const Record &record, uint32_t value) {
  bool whole = peek(record.value) == value && peek(record.inverse) == ~value;
  for (const uint32_t &copy : record.copies) whole = whole && peek(copy) == value;
  return whole;
}

// One query: a record must stay as it is while the lock is held.
void look(uint32_t lock, uint32_t place, Control &control) {
  tsp_lock_acquire_rdlock(lock);
  const uint32_t address = __atomic_load_n(&table()[place], __ATOMIC_ACQUIRE);
  const auto &record = *reinterpret_cast<const Record *>(static_cast<uintptr_t>(address));
  const uint32_t value = peek(record.value);
  bool whole = true;
  for (int again = 0; again < 4; ++again) whole = whole && is_whole(record, value);
  tsp_lock_release_rdlock(lock);
  if (!whole) control.torn.fetch_add(1, std::memory_order_relaxed);
  control.queries.fetch_add(1, std::memory_order_relaxed);
}

void read_until_stopped(uint32_t lock, Control &control) {
  for (uint32_t place = 0; !control.stop.load(std::memory_order_relaxed); ++place) look(lock, place % places, control);
}

class Stress : public testing::Test {
 protected:
  void SetUp() override {
    void *const shared = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    control_ = new (shared) Control{};
    start_writer();
    std::string reason;
    attached_ = SegmentMap::attach(rsw::segment_ip, &reason);  // the readers', which stays while writers come and go
    ASSERT_NE(attached_, nullptr) << reason;
    for (uint32_t place = 0; place < places; ++place) replace(place);
    lock_ = tsp_create_rwsem_lock(0, 6);
    ASSERT_NE(lock_, 0u);
  }
  ~Stress() override {
    tsp_destroy_lock(lock_);
    munmap(control_, sizeof(Control));
  }
  void start_writer() {
    arena_.reset();
    segment_.reset();
    epochs_.reset();
    std::string reason;
    epochs_ = Epochs::open(&reason);
    ASSERT_NE(epochs_, nullptr) << reason;
    segment_ = SegmentMap::create(rsw::segment_ip, &reason);
    ASSERT_NE(segment_, nullptr) << reason;
    ASSERT_TRUE(segment_->grow(rsw::segment_ip.base + arena_offset, &reason)) << reason;
    arena_ = Arena::open(segment_, *epochs_, Domain::database, arena_offset, types,
                         {.quarantine = 0ms, .retired_bytes_cap = UINT64_MAX}, &reason);
    ASSERT_NE(arena_, nullptr) << reason;
    ASSERT_TRUE(segment_->publish_name(&reason)) << reason;
    for (uint32_t place = 0; place < places; ++place) {
      if (table()[place] != 0) arena_->adopt(1, reinterpret_cast<void *>(static_cast<uintptr_t>(table()[place])));
    }
    arena_->retire_unadopted();
  }
  void replace(uint32_t place) {
    auto *record = static_cast<Record *>(arena_->allocate(1));
    ASSERT_NE(record, nullptr);
    ++next_value_;
    put(record->value, next_value_);
    put(record->inverse, ~next_value_);
    for (uint32_t &copy : record->copies) put(copy, next_value_);
    const uint32_t old = table()[place];
    __atomic_store_n(&table()[place], static_cast<uint32_t>(reinterpret_cast<uintptr_t>(record)), __ATOMIC_RELEASE);
    if (old != 0) arena_->retire(1, reinterpret_cast<void *>(static_cast<uintptr_t>(old)));
  }
  void write_for(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    for (uint32_t i = 0; std::chrono::steady_clock::now() < end; ++i) {
      // A reader that is stopped inside its query is waited for: an overruled one may see its records used again.
      if (arena_->retired_bytes() < 32u << 20) replace(i % places);
      arena_->tick(std::chrono::steady_clock::now());
      if (i % 64 == 0) std::this_thread::yield();
    }
  }
  [[nodiscard]] uint64_t freed() const { return next_value_ - arena_->use()[0].live - arena_->use()[0].retired; }
  void write_beside_readers_in_threads_and_processes();
  void change_while_a_reader_enters();

  RunDirectory run_;
  Control *control_ = nullptr;
  std::unique_ptr<Epochs> epochs_;
  std::shared_ptr<SegmentMap> attached_;
  std::shared_ptr<SegmentMap> segment_;
  std::unique_ptr<Arena> arena_;
  uint32_t lock_ = 0;
  uint32_t next_value_ = 0;
};

void Stress::write_beside_readers_in_threads_and_processes() {
  const auto reader_process = [this] {
    return Process([this] {
      read_until_stopped(lock_, *control_);
      return 0;
    });
  };
  std::vector<Process> processes;
  processes.push_back(reader_process());
  processes.push_back(reader_process());
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) threads.emplace_back([this] { read_until_stopped(lock_, *control_); });
  write_for(1000ms);
  processes[0].kill_now();  // most likely inside
  write_for(300ms);
  processes[1].signal(SIGSTOP);
  write_for(300ms);
  processes[1].signal(SIGCONT);
  write_for(300ms);
  control_->stop = true;
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(processes[1].wait(), 0);
}

TEST_F(Stress, NoReaderSeesARecordBeingUsedAgain) {
  write_beside_readers_in_threads_and_processes();
  EXPECT_EQ(control_->torn, 0u) << "of " << control_->queries << " queries";
  EXPECT_GT(control_->queries, 1000u);
  EXPECT_GT(freed(), 1000u) << "the writer has to use records again, or nothing was on trial";
  EXPECT_TRUE(wait_until([&] {
    arena_->tick(std::chrono::steady_clock::now());
    return arena_->retired_bytes() == 0;
  }));
}

TEST_F(Stress, NorWithoutMembarrier) {
  const Environment without("RSW_NO_MEMBARRIER", "1");
  start_writer();
  ASSERT_TRUE(wait_until([&] { return epochs_->passed(Domain::database, epochs_->advance(Domain::database)); }));
  write_beside_readers_in_threads_and_processes();
  EXPECT_EQ(control_->torn, 0u) << "of " << control_->queries << " queries";
  EXPECT_GT(freed(), 1000u);
}

TEST_F(Stress, NorWhileWritersComeAndGo) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) threads.emplace_back([this] { read_until_stopped(lock_, *control_); });
  for (int i = 0; i < 10; ++i) {
    write_for(50ms);
    start_writer();
  }
  control_->stop = true;
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(control_->torn, 0u) << "of " << control_->queries << " queries";
  EXPECT_GT(control_->queries, 1000u);
}

// The one order that everything rests on, in its smallest form and many times: if the writer finds that its change has
// passed, a reader that is inside has seen the change. (Store buffering: each side stores, then looks at the other's.)
void Stress::change_while_a_reader_enters() {
  struct alignas(128) Line {
    std::atomic<uint32_t> word{0};
  };
  Line round;
  Line linked;
  Line entered;
  Line seen;
  const auto wait_for = [](const std::atomic<uint32_t> &word, uint32_t value) {
    for (int spins = 0; word.load(std::memory_order_acquire) != value; ++spins) {
      if (spins > 10000) std::this_thread::yield();
    }
  };
  std::thread reader([&] {
    for (uint32_t turn = 1;; ++turn) {
      wait_for(round.word, turn);
      if (control_->stop.load(std::memory_order_relaxed)) return;
      tsp_lock_acquire_rdlock(lock_);
      seen.word.store(linked.word.load(std::memory_order_relaxed), std::memory_order_relaxed);
      entered.word.store(turn, std::memory_order_release);
      wait_for(round.word, turn + 1);  // inside until the writer has its answer
      tsp_lock_release_rdlock(lock_);
      entered.word.store(0, std::memory_order_release);
      ++turn;
    }
  });
  const auto end = std::chrono::steady_clock::now() + 2s;
  uint32_t turn = 1;
  uint32_t passed_in_time = 0;
  for (; std::chrono::steady_clock::now() < end; turn += 2) {
    round.word.store(turn, std::memory_order_release);
    // The reader gets a head start that varies, so that the two meet in every order; now and then it comes first.
    for (uint32_t delay = turn / 2 % 512; delay > 0; --delay) static_cast<void>(round.word.load());
    if (turn / 2 % 16 == 0) wait_for(entered.word, turn);
    linked.word.store(turn, std::memory_order_relaxed);
    const bool passed = epochs_->passed(Domain::database, epochs_->advance(Domain::database));
    wait_for(entered.word, turn);
    if (passed && seen.word.load(std::memory_order_relaxed) != turn) control_->torn.fetch_add(1);
    passed_in_time += passed ? 1 : 0;
    round.word.store(turn + 1, std::memory_order_release);
    wait_for(entered.word, 0);
  }
  control_->stop = true;
  round.word.store(turn, std::memory_order_release);
  reader.join();
  EXPECT_EQ(control_->torn, 0u) << "of " << turn / 2 << " rounds";
  EXPECT_GT(passed_in_time, 0u);
  EXPECT_LT(passed_in_time, turn / 2) << "a reader that came first holds the change up";
}

TEST_F(Stress, ReaderThatIsInsideHasSeenTheChangeThatPassed) {
  change_while_a_reader_enters();
}

TEST_F(Stress, ReaderThatIsInsideHasSeenTheChangeThatPassedWithoutMembarrier) {
  const Environment without("RSW_NO_MEMBARRIER", "1");
  start_writer();
  ASSERT_TRUE(wait_until([&] { return epochs_->passed(Domain::database, epochs_->advance(Domain::database)); }));
  change_while_a_reader_enters();
}

#if !defined(__SANITIZE_THREAD__)
// The control: the same reader without the lock does catch the writer, so the tests above would see a broken lock.
TEST_F(Stress, ReaderWithoutTheLockDoesSeeIt) {
  std::thread reader([this] { read_until_stopped(0, *control_); });
  EXPECT_TRUE(wait_until(
      [&] {
        write_for(20ms);
        return control_->torn > 0;
      },
      60s));
  control_->stop = true;
  reader.join();
}
#endif

}  // namespace
