// SPDX-License-Identifier: Apache-2.0
// A process enters the pool and leaves it.
//
// It is attached from its first buffer on: the segment is mapped, and one of the pool's entries is its own. Who owns an
// entry is the kernel's to say, as with the slots of the reader lock: the owner holds an open-file-description lock on
// the entry's first byte, which goes with the process, whatever killed it and in whatever pid namespace it ran. A
// daemon that closes all descriptors on its way loses the lock and lives, so an entry without lock counts as dead only
// when no process of its number is there that began when the entry says.
//
// fork(2): the child has the mapping, but neither the entry nor the groups of its parent; it enters anew when it first
// wants a buffer. Buffers that the parent had stay the parent's.
//
// A process that finds no pool asks again at most ten times a second.
#include "mbuf/attachment.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <bitset>
#include <mutex>

#include "log/log_writer.h"
#include "mbuf/private_buffers.h"
#include "never_destroyed.h"
#include "no_memory.h"

namespace rsw::pool {

thread_local constinit ThreadCache this_cache{};
constinit std::atomic<int32_t> process_id{0};

namespace {

constexpr uint64_t retry_milliseconds = 100;

struct Attachment {
  std::mutex mutex;
  std::shared_ptr<SegmentMap> map;
  uint32_t entry = 0;
  int lock_descriptor = -1;
  uint64_t retry_at = 0;
  bool refusal_logged = false;
  bool key_made = false;
  pthread_key_t thread_end{};
  std::bitset<threads_with_cache + 1> numbers;  // of threads; 0 is nobody's
};

Attachment &attachment() {
  static NeverDestroyed<Attachment> only;
  return only.value;
}

constinit std::atomic<bool> attached{false};
constinit std::atomic<bool> damage_logged{false};

uint64_t now_milliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

struct flock range_of(uint32_t entry, short type) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = static_cast<off_t>(processes_offset + entry * sizeof(ProcessEntry));
  range.l_len = 1;
  return range;
}

// A description of its own: a lock does not stand against a look through the same open file.
int reopen(const SegmentMap &map) {
  char path[48];
  snprintf(path, sizeof path, "/proc/self/fd/%d", map.descriptor());
  const int descriptor = open(path, O_RDWR | O_CLOEXEC);
  struct stat file {};
  // A process that closed all descriptors may have something else under the number.
  const bool ours = descriptor >= 0 && fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode) &&
                    static_cast<uint64_t>(file.st_size) == map.layout().size;
  if (ours || descriptor < 0) return descriptor;
  close(descriptor);
  errno = EBADF;
  return -1;
}

struct ProcessStatus {
  bool there = false;
  uint32_t start_time = 0;
};

// A process that ended and was not reaped yet is not there any more.
ProcessStatus status_of(int32_t pid) {
  ProcessStatus status;
  char path[48];
  snprintf(path, sizeof path, "/proc/%d/stat", pid);
  FILE *file = fopen(path, "re");
  if (file == nullptr) return status;
  char line[1024];
  const bool read = fgets(line, sizeof line, file) != nullptr;
  fclose(file);
  // Behind the name, which may contain anything: the state, and as the 20th field from there when it began.
  const char *rest = read ? strrchr(line, ')') : nullptr;
  char state = 'X';
  unsigned long long start = 0;
  if (rest == nullptr ||
      sscanf(rest + 1, " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu", &state,
             &start) != 2) {
    return status;
  }
  status.there = state != 'Z' && state != 'X' && state != 'x';
  status.start_time = static_cast<uint32_t>(start);
  return status;
}

void sign(ProcessEntry &entry) {
  char command[16] = {};
  snprintf(command, sizeof command, "%s", program_invocation_short_name);
  uint32_t words[4];
  memcpy(words, command, sizeof words);
  // Relaxed: they are found by the process id that follows.
  for (size_t i = 0; i < 4; ++i) word(entry.command[i]).store(words[i], std::memory_order_relaxed);
  word(entry.start_time).store(status_of(own_pid()).start_time, std::memory_order_relaxed);
  // Release: who sees the number sees the rest; the partner is the acquire load of whoever looks at entries.
  word(entry.pid).store(static_cast<uint32_t>(own_pid()), std::memory_order_release);
}

bool lock_entry(int descriptor, uint32_t entry) {
  struct flock range = range_of(entry, F_WRLCK);
  return fcntl(descriptor, F_OFD_SETLK, &range) == 0;
}

bool take_entry(Attachment &own, std::string *reason) {
  const int descriptor = reopen(*own.map);
  if (descriptor < 0) {
    *reason = std::string("cannot open it again: ") + strerror(errno);
    return false;
  }
  // First those that nobody signed; then those whose owner is dead and was not looked at yet.
  for (const bool signed_ones : {false, true}) {
    for (uint32_t index = 0; index < process_limit; ++index) {
      // Relaxed: a hint; the lock decides.
      const bool is_signed = word(process_entry(index).pid).load(std::memory_order_relaxed) != 0;
      if (is_signed != signed_ones || !lock_entry(descriptor, index)) continue;
      sign(process_entry(index));
      own.entry = index;
      own.lock_descriptor = descriptor;
      return true;
    }
  }
  close(descriptor);
  *reason = "all of its " + std::to_string(process_limit) + " entries for processes are taken";
  return false;
}

// A fork's child only lets go of its copy. The descriptor is closed only if it is still the segment's file.
void leave_entry(Attachment &own) {
  struct stat held {};
  struct stat file {};
  if (own.lock_descriptor >= 0 && own.map != nullptr && fstat(own.lock_descriptor, &held) == 0 &&
      fstat(own.map->descriptor(), &file) == 0 && held.st_dev == file.st_dev && held.st_ino == file.st_ino) {
    close(own.lock_descriptor);
  }
  own.lock_descriptor = -1;
}

// The mutex is held.
void forget_thread(Attachment &own, ThreadCache &cache) {
  release_groups(cache);
  own.numbers.reset(cache.holder & threads_with_cache);
  cache = {};
}

void at_thread_end(void *cache_of_thread) {
  ThreadCache &cache = *static_cast<ThreadCache *>(cache_of_thread);
  if (cache.holder == 0) return;
  Attachment &own = attachment();
  const std::lock_guard guard(own.mutex);
  forget_thread(own, cache);
}

void before_fork() {
  attachment().mutex.lock();
  lock_private_buffers_for_fork();
}

void after_fork_in_parent() {
  unlock_private_buffers_after_fork();
  attachment().mutex.unlock();
}

void after_fork_in_child() {
  Attachment &own = attachment();
  attached.store(false, std::memory_order_relaxed);  // one thread
  process_id.store(getpid(), std::memory_order_relaxed);
  leave_entry(own);
  own.numbers.reset();
  own.retry_at = 0;
  this_cache = {};
  unlock_private_buffers_after_fork();
  own.mutex.unlock();
}

__attribute__((constructor)) void follow_forks() {
  pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

// The last thread's groups; a process without ipd would leave them to nobody.
__attribute__((destructor)) void give_groups_back() {
  release_groups(this_cache);
}

// The mutex is held.
bool enter(Attachment &own, std::string *reason) {
  // Acquire: the tables are whole; the partner is the maker's release store.
  if (word(control().magic).load(std::memory_order_acquire) != pool_magic) {
    *reason = "its tables are damaged";
    return false;
  }
  if (!own.key_made) {
    if (const int error = pthread_key_create(&own.thread_end, at_thread_end); error != 0) {
      *reason = std::string("cannot watch threads end: ") + strerror(error);
      return false;
    }
    own.key_made = true;
  }
  if (!take_entry(own, reason)) return false;
  note_owner(own_pid());
  // Release: who finds the process attached finds the mapping; the partner is the acquire load in is_attached().
  attached.store(true, std::memory_order_release);
  return true;
}

// Not an accident: no ipd has made it yet, or it is not for this process.
bool is_expected(int error) {
  return error == ENOENT || error == EACCES || error == EPERM;
}

}  // namespace

int32_t ask_own_pid() {
  const int32_t pid = getpid();
  process_id.store(pid, std::memory_order_relaxed);
  return pid;
}

bool is_attached() {
  return attached.load(std::memory_order_acquire);  // partner: the release in enter()
}

namespace {

bool attach_now() {
  Attachment &own = attachment();
  const std::lock_guard guard(own.mutex);
  if (is_attached()) return true;
  const uint64_t now = now_milliseconds();
  if (now < own.retry_at) return false;
  own.retry_at = now + retry_milliseconds;
  std::string reason;
  if (own.map == nullptr) own.map = SegmentMap::attach(segment_mbuf, &reason);
  if (own.map == nullptr && is_expected(errno)) return false;
  if (own.map != nullptr && enter(own, &reason)) return true;
  if (!own.refusal_logged) log_line(LOG_WARNING, "packet buffers are not shared: %s", reason.c_str());
  own.refusal_logged = true;
  return false;
}

}  // namespace

bool attach() {
  return is_attached() || unless_without_memory(false, attach_now);
}

std::shared_ptr<SegmentMap> map_pool(std::string *reason) {
  Attachment &own = attachment();
  const std::lock_guard guard(own.mutex);
  if (own.map != nullptr) return own.map;
  return SegmentMap::attach(segment_mbuf, reason);
}

bool attach_to(std::shared_ptr<SegmentMap> map, std::string *reason) {
  Attachment &own = attachment();
  const std::lock_guard guard(own.mutex);
  own.map = std::move(map);
  return is_attached() || enter(own, reason);
}

void detach() {
  Attachment &own = attachment();
  const std::lock_guard guard(own.mutex);
  if (is_attached()) {
    forget_thread(own, this_cache);
    attached.store(false, std::memory_order_relaxed);  // the only thread
    word(process_entry(own.entry).pid).store(0, std::memory_order_relaxed);
    leave_entry(own);
  }
  own.map.reset();
  own.retry_at = 0;
  own.refusal_logged = false;
}

bool number_thread(ThreadCache &cache) {
  Attachment &own = attachment();
  const std::lock_guard guard(own.mutex);
  for (uint32_t number = 1; number <= threads_with_cache; ++number) {
    if (own.numbers.test(number)) continue;
    if (pthread_setspecific(own.thread_end, &cache) != 0) return false;
    own.numbers.set(number);
    cache.holder = holder_of(own_pid(), number);
    return true;
  }
  return false;
}

bool process_exists(int32_t pid) {
  return pid > 0 && status_of(pid).there;
}

bool entry_is_alive(const SegmentMap &map, uint32_t entry) {
  struct flock range = range_of(entry, F_WRLCK);
  if (fcntl(map.descriptor(), F_OFD_GETLK, &range) != 0 || range.l_type != F_UNLCK) return true;
  ProcessEntry &record = process_entry(entry);
  // Acquire: partner of the release in sign().
  const auto pid = static_cast<int32_t>(word(record.pid).load(std::memory_order_acquire));
  const ProcessStatus status = pid > 0 ? status_of(pid) : ProcessStatus{};
  return status.there && status.start_time == word(record.start_time).load(std::memory_order_relaxed);
}

int lock_dead_entry(const SegmentMap &map, uint32_t entry) {
  const int descriptor = reopen(map);
  if (descriptor < 0) return -1;
  if (lock_entry(descriptor, entry)) return descriptor;
  close(descriptor);
  return -1;
}

void count_damage(const char *what) {
  // Relaxed: a count for people.
  if (is_attached()) word(control().damaged).fetch_add(1, std::memory_order_relaxed);
  if (!damage_logged.exchange(true, std::memory_order_relaxed)) log_line(LOG_ERR, "packet buffers: %s", what);
}

}  // namespace rsw::pool
