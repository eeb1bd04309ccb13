// SPDX-License-Identifier: Apache-2.0
// What a query pays for its protection: taking and giving back the reader lock, beside liburcu's memb flavour (called
// as a library, as ours is, and inlined) and beside a pthread_rwlock that processes share. Each alone, and while a
// second process does the same.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <urcu/urcu-memb.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "tsp.h"
#include "tsp/epochs.h"
#include "tsp_bench_inline.h"

namespace {

uint32_t database_lock;
pthread_rwlock_t *shared_rwlock;

// A second process that does `body` over and over for as long as this object lives.
class Beside {
 public:
  explicit Beside(void (*body)()) : pid_(fork()) {
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) body();
  }
  ~Beside() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Beside(const Beside &) = delete;
  Beside &operator=(const Beside &) = delete;

 private:
  pid_t pid_;
};

void reader_lock_once() {
  tsp_lock_acquire_rdlock(database_lock);
  benchmark::ClobberMemory();
  tsp_lock_release_rdlock(database_lock);
}

void rwlock_once() {
  pthread_rwlock_rdlock(shared_rwlock);
  benchmark::ClobberMemory();
  pthread_rwlock_unlock(shared_rwlock);
}

void urcu_call_once() {
  urcu_memb_read_lock();
  benchmark::ClobberMemory();
  urcu_memb_read_unlock();
}

void run(benchmark::State &state, void (*body)()) {
  std::unique_ptr<Beside> beside;
  if (state.range(0) == 2) beside = std::make_unique<Beside>(body);
  for (auto _ : state) body();
}

void ReaderLock(benchmark::State &state) {
  run(state, reader_lock_once);
}

void ReaderLockTakenTwice(benchmark::State &state) {
  run(state, [] {
    tsp_lock_acquire_rdlock(database_lock);
    reader_lock_once();
    tsp_lock_release_rdlock(database_lock);
  });
}

// liburcu protects the threads of one process: its second process has a domain of its own.
void LiburcuMemb(benchmark::State &state) {
  urcu_memb_register_thread();
  run(state, urcu_call_once);
  urcu_memb_unregister_thread();
}

void LiburcuMembInlined(benchmark::State &state) {
  urcu_memb_register_thread();
  run(state, urcu_inline_once);
  urcu_memb_unregister_thread();
}

void SharedRwlock(benchmark::State &state) {
  run(state, rwlock_once);
}

BENCHMARK(ReaderLock)->ArgName("processes")->Arg(1)->Arg(2);
BENCHMARK(ReaderLockTakenTwice)->ArgName("processes")->Arg(1);
BENCHMARK(LiburcuMemb)->ArgName("processes")->Arg(1)->Arg(2);
BENCHMARK(LiburcuMembInlined)->ArgName("processes")->Arg(1)->Arg(2);
BENCHMARK(SharedRwlock)->ArgName("processes")->Arg(1)->Arg(2);

void make_shared_rwlock() {
  void *const memory =
      mmap(nullptr, sizeof(pthread_rwlock_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  shared_rwlock = static_cast<pthread_rwlock_t *>(memory);
  pthread_rwlockattr_t attributes;
  pthread_rwlockattr_init(&attributes);
  pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_rwlock_init(shared_rwlock, &attributes);
}

}  // namespace

int main(int argc, char **argv) {
  char directory[] = "/tmp/rsw-bench-XXXXXX";
  if (mkdtemp(directory) == nullptr) return 1;
  setenv("RSW_RUN_DIR", directory, 1);
  int status = 0;
  std::string reason;
  if (const auto epochs = rsw::Epochs::open(&reason); epochs == nullptr) {
    fprintf(stderr, "%s\n", reason.c_str());
    status = 1;
  } else if (database_lock = tsp_create_rwsem_lock(0, 6); database_lock == 0) {
    status = 1;
  } else {
    make_shared_rwlock();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
  }
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
  return status;
}
