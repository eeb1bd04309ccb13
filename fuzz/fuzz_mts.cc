// SPDX-License-Identifier: Apache-2.0
// Any bytes on the wire of messages, on connections that come and go: a queue receives what is well formed, ends the
// connection of what is not, answers requests once, and tells of each sender that left exactly once for each connection
// that said something.
//
// The input is a list of steps: a byte that says what is done on which connection, and what that needs.
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "input.h"
#include "mts.h"
#include "mts/mts_server.h"
#include "mts/wire.h"
#include "support/run_directory.h"

namespace {

using fuzz::Input;
using rsw::mts::WireHeader;

constexpr int32_t sap = 263;
constexpr size_t connections = 4;

void check(bool good) {
  if (!good) abort();
}

class Peer {
 public:
  ~Peer() { leave(); }
  void join(const std::string &path) {
    if (fd_ >= 0) return;
    fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    // A full backlog is no fault of anybody's.
    if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) leave();
  }
  void leave() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  // The peer's end may be closed already, or full.
  void say(const std::vector<std::byte> &bytes) const {
    if (fd_ >= 0) (void)!::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  // Answers, if there are any, are well formed.
  void listen() {
    std::array<std::byte, 512> room{};
    while (fd_ >= 0) {
      const ssize_t got = recv(fd_, room.data(), room.size(), MSG_TRUNC);
      if (got == 0) return leave();
      if (got < 0) return;
      WireHeader header{};
      check(static_cast<size_t>(got) >= sizeof header);
      memcpy(&header, room.data(), sizeof header);
      check(rsw::mts::well_formed(header, static_cast<size_t>(got), false));
    }
  }

 private:
  int fd_ = -1;
};

class System {
 public:
  explicit System(const std::string &directory) : path_(directory + "/mts/" + std::to_string(sap)) {
    mts_bind_opts opts{1, 1, 1024, 267, 0, 15};
    queue_ = mts_bind(1, sap, &opts, "fuzz");
    check(queue_ != ~0u && mts_recv_q_unblock(queue_) == 0);
    rsw::mts_set_patience(queue_, 0);
    rsw::mts_watch_peers(queue_, true);
  }
  ~System() {
    for (Peer &peer : peers_) peer.leave();
    while (take(0)) {
    }
    check(waiting() == 0);
    mts_unbind(queue_, 0);
  }

  void step(Input &input) {
    const uint8_t what = input.byte();
    Peer &peer = peers_[(what >> 4) & 3];
    switch (what & 7) {
      case 0:
        return peer.join(path_);
      case 1:
        return peer.leave();
      case 2:
        return peer.say(input.bytes(input.byte()));
      case 3:
        return peer.listen();
      case 4:
        take(what);
        return;
      default:
        return peer.say(good_message(what, input));
    }
  }

 private:
  static std::vector<std::byte> good_message(uint8_t what, Input &input) {
    const uint32_t size = input.byte() * ((what & 128) != 0 ? 400u : 1u);
    const bool asks = (what & 8) != 0;
    WireHeader header{.magic = rsw::mts::wire_magic,
                      .kind = static_cast<uint32_t>(asks ? rsw::mts::Kind::request : rsw::mts::Kind::message),
                      .opcode = input.byte(),
                      .sap = 2048u + (what & 3),
                      .token = asks ? 1u + input.byte() : 0u,
                      .size = size,
                      .pieces = 0,
                      .reserved = 0};
    std::vector<std::byte> bytes(sizeof header + size);
    memcpy(bytes.data(), &header, sizeof header);
    // Good, but for a word of the input's.
    if ((what & 7) == 7) {
      const uint32_t word = input.word();
      memcpy(bytes.data() + input.byte() % (sizeof header / 4) * 4, &word, sizeof word);
    }
    return bytes;
  }

  bool take(uint8_t what) const {
    mts_msg_ref_t msg = nullptr;
    if (mts_recv_now(queue_, &msg) != 0) {
      check(errno == EAGAIN || errno == ECONNRESET);
      return errno == ECONNRESET;
    }
    const uint32_t size = mts_payload_size(msg);
    check(size <= rsw::mts::largest_payload && (mts_payload_get(msg) != nullptr || size == 0));
    rsw::MtsSender sender{};
    check(rsw::mts_sender(msg, &sender) && sender.pid == getpid());
    if (rsw::mts_is_gone(msg)) check(size == 0 && !rsw::mts_is_request(msg));
    if (rsw::mts_is_request(msg)) {
      const bool rejects = (what & 8) != 0;
      const int32_t answered =
          rejects ? rsw::mts_reject(queue_, msg) : rsw::mts_reply(queue_, msg, 7, mts_payload_get(msg), size % 64);
      check(answered == 0 || errno == ECONNRESET || errno == EAGAIN);
      if (answered == 0) check(rsw::mts_reject(queue_, msg) != 0 && errno == EALREADY);
    }
    check(mts_drop(queue_, msg) == 0);
    return true;
  }

  static uint32_t waiting() {
    for (const rsw::MtsQueueUse &use : rsw::mts_queues()) {
      if (use.sap == sap) return use.waiting;
    }
    return 0;
  }

  std::string path_;
  uint32_t queue_ = 0;
  std::array<Peer, connections> peers_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const test_support::RunDirectory directory;
  System system(directory.path());
  Input input(data, size);
  while (!input.empty()) system.step(input);
  return 0;
}
