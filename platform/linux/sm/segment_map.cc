// SPDX-License-Identifier: Apache-2.0
// Mapping of segments: one file, one fixed window, one mapping per process.
//
// A writer makes a segment under a temporary name, fills it and gives it its name by rename(2) when it is ready, so
// whoever finds the name finds a whole segment. A writer that finds a segment of its own layout takes it over: it opens
// the same file, counts `instance` up and goes on with the contents; attached clients notice nothing. Anything else
// that bears the name (another layout, damage) is left to those who are attached to it and replaced by rename.
//
// The file is as long as its window from the start and sparse. Its length never changes, so no access inside the window
// can end in SIGBUS for being past the end (but of segments that others write, see length_keeper.h); storage is
// allocated by grow() before the writer touches it, so neither can a full file system. What a reader touches outside
// the used area are holes, which read zeros.
//
// An attach trusts nothing before it has looked: the kind of file, its owner, its length and its header are checked on
// the open descriptor, before the mapping, and every refusal has a reason.
//
// Mappings are counted per process. The table below knows, for each window, the mapping that lives there; the last
// reference puts the readable zeros of the reservation back. A new mapping may come while the old one's last reference
// is just going: the table then names the new one, and the old one leaves the window alone.
#include "sm/segment_map.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/futex.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <map>
#include <mutex>
#include <utility>

#include "log/log_writer.h"
#include "never_destroyed.h"
#include "sm/length_keeper.h"
#include "sm/reservation.h"

namespace rsw {
namespace {

std::atomic_ref<uint32_t> shared(uint32_t &word) {
  return std::atomic_ref<uint32_t>(word);
}

std::string hex(uint32_t value) {
  char text[16];
  snprintf(text, sizeof text, "0x%08x", value);
  return text;
}

bool refuse(std::string *reason, int error, std::string text) {
  *reason = std::move(text);
  errno = error;
  return false;
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  ~Descriptor() {
    const int kept = errno;
    if (fd_ >= 0) close(fd_);
    errno = kept;
  }
  [[nodiscard]] int get() const { return fd_; }
  void reset(int fd) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

bool trusted_owner(uid_t owner) {
  if (owner == 0 || owner == geteuid()) return true;
  struct stat directory {};
  return stat(run_directory().c_str(), &directory) == 0 && directory.st_uid == owner;
}

// Everything that must hold of the file before it is mapped.
bool check_file(int fd, const std::string &path, const SegmentLayout &layout, std::string *reason) {
  struct stat file {};
  if (fstat(fd, &file) != 0) return refuse(reason, errno, path + ": " + strerror(errno));
  if (!S_ISREG(file.st_mode)) return refuse(reason, EBADMSG, path + " is not a regular file");
  if (!trusted_owner(file.st_uid)) {
    return refuse(reason, EPERM, path + " belongs to uid " + std::to_string(file.st_uid) + ", not to this system");
  }
  if (file.st_size == 0) return refuse(reason, EBADMSG, path + " is empty");
  SegmentHeader header{};
  if (pread(fd, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header)) {
    return refuse(reason, EBADMSG, path + " is truncated: it ends inside its header");
  }
  if (header.magic != segment_magic)
    return refuse(reason, EBADMSG, path + " is not a segment: its first word is " + hex(header.magic));
  if (header.header_version != segment_header_version) {
    return refuse(reason, EPROTO,
                  path + " has a header of version " + std::to_string(header.header_version) + ", this library reads " +
                      std::to_string(segment_header_version));
  }
  if (header.layout_hash != layout.layout_hash) {
    return refuse(reason, EPROTO,
                  path + " has layout " + hex(header.layout_hash) + ", this library has " + hex(layout.layout_hash));
  }
  if (header.base != layout.base || header.size != layout.size) {
    return refuse(reason, EBADMSG,
                  path + " is damaged: its header names the window " + hex(header.base) + " + " + hex(header.size));
  }
  if (static_cast<uint64_t>(file.st_size) != layout.size) {
    return refuse(reason, EBADMSG,
                  path + " is truncated: " + std::to_string(file.st_size) + " bytes, its window has " +
                      std::to_string(layout.size));
  }
  if (strnlen(header.name, sizeof header.name) == sizeof header.name || layout.name != header.name) {
    return refuse(reason, EBADMSG, path + " is damaged: its header bears another name");
  }
  const uint32_t usable_end = layout.base + layout.size - segment_page;
  if (header.used_end < layout.base + segment_page || header.used_end > usable_end) {
    return refuse(reason, EBADMSG, path + " is damaged: its used area ends at " + hex(header.used_end));
  }
  const bool root_inside = header.root >= layout.base + sizeof(SegmentHeader) && header.root < usable_end;
  if (header.root != 0 && (!root_inside || header.root % 4 != 0)) {
    return refuse(reason, EBADMSG, path + " is damaged: its root record stands at " + hex(header.root));
  }
  return true;
}

int open_existing(const std::string &path, bool writable) {
  // Not through a symbolic link, and not waiting for the other end of a fifo.
  return open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
}

class Mapping;

struct Window {
  Mapping *mapping = nullptr;  // who owns the window now
  std::weak_ptr<Mapping> references;
};

struct Table {
  std::mutex mutex;
  std::map<uint32_t, Window> windows;  // by base
};

Table &table() {
  static NeverDestroyed<Table> only;
  return only.value;
}

class Mapping final : public SegmentMap {
 public:
  Mapping(const SegmentLayout &layout, std::string path, int fd, const struct stat &file, bool writable)
      : layout_(layout),
        path_(std::move(path)),
        fd_(fd),
        device_(file.st_dev),
        inode_(file.st_ino),
        writable_(writable) {}

  ~Mapping() override {
    if (!temporary_.empty() && maker_ == getpid()) unlink(temporary_.c_str());  // not in a forked child
    const std::lock_guard guard(table().mutex);
    const auto entry = table().windows.find(layout_.base);
    if (entry != table().windows.end() && entry->second.mapping == this) {
      forget_length(layout_);
      restore_reservation(layout_.base, layout_.size);
      table().windows.erase(entry);
    }
    close(fd_);
  }

  [[nodiscard]] SegmentHeader *header() const override {
    return reinterpret_cast<SegmentHeader *>(static_cast<uintptr_t>(layout_.base));
  }
  [[nodiscard]] const SegmentLayout &layout() const override { return layout_; }
  [[nodiscard]] int descriptor() const override { return fd_; }
  [[nodiscard]] bool took_over() const override { return took_over_; }
  bool grow(uint32_t end, std::string *reason) override;
  bool publish_name(std::string *reason) override;
  void publish_generation() override;

  void take_over();
  void begin_new(std::string temporary);
  void end_writing() { writer_ = false; }

  [[nodiscard]] const std::string &path() const { return path_; }
  [[nodiscard]] bool is_writer() const { return writer_; }
  [[nodiscard]] bool is_writable() const { return writable_; }
  [[nodiscard]] bool is_unnamed() const { return !temporary_.empty(); }
  [[nodiscard]] bool is_file(const struct stat &file) const { return file.st_dev == device_ && file.st_ino == inode_; }

 private:
  const SegmentLayout layout_;
  const std::string path_;
  const int fd_;
  const dev_t device_;
  const ino_t inode_;
  const bool writable_;
  std::string temporary_;  // the name until publish_name()
  pid_t maker_ = 0;        // the process that made it
  bool writer_ = false;
  bool took_over_ = false;
};

void Mapping::take_over() {
  writer_ = true;
  took_over_ = true;
  // Relaxed: the numbers tell people and tests which writer this is; nothing is published by them.
  shared(header()->writer_pid).store(static_cast<uint32_t>(getpid()), std::memory_order_relaxed);
  shared(header()->instance).fetch_add(1, std::memory_order_relaxed);
}

void Mapping::begin_new(std::string temporary) {
  writer_ = true;
  temporary_ = std::move(temporary);
  maker_ = getpid();
  SegmentHeader *const head = header();
  head->magic = segment_magic;
  head->header_version = segment_header_version;
  head->layout_hash = layout_.layout_hash;
  head->base = layout_.base;
  head->size = layout_.size;
  head->used_end = layout_.base + segment_page;
  head->segment_id = layout_.base >> 20;
  head->instance = 1;
  head->writer_pid = static_cast<uint32_t>(getpid());
  memcpy(head->name, layout_.name.data(), std::min(layout_.name.size(), sizeof head->name - 1));
}

// posix_fallocate and not ftruncate: the file has its length already, what it lacks is storage.
bool allocate_storage(int fd, uint64_t from, uint64_t to, int *error) {
  do {
    *error = posix_fallocate(fd, static_cast<off_t>(from), static_cast<off_t>(to - from));
  } while (*error == EINTR);
  return *error == 0;
}

bool Mapping::grow(uint32_t end, std::string *reason) {
  const uint32_t used_end = shared(header()->used_end).load(std::memory_order_relaxed);  // ours alone to write
  if (end <= used_end) return true;
  if (end > layout_.base + layout_.size - segment_page) {
    return refuse(reason, ENOSPC,
                  std::string(layout_.name) + ": its window of " + std::to_string(layout_.size >> 20) + " MiB is full");
  }
  const uint64_t from = (used_end - layout_.base) & ~uint64_t{segment_page - 1};
  const uint64_t to = (uint64_t{end - layout_.base} + segment_page - 1) & ~uint64_t{segment_page - 1};
  int error = 0;
  if (!allocate_storage(fd_, from, to, &error)) {
    return refuse(reason, error,
                  path_ + ": no storage for " + std::to_string(to - from) + " bytes more: " + strerror(error));
  }
  // Release: a reader that compares an address with used_end may read up to it; the partner is its acquire load.
  shared(header()->used_end).store(end, std::memory_order_release);
  return true;
}

bool Mapping::publish_name(std::string *reason) {
  if (temporary_.empty()) return true;
  if (rename(temporary_.c_str(), path_.c_str()) != 0) {
    return refuse(reason, errno, path_ + ": cannot give the segment its name: " + strerror(errno));
  }
  const std::lock_guard guard(table().mutex);  // attach() in this process asks is_unnamed()
  temporary_.clear();
  return true;
}

void Mapping::publish_generation() {
  // Release: who sees the new number sees the batch; the partner is the acquire load in wait_for_generation().
  shared(header()->generation).fetch_add(1, std::memory_order_release);
  syscall(SYS_futex, &header()->generation, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// The mapping that lives in the window now. The table's mutex is held.
std::shared_ptr<Mapping> living(const SegmentLayout &layout) {
  const auto entry = table().windows.find(layout.base);
  return entry == table().windows.end() ? nullptr : entry->second.references.lock();
}

// Maps the file over its window and enters it in the table; the descriptor goes to the mapping. The mutex is held. An
// old mapping whose last reference is just going finds that the window is no longer its own and leaves it alone.
std::shared_ptr<Mapping> enter(const SegmentLayout &layout, const std::string &path, Descriptor &file, bool writable,
                               std::string *reason) {
  struct stat identity {};
  if (fstat(file.get(), &identity) != 0) {
    refuse(reason, errno, path + ": " + strerror(errno));
    return nullptr;
  }
  if (!reserve_windows(reason)) return nullptr;
  Window &entry = table().windows[layout.base];  // whatever fails for lack of memory fails before there is a mapping
  void *const window = reinterpret_cast<void *>(static_cast<uintptr_t>(layout.base));
  const int protection = writable ? PROT_READ | PROT_WRITE : PROT_READ;
  if (mmap(window, layout.size, protection, MAP_SHARED | MAP_FIXED, file.get(), 0) != window) {
    refuse(reason, errno, path + ": cannot map it: " + strerror(errno));
    return nullptr;
  }
  std::shared_ptr<Mapping> mapping;
  try {
    mapping = std::make_shared<Mapping>(layout, path, file.get(), identity, writable);
  } catch (const std::bad_alloc &) {
    restore_reservation(layout.base, layout.size);
    throw;
  }
  (void)file.release();
  entry = {mapping.get(), mapping};
  return mapping;
}

// The writer's own reference: when it goes the process is no longer the writer, though readers in it may go on.
class WriterReference {
 public:
  explicit WriterReference(std::shared_ptr<Mapping> mapping) : mapping_(std::move(mapping)) {}
  ~WriterReference() {
    const std::lock_guard guard(table().mutex);
    mapping_->end_writing();
  }
  WriterReference(const WriterReference &) = delete;
  WriterReference &operator=(const WriterReference &) = delete;

 private:
  std::shared_ptr<Mapping> mapping_;  // goes after the mutex is free
};

// The mutex is held. A deleter would be called, and lock it, if there were no memory for the reference.
std::shared_ptr<SegmentMap> writing(const std::shared_ptr<Mapping> &mapping) {
  return {std::make_shared<WriterReference>(mapping), mapping.get()};
}

std::shared_ptr<SegmentMap> take_over(const std::shared_ptr<Mapping> &mapping) {
  mapping->take_over();
  return writing(mapping);
}

// Clients attach as the file's mode lets them. Packets are for those who may send them: their file is opened to others
// by its maker.
mode_t mode_of(const SegmentLayout &layout) {
  if (layout.base == segment_mbuf.base) return 0600;
  return layout.clients_write ? 0666 : 0644;
}

// A file of the segment's full length with storage for its header, under a name that nobody looks for.
bool make_file(const SegmentLayout &layout, const std::string &temporary, Descriptor *file, std::string *reason) {
  unlink(temporary.c_str());  // what a killed writer left
  file->reset(open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (file->get() < 0) return refuse(reason, errno, temporary + ": cannot make it: " + strerror(errno));
  int error = 0;
  // fchmod: the mode must not depend on the umask.
  const bool whole =
      fchmod(file->get(), mode_of(layout)) == 0 && ftruncate(file->get(), static_cast<off_t>(layout.size)) == 0;
  if (!whole) error = errno;
  if (whole && allocate_storage(file->get(), 0, segment_page, &error)) return true;
  unlink(temporary.c_str());
  return refuse(reason, error, temporary + ": cannot make it: " + strerror(error));
}

}  // namespace

std::shared_ptr<SegmentMap> SegmentMap::attach(const SegmentLayout &layout, std::string *reason) {
  const std::string path = segment_path(layout.name);
  std::shared_ptr<Mapping> present;  // goes after the mutex: it may be the last reference by then
  const std::lock_guard guard(table().mutex);
  present = living(layout);
  // The writer's own process may read a segment that has no name yet.
  if (present != nullptr && present->is_unnamed() && present->path() == path) return present;
  Descriptor file(open_existing(path, layout.clients_write));
  if (file.get() < 0) {
    refuse(reason, errno, errno == ELOOP ? path + " is a symbolic link" : path + ": " + strerror(errno));
    return nullptr;
  }
  if (!check_file(file.get(), path, layout, reason)) return nullptr;
  if (present == nullptr) return enter(layout, path, file, layout.clients_write, reason);
  struct stat identity {};
  if (fstat(file.get(), &identity) == 0 && present->is_file(identity)) return present;
  refuse(reason, EBUSY, path + ": this process is still attached to an earlier segment, " + present->path());
  return nullptr;
}

std::shared_ptr<SegmentMap> SegmentMap::create(const SegmentLayout &layout, std::string *reason) {
  if (!make_run_directory(reason)) return nullptr;
  const std::string path = segment_path(layout.name);
  std::shared_ptr<Mapping> present;  // goes after the mutex: it may be the last reference by then
  const std::lock_guard guard(table().mutex);
  present = living(layout);
  if (present != nullptr && present->is_writer()) {
    refuse(reason, EBUSY, present->path() + ": this process is its writer already");
    return nullptr;
  }
  Descriptor file(open_existing(path, true));
  const int open_error = errno;
  if (file.get() < 0 && open_error == EISDIR) {  // no name can be put in its place
    refuse(reason, EISDIR, path + ": " + strerror(EISDIR));
    return nullptr;
  }
  std::string damage;
  if (file.get() < 0) {
    damage = path + ": " + strerror(open_error);
  } else if (check_file(file.get(), path, layout, &damage)) {
    // A client of a segment that clients write, or what outlived an earlier writer in this process, may be written
    // already; a reader's mapping may not, since its users rely on the window staying as it is.
    struct stat identity {};
    const bool same = present != nullptr && fstat(file.get(), &identity) == 0 && present->is_file(identity);
    if (present == nullptr) {
      present = enter(layout, path, file, true, reason);
      return present == nullptr ? nullptr : take_over(present);
    }
    if (same && present->is_writable()) return take_over(present);
  }
  if (present != nullptr) {
    refuse(reason, EBUSY, path + ": this process is attached to " + present->path() + " as a reader");
    return nullptr;
  }
  if (open_error != ENOENT || file.get() >= 0) log_line(LOG_NOTICE, "%s; making a new segment", damage.c_str());
  const std::string temporary = path + ".new";
  Descriptor fresh(-1);
  if (!make_file(layout, temporary, &fresh, reason)) return nullptr;
  present = enter(layout, path, fresh, true, reason);
  if (present == nullptr) {
    unlink(temporary.c_str());
    return nullptr;
  }
  present->begin_new(temporary);
  return writing(present);
}

uint32_t wait_for_generation(const SegmentHeader *header, uint32_t seen, int milliseconds) {
  // The word is only read here; the header is const because readers map it read-only.
  auto &word = const_cast<uint32_t &>(header->generation);
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  const int64_t end = int64_t{deadline.tv_sec} * 1000 + deadline.tv_nsec / 1000000 + milliseconds;
  for (;;) {
    // Acquire: partner of publish_generation().
    const uint32_t now = shared(word).load(std::memory_order_acquire);
    timespec clock{};
    clock_gettime(CLOCK_MONOTONIC, &clock);
    const int64_t left = end - (int64_t{clock.tv_sec} * 1000 + clock.tv_nsec / 1000000);
    if (now != seen || left <= 0) return now;
    const timespec wait{static_cast<time_t>(left / 1000), static_cast<long>(left % 1000 * 1000000)};
    syscall(SYS_futex, &word, FUTEX_WAIT, seen, &wait, nullptr, 0);  // woken, timed out, changed before: look again
  }
}

}  // namespace rsw
