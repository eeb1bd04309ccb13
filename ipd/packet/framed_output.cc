// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/framed_output.h"

#include "ipd/packet/fragments.h"

namespace ipd::packet {

std::optional<MacAddress> mapped_destination(uint32_t addr, bool is_broadcast) {
  if (is_broadcast || ipv4::is_limited_broadcast(addr)) return ethernet::everybody;
  if (ipv4::is_multicast(addr)) return ethernet::of_group(addr);
  return std::nullopt;
}

Outcome FramedOutput::send(const FrameWay &way, ipv4::Bytes packet) {
  if (packet.size() <= way.mtu) return send_one(way, packet);
  if (way.unchanged) return Outcome::too_big;
  Fragments fragments(packet, way.mtu);
  if (fragments.outcome() != Outcome::done) return fragments.outcome();
  for (auto fragment = fragments.next(); !fragment.empty(); fragment = fragments.next()) {
    if (const Outcome outcome = send_one(way, fragment); outcome != Outcome::done) return outcome;
  }
  return Outcome::done;
}

Outcome FramedOutput::send_one(const FrameWay &way, ipv4::Bytes packet) {
  const ethernet::Header header{
      .destination = way.destination.value_or(ethernet::nobody), .source = way.source, .tag = way.tag};
  ethernet::build(header, packet, frame_);
  if (way.destination) return frames_.send(way.ifindex, frame_);
  return neighbors_.send({.ifindex = way.ifindex, .addr = way.neighbor}, frame_, NeighborOutput::Clock::now());
}

}  // namespace ipd::packet
