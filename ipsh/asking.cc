// SPDX-License-Identifier: Apache-2.0
#include "asking.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "ip_api.h"
#include "mts.h"
#include "sm/run_dir.h"

namespace ipsh {
namespace {

Failure why_not(const std::string &what, int error) {
  const bool denied = error == EACCES || error == EPERM;
  return {denied ? ExitCode::permission : ExitCode::unavailable, fmt::format("{}: {}", what, std::strerror(error)),
          denied               ? "run ipsh as a user who may use the run directory"
          : error == ETIMEDOUT ? "it is stopped, or busy: see ipsh doctor"
                               : "start ipd, or look at its log"};
}

bool receive(uint32_t queue, uint32_t token, uint32_t wait_seconds, const Failure &when_rejected,
             std::vector<std::byte> *answer, Failure *failure) {
  mts_recv_opts options{};
  options.w[0] = 1;
  options.w[2] = wait_seconds;
  options.w[3] = token;
  mts_msg_ref_t received = nullptr;
  int32_t status = mts_recv(queue, &received, &options);
  while (status != 0 && errno == EINTR) status = mts_recv(queue, &received, &options);
  if (status != 0) {
    *failure = why_not("ipd does not answer", errno);
    return false;
  }
  const bool rejected = mts_is_reject(received) == 1;
  if (!rejected) {
    const auto *payload = static_cast<const std::byte *>(mts_payload_get(received));
    answer->assign(payload, payload + (payload == nullptr ? 0 : mts_payload_size(received)));
  }
  mts_drop(queue, received);
  if (rejected) *failure = when_rejected;
  return !rejected;
}

}  // namespace

AskingQueue::AskingQueue() {
  ip_init_mts(&handle_, -1);
}

AskingQueue::~AskingQueue() {
  if (bound()) mts_unbind(handle_, 0);
}

Failure no_queue_failure(int error) {
  return why_not(fmt::format("no message queue in {}", rsw::run_directory()), error);
}

bool ask_ipd(uint32_t queue, std::span<const std::byte> question, const Failure &rejected,
             std::vector<std::byte> *answer, Failure *failure, uint32_t wait_seconds) {
  mts_msg_ref_t sent = nullptr;
  // It is only read.
  auto *payload = const_cast<std::byte *>(question.data());
  if (mts_send(queue, IP_NODE_LOCAL, IP_SAP_CONTROL, IP_OPCODE_CLIENT, payload, static_cast<uint32_t>(question.size()),
               &sent, 0, nullptr) != 0) {
    *failure = why_not("ipd is not reached", errno);
    return false;
  }
  const uint32_t token = mts_rr_token_get(sent);
  mts_drop(queue, sent);
  return receive(queue, token, wait_seconds, rejected, answer, failure);
}

}  // namespace ipsh
