// SPDX-License-Identifier: Apache-2.0
// Packets for this system, out of the kernel and from clients, to the clients that registered for them and into the
// kernel.
#ifndef IPD_PACKET_RECEPTION_PARTS_H
#define IPD_PACKET_RECEPTION_PARTS_H

#include <memory>

#include "ipd/config.h"
#include "ipd/control/box.h"
#include "ipd/control/memberships.h"
#include "ipd/control_sap.h"
#include "ipd/event_loop.h"
#include "ipd/kernel/raw_reception.h"
#include "ipd/kernel/tun_input.h"
#include "ipd/packet/input.h"
#include "ipd/packet/local_delivery.h"
#include "ipd/packet/output.h"
#include "ipd/packet/published_addresses.h"
#include "ipd/packet/receivers.h"
#include "ipd/packet/reception.h"
#include "ipd/packet/replicate.h"
#include "ipd/packet_sap.h"

namespace ipd {

class PacketReception {
 public:
  // All of them live as long as messages are taken; this lives longer.
  PacketReception(const control::Box &box, const control::Memberships &memberships, packet::Output &output,
                  EventLoop &loop, ControlSap &control, PacketSap &packets);
  PacketReception(const PacketReception &) = delete;
  PacketReception &operator=(const PacketReception &) = delete;

  void configure(const Configuration &configuration);
  void interfaces_changed();
  void tick();
  [[nodiscard]] packet::LocalDelivery &delivery() { return distribution_; }
  [[nodiscard]] const packet::LocalAddresses &addresses() const { return addresses_; }

 private:
  void open_sockets(const control::Box &box, EventLoop &loop, PacketSap &packets);
  void registered(const control::Registration &registration, const control::Request *request,
                  const control::Rights &rights);
  void feed_kernel(bool wanted);

  packet::PublishedAddresses addresses_;
  packet::Receivers receivers_;
  packet::Distribution distribution_;
  packet::Input input_;
  packet::Replicate replicate_;
  std::unique_ptr<kernel::TunInput> tun_;
  bool kernel_wanted_ = false;
  std::unique_ptr<kernel::RawReception> sockets_;
  std::unique_ptr<packet::Reception> reception_;  // null: nothing can be received
};

}  // namespace ipd

#endif
