// SPDX-License-Identifier: Apache-2.0
// The buffers of a process alone.
//
// The window is mapped when the first buffer is wanted, and costs address space only: a page becomes memory when a
// buffer on it is used for the first time. Buffers that were given back form a stack, so that the next packet finds one
// that is still in a cache. One lock guards the stack; it is held for a few instructions.
#include "mbuf/private_buffers.h"

#include <errno.h>
#include <string.h>
#include <sys/mman.h>
#include <syslog.h>

#include <mutex>
#include <string>

#include "log/log_writer.h"
#include "never_destroyed.h"
#include "no_memory.h"
#include "sm/reservation.h"

namespace rsw {
namespace {

class Buffers {
 public:
  struct mbuf *take() {
    const std::scoped_lock hold(mutex_);
    struct mbuf *buffer = free_;
    if (buffer != nullptr) {
      free_ = buffer->next.get();
    } else {
      if (!mapped() || next_ == private_base + private_bytes) return nullptr;
      buffer = reinterpret_cast<struct mbuf *>(static_cast<uintptr_t>(next_));
      next_ += static_cast<uint32_t>(sizeof(PacketBuffer));
    }
    in_use_++;
    return buffer;
  }

  void give_back(struct mbuf *buffer) {
    const std::scoped_lock hold(mutex_);
    buffer->next = free_;
    free_ = buffer;
    in_use_--;
  }

  uint32_t in_use() {
    const std::scoped_lock hold(mutex_);
    return in_use_;
  }

  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  bool reserve() {
    std::string reason;
    if (reserve_windows(&reason)) return true;
    if (!refusal_logged_) log_line(LOG_ERR, "packet buffers: %s", reason.c_str());
    refusal_logged_ = true;
    return false;
  }

  // Said once, tried each time: what was short may be there later.
  bool mapped() {
    if (!is_mapped_) is_mapped_ = map();
    return is_mapped_;
  }

  bool map() {
    if (!unless_without_memory(false, [this] { return reserve(); })) return false;
    // Over our own reservation.
    void *wanted = reinterpret_cast<void *>(static_cast<uintptr_t>(private_base));
    if (mmap(wanted, private_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1,
             0) != wanted) {
      if (!refusal_logged_) log_line(LOG_ERR, "packet buffers: cannot map their window: %s", strerror(errno));
      refusal_logged_ = true;
      return false;
    }
    return true;
  }

  std::mutex mutex_;
  bool is_mapped_ = false;
  bool refusal_logged_ = false;
  struct mbuf *free_ = nullptr;
  uint32_t next_ = private_base;  // the first buffer that was never taken
  uint32_t in_use_ = 0;
};

Buffers &buffers() {
  static NeverDestroyed<Buffers> only;
  return only.value;
}

}  // namespace

struct mbuf *take_private_buffer() {
  return buffers().take();
}

void give_private_buffer_back(struct mbuf *m) {
  buffers().give_back(m);
}

uint32_t private_buffers_in_use() {
  return buffers().in_use();
}

void lock_private_buffers_for_fork() {
  buffers().lock();
}

void unlock_private_buffers_after_fork() {
  buffers().unlock();
}

}  // namespace rsw
