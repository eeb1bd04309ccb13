// SPDX-License-Identifier: Apache-2.0
// As with requests, nothing in a message is believed before it was compared, and the sender is whom the kernel names.
//
// A packet that came by reference is ours from the moment that the message was sent, so it is taken over whatever
// becomes of the message; only one whose message cannot be read stays behind until its owner dies.
//
// Packets that are lost on their way are everyday life, and only counted. A message that no library sends, or that its
// sender may not send, costs one line of the log for each process and reason.
#include "ipd/packet/service.h"

#include <algorithm>
#include <cstring>

#include "ip_packet.h"
#include "ipd/process/log.h"
#include "probe.h"

namespace ipd::packet {
namespace {

constexpr size_t reference_at = offsetof(ip_msg_output, packet_ref);
constexpr size_t least_header = 20;
constexpr size_t most_logged = 4096;

template <class Word>
Word word_at(std::span<const std::byte> bytes, size_t place) {
  Word word = 0;
  if (place + sizeof word <= bytes.size()) std::memcpy(&word, bytes.data() + place, sizeof word);
  return word;
}

uint16_t network_word_at(std::span<const std::byte> bytes, size_t place) {
  return static_cast<uint16_t>(std::to_integer<unsigned>(bytes[place]) << 8 |
                               std::to_integer<unsigned>(bytes[place + 1]));
}

// Bytes of the packet without what stands behind it, as in a short frame. 0: it is none.
size_t packet_size(std::span<const std::byte> bytes) {
  if (bytes.size() < least_header || bytes.size() > longest_packet) return 0;
  const auto first = std::to_integer<unsigned>(bytes[0]);
  const size_t header = size_t{first & 15} * 4;
  if (first >> 4 != 4 || header < least_header || header > bytes.size()) return 0;
  const size_t total = network_word_at(bytes, 2);
  if (total == 0) return bytes.size();
  return total < header || total > bytes.size() ? 0 : total;
}

bool is_misuse(Outcome outcome) {
  return outcome >= Outcome::too_short && outcome <= Outcome::bad_length;
}
static_assert(Outcome::bad_length < Outcome::bad_packet && Outcome::not_allowed < Outcome::bad_length);

}  // namespace

Service::Service(References &references, Allowed allowed)
    : references_(references), allowed_(std::move(allowed)), packet_(longest_packet) {
  counts_[0];
  for (const MessageKind &kind : message_kinds()) counts_[kind.minor];
}

void Service::add(Handler &handler, std::initializer_list<uint16_t> minors) {
  for (const uint16_t minor : minors) by_minor_[minor] = &handler;
}

Outcome Service::check(const control::Request &message, const MessageKind **kind) const {
  const std::span<const std::byte> bytes = message.bytes;
  if (bytes.size() < offsetof(ip_msg_header, pid)) return Outcome::too_short;
  if (word_at<uint16_t>(bytes, offsetof(ip_msg_header, major_type)) != IP_MAJOR_CLIENT) return Outcome::wrong_major;
  *kind = find_message(word_at<uint16_t>(bytes, offsetof(ip_msg_header, minor_type)));
  if (*kind == nullptr) return Outcome::unknown_minor;
  if (bytes.size() < (*kind)->size) return Outcome::too_short;
  if (!(*kind)->has_packet && bytes.size() > (*kind)->size) return Outcome::too_long;
  if (message.opcode != IP_OPCODE_PACKET) return Outcome::wrong_opcode;
  return Outcome::done;
}

Outcome Service::bring_packet(const control::Request &message, const MessageKind &kind, Request *request) {
  const std::span<const std::byte> behind = message.bytes.subspan(kind.size);
  const auto reference = word_at<uint32_t>(message.bytes, reference_at);
  size_t length = behind.size();
  if (reference != 0) {
    const Outcome taken = references_.take(reference, message.sender.pid, packet_, &length);
    if (taken != Outcome::done) return taken;
    if (!behind.empty()) return Outcome::too_long;
  } else {
    if (length > packet_.size()) return Outcome::bad_packet;
    if (length > 0) std::memcpy(packet_.data(), behind.data(), length);
  }
  if (word_at<uint16_t>(message.bytes, kind.length_at) != static_cast<uint16_t>(length)) return Outcome::bad_length;
  request->packet = std::span(packet_).first(length);
  const size_t size = packet_size(request->packet);
  if (size == 0) return Outcome::bad_packet;
  request->packet = request->packet.first(size);
  return Outcome::done;
}

void Service::receive(const control::Request &message) {
  const MessageKind *kind = nullptr;
  Outcome outcome = check(message, &kind);
  Request request{.sender = message.sender, .minor = 0, .message = {}, .packet = {}};
  // What has a good size names its packet where it should.
  if (kind != nullptr && message.bytes.size() >= kind->size) {
    request.minor = kind->minor;
    request.message = message.bytes.first(kind->size);
    const Outcome brought = kind->has_packet ? bring_packet(message, *kind, &request) : Outcome::done;
    if (outcome == Outcome::done && (message.sender.pid <= 0 || !allowed_(message))) outcome = Outcome::not_allowed;
    if (outcome == Outcome::done) outcome = brought;
  }
  const bool tapped = kind != nullptr && std::ranges::any_of(taps_, [](const Tap *tap) { return tap->wants(); });
  if (tapped) as_it_came_.assign(request.packet.begin(), request.packet.end());
  const size_t bytes = request.packet.size();
  const auto handler = kind == nullptr ? by_minor_.end() : by_minor_.find(kind->minor);
  if (outcome == Outcome::done) {
    outcome = handler == by_minor_.end() ? Outcome::unknown_minor : handler->second->handle(request);
  }
  count(kind, bytes, outcome);
  RSW_PROBE4(ipd, packet_message, message.sender.pid, request.minor, bytes, static_cast<int>(outcome));
  if (tapped) {
    const uint32_t iod = kind->iod_at == 0 ? 0 : word_at<uint32_t>(message.bytes, kind->iod_at);
    tell({.to_client = false, .pid = message.sender.pid, .minor = kind->minor, .iod = iod, .outcome = outcome},
         as_it_came_);
  }
  if (is_misuse(outcome)) log_refusal(message, kind, outcome);
}

void Service::count(const MessageKind *kind, size_t bytes, Outcome outcome) {
  MessageCounts &counts = counts_[kind == nullptr ? uint16_t{0} : kind->minor];
  ++counts.received;
  counts.bytes += bytes;
  ++counts.by_outcome[static_cast<size_t>(outcome)];
}

void Service::delivered(int32_t pid, uint32_t iod, Outcome outcome, std::span<const std::byte> packet) {
  ++deliveries_.received;
  deliveries_.bytes += packet.size();
  RSW_PROBE4(ipd, packet_delivered, pid, iod, packet.size(), static_cast<int>(outcome));
  ++deliveries_.by_outcome[static_cast<size_t>(outcome)];
  tell({.to_client = true, .pid = pid, .minor = IP_MSG_INPUT, .iod = iod, .outcome = outcome}, packet);
}

void Service::tell(const Passed &what, std::span<const std::byte> packet) {
  for (Tap *tap : taps_) {
    if (tap->wants()) tap->passed(what, packet);
  }
}

void Service::log_refusal(const control::Request &message, const MessageKind *kind, Outcome outcome) {
  const control::Sender &sender = message.sender;
  if (logged_.size() >= most_logged) logged_.clear();
  if (!logged_.emplace(sender.pid, outcome).second) return;
  log_line(LOG_WARNING, "refused from process %d (user %u, SAP %u): %s, %zu bytes: %s", sender.pid, sender.uid,
           sender.sap, kind == nullptr ? "a message" : kind->name, message.bytes.size(), outcome_text(outcome));
}

void Service::process_gone(int32_t pid) {
  std::erase_if(logged_, [pid](const auto &line) { return line.first == pid; });
}

}  // namespace ipd::packet
