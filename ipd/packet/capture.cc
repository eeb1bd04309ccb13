// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/capture.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ipd/control/reply.h"

namespace ipd::packet {
namespace {

constexpr uint32_t both_directions = IP_SHOW_FROM_CLIENT | IP_SHOW_TO_CLIENT;
constexpr size_t shortest_header = 20;
constexpr size_t protocol_at = 9;

uint32_t direction_of(const Passed &what) {
  return what.to_client ? IP_SHOW_TO_CLIENT : IP_SHOW_FROM_CLIENT;
}

bool is_of_protocol(std::span<const std::byte> packet, uint32_t protocol) {
  return packet.size() >= shortest_header && (packet[0] >> 4) == std::byte{4} &&
         std::to_integer<uint32_t>(packet[protocol_at]) == protocol;
}

}  // namespace

uint32_t Capture::begin(const control::Sender &sender, const ip_msg_capture &message) {
  if (captures_.size() >= most_captures && !captures_.contains(sender.sap)) return IP_CAPTURE_LIMIT;
  captures_[sender.sap] = {.pid = sender.pid,
                           .snap_len = message.snap_len == 0 ? UINT32_MAX : message.snap_len,
                           .directions = message.directions == 0 ? both_directions : message.directions,
                           .iod = message.iod,
                           .protocol = message.protocol,
                           .client = message.pid};
  return IP_CAPTURE_DONE;
}

control::Refusal Capture::handle(const control::Request &request) {
  const auto message = request.as<ip_msg_capture>();
  const uint32_t sap = request.sender.sap;
  if (!request.wants_answer || sap == 0 || (message.directions & ~both_directions) != 0 ||
      message.protocol > IP_CAPTURE_ANY_PROTOCOL) {
    return control::Refusal::bad_field;
  }
  ip_msg_capture_reply reply{};
  switch (message.action) {
    case IP_CAPTURE_BEGIN:
      reply.status = begin(request.sender, message);
      break;
    case IP_CAPTURE_END:
      if (captures_.erase(sap) == 0) return control::Refusal::not_registered;
      break;
    default:
      return control::Refusal::bad_field;
  }
  reply.header = control::reply_header(request.minor);
  reply.captures = static_cast<uint32_t>(captures_.size());
  if (transport_.answer(request, std::as_bytes(std::span(&reply, 1))) != 0) {
    // Nobody knows of it.
    captures_.erase(sap);
    return control::Refusal::no_answer;
  }
  return reply.status == IP_CAPTURE_LIMIT ? control::Refusal::limit : control::Refusal::none;
}

void Capture::process_gone(int32_t pid) {
  std::erase_if(captures_, [pid](const auto &entry) { return entry.second.pid == pid; });
}

void Capture::queue_gone(const control::Sender &sender) {
  captures_.erase(sender.sap);
}

bool Capture::wanted(const Wanted &capture, const Passed &what, std::span<const std::byte> packet) {
  return (capture.directions & direction_of(what)) != 0 && (capture.iod == 0 || capture.iod == what.iod) &&
         (capture.client == 0 || capture.client == static_cast<uint32_t>(what.pid)) &&
         (capture.protocol == IP_CAPTURE_ANY_PROTOCOL || is_of_protocol(packet, capture.protocol));
}

bool Capture::tell(uint32_t sap, Wanted &capture, const Passed &what, const timespec &now,
                   std::span<const std::byte> packet) {
  // A message is longer than any packet, but a caller's span may be anything.
  const size_t room = std::min<size_t>(capture.snap_len, IP_MAX_IPC_PAYLOAD - sizeof(ip_msg_captured));
  const std::span<const std::byte> first = packet.first(std::min(packet.size(), room));
  const auto seconds = static_cast<uint64_t>(now.tv_sec);
  ip_msg_captured record{};
  record.header = control::reply_header(IP_MSG_CAPTURED);
  record.seconds[0] = static_cast<uint32_t>(seconds);
  record.seconds[1] = static_cast<uint32_t>(seconds >> 32);
  record.nanoseconds = static_cast<uint32_t>(now.tv_nsec);
  record.dropped = capture.dropped;
  record.direction = direction_of(what);
  record.client = static_cast<uint32_t>(what.pid);
  record.minor = what.minor;
  record.iod = what.iod;
  record.outcome = static_cast<uint32_t>(what.outcome);
  record.packet_len = static_cast<uint32_t>(packet.size());
  record.captured_len = static_cast<uint32_t>(first.size());
  const auto fixed = std::as_bytes(std::span(&record, 1));
  record_.assign(fixed.begin(), fixed.end());
  record_.insert(record_.end(), first.begin(), first.end());
  switch (transport_.send({.pid = capture.pid, .uid = 0, .sap = sap}, IP_OPCODE_CLIENT, record_)) {
    case 0:
      capture.dropped = 0;
      return true;
    case ECONNREFUSED:
    case ECONNRESET:
      return false;
    default:
      if (capture.dropped != UINT32_MAX) ++capture.dropped;
      return true;
  }
}

void Capture::passed(const Passed &what, std::span<const std::byte> packet) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  for (auto each = captures_.begin(); each != captures_.end();) {
    auto &[sap, capture] = *each;
    const bool lives = !wanted(capture, what, packet) || tell(sap, capture, what, now, packet);
    each = lives ? std::next(each) : captures_.erase(each);
  }
}

}  // namespace ipd::packet
