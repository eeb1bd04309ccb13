// SPDX-License-Identifier: Apache-2.0
// Messages: what is sent is kept, what is received is what the test put into `replies`; nothing ever waits.
#include "mts.h"

#include <cstring>

#include "fake_platform/platform.h"
#include "fake_platform/watched_blocks.h"

using fake_platform::Message;
using fake_platform::platform;
using fake_platform::SentMessage;

namespace {

constexpr uint32_t bind_failed = ~uint32_t{0};

const Message &message_of(mts_msg_ref_t msg) {
  static const Message none;
  const auto found = platform().received.find(msg);
  return found == platform().received.end() ? none : found->second;
}

// A reference is the address of something that stays put: a byte of low memory of its own.
mts_msg_ref_t hand_out(Message message) {
  void *reference = platform().memory.allocate(1);
  platform().received[reference] = std::move(message);
  return reference;
}

// The pieces of a packet that go with a message. A test may send other words where a vector belongs: only a vector that
// a conversion made is followed.
std::vector<std::vector<uint8_t>> pieces_of(const mts_send_opts *options) {
  std::vector<std::vector<uint8_t>> pieces;
  if (options == nullptr) return pieces;
  const mts_iovec *vector = mts_send_opts_vector(options);
  if (fake_platform::watched_name(vector) == nullptr) return pieces;
  for (uint32_t i = 0; i < options->w[1]; i++) {
    const auto *bytes = static_cast<const uint8_t *>(vector[i].base);
    pieces.emplace_back(bytes, bytes + vector[i].len);
  }
  return pieces;
}

}  // namespace

uint32_t mts_bind(uint32_t kind, int32_t sap, struct mts_bind_opts *opts, const char *name) {
  platform().log.call(__func__, kind, sap, opts != nullptr ? opts->flags : 0, name);
  if (opts != nullptr) std::memcpy(platform().bind_options.data(), opts, sizeof *opts);
  const uint32_t queue = platform().scripts.result<uint32_t>(__func__, platform().next_queue, bind_failed);
  if (queue == bind_failed) return queue;
  platform().next_queue++;
  platform().queues[queue] = sap;
  return queue;
}

int32_t mts_unbind(uint32_t queue, uint32_t zero) {
  platform().log.call(__func__, queue, zero);
  platform().queues.erase(queue);
  return platform().scripts.result<int32_t>(__func__, 0, -1);
}

int32_t mts_recv_q_unblock(uint32_t queue) {
  platform().log.call(__func__, queue);
  return platform().scripts.result<int32_t>(__func__, 0, -1);
}

int32_t mts_send(uint32_t queue, uint32_t node, uint32_t sap, uint32_t opcode, void *payload, uint32_t size,
                 mts_msg_ref_t *sent, uint32_t zero, void *opts) {
  platform().log.call(__func__, queue, node, sap, opcode, size, zero);
  // Of a plain send any status that is not negative is good, of a request only 0.
  const int32_t good = sent == nullptr ? static_cast<int32_t>(size) : 0;
  const int32_t status = platform().scripts.result<int32_t>(__func__, good, -1);
  if (status < 0) return status;
  const auto *bytes = static_cast<const uint8_t *>(payload);
  SentMessage message{.queue = queue,
                      .node = node,
                      .sap = sap,
                      .opcode = opcode,
                      .payload = {bytes, bytes + size},
                      .with_options = opts != nullptr,
                      .options = {},
                      .pieces = pieces_of(static_cast<const mts_send_opts *>(opts))};
  if (opts != nullptr) std::memcpy(message.options.data(), opts, sizeof(struct mts_send_opts));
  if (sent != nullptr) {
    *sent = hand_out({.opcode = opcode, .payload = message.payload, .reject = false, .token = platform().next_token++});
  }
  platform().sent.push_back(std::move(message));
  return status;
}

int32_t mts_recv(uint32_t queue, mts_msg_ref_t *msg, struct mts_recv_opts *opts) {
  platform().log.call(__func__, queue, opts != nullptr ? opts->w[2] : 0, opts != nullptr ? opts->w[3] : 0);
  if (opts != nullptr) std::memcpy(platform().recv_options.data(), opts, sizeof *opts);
  const bool empty = platform().replies.empty();
  const int32_t status = platform().scripts.result<int32_t>(__func__, empty ? -1 : 0, -1);
  if (status < 0 || empty) return status;
  *msg = hand_out(std::move(platform().replies.front()));
  platform().replies.pop_front();
  return status;
}

int32_t mts_drop(uint32_t queue, mts_msg_ref_t msg) {
  platform().log.call(__func__, queue);
  platform().received.erase(msg);
  return platform().scripts.result<int32_t>(__func__, 0, -1);
}

void *mts_payload_get(mts_msg_ref_t msg) {
  platform().log.call(__func__);
  const auto *bytes = message_of(msg).payload.data();
  return platform().scripts.result<void *>(__func__, const_cast<uint8_t *>(bytes), nullptr);
}

uint32_t mts_payload_size(mts_msg_ref_t msg) {
  platform().log.call(__func__);
  return platform().scripts.result<uint32_t>(__func__, static_cast<uint32_t>(message_of(msg).payload.size()), 0);
}

uint32_t mts_opc_get(mts_msg_ref_t msg) {
  platform().log.call(__func__);
  return platform().scripts.result<uint32_t>(__func__, message_of(msg).opcode, 0);
}

uint32_t mts_is_reject(mts_msg_ref_t msg) {
  platform().log.call(__func__);
  return platform().scripts.result<uint32_t>(__func__, message_of(msg).reject ? 1 : 0, 1);
}

uint32_t mts_rr_token_get(mts_msg_ref_t msg) {
  platform().log.call(__func__);
  return platform().scripts.result<uint32_t>(__func__, message_of(msg).token, 0);
}

uint32_t mts_options_get(uint32_t queue, uint32_t opcode) {
  platform().log.call(__func__, queue, opcode);
  return platform().scripts.result<uint32_t>(__func__, platform().queue_options[queue], 0);
}

int32_t mts_options_set(uint32_t queue, uint32_t opcode, uint32_t value) {
  platform().log.call(__func__, queue, opcode, value);
  platform().queue_options[queue] = value;
  return platform().scripts.result<int32_t>(__func__, 0, -1);
}

uint32_t mts_sap_get(uint32_t queue) {
  platform().log.call(__func__, queue);
  const auto bound = platform().queues.find(queue);
  const auto sap = bound == platform().queues.end() ? 0 : static_cast<uint32_t>(bound->second);
  return platform().scripts.result<uint32_t>(__func__, sap, 0);
}
