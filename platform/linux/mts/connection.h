// SPDX-License-Identifier: Apache-2.0
// One connection between two queues: made by whoever sends first, used for messages and requests in that direction and
// for responses in the other.
#ifndef RSW_MTS_CONNECTION_H
#define RSW_MTS_CONNECTION_H

#include <sys/socket.h>
#include <sys/uio.h>

#include <chrono>
#include <cstdint>

#include "mts/wire.h"

namespace rsw::mts {

using Clock = std::chrono::steady_clock;

// A descriptor with one owner.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Descriptor &operator=(Descriptor &&other) noexcept;
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  [[nodiscard]] int get() const { return fd_; }
  void reset();

 private:
  int fd_ = -1;
};

// How long a sender waits for room. The clock is first looked at when something has to wait, which most sends never
// have to.
class Patience {
 public:
  explicit Patience(std::chrono::milliseconds whole) : whole_(whole) {}
  // From the first call on; not below zero.
  Clock::duration left();

 private:
  std::chrono::milliseconds whole_;
  Clock::time_point end_;
  bool begun_ = false;
};

// Members beside `socket` are the queue's, under its mutex.
struct Connection {
  Connection(uint64_t number, uint32_t peer_sap, bool accepted, Descriptor descriptor)
      : id(number), sap(peer_sap), from_peer(accepted), socket(std::move(descriptor)) {}

  const uint64_t id;  // never used again in the queue
  uint32_t sap;       // the peer's; of an accepted connection 0 until its first message said so
  const bool from_peer;
  Descriptor socket;
  // The kernel's word on the peer, as of when the connection was made; pid -1: none yet.
  ucred credentials{-1, ~0u, ~0u};
  bool connected = false;
  bool alive = true;
  bool sent = false;  // something went out on it: its end is news for a receiver
};

// The connection's credentials. The kernel is asked for them until it has told: a message is not lost because one
// question failed.
const ucred &credentials_of(Connection &connection);

// One datagram out of the parts. 0, or an errno: EAGAIN when the peer's queue had no room in all the time that there is
// patience for. A signal does not end the wait.
int send_parts(int socket, const iovec *parts, size_t count, Patience *patience);

// Whether the peer has let go of the connection. What it sent before may still be there.
bool has_hung_up(int socket);

// Whether an errno of a send says that there is nobody at the other end any more.
bool peer_is_gone(int error);

}  // namespace rsw::mts

#endif
