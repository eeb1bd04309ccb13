// SPDX-License-Identifier: Apache-2.0
// Everything that packets leave by.
#ifndef IPD_PACKET_SENDERS_H
#define IPD_PACKET_SENDERS_H

#include <memory>

#include "ipd/control/box.h"
#include "ipd/event_loop.h"
#include "ipd/kernel/neighbors.h"
#include "ipd/kernel/packet_output.h"
#include "ipd/kernel/picture.h"
#include "ipd/kernel/raw_output.h"
#include "ipd/kernel/route_query.h"
#include "ipd/packet/ip_output.h"
#include "ipd/packet/links.h"
#include "ipd/packet/neighbor_output.h"
#include "ipd/packet/output_l2.h"
#include "ipd/packet/output_message.h"
#include "ipd/packet/service.h"

namespace ipd {

class PacketSenders {
 public:
  // All of them outlive it.
  PacketSenders(const control::Box &box, const kernel::Picture &picture, EventLoop &loop);
  PacketSenders(const PacketSenders &) = delete;
  PacketSenders &operator=(const PacketSenders &) = delete;

  // It has to outlive the service from then on.
  void add_to(packet::Service &service);
  [[nodiscard]] packet::Output &output() { return output_; }
  [[nodiscard]] const packet::NeighborOutput &neighbors() const { return neighbor_output_; }
  void tick();

 private:
  void read_neighbors();

  packet::KernelLinks links_;
  std::unique_ptr<kernel::RouteQuery> routes_;
  std::unique_ptr<kernel::RawOutput> raw_;
  std::unique_ptr<kernel::PacketOutput> frames_;
  std::unique_ptr<kernel::Neighbors> neighbors_;
  packet::NeighborOutput neighbor_output_;
  packet::FramedOutput framed_;
  packet::Identifications identifications_;
  packet::IpOutput output_;
  packet::OutputMessage message_;
  packet::OutputL2 l2_;
};

}  // namespace ipd

#endif
