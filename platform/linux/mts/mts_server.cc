// SPDX-License-Identifier: Apache-2.0
#include "mts/mts_server.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <new>
#include <vector>

#include "mts/queue_table.h"
#include "mts/references.h"

namespace rsw {
namespace {

using mts::Arrived;

struct Copy {  // of what may be used once the table's mutex is given back
  bool claim = false;
  uint32_t queue = 0;
  uint32_t of = 0;  // the queue that received it
  Arrived::What what = Arrived::What::message;
  bool answered = false;
  uint32_t token = 0;
  uint32_t opcode = 0;
  uint32_t sap = 0;
  std::shared_ptr<mts::Connection> connection;
};

void take_copy(Arrived &held, void *context) {
  auto *copy = static_cast<Copy *>(context);
  copy->of = held.queue;
  copy->what = held.what;
  copy->answered = held.answered;
  copy->token = held.token;
  copy->opcode = held.opcode;
  copy->sap = held.sap;
  copy->connection = held.connection;
  // Of two who answer at once, one is first.
  if (copy->claim && held.what == Arrived::What::request && held.queue == copy->queue) held.answered = true;
  if (copy->claim && held.queue != copy->queue) copy->what = Arrived::What::message;
}

void give_back(Arrived &held, void *) {
  held.answered = false;
}

int answer(uint32_t queue, mts_msg_ref_t request, mts::OutMessage message) {
  const std::shared_ptr<mts::Queue> own = mts::queue_of(queue);
  if (own == nullptr) return errno;
  if (message.size > 0 && message.payload == nullptr) return EINVAL;
  Copy copy;
  copy.claim = true;
  copy.queue = queue;
  if (!mts::look_at(request, take_copy, &copy) || copy.what != Arrived::What::request) return EINVAL;
  if (copy.answered) return EALREADY;
  message.token = copy.token;
  if (message.kind == mts::Kind::reject) message.opcode = copy.opcode;
  const int error = own->respond(copy.connection, message);
  if (error != 0) mts::look_at(request, give_back, nullptr);
  return error;
}

int32_t result_of(int error) {
  if (error == 0) return 0;
  errno = error;
  return -1;
}

}  // namespace

bool mts_sender(mts_msg_ref_t msg, MtsSender *sender) {
  Copy copy;
  if (!mts::look_at(msg, take_copy, &copy) || copy.connection == nullptr) return false;
  const ucred &by = copy.connection->credentials;
  const bool is_there = copy.what == Arrived::What::gone || !copy.connection->from_peer ||
                        !mts::has_hung_up(copy.connection->socket.get());
  *sender = {.pid = by.pid, .uid = by.uid, .gid = by.gid, .sap = is_there ? copy.sap : 0};
  return true;
}

bool mts_sender_in_group(mts_msg_ref_t msg, uint32_t gid) {
  Copy copy;
  if (!mts::look_at(msg, take_copy, &copy) || copy.connection == nullptr) return false;
  if (copy.connection->credentials.gid == gid) return true;
  std::vector<gid_t> groups(65536);  // no process has more
  auto bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
  if (getsockopt(copy.connection->socket.get(), SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes) != 0) return false;
  groups.resize(bytes / sizeof(gid_t));
  return std::ranges::find(groups, gid) != groups.end();
}

bool mts_is_request(mts_msg_ref_t msg) {
  Copy copy;
  return mts::look_at(msg, take_copy, &copy) && copy.what == Arrived::What::request;
}

bool mts_is_gone(mts_msg_ref_t msg) {
  Copy copy;
  return mts::look_at(msg, take_copy, &copy) && copy.what == Arrived::What::gone;
}

int32_t mts_reply(uint32_t queue, mts_msg_ref_t request, uint32_t opcode, const void *payload, uint32_t size) {
  return result_of(
      answer(queue, request, {.kind = mts::Kind::response, .opcode = opcode, .payload = payload, .size = size}));
}

int32_t mts_reject(uint32_t queue, mts_msg_ref_t request) {
  return result_of(answer(queue, request, {.kind = mts::Kind::reject}));
}

int32_t mts_hang_up(uint32_t queue, mts_msg_ref_t msg) {
  const std::shared_ptr<mts::Queue> own = mts::queue_of(queue);
  if (own == nullptr) return -1;
  Copy copy;
  if (!mts::look_at(msg, take_copy, &copy) || copy.connection == nullptr || copy.of != queue) return result_of(EINVAL);
  own->hang_up(copy.connection);
  return 0;
}

int32_t mts_watch_peers(uint32_t queue, bool on) {
  const std::shared_ptr<mts::Queue> own = mts::queue_of(queue);
  if (own == nullptr) return -1;
  own->watch_peers(on);
  return 0;
}

int32_t mts_set_patience(uint32_t queue, int32_t milliseconds) {
  const std::shared_ptr<mts::Queue> own = mts::queue_of(queue);
  if (own == nullptr) return -1;
  own->set_patience(milliseconds);
  return 0;
}

}  // namespace rsw
