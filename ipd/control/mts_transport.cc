// SPDX-License-Identifier: Apache-2.0
// We answer many and wait for nobody: a send fails at once where it would wait for room.
#include "ipd/control/mts_transport.h"

#include <cerrno>
#include <cstring>

#include "ip_api.h"
#include "mts/mts_server.h"

namespace ipd::control {
namespace {

constexpr uint32_t no_queue = ~uint32_t{0};

int error_of(int32_t result) {
  return result < 0 ? errno : 0;
}

Sender sender_of(mts_msg_ref_t reference) {
  rsw::MtsSender sender{};
  if (!rsw::mts_sender(reference, &sender)) return {};
  return {.pid = sender.pid, .uid = sender.uid, .sap = sender.sap};
}

Request request_of(mts_msg_ref_t reference) {
  const auto *payload = static_cast<const std::byte *>(mts_payload_get(reference));
  return {.sender = sender_of(reference),
          .minor = 0,
          .opcode = mts_opc_get(reference),
          .bytes = {payload, payload == nullptr ? 0 : mts_payload_size(reference)},
          .reference = reference,
          .wants_answer = rsw::mts_is_request(reference)};
}

}  // namespace

std::unique_ptr<MtsTransport> MtsTransport::open(uint32_t *queue, uint32_t sap, std::string *reason) {
  if (ip_init_mts(queue, static_cast<int32_t>(sap)) == 0) {
    *reason = "SAP " + std::to_string(sap) + " cannot be bound: " + strerror(errno);
    return nullptr;
  }
  std::unique_ptr<MtsTransport> made(new MtsTransport(queue));
  // The library opened it and did not look whether that worked; once more does no harm.
  if (mts_recv_q_unblock(*queue) != 0) {
    *reason = "SAP " + std::to_string(sap) + " cannot be listened on: " + strerror(errno);
    return nullptr;
  }
  rsw::mts_set_patience(*queue, 0);
  rsw::mts_watch_peers(*queue, true);
  return made;
}

MtsTransport::~MtsTransport() {
  mts_unbind(queue_, 0);
  queue_ = no_queue;
}

int MtsTransport::descriptor() const {
  return mts_queue_fd(queue_);
}

MtsTransport::Reading MtsTransport::read(size_t most, const std::function<void(const Request &)> &arrived,
                                         const std::function<void(const Sender &)> &gone, std::string *reason) {
  for (size_t taken = 0; taken < most; ++taken) {
    mts_msg_ref_t reference = nullptr;
    if (mts_recv_now(queue_, &reference) < 0) {
      if (errno == EAGAIN) return Reading::empty;
      // The other one: somebody to whom we sent something is gone.
      if (errno == EINTR || errno == ECONNRESET) continue;
      // Of memory: what has come is still there, and read as soon as there is some.
      if (errno == ENOMEM || errno == ENOBUFS) return Reading::empty;
      *reason = std::string("messages cannot be received: ") + strerror(errno);
      return Reading::broken;
    }
    if (rsw::mts_is_gone(reference)) {
      gone(sender_of(reference));
    } else {
      arrived(request_of(reference));
    }
    mts_drop(queue_, reference);
  }
  return Reading::more;
}

bool MtsTransport::sender_in_group(const Request &request, uint32_t gid) {
  return rsw::mts_sender_in_group(request.reference, gid);
}

int MtsTransport::send(const Sender &to, uint32_t opcode, std::span<const std::byte> message) {
  return send(to, opcode, message, {});
}

int MtsTransport::send(const Sender &to, uint32_t opcode, std::span<const std::byte> message,
                       std::span<const std::byte> packet) {
  const rsw::MtsSender receiver{.pid = to.pid, .uid = to.uid, .gid = 0, .sap = to.sap};
  mts_send_opts options{};
  options.w[0] = 1;
  // It is only read.
  mts_iovec piece{.base = const_cast<std::byte *>(packet.data()), .len = static_cast<uint32_t>(packet.size())};
  if (!packet.empty()) {
    options.w[1] = 1;
    mts_send_opts_set_vector(&options, &piece);
  }
  return error_of(
      rsw::mts_send_back(queue_, receiver, opcode, message.data(), static_cast<uint32_t>(message.size()), &options));
}

int MtsTransport::answer(const Request &request, std::span<const std::byte> message) {
  return error_of(
      rsw::mts_reply(queue_, request.reference, request.opcode, message.data(), static_cast<uint32_t>(message.size())));
}

void MtsTransport::hang_up(const Request &request) {
  rsw::mts_hang_up(queue_, request.reference);
}

int MtsTransport::reject(const Request &request) {
  return error_of(rsw::mts_reject(queue_, request.reference));
}

}  // namespace ipd::control
