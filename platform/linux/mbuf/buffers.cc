// SPDX-License-Identifier: Apache-2.0
// The buffers of a process.
//
// The window is mapped when the first buffer is wanted, and costs address space only: a page becomes memory when a
// buffer on it is used for the first time. Buffers that were given back form a stack, so that the next packet finds one
// that is still in a cache. One lock guards the stack; it is held for a few instructions.
#include "mbuf/buffers.h"

#include <errno.h>
#include <string.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>

#include "log/log_writer.h"
#include "sm/reservation.h"
#include "sm/segment.h"

namespace rsw {
namespace {

// What one process may have of the window: 16,382 buffers.
constexpr uint32_t mapped_bytes = 32u << 20;

class Buffers {
 public:
  struct mbuf *take() {
    const std::scoped_lock hold(mutex_);
    struct mbuf *buffer = free_;
    if (buffer != nullptr) {
      free_ = buffer->next.get();
    } else {
      if (!mapped()) return nullptr;
      if (next_ + sizeof(PacketBuffer) > end_) return nullptr;
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

 private:
  bool mapped() {
    if (state_ != State::untried) return state_ == State::mapped;
    state_ = State::refused;
    std::string reason;
    if (!reserve_windows(&reason)) {
      log_line(LOG_ERR, "packet buffers: %s", reason.c_str());
      return false;
    }
    // Over our own reservation. The page that leads the window is a segment's header.
    void *wanted = reinterpret_cast<void *>(static_cast<uintptr_t>(segment_mbuf.base));
    if (mmap(wanted, mapped_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1,
             0) != wanted) {
      log_line(LOG_ERR, "packet buffers: cannot map their window: %s", strerror(errno));
      return false;
    }
    state_ = State::mapped;
    next_ = segment_mbuf.base + segment_page;
    end_ = segment_mbuf.base + mapped_bytes;
    return true;
  }

  enum class State { untried, mapped, refused };

  std::mutex mutex_;
  State state_ = State::untried;
  struct mbuf *free_ = nullptr;
  uint32_t next_ = 0;  // the first buffer that was never taken
  uint32_t end_ = 0;
  uint32_t in_use_ = 0;
};

Buffers &buffers() {
  static Buffers all;
  return all;
}

}  // namespace

struct mbuf *take_buffer() {
  struct mbuf *buffer = buffers().take();
  if (buffer == nullptr) return nullptr;
  *buffer = {};
  buffer->data = buffer_of(buffer)->room + packet_buffer_front;
  buffer->owner = getpid();
  return buffer;
}

void give_buffer_back(struct mbuf *m) {
  buffers().give_back(m);
}

uint32_t buffers_in_use() {
  return buffers().in_use();
}

struct mbuf *make_packet(std::span<const uint8_t> bytes) {
  struct mbuf *first = take_buffer();
  struct mbuf *last = first;
  while (last != nullptr) {
    const size_t fits = std::min<size_t>(bytes.size(), static_cast<size_t>(end_of_room(last) - last->data.get()));
    if (fits > 0) std::memcpy(last->data.get(), bytes.data(), fits);
    last->m_len = static_cast<uint32_t>(fits);
    bytes = bytes.subspan(fits);
    if (bytes.empty()) return first;
    struct mbuf *next = take_buffer();
    last->next = next;
    last = next;
  }
  if (first != nullptr) m_freem(first);
  return nullptr;
}

}  // namespace rsw
