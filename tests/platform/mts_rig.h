// SPDX-License-Identifier: Apache-2.0
// Queues of a test: bound, filled, asked and unbound.
#ifndef TESTS_PLATFORM_MTS_RIG_H
#define TESTS_PLATFORM_MTS_RIG_H

#include <errno.h>
#include <poll.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "mts.h"
#include "mts/mts_server.h"

namespace mts_rig {

inline constexpr uint32_t local_node = 0xFE000000;
inline constexpr uint32_t no_queue = ~0u;
// Long enough for any machine, and an end for a test that fails.
inline constexpr uint32_t long_wait_seconds = 60;

inline uint32_t bind(int32_t sap, const char *name = "test queue") {
  mts_bind_opts opts{1, sap == -1 ? 0u : 1u, 1024, 267, 0, 15};
  return mts_bind(1, sap, &opts, name);
}

// A queue that receives, for the life of this object.
class Queue {
 public:
  explicit Queue(int32_t sap = -1) : handle_(bind(sap)) {
    if (handle_ == no_queue) throw std::runtime_error("cannot bind SAP " + std::to_string(sap));
    if (mts_recv_q_unblock(handle_) != 0) throw std::runtime_error("cannot unblock");
  }
  ~Queue() { mts_unbind(handle_, 0); }
  Queue(const Queue &) = delete;
  Queue &operator=(const Queue &) = delete;
  operator uint32_t() const { return handle_; }  // NOLINT: it stands for its handle
  [[nodiscard]] uint32_t sap() const { return mts_sap_get(handle_); }

 private:
  uint32_t handle_;
};

inline int32_t send(uint32_t queue, uint32_t sap, uint32_t opcode, std::string text) {
  mts_send_opts opts{};
  opts.w[0] = 1;
  return mts_send(queue, local_node, sap, opcode, text.data(), static_cast<uint32_t>(text.size()), nullptr, 0, &opts);
}

// The token of a request that was sent; 0: it was not.
inline uint32_t request(uint32_t queue, uint32_t sap, uint32_t opcode, std::string text) {
  mts_msg_ref_t sent = nullptr;
  if (mts_send(queue, local_node, sap, opcode, text.data(), static_cast<uint32_t>(text.size()), &sent, 0, nullptr) !=
      0) {
    return 0;
  }
  const uint32_t token = mts_rr_token_get(sent);
  mts_drop(queue, sent);
  return token;
}

struct Received {
  int error = 0;  // errno
  uint32_t opcode = 0;
  std::string text;
  bool reject = false;
};

inline int32_t receive_reference(uint32_t queue, mts_msg_ref_t *msg, uint32_t seconds = long_wait_seconds,
                                 uint32_t token = 0) {
  mts_recv_opts opts{};
  opts.w[0] = 1;
  opts.w[2] = seconds;
  opts.w[3] = token;
  return mts_recv(queue, msg, &opts);
}

inline std::string text_of(mts_msg_ref_t msg) {
  const auto *bytes = static_cast<const char *>(mts_payload_get(msg));
  return bytes != nullptr ? std::string(bytes, mts_payload_size(msg)) : std::string();
}

inline Received taken(uint32_t queue, mts_msg_ref_t msg) {
  const Received received{
      .error = 0, .opcode = mts_opc_get(msg), .text = text_of(msg), .reject = mts_is_reject(msg) == 1};
  mts_drop(queue, msg);
  return received;
}

inline Received receive(uint32_t queue, uint32_t seconds = long_wait_seconds, uint32_t token = 0) {
  mts_msg_ref_t msg = nullptr;
  if (receive_reference(queue, &msg, seconds, token) == 0) return taken(queue, msg);
  Received none;
  none.error = errno;
  return none;
}

inline bool readable(uint32_t queue) {
  pollfd fd{mts_queue_fd(queue), POLLIN, 0};
  return poll(&fd, 1, 0) == 1;
}

inline rsw::MtsQueueUse use_of(uint32_t sap) {
  for (const rsw::MtsQueueUse &use : rsw::mts_queues()) {
    if (use.sap == sap) return use;
  }
  return {};
}

}  // namespace mts_rig

#endif
