// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet_senders.h"

#include <string>

#include "ip_packet.h"
#include "ipd/process/log.h"

namespace ipd {

PacketSenders::PacketSenders(const control::Box &box, const kernel::Picture &picture, EventLoop &loop)
    : links_(picture),
      routes_(kernel::RouteQuery::over_rtnetlink()),
      raw_(kernel::RawOutput::over_raw_socket()),
      frames_(kernel::PacketOutput::over_packet_socket()),
      neighbors_(kernel::Neighbors::over_rtnetlink()),
      neighbor_output_(*neighbors_, *frames_),
      framed_(*frames_, neighbor_output_),
      output_(box, links_, *routes_, *raw_, framed_, identifications_),
      message_(output_),
      l2_(box, links_, framed_, identifications_) {
  // Without news the clock finds neighbours, if later.
  std::string reason = "no netlink socket";
  const int news = neighbors_->descriptor();
  if (news < 0 || !loop.watch(
                      news, [this] { read_neighbors(); }, &reason)) {
    log_line(LOG_WARNING, "neighbours are not followed: %s", reason.c_str());
  }
}

void PacketSenders::add_to(packet::Service &service) {
  service.add(message_, {IP_MSG_OUTPUT});
  service.add(l2_, {IP_MSG_OUTPUT_L2, IP_MSG_OUTPUT_L2_DCE, IP_MSG_OUTPUT_L2_MVR});
}

void PacketSenders::read_neighbors() {
  const bool whole = neighbors_->read([this](const kernel::Neighbor &neighbor) { neighbor_output_.changed(neighbor); });
  if (!whole) neighbor_output_.look_again();
}

void PacketSenders::tick() {
  neighbor_output_.tick(packet::NeighborOutput::Clock::now());
}

}  // namespace ipd
