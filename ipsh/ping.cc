// SPDX-License-Identifier: Apache-2.0
// Nobody tells a client what became of a packet that it handed over; but a capture of this process's own packets does,
// and whether it may be had is the same right as that to send.
#include "ping.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "capture_stream.h"
#include "holder.h"
#include "ip_api.h"
#include "ip_packet.h"
#include "mbuf/buffers.h"
#include "mts.h"

namespace ipsh {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint8_t icmp = 1;

Clock::duration seconds_of(double seconds) {
  return std::chrono::ceil<Clock::duration>(std::chrono::duration<double>(seconds));
}

// This process registered for ICMP, with a queue for its packets.
class PingClient {
 public:
  static std::unique_ptr<PingClient> open(Failure *failure) {
    std::unique_ptr<PingClient> client(new PingClient);
    if (!client->control_.bound() || !client->data_.bound()) {
      *failure = no_queue_failure(errno);
      return nullptr;
    }
    // Packets come and go inside the messages: nobody's buffers are shared.
    ip_client_set_flags(0);
    std::string name = fmt::format("ipsh ping {}", getpid());
    if (ip_register(name.c_str(), client->data_.handle(), client->control_.handle(), icmp, 0, &ip_client, 0, 0) == 0) {
      *failure = {ExitCode::permission, "ping: ipd does not take this process as a client",
                  "the read_group of ipd's configuration says who may register, see ipd.conf(5)"};
      return nullptr;
    }
    client->name_ = std::move(name);
    return client;
  }
  ~PingClient() {
    if (!name_.empty()) ip_deregister(name_.c_str(), icmp, &ip_client);
  }
  PingClient(const PingClient &) = delete;
  PingClient &operator=(const PingClient &) = delete;

  [[nodiscard]] int descriptor() const { return mts_queue_fd(data_.handle()); }

  static bool send(uint32_t iod, const std::vector<uint8_t> &packet) {
    struct mbuf *buffers = rsw::make_packet(packet);
    if (buffers == nullptr) return false;
    if (ip_cl_icmp_output(iod, buffers, 0, &ip_client, 0) != 0) return true;
    m_freem(buffers);
    return false;
  }

  enum class Next { packet, nothing, ipd_gone };
  Next next(std::vector<uint8_t> *packet) {
    for (;;) {
      mts_msg_ref_t message = nullptr;
      if (mts_recv_now(data_.handle(), &message) != 0) {
        if (errno == EINTR) continue;
        return errno == EAGAIN ? Next::nothing : Next::ipd_gone;
      }
      const auto *payload = static_cast<const uint8_t *>(mts_payload_get(message));
      const size_t size = payload == nullptr ? 0 : mts_payload_size(message);
      const bool good = size > sizeof(ip_msg_input) && mts_opc_get(message) == IP_OPCODE_PACKET;
      if (good) packet->assign(payload + sizeof(ip_msg_input), payload + size);
      mts_drop(data_.handle(), message);
      if (good) return Next::packet;
    }
  }

 private:
  PingClient() = default;
  AskingQueue control_, data_;
  std::string name_;  // of the registration; empty: none
};

class Pinging {
 public:
  Pinging(const PingOrder &order, const PingOutput &output, PingClient &client, CaptureStream &outcomes)
      : order_(order), output_(output), client_(client), outcomes_(outcomes) {}

  // False: *failure.
  bool run(const EndSignals &signals, Failure *failure) {
    next_send_ = Clock::now();
    while (!signals.pending()) {
      if (!look(failure)) return false;
      const auto now = Clock::now();
      if (may_send() && now >= next_send_) {
        send(now);
        continue;
      }
      if (!may_send() && (book_.settled() || now >= end_)) return true;
      const auto left = (may_send() ? next_send_ : end_) - now;
      const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
      std::array<pollfd, 3> events{
          {{client_.descriptor(), POLLIN, 0}, {outcomes_.descriptor(), POLLIN, 0}, {signals.descriptor(), POLLIN, 0}}};
      (void)poll(events.data(), events.size(), static_cast<int>(std::clamp<int64_t>(milliseconds, 0, 1000)));
    }
    return true;
  }
  [[nodiscard]] EchoStatistics statistics() const { return book_.statistics(); }

 private:
  [[nodiscard]] bool may_send() const { return !order_.count || sent_ < *order_.count; }

  void send(Clock::time_point now) {
    const auto sequence = static_cast<uint16_t>(++sent_);
    book_.sent(sequence, now);
    const bool taken = PingClient::send(
        order_.iod,
        build_echo({.destination = order_.destination, .id = id_, .sequence = sequence, .data = order_.data}));
    if (!taken) not_sent(sequence, IP_SHOW_PACKET_QUEUE_FULL);
    next_send_ = std::max(next_send_ + seconds_of(order_.interval), now);
    end_ = now + seconds_of(order_.wait);
  }

  void not_sent(uint16_t sequence, uint32_t outcome) {
    if (!book_.failed(sequence, false)) return;
    output_.event({.kind = PingEventKind::not_sent, .news = {.sequence = sequence}, .outcome = outcome});
  }

  void take(const EchoNews &news) {
    if (news.is_reply()) {
      const auto answer = book_.answered(news.sequence, Clock::now());
      if (!answer) return;
      output_.event({.kind = answer->duplicate ? PingEventKind::duplicate : PingEventKind::reply,
                     .news = news,
                     .milliseconds = answer->milliseconds});
    } else if (book_.failed(news.sequence, true)) {
      output_.event({.kind = PingEventKind::error, .news = news});
    }
  }

  bool look(Failure *failure) {
    std::vector<uint8_t> packet;
    PingClient::Next arrived = client_.next(&packet);
    for (; arrived == PingClient::Next::packet; arrived = client_.next(&packet)) {
      if (const auto news = read_echo_news(packet, id_)) take(*news);
    }
    CapturedPacket captured;
    CaptureStream::Next told = outcomes_.next(&captured);
    for (; told == CaptureStream::Next::packet; told = outcomes_.next(&captured)) {
      const auto sequence = echo_sequence(captured.bytes, id_);
      if (sequence && captured.outcome != IP_SHOW_PACKET_DONE) not_sent(*sequence, captured.outcome);
    }
    if (arrived == PingClient::Next::nothing && told == CaptureStream::Next::nothing) return true;
    *failure = {ExitCode::unavailable, "ping: ipd is gone", "ping again when it is back"};
    return false;
  }

  const PingOrder &order_;
  const PingOutput &output_;
  PingClient &client_;
  CaptureStream &outcomes_;
  const uint16_t id_ = static_cast<uint16_t>(getpid());
  EchoBook book_;
  uint32_t sent_ = 0;
  Clock::time_point next_send_, end_;
};

}  // namespace

const char *to_text(PingEventKind kind) {
  constexpr std::array names{"reply", "duplicate", "error", "not-sent"};
  return names.at(static_cast<size_t>(kind));
}

ExitCode ping(const PingOrder &order, const PingOutput &output, Failure *failure) {
  const EndSignals signals;
  const auto outcomes = CaptureStream::open({.snap_len = 60 + echo_overhead,
                                             .directions = IP_SHOW_FROM_CLIENT,
                                             .iod = 0,
                                             .protocol = icmp,
                                             .client = static_cast<uint32_t>(getpid())},
                                            failure);
  if (outcomes == nullptr) {
    if (failure->code == ExitCode::permission) {
      *failure = {ExitCode::permission, "ping: ipd sends no packets for this user, or takes none",
                  "root, ipd's own user and the group that its configuration names may send"};
    }
    return failure->code;
  }
  const auto client = PingClient::open(failure);
  if (client == nullptr) return failure->code;
  Pinging pinging(order, output, *client, *outcomes);
  output.start(order);
  if (!pinging.run(signals, failure)) return failure->code;
  const EchoStatistics statistics = pinging.statistics();
  output.end(order, statistics);
  return statistics.answered == 0 ? ExitCode::none : ExitCode::found;
}

}  // namespace ipsh
