// SPDX-License-Identifier: Apache-2.0
// Receiving: what the connections have is checked and taken in, then handed out.
#include <errno.h>
#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include "mts/queue.h"
#include "mts/queue_ids.h"

namespace rsw::mts {
namespace {

// Places that a queue keeps for items to come.
constexpr size_t most_spare = 64;
// Datagrams of one connection in a row, before the others have their turn.
constexpr int most_in_a_row = 64;
// While connections cannot be accepted, for want of a descriptor as a rule.
constexpr int look_again_ms = 100;

int milliseconds_left(const Wait &wait) {
  if (wait.forever) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(wait.deadline - Clock::now());
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 3600000));
}

bool time_is_up(const Wait &wait) {
  return !wait.forever && Clock::now() >= wait.deadline;
}

Arrived::What what_of(uint32_t kind) {
  switch (static_cast<Kind>(kind)) {
    case Kind::request:
      return Arrived::What::request;
    case Kind::response:
      return Arrived::What::response;
    case Kind::reject:
      return Arrived::What::reject;
    case Kind::message:
      break;
  }
  return Arrived::What::message;
}

}  // namespace

// A peer may have sent already, and wait for nothing but what comes of that: so what a connection takes is there before
// it is accepted, and one that cannot be watched is read before it is given up.
void Queue::accept_all() {
  while (true) {
    if (accepted_ == nullptr) accepted_ = std::make_shared<Connection>(next_id_++, 0, true, Descriptor());
    if (connections_.size() == connections_.capacity()) connections_.reserve(2 * connections_.size() + 1);
    Descriptor socket(accept4(bound_.socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (socket.get() < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      // No descriptor is left: the listener would be readable for ever. It is looked at again when a connection ends,
      // at the next receive, and now and then while one waits.
      if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
        accept_paused_ = true;
        epoll_ctl(events_.get(), EPOLL_CTL_DEL, bound_.socket.get(), nullptr);
      }
      return;
    }
    const std::shared_ptr<Connection> connection = std::move(accepted_);
    connection->socket = std::move(socket);
    (void)credentials_of(*connection);
    connection->connected = true;
    connections_.push_back(connection);
    count(&SapRecord::connections);
    if (watch(connection->socket.get(), connection->id, EPOLLIN)) continue;
    try {
      drain(connection);
    } catch (const std::bad_alloc &) {
      // What it has is still there: it is read if it can be watched now.
    }
    if (connection->alive && !watch(connection->socket.get(), connection->id, EPOLLIN)) end(connection);
  }
}

// Whether somebody waits for this response; it counts as there from now on.
bool Queue::answers_request(const Connection &connection, uint32_t token) {
  for (Request &request : requests_) {
    if (request.token != token || request.connection.get() != &connection || request.answered) continue;
    request.answered = true;
    return true;
  }
  return false;
}

void Queue::forget_request(uint32_t token) {
  std::erase_if(requests_, [token](const Request &request) { return request.token == token; });
}

// What one message takes. Thrown: nothing is lost, and the rest is there the next time.
void Queue::make_room() {
  if (datagram_ == nullptr) datagram_ = std::make_unique<uint8_t[]>(largest_datagram + 1);
  if (spare_.empty()) spare_.emplace_back();
  if (spare_.front() == nullptr) spare_.front() = std::make_unique<Arrived>();
}

// A datagram that is in the buffer. False: it is none of ours, the connection is not to be read any more.
bool Queue::take_datagram(const std::shared_ptr<Connection> &connection, size_t length) {
  WireHeader header;
  if (length < sizeof header) return false;
  memcpy(&header, datagram_.get(), sizeof header);
  if (!well_formed(header, length, connection->from_peer)) return false;
  if (connection->from_peer && connection->sap == 0) {
    // Who has hung up gave its SAP back before, and the next one to have it may be another user.
    if (!may_send_from(bound_.directory.get(), header.sap, credentials_of(*connection)) &&
        !has_hung_up(connection->socket.get())) {
      return false;
    }
    connection->sap = header.sap;
  }
  if (header.sap != connection->sap) return false;
  // A response that nobody waits for any more is not worth keeping.
  if (!connection->from_peer && !answers_request(*connection, header.token)) return true;
  Arrived &item = *spare_.front();
  item.what = what_of(header.kind);
  item.opcode = header.opcode;
  item.token = header.token;
  item.sap = header.sap;
  item.size = header.size;
  item.connection = connection;
  if (header.size > 0) {
    item.payload.reset(new (std::nothrow) uint8_t[header.size]);
    if (item.payload != nullptr) {
      memcpy(item.payload.get(), datagram_.get() + sizeof header, header.size);
    } else {  // the buffer itself goes with it
      memmove(datagram_.get(), datagram_.get() + sizeof header, header.size);
      item.payload = std::move(datagram_);
    }
  }
  append();
  return true;
}

// Reads until there is nothing more, the queue is full (responses are always taken: each was asked for), or the end.
void Queue::drain(const std::shared_ptr<Connection> &connection) {
  bool error_seen = false;
  for (int taken = 0; taken < most_in_a_row && connection->alive;) {
    if (full() && connection->from_peer) return;
    make_room();
    iovec room{datagram_.get(), largest_datagram + 1};
    msghdr message{};
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    const ssize_t length = recvmsg(connection->socket.get(), &message, MSG_DONTWAIT);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0 && errno == EAGAIN) return;
    // A peer that died with something unread leaves this error in front of what it sent: told once.
    if (length < 0 && !error_seen) {
      error_seen = true;
      continue;
    }
    if (length <= 0) return end(connection);
    ++taken;
    if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0 && take_datagram(connection, static_cast<size_t>(length))) {
      continue;
    }
    count(&SapRecord::refused);
    return end(connection);
  }
}

// The first spare one, filled.
void Queue::append() {
  item_bytes_ += spare_.front()->size;
  items_.splice(items_.end(), spare_, spare_.begin());
  settle_ready();
  if (record_ == nullptr) return;
  // Relaxed, here and below: figures to look at.
  __atomic_store_n(&record_->waiting, static_cast<uint32_t>(items_.size()), __ATOMIC_RELAXED);
  __atomic_store_n(&record_->waiting_bytes, static_cast<uint32_t>(item_bytes_), __ATOMIC_RELAXED);
  if (items_.size() > record_->high_water) {
    __atomic_store_n(&record_->high_water, static_cast<uint32_t>(items_.size()), __ATOMIC_RELAXED);
  }
}

std::unique_ptr<Arrived> Queue::take_at(Items::iterator place) {
  std::unique_ptr<Arrived> item = std::move(*place);
  if (spare_.size() < most_spare) {
    spare_.splice(spare_.end(), items_, place);
  } else {
    items_.erase(place);
  }
  item_bytes_ -= item->size;
  // The answer has come: with it, the request is done.
  if (item->what == Arrived::What::response || item->what == Arrived::What::reject) forget_request(item->token);
  __atomic_store_n(&record_->waiting, static_cast<uint32_t>(items_.size()), __ATOMIC_RELAXED);
  __atomic_store_n(&record_->waiting_bytes, static_cast<uint32_t>(item_bytes_), __ATOMIC_RELAXED);
  count(&SapRecord::received);
  settle_ready();
  return item;
}

void Queue::put_back(std::unique_ptr<Arrived> arrived) {
  const std::lock_guard guard(mutex_);
  if (is_closed_) return;
  try {
    // As a rule there is one: what it stood at.
    if (spare_.empty()) spare_.emplace_back();
    if (arrived->what == Arrived::What::response || arrived->what == Arrived::What::reject) {
      requests_.push_back({arrived->token, arrived->connection, true});
    }
  } catch (const std::bad_alloc &) {
    // It is lost, and whoever waits for what would come of it learns so.
    shutdown(arrived->connection->socket.get(), SHUT_RDWR);
    return;
  }
  item_bytes_ += arrived->size;
  spare_.back() = std::move(arrived);
  items_.splice(items_.begin(), spare_, std::prev(spare_.end()));
  count(&SapRecord::received, ~0u);
  settle_ready();
}

bool Queue::has_priorities() const {
  return std::ranges::any_of(options_, [](const OpcodeOptions &options) { return (options.value & 0x10) != 0; });
}

bool Queue::passes_others(const Arrived &item) const {
  return item.what != Arrived::What::gone && std::ranges::any_of(options_, [&](const OpcodeOptions &options) {
           return options.opcode == item.opcode && (options.value & 0x10) != 0;
         });
}

std::unique_ptr<Arrived> Queue::take_first() {
  if (items_.empty()) return nullptr;
  if (has_priorities()) {
    const auto found = std::ranges::find_if(items_, [this](const auto &item) { return passes_others(*item); });
    if (found != items_.end()) return take_at(found);
  }
  return take_at(items_.begin());
}

std::unique_ptr<Arrived> Queue::take_response(uint32_t token) {
  const auto found = std::ranges::find_if(items_, [token](const auto &item) {
    return item->token == token && (item->what == Arrived::What::response || item->what == Arrived::What::reject);
  });
  return found == items_.end() ? nullptr : take_at(found);
}

// Takes in what the sockets have. Unless everything is wanted, the first that have something are enough.
void Queue::pump(bool everything) {
  epoll_event events[64];
  int found = 0;
  do {
    found = epoll_wait(events_.get(), events, 64, 0);
    const size_t before = items_.size();
    for (int i = 0; i < found; ++i) {
      const uint64_t id = events[i].data.u64;
      if (id == id_of_listener) {
        accept_all();
      } else if (const std::shared_ptr<Connection> connection = by_id(id)) {
        drain(connection);
      }
    }
    everything = everything && !full() && items_.size() > before;
  } while (everything && found > 0);
}

int Queue::receive(const Wait &wait, std::unique_ptr<Arrived> *arrived) {
  std::unique_lock lock(mutex_);
  while (true) {
    if (is_closed_) return EBADF;
    if (const int error = open(); error != 0) return error;
    accept_again();
    if (items_.empty() || has_priorities()) pump(has_priorities());
    // A first look may only have accepted connections: what they bring is there already.
    if (items_.empty()) pump(false);
    *arrived = take_first();
    if (*arrived != nullptr) return 0;
    if (peer_lost_) {
      peer_lost_ = false;
      settle_ready();
      return ECONNRESET;
    }
    if (time_is_up(wait)) return ETIMEDOUT;
    int milliseconds = milliseconds_left(wait);
    if (accept_paused_ && (milliseconds < 0 || milliseconds > look_again_ms)) milliseconds = look_again_ms;
    const int events = events_.get();
    lock.unlock();
    pollfd something{events, POLLIN, 0};
    const int error = poll(&something, 1, milliseconds) < 0 ? errno : 0;
    lock.lock();
    if (error != 0) return is_closed_ ? EBADF : error;
  }
}

int Queue::receive_response(uint32_t token, const Wait &wait, std::unique_ptr<Arrived> *arrived) {
  std::unique_lock lock(mutex_);
  const auto asked = std::ranges::find(requests_, token, &Request::token);
  if (is_closed_) return EBADF;
  if (asked == requests_.end()) return EINVAL;
  const std::shared_ptr<Connection> connection = asked->connection;
  while (true) {
    if (is_closed_) return EBADF;
    if (connection->alive) drain(connection);
    *arrived = take_response(token);
    if (*arrived != nullptr) return 0;
    const bool up = time_is_up(wait);
    if (!connection->alive || up) {
      forget_request(token);
      return up && connection->alive ? ETIMEDOUT : ECONNRESET;
    }
    const int milliseconds = milliseconds_left(wait);
    lock.unlock();
    pollfd either[2] = {{connection->socket.get(), POLLIN, 0}, {closed_.get(), POLLIN, 0}};
    const int error = poll(either, 2, milliseconds) < 0 ? errno : 0;
    lock.lock();
    if (error != 0) return is_closed_ ? EBADF : error;
  }
}

}  // namespace rsw::mts
