// SPDX-License-Identifier: Apache-2.0
// A queue: a SAP, its connections, and what arrived and was not received yet.
//
// The kernel holds messages until somebody receives: the queue has no thread. mts_recv takes what its connections have,
// in the order of each connection, into `items` and hands out the first that fits. At most 1,024 messages and 4 MiB are
// taken; then connections are left alone, the kernel's buffers fill, and senders wait. That is the bound of a queue.
//
// A connection belongs to one direction. Messages and requests travel on the one that their sender made, responses come
// back on it. So the end of a connection that we made is the end of everybody who can still answer us, and whoever
// waits there is told.
//
// One mutex guards a queue. It is not held in sendmsg, connect, poll or epoll_wait: there, a shared pointer keeps the
// connection's descriptor from being another file's. A connection that ends is shut down, which wakes who waits on it;
// it is closed with the last pointer.
//
// Nothing is taken from a socket before there is memory for it: a receive that has none says so and loses nothing.
#ifndef RSW_MTS_QUEUE_H
#define RSW_MTS_QUEUE_H

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

#include "mts.h"
#include "mts/connection.h"
#include "mts/references.h"
#include "mts/sap_files.h"

namespace rsw::mts {

inline constexpr size_t most_items = 1024;
inline constexpr size_t most_item_bytes = size_t{4} << 20;
inline constexpr size_t most_requests = 1024;
inline constexpr size_t most_opcodes = 64;
inline constexpr int default_patience_ms = 2000;

struct OutMessage {
  Kind kind = Kind::message;
  uint32_t opcode = 0;
  uint32_t token = 0;
  const void *payload = nullptr;
  uint32_t size = 0;
  const mts_iovec *vector = nullptr;
  uint32_t pieces = 0;
  int32_t process = -1;  // the only one that may have it; -1: whichever has the SAP
};

// How long to wait. `forever` and `no_wait` are deadlines too.
struct Wait {
  bool forever = false;
  Clock::time_point deadline;
};

class Queue {
 public:
  // 0, or an errno.
  static int bind(int32_t sap, uint32_t module, const char *name, std::shared_ptr<Queue> *made);
  ~Queue();
  Queue(const Queue &) = delete;
  Queue &operator=(const Queue &) = delete;

  // Each of these: 0, or an errno.
  int unblock();
  int send(uint32_t sap, const OutMessage &message);
  int send_request(uint32_t sap, OutMessage message, uint32_t *token);
  int respond(const std::shared_ptr<Connection> &connection, const OutMessage &message);
  void hang_up(const std::shared_ptr<Connection> &connection);
  int receive(const Wait &wait, std::unique_ptr<Arrived> *arrived);
  int receive_response(uint32_t token, const Wait &wait, std::unique_ptr<Arrived> *arrived);
  int set_options(uint32_t opcode, uint32_t value);
  void put_back(std::unique_ptr<Arrived> arrived);

  uint32_t options(uint32_t opcode);
  void watch_peers(bool on);
  void set_patience(int milliseconds);
  [[nodiscard]] uint32_t sap() const { return bound_.sap; }
  [[nodiscard]] int poll_descriptor() const { return events_.get(); }

  // Takes the SAP's files away and ends every wait.
  void close();
  // For fork: the mutex is taken before; the child keeps no descriptor, and never unlocks or uses the queue again.
  void lock_for_fork() { mutex_.lock(); }
  void unlock_after_fork() { mutex_.unlock(); }
  void abandon_in_child();
  [[nodiscard]] bool inherited() const { return inherited_; }

 private:
  struct Request {
    uint32_t token;
    std::shared_ptr<Connection> connection;
    bool answered = false;  // the response is in the queue
  };
  struct OpcodeOptions {
    uint32_t opcode, value;
  };
  using Items = std::list<std::unique_ptr<Arrived>>;

  Queue() = default;
  // All below: with the mutex held, unless said otherwise.
  int connection_to(uint32_t sap, Patience *patience, std::unique_lock<std::mutex> &lock,
                    std::shared_ptr<Connection> *found);
  std::shared_ptr<Connection> cached(uint32_t sap);
  std::shared_ptr<Connection> by_id(uint64_t id);
  int send_once(uint32_t sap, const OutMessage &message, Patience *patience, bool *peer_gone,
                std::shared_ptr<Connection> *used);
  int transmit(const Connection &connection, const OutMessage &message, Patience *patience);  // without it
  bool watch(int fd, uint64_t id, uint32_t events);
  int open();
  void make_room();
  void end(const std::shared_ptr<Connection> &connection);
  void accept_again();
  void accept_all();
  void drain(const std::shared_ptr<Connection> &connection);
  bool take_datagram(const std::shared_ptr<Connection> &connection, size_t length);
  bool answers_request(const Connection &connection, uint32_t token);
  void forget_request(uint32_t token);
  void pump(bool everything);
  [[nodiscard]] bool full() const { return items_.size() >= most_items || item_bytes_ >= most_item_bytes; }
  [[nodiscard]] bool has_priorities() const;
  bool passes_others(const Arrived &item) const;
  std::unique_ptr<Arrived> take_first();
  std::unique_ptr<Arrived> take_response(uint32_t token);
  std::unique_ptr<Arrived> take_at(Items::iterator place);
  void append();
  void settle_ready();
  void count(uint32_t SapRecord::*counter, uint32_t by = 1);

  std::mutex mutex_;
  std::mutex connecting_;  // one connect at a time; taken before mutex_
  BoundSap bound_;
  SapRecord *record_ = nullptr;
  Descriptor events_;  // epoll: the listening socket, connections, ready_ and closed_
  Descriptor ready_;   // readable while something is there that no socket shows
  Descriptor closed_;  // readable once the queue is closed
  bool ready_shown_ = false;
  bool opening_ = false;  // it is to listen
  bool listening_ = false;
  bool accept_paused_ = false;
  bool is_closed_ = false;
  bool inherited_ = false;
  bool peers_watched_ = false;
  bool peer_lost_ = false;  // somebody to whom we sent is gone, and no receiver was told
  std::atomic<int> patience_ms_{default_patience_ms};
  uint64_t next_id_ = 16;  // below: the queue's own descriptors
  uint32_t next_token_ = 1;
  std::vector<std::shared_ptr<Connection>> connections_;
  std::shared_ptr<Connection> accepted_;  // the next one; no socket yet
  std::vector<Request> requests_;
  std::vector<OpcodeOptions> options_;
  Items items_;
  size_t item_bytes_ = 0;
  Items spare_;  // places for items; once there is room, the first has a message to be filled
  std::unique_ptr<uint8_t[]> datagram_;
};

}  // namespace rsw::mts

#endif
