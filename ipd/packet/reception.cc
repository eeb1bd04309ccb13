// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/reception.h"

#include <cstring>

#include "ipd/packet/ipv4.h"
#include "ipd/process/log.h"

namespace ipd::packet {
namespace {

// The kernel looked at it, too, but what it hands over is not what it looked at when somebody cuts it.
bool is_whole(std::span<const std::byte> packet) {
  if (packet.size() < ipv4::shortest_header || ipv4::version(packet) != 4) return false;
  const size_t header = ipv4::header_length(packet);
  return header >= ipv4::shortest_header && header <= packet.size() && ipv4::total_length(packet) == packet.size();
}

}  // namespace

void Reception::want(uint8_t protocol, bool wanted) {
  if (wanted) return open(protocol);
  missing_.erase(protocol);
  sockets_.close(protocol);
}

// Often a failure is one for all protocols: it is said once until something goes well.
void Reception::open(uint8_t protocol) {
  const int error = sockets_.open(protocol);
  if (error == 0) {
    missing_.erase(protocol);
    said_.reset();
    return;
  }
  missing_.insert(protocol);
  if (said_ == error) return;
  log_line(LOG_WARNING, "no packets of protocol %u are received: %s", protocol, strerror(error));
  said_ = error;
}

void Reception::tick(Clock::time_point now) {
  if (missing_.empty() || now < next_retry_) return;
  next_retry_ = now + retry_period;
  for (const uint8_t protocol : std::set(missing_)) open(protocol);
}

void Reception::read() {
  sockets_.read(packets_in_a_row, [this](const kernel::RawPacket &packet) { take(packet); });
}

Reception::Place Reception::place_of(uint32_t ifindex) {
  const auto [known, fresh] = places_.try_emplace(ifindex);
  if (fresh) {
    const auto facts = box_.interface_by_ifindex(ifindex);
    if (facts) known->second = {.iod = facts->iod, .context_id = facts->state.context_id};
  }
  return known->second;
}

void Reception::take(const kernel::RawPacket &packet) {
  if (ignored_ != 0 && packet.ifindex == ignored_) {
    ++counts_.reentered;
    return;
  }
  const Place place = place_of(packet.ifindex);
  if (packet.truncated || !is_whole(packet.bytes)) {
    ++counts_.malformed;
    return dropped_(place.iod, Outcome::bad_packet, packet.bytes);
  }
  if (place.iod == 0) {
    ++counts_.unknown_interface;
    return dropped_(0, Outcome::no_interface, packet.bytes);
  }
  ++counts_.received;
  (void)delivery_.deliver({.iod = place.iod, .context_id = place.context_id, .from_kernel = true}, packet.bytes);
}

}  // namespace ipd::packet
