// SPDX-License-Identifier: Apache-2.0
// MTS as the contract names it: handles and references become queues and messages here, errors become errno.
#include "mts.h"

#include <errno.h>

#include <new>

#include "mts/mts_server.h"
#include "mts/queue_table.h"
#include "mts/references.h"
#include "probe.h"

using namespace rsw::mts;

namespace {

constexpr uint32_t local_node = 0xFE000000;

int32_t result_of(int error) {
  if (error == 0) return 0;
  errno = error;
  return -1;
}

// Runs a call on a queue. No exception leaves the library: the only one there is is that of no memory.
template <typename Call>
int32_t on_queue(uint32_t handle, const Call &call) {
  try {
    const std::shared_ptr<Queue> queue = queue_of(handle);
    return queue != nullptr ? result_of(call(*queue)) : -1;
  } catch (const std::bad_alloc &) {
    return result_of(ENOMEM);
  }
}

int hand_out(Queue &queue, uint32_t handle, std::unique_ptr<Arrived> arrived, mts_msg_ref_t *msg) {
  arrived->queue = handle;
  int error = 0;
  const mts_msg_ref_t reference = keep(&arrived, &error);
  if (reference == nullptr) {
    queue.put_back(std::move(arrived));
    return error;
  }
  *msg = reference;
  return 0;
}

int32_t receive(uint32_t handle, mts_msg_ref_t *msg, const Wait &wait, uint32_t token) {
  if (msg == nullptr) return result_of(EINVAL);
  return on_queue(handle, [&](Queue &queue) {
    std::unique_ptr<Arrived> arrived;
    const int error = token != 0 ? queue.receive_response(token, wait, &arrived) : queue.receive(wait, &arrived);
    if (error == 0) RSW_PROBE3(librsw, mts_received, arrived->sap, arrived->opcode, arrived->size);
    return error != 0 ? error : hand_out(queue, handle, std::move(arrived), msg);
  });
}

// The reference comes first: a request that is out must have one.
int send_request(Queue &queue, uint32_t handle, uint32_t sap, const OutMessage &message, mts_msg_ref_t *sent) {
  auto request = std::make_unique<Arrived>();
  request->what = Arrived::What::sent_request;
  request->opcode = message.opcode;
  request->sap = sap;
  request->queue = handle;
  int error = 0;
  const mts_msg_ref_t reference = keep(&request, &error);
  if (reference == nullptr) return error;
  uint32_t token = 0;
  try {
    error = queue.send_request(sap, message, &token);
  } catch (const std::bad_alloc &) {
    error = ENOMEM;
  }
  if (error != 0) {
    drop(handle, reference);
    return error;
  }
  look_at(
      reference, [](Arrived &held, void *context) { held.token = *static_cast<uint32_t *>(context); }, &token);
  *sent = reference;
  return 0;
}

void add_pieces(const mts_send_opts *options, OutMessage *message) {
  if (options == nullptr) return;
  message->vector = mts_send_opts_vector(options);
  message->pieces = message->vector != nullptr ? options->w[1] : 0;
}

bool may_be_sent(uint32_t node, uint32_t sap, const OutMessage &message, int *error) {
  *error = 0;
  if (node != local_node) *error = EHOSTUNREACH;
  if (sap == 0 || sap > last_sap || message.payload == nullptr || message.pieces > most_pieces) *error = EINVAL;
  if (message.size > largest_payload) *error = EMSGSIZE;
  return *error == 0;
}

}  // namespace

extern "C" {

uint32_t mts_bind(uint32_t kind, int32_t sap, struct mts_bind_opts *opts, const char *name) {
  int error = EINVAL;
  try {
    if (kind == 1 && opts != nullptr) {
      const uint32_t handle = add_queue(sap, opts->module, name, &error);
      if (handle != no_queue) return handle;
    }
  } catch (const std::bad_alloc &) {
    error = ENOMEM;
  }
  errno = error;
  return no_queue;
}

int32_t mts_unbind(uint32_t queue, uint32_t) {
  const std::shared_ptr<Queue> removed = remove_queue(queue);
  if (removed == nullptr) return -1;
  removed->close();
  drop_all(queue);
  return 0;
}

int32_t mts_recv_q_unblock(uint32_t queue) {
  return on_queue(queue, [](Queue &own) { return own.unblock(); });
}

uint32_t mts_sap_get(uint32_t queue) {
  const std::shared_ptr<Queue> own = queue_of(queue);
  return own != nullptr ? own->sap() : 0;
}

int mts_queue_fd(uint32_t queue) {
  const std::shared_ptr<Queue> own = queue_of(queue);
  return own != nullptr ? own->poll_descriptor() : -1;
}

uint32_t mts_options_get(uint32_t queue, uint32_t opcode) {
  const std::shared_ptr<Queue> own = queue_of(queue);
  return own != nullptr ? own->options(opcode) : 0;
}

int32_t mts_options_set(uint32_t queue, uint32_t opcode, uint32_t value) {
  return on_queue(queue, [&](Queue &own) { return own.set_options(opcode, value); });
}

int32_t mts_send(uint32_t queue, uint32_t node, uint32_t sap, uint32_t opcode, void *payload, uint32_t size,
                 mts_msg_ref_t *sent, uint32_t, void *opts) {
  OutMessage message{.opcode = opcode, .payload = payload, .size = size};
  add_pieces(static_cast<const struct mts_send_opts *>(opts), &message);
  int error = 0;
  if (!may_be_sent(node, sap, message, &error)) return result_of(error);
  const int32_t status = on_queue(queue, [&](Queue &own) {
    return sent != nullptr ? send_request(own, queue, sap, message, sent) : own.send(sap, message);
  });
  RSW_PROBE4(librsw, mts_sent, sap, opcode, size, status);
  return status;
}

int32_t mts_recv(uint32_t queue, mts_msg_ref_t *msg, struct mts_recv_opts *opts) {
  if (opts == nullptr) return result_of(EINVAL);
  const Wait wait{.forever = opts->w[2] == 0, .deadline = Clock::now() + std::chrono::seconds(opts->w[2])};
  return receive(queue, msg, wait, opts->w[3]);
}

int32_t mts_recv_now(uint32_t queue, mts_msg_ref_t *msg) {
  const int32_t status = receive(queue, msg, {.forever = false, .deadline = Clock::now()}, 0);
  if (status != 0 && errno == ETIMEDOUT) errno = EAGAIN;
  return status;
}

int32_t mts_drop(uint32_t queue, mts_msg_ref_t msg) {
  if (queue_of(queue) == nullptr) return -1;
  return result_of(drop(queue, msg) ? 0 : EINVAL);
}

void *mts_payload_get(mts_msg_ref_t msg) {
  void *payload = nullptr;
  look_at(
      msg, [](Arrived &held, void *context) { *static_cast<void **>(context) = held.payload.get(); }, &payload);
  return payload;
}

uint32_t mts_payload_size(mts_msg_ref_t msg) {
  uint32_t size = 0;
  look_at(
      msg, [](Arrived &held, void *context) { *static_cast<uint32_t *>(context) = held.size; }, &size);
  return size;
}

uint32_t mts_opc_get(mts_msg_ref_t msg) {
  uint32_t opcode = 0;
  look_at(
      msg, [](Arrived &held, void *context) { *static_cast<uint32_t *>(context) = held.opcode; }, &opcode);
  return opcode;
}

uint32_t mts_is_reject(mts_msg_ref_t msg) {
  uint32_t reject = 0;
  look_at(
      msg,
      [](Arrived &held, void *context) {
        *static_cast<uint32_t *>(context) = held.what == Arrived::What::reject ? 1 : 0;
      },
      &reject);
  return reject;
}

uint32_t mts_rr_token_get(mts_msg_ref_t msg) {
  uint32_t token = 0;
  look_at(
      msg, [](Arrived &held, void *context) { *static_cast<uint32_t *>(context) = held.token; }, &token);
  return token;
}

}  // extern "C"

namespace rsw {

int32_t mts_send_back(uint32_t queue, const MtsSender &to, uint32_t opcode, const void *payload, uint32_t size,
                      const mts_send_opts *opts) {
  OutMessage message{.opcode = opcode, .payload = payload, .size = size, .process = to.pid};
  add_pieces(opts, &message);
  int error = to.pid >= 0 ? 0 : EINVAL;
  if (error != 0 || !may_be_sent(local_node, to.sap, message, &error)) return result_of(error);
  return on_queue(queue, [&](Queue &own) { return own.send(to.sap, message); });
}

}  // namespace rsw
