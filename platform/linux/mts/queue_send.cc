// SPDX-License-Identifier: Apache-2.0
// Sending: the connection is looked up or made, the message goes out in one system call. Nothing is allocated once
// there is a connection.
#include <errno.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cstring>

#include "mts/queue.h"

namespace rsw::mts {
namespace {

// With this, the largest message fits into an empty connection whatever the system's default is.
constexpr int send_buffer_bytes = 212992;
// Up to here, putting a payload behind its header costs less than a system call that gathers the two.
constexpr size_t copied_payload = 4096;

Descriptor make_socket(Patience *patience) {
  Descriptor made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (made.get() < 0) return made;
  setsockopt(made.get(), SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes);
  // A listener whose backlog is full makes connect wait: not longer than there is patience. 0 would be without end.
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(patience->left());
  const int64_t wait = std::max<int64_t>(left.count(), 1);
  timeval bound{};
  bound.tv_sec = static_cast<time_t>(wait / 1000000);
  bound.tv_usec = static_cast<suseconds_t>(wait % 1000000);
  setsockopt(made.get(), SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
  return made;
}

}  // namespace

std::shared_ptr<Connection> Queue::cached(uint32_t sap) {
  for (const std::shared_ptr<Connection> &connection : connections_) {
    if (!connection->from_peer && connection->sap == sap && connection->connected) return connection;
  }
  return nullptr;
}

int Queue::connection_to(uint32_t sap, Patience *patience, std::unique_lock<std::mutex> &lock,
                         std::shared_ptr<Connection> *found) {
  *found = cached(sap);
  if (*found != nullptr) return 0;
  lock.unlock();
  const std::lock_guard one_at_a_time(connecting_);
  lock.lock();
  if (is_closed_) return EBADF;
  *found = cached(sap);
  if (*found != nullptr) return 0;
  // It is in the list from its first moment on, so that a fork's child closes its copy.
  const auto fresh = std::make_shared<Connection>(next_id_++, sap, false, make_socket(patience));
  if (fresh->socket.get() < 0) return errno;
  connections_.push_back(fresh);
  count(&SapRecord::connections);
  lock.unlock();
  int error = connect_sap(bound_.directory.get(), fresh->socket.get(), sap);
  lock.lock();
  if (is_closed_) return EBADF;
  if (error == 0) {
    (void)credentials_of(*fresh);
    if (!watch(fresh->socket.get(), fresh->id, EPOLLIN)) error = errno;
  }
  if (error != 0) {
    end(fresh);
    return error;
  }
  fresh->connected = true;
  *found = fresh;
  return 0;
}

int Queue::transmit(const Connection &connection, const OutMessage &message, Patience *patience) {
  WireHeader header{};
  header.magic = wire_magic;
  header.kind = static_cast<uint32_t>(message.kind);
  header.opcode = message.opcode;
  header.sap = bound_.sap;
  header.token = message.token;
  header.pieces = message.pieces;
  if (message.pieces == 0 && message.size <= copied_payload) {
    uint8_t datagram[sizeof header + copied_payload];
    header.size = message.size;
    memcpy(datagram, &header, sizeof header);
    if (message.size > 0) memcpy(datagram + sizeof header, message.payload, message.size);
    const iovec whole{datagram, sizeof header + message.size};
    return send_parts(connection.socket.get(), &whole, 1, patience);
  }
  iovec parts[2 + most_pieces];
  parts[0] = {&header, sizeof header};
  parts[1] = {const_cast<void *>(message.payload), message.size};
  uint64_t size = message.size;
  for (uint32_t i = 0; i < message.pieces; ++i) {
    parts[2 + i] = {message.vector[i].base, message.vector[i].len};
    size += message.vector[i].len;
  }
  if (size > largest_payload) return EMSGSIZE;
  header.size = static_cast<uint32_t>(size);
  return send_parts(connection.socket.get(), parts, 2 + message.pieces, patience);
}

int Queue::send_once(uint32_t sap, const OutMessage &message, Patience *patience, bool *peer_gone,
                     std::shared_ptr<Connection> *used) {
  std::unique_lock lock(mutex_);
  if (is_closed_) return EBADF;
  if (const int error = open(); error != 0) return error;
  std::shared_ptr<Connection> connection;
  if (const int error = connection_to(sap, patience, lock, &connection); error != 0) return error;
  if (message.process >= 0 && credentials_of(*connection).pid != message.process) {
    // It may be the one to which the SAP belonged before.
    *peer_gone = has_hung_up(connection->socket.get());
    if (*peer_gone) {
      drain(connection);
      end(connection);
    }
    return ECONNREFUSED;
  }
  // The response may be there before sendmsg has returned.
  if (message.kind == Kind::request) {
    if (requests_.size() >= most_requests) return ENOBUFS;
    requests_.push_back({message.token, connection, false});
  }
  const bool first_on_it = !connection->sent;
  connection->sent = true;
  lock.unlock();
  const int error = transmit(*connection, message, patience);
  if (error == 0) return 0;
  lock.lock();
  if (message.kind == Kind::request) forget_request(message.token);
  *peer_gone = peer_is_gone(error);
  // What it sent before it went is still there to be received.
  if (*peer_gone && connection->alive && !is_closed_) {
    if (first_on_it) connection->sent = false;
    drain(connection);
    end(connection);
  }
  *used = connection;
  return is_closed_ ? EBADF : error;
}

int Queue::send(uint32_t sap, const OutMessage &message) {
  // Relaxed: see set_patience.
  Patience patience(std::chrono::milliseconds(patience_ms_.load(std::memory_order_relaxed)));
  bool peer_gone = false;
  std::shared_ptr<Connection> used;
  int error = send_once(sap, message, &patience, &peer_gone, &used);
  // The peer may have been replaced: one more connection is tried.
  if (error != 0 && peer_gone) {
    peer_gone = false;
    error = send_once(sap, message, &patience, &peer_gone, &used);
    if (peer_gone) error = ECONNREFUSED;
  }
  count(error == 0 ? &SapRecord::sent : &SapRecord::send_failures);
  return error;
}

int Queue::send_request(uint32_t sap, OutMessage message, uint32_t *token) {
  {
    const std::lock_guard guard(mutex_);
    message.token = next_token_;
    if (++next_token_ == 0) next_token_ = 1;
  }
  message.kind = Kind::request;
  *token = message.token;
  return send(sap, message);
}

int Queue::respond(const std::shared_ptr<Connection> &connection, const OutMessage &message) {
  {
    const std::lock_guard guard(mutex_);
    if (is_closed_) return EBADF;
    if (!connection->alive) return ECONNRESET;
  }
  // No wait: whoever asked has to make room for the answer.
  Patience none(std::chrono::milliseconds(0));
  int error = transmit(*connection, message, &none);
  if (peer_is_gone(error)) error = ECONNRESET;
  count(error == 0 ? &SapRecord::sent : &SapRecord::send_failures);
  return error;
}

}  // namespace rsw::mts
