// SPDX-License-Identifier: Apache-2.0
#include "holder.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "ip_api.h"
#include "mts.h"
#include "mts/mts_server.h"

namespace ipsh {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t local_node = 0xfe000000;
constexpr uint32_t end_opcode = 0x49504853;  // of messages between two processes of ipsh
constexpr uint32_t answer_seconds = 2;       // a holder that is stopped does not keep others waiting

// Both ends are one program of one machine, perhaps of two versions.
struct EndMessage {
  uint32_t size;
  uint32_t kind;  // RequestKind of what is held
  uint32_t iod, group, source;
};
static_assert(sizeof(EndMessage) == 20);

enum Answer : uint32_t { ended = 1, denied_to_user = 2 };

EndMessage message_for(const RequestRow &row) {
  return {sizeof(EndMessage), static_cast<uint32_t>(row.kind), row.iod, row.group, row.source};
}

sigset_t end_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// Whether a message asks for the end of what is held here. It may come from any process.
bool asks_for(const RequestRow &row, mts_msg_ref_t message) {
  const EndMessage wanted = message_for(row);
  const void *payload = mts_payload_get(message);
  return mts_opc_get(message) == end_opcode && rsw::mts_is_request(message) && payload != nullptr &&
         mts_payload_size(message) == sizeof wanted && std::memcmp(payload, &wanted, sizeof wanted) == 0;
}

bool may_end(mts_msg_ref_t message) {
  rsw::MtsSender sender{};
  return rsw::mts_sender(message, &sender) && (sender.uid == 0 || sender.uid == geteuid());
}

// Whoever asks for something else is told that it is not here.
bool answer(const Client &client, const RequestRow &row, mts_msg_ref_t message, void (*release)(const RequestRow &)) {
  const bool asked = asks_for(row, message);
  const bool granted = asked && may_end(message);
  if (granted) release(row);
  const uint32_t word = granted ? ended : denied_to_user;
  if (asked) {
    rsw::mts_reply(client.queue(), message, end_opcode, &word, sizeof word);
  } else if (rsw::mts_is_request(message)) {
    rsw::mts_reject(client.queue(), message);
  }
  mts_drop(client.queue(), message);
  return granted;
}

int milliseconds_left(std::optional<Clock::time_point> end) {
  if (!end) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now());
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 3600000));
}

// One holder. Its answer; 0: it holds something else, or does not answer.
uint32_t ask_to_end(uint32_t queue, uint32_t sap, EndMessage message) {
  mts_msg_ref_t sent = nullptr;
  if (mts_send(queue, local_node, sap, end_opcode, &message, sizeof message, &sent, 0, nullptr) != 0) return 0;
  mts_recv_opts options{{1, 0, answer_seconds, mts_rr_token_get(sent)}};
  mts_msg_ref_t answered = nullptr;
  uint32_t word = 0;
  if (mts_recv(queue, &answered, &options) == 0) {
    const void *payload = mts_payload_get(answered);
    if (payload != nullptr && mts_payload_size(answered) == sizeof word) std::memcpy(&word, payload, sizeof word);
    mts_drop(queue, answered);
  }
  mts_drop(queue, sent);
  return word;
}

}  // namespace

EndSignals::EndSignals() {
  const sigset_t set = end_signals();
  sigprocmask(SIG_BLOCK, &set, nullptr);
  descriptor_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

EndSignals::~EndSignals() {
  if (descriptor_ >= 0) close(descriptor_);
}

bool EndSignals::pending() const {
  pollfd event{descriptor_, POLLIN, 0};
  return poll(&event, 1, 0) == 1;
}

HoldEnd hold(const Client &client, const EndSignals &signals, const RequestRow &row, std::optional<double> seconds,
             void (*release)(const RequestRow &row)) {
  std::optional<Clock::time_point> end;
  if (seconds) end = Clock::now() + std::chrono::ceil<Clock::duration>(std::chrono::duration<double>(*seconds));
  for (;;) {
    mts_msg_ref_t message = nullptr;
    while (mts_recv_now(client.queue(), &message) == 0) {
      if (answer(client, row, message, release)) return HoldEnd::asked;
    }
    // Of all that was sent to, only ipd can have died.
    if (errno != EAGAIN && errno != EINTR) return HoldEnd::ipd_gone;
    pollfd events[2] = {{mts_queue_fd(client.queue()), POLLIN, 0}, {signals.descriptor(), POLLIN, 0}};
    const int left = milliseconds_left(end);
    const bool signalled = poll(events, 2, left) > 0 && events[1].revents != 0;
    if (!signalled && (!end || Clock::now() < *end)) continue;
    release(row);
    return signalled ? HoldEnd::signal : HoldEnd::time;
  }
}

uint32_t end_holders(uint32_t queue, const RequestRow &row, bool *denied) {
  *denied = false;
  uint32_t ended_ones = 0;
  for (const rsw::MtsQueueUse &use : rsw::mts_queues()) {
    if (use.name != holder_queue_name) continue;
    const uint32_t word = ask_to_end(queue, use.sap, message_for(row));
    if (word == ended) ++ended_ones;
    if (word == denied_to_user) *denied = true;
  }
  return ended_ones;
}

}  // namespace ipsh
