// SPDX-License-Identifier: Apache-2.0
#include "capture_stream.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "mts.h"

namespace ipsh {
namespace {

const Failure not_allowed{ExitCode::permission, "ipd does not show packets to this user, or takes none",
                          "root, ipd's own user and the group that its configuration names may look at them"};

ip_msg_capture message_for(const CaptureFilter &filter) {
  ip_msg_capture message{};
  message.header.major_type = IP_MAJOR_CLIENT;
  message.header.minor_type = IP_MSG_CAPTURE;
  message.header.pid = static_cast<uint32_t>(getpid());
  message.action = IP_CAPTURE_BEGIN;
  message.snap_len = filter.snap_len;
  message.directions = filter.directions;
  message.iod = filter.iod;
  message.protocol = filter.protocol;
  message.pid = filter.client;
  return message;
}

}  // namespace

bool parse_captured(std::span<const std::byte> message, CapturedPacket *packet) {
  ip_msg_captured record{};
  if (message.size() < sizeof record) return false;
  std::memcpy(&record, message.data(), sizeof record);
  const auto bytes = message.subspan(sizeof record);
  if (record.header.major_type != IP_MAJOR_CLIENT || record.header.minor_type != IP_MSG_CAPTURED ||
      record.captured_len != bytes.size() || record.captured_len > record.packet_len ||
      record.nanoseconds >= 1000000000) {
    return false;
  }
  const auto *first = reinterpret_cast<const uint8_t *>(bytes.data());
  *packet = {.seconds = record.seconds[0] | (uint64_t{record.seconds[1]} << 32),
             .nanoseconds = record.nanoseconds,
             .dropped = record.dropped,
             .to_client = record.direction == IP_SHOW_TO_CLIENT,
             .client = record.client,
             .minor = record.minor,
             .iod = record.iod,
             .outcome = record.outcome,
             .length = record.packet_len,
             .bytes = {first, first + bytes.size()}};
  return true;
}

std::unique_ptr<CaptureStream> CaptureStream::open(const CaptureFilter &filter, Failure *failure) {
  std::unique_ptr<CaptureStream> stream(new CaptureStream);
  if (!stream->queue_.bound()) {
    *failure = no_queue_failure(errno);
    return nullptr;
  }
  const ip_msg_capture message = message_for(filter);
  std::vector<std::byte> answer;
  if (!ask_ipd(stream->queue_.handle(), std::as_bytes(std::span(&message, 1)), not_allowed, &answer, failure)) {
    return nullptr;
  }
  ip_msg_capture_reply reply{};
  if (answer.size() < sizeof reply) {
    *failure = {ExitCode::unavailable, "ipd's answer makes no sense", "use an ipsh of the same version"};
    return nullptr;
  }
  std::memcpy(&reply, answer.data(), sizeof reply);
  if (reply.status != IP_CAPTURE_DONE) {
    *failure = {ExitCode::unavailable, "there are as many captures as ipd makes at a time", "end one of them"};
    return nullptr;
  }
  return stream;
}

int CaptureStream::descriptor() const {
  return mts_queue_fd(queue_.handle());
}

CaptureStream::Next CaptureStream::next(CapturedPacket *packet) {
  for (;;) {
    mts_msg_ref_t message = nullptr;
    if (mts_recv_now(queue_.handle(), &message) != 0) {
      if (errno == EINTR) continue;
      return errno == EAGAIN ? Next::nothing : Next::ipd_gone;
    }
    const auto *payload = static_cast<const std::byte *>(mts_payload_get(message));
    const size_t size = payload == nullptr ? 0 : mts_payload_size(message);
    const bool good = parse_captured({payload, size}, packet);
    mts_drop(queue_.handle(), message);
    if (good) return Next::packet;
  }
}

}  // namespace ipsh
