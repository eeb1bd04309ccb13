// SPDX-License-Identifier: Apache-2.0
// A queue's beginning and end, its options and its connections' end.
#include "mts/queue.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <new>

#include "mts/queue_ids.h"

namespace rsw::mts {

int Queue::bind(int32_t sap, uint32_t module, const char *name, std::shared_ptr<Queue> *made) {
  std::shared_ptr<Queue> queue(new Queue);
  queue->events_ = Descriptor(epoll_create1(EPOLL_CLOEXEC));
  queue->ready_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  queue->closed_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (queue->events_.get() < 0 || queue->ready_.get() < 0 || queue->closed_.get() < 0) return errno;
  if (!queue->watch(queue->ready_.get(), id_of_ready, EPOLLIN) ||
      !queue->watch(queue->closed_.get(), id_of_closed, EPOLLIN)) {
    return errno;
  }
  queue->make_room();
  if (const int error = bind_sap(sap, &queue->bound_); error != 0) return error;
  int error = 0;
  queue->record_ = map_record(queue->bound_, &error);
  if (queue->record_ == nullptr) {
    queue->close();
    return error;
  }
  SapRecord &record = *queue->record_;
  record = {};
  record.pid = static_cast<uint32_t>(getpid());
  record.sap = queue->bound_.sap;
  record.module = module;
  snprintf(record.name, sizeof record.name, "%s", name != nullptr ? name : "");
  // Release: a reader that sees the magic sees the rest; it reads the file, so this is for the compiler.
  __atomic_store_n(&record.magic, record_magic, __ATOMIC_RELEASE);
  *made = std::move(queue);
  return 0;
}

Queue::~Queue() {
  if (!inherited_) close();
  unmap_record(record_);
}

int Queue::unblock() {
  const std::lock_guard guard(mutex_);
  if (is_closed_) return EBADF;
  opening_ = true;
  return open();
}

// A queue that was to be opened, and could not, is nothing to send from or to wait at: the answers would be refused. So
// each of these tries again first.
int Queue::open() {
  if (!opening_ || listening_) return 0;
  if (listen(bound_.socket.get(), 4096) != 0) return errno;
  // Senders connect from now on, whether we hear of it or not: so it is not given up.
  accept_paused_ = !watch(bound_.socket.get(), id_of_listener, EPOLLIN);
  listening_ = true;
  return 0;
}

void Queue::close() {
  const std::lock_guard guard(mutex_);
  if (is_closed_) return;
  is_closed_ = true;
  // First the connections, then the SAP: whoever has it next finds none of ours that looks alive.
  for (const std::shared_ptr<Connection> &connection : connections_) {
    connection->alive = false;
    shutdown(connection->socket.get(), SHUT_RDWR);
  }
  release_sap(bound_);
  bound_.socket.reset();
  bound_.lock.reset();
  connections_.clear();
  requests_.clear();
  items_.clear();
  item_bytes_ = 0;
  // A receiver that waits has no other way to hear of it.
  if (closed_.get() >= 0) eventfd_write(closed_.get(), 1);
}

void Queue::abandon_in_child() {
  inherited_ = true;
  // The files are the parent's: nothing is unlinked, nothing shut down, only this process's copies go.
  for (const std::shared_ptr<Connection> &connection : connections_) connection->socket.reset();
  bound_.socket.reset();
  bound_.lock.reset();
  bound_.directory.reset();
  events_.reset();
  ready_.reset();
  closed_.reset();
  // A mapping holds the lock like a descriptor does.
  unmap_record(record_);
  record_ = nullptr;
}

bool Queue::watch(int fd, uint64_t id, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  return epoll_ctl(events_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

// Without memory nothing has changed yet.
void Queue::end(const std::shared_ptr<Connection> &connection) {
  if (!connection->alive) return;
  const bool is_told = connection->from_peer && peers_watched_ && connection->sap != 0;
  if (is_told) make_room();
  connection->alive = false;
  epoll_ctl(events_.get(), EPOLL_CTL_DEL, connection->socket.get(), nullptr);
  shutdown(connection->socket.get(), SHUT_RDWR);
  std::erase(connections_, connection);
  if (record_ != nullptr) count(&SapRecord::connections, ~0u);
  if (is_told) {
    Arrived &gone = *spare_.front();
    gone.what = Arrived::What::gone;
    gone.sap = connection->sap;
    gone.connection = connection;
    append();
  }
  if (!connection->from_peer && connection->sent) peer_lost_ = true;
  accept_again();
  settle_ready();
}

void Queue::accept_again() {
  if (accept_paused_) accept_paused_ = !watch(bound_.socket.get(), id_of_listener, EPOLLIN);
}

void Queue::hang_up(const std::shared_ptr<Connection> &connection) {
  const std::lock_guard guard(mutex_);
  if (is_closed_) return;
  try {
    end(connection);
  } catch (const std::bad_alloc &) {
    // The peer learns of it now, and we as of any other end, with the next receive.
    shutdown(connection->socket.get(), SHUT_RDWR);
  }
}

void Queue::settle_ready() {
  const bool wanted = !items_.empty() || peer_lost_;
  if (wanted == ready_shown_) return;
  eventfd_t taken = 0;
  if (wanted) {
    eventfd_write(ready_.get(), 1);
  } else {
    eventfd_read(ready_.get(), &taken);
  }
  ready_shown_ = wanted;
}

std::shared_ptr<Connection> Queue::by_id(uint64_t id) {
  const auto found = std::ranges::find(connections_, id, [](const auto &connection) { return connection->id; });
  return found == connections_.end() ? nullptr : *found;
}

int Queue::set_options(uint32_t opcode, uint32_t value) {
  const std::lock_guard guard(mutex_);
  for (OpcodeOptions &options : options_) {
    if (options.opcode != opcode) continue;
    options.value = value;
    return 0;
  }
  if (options_.size() >= most_opcodes) return ENOSPC;
  options_.push_back({opcode, value});
  return 0;
}

uint32_t Queue::options(uint32_t opcode) {
  const std::lock_guard guard(mutex_);
  for (const OpcodeOptions &options : options_) {
    if (options.opcode == opcode) return options.value;
  }
  return 0;
}

void Queue::watch_peers(bool on) {
  const std::lock_guard guard(mutex_);
  peers_watched_ = on;
}

void Queue::set_patience(int milliseconds) {
  // Relaxed: a number of its own.
  patience_ms_.store(std::max(milliseconds, 0), std::memory_order_relaxed);
}

void Queue::count(uint32_t SapRecord::*counter, uint32_t by) {
  // Relaxed: figures to look at; other processes read the file. Two senders may count at once.
  __atomic_fetch_add(&(record_->*counter), by, __ATOMIC_RELAXED);
}

}  // namespace rsw::mts
