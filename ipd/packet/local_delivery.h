// SPDX-License-Identifier: Apache-2.0
// Gives a packet that is for this system to all who are to get it: a copy to each client that registered for its
// protocol, and one to the kernel where that is switched on.
#ifndef IPD_PACKET_LOCAL_DELIVERY_H
#define IPD_PACKET_LOCAL_DELIVERY_H

#include "ipd/control/memberships.h"
#include "ipd/kernel/tun_input.h"
#include "ipd/packet/local.h"
#include "ipd/packet/receivers.h"

namespace ipd::packet {

class Distribution final : public LocalDelivery {
 public:
  // All outlive it.
  Distribution(const Receivers &receivers, const control::Memberships &memberships, Delivery &delivery)
      : receivers_(receivers), memberships_(memberships), delivery_(delivery) {}

  // Packets go there, too; null: none does.
  void set_kernel(kernel::KernelInput *kernel) { kernel_ = kernel; }

  // Done: somebody got it. Else why nobody did.
  Outcome deliver(const Arrival &arrival, std::span<const std::byte> packet) override;

 private:
  Outcome to_clients(const Arrival &arrival, std::span<const std::byte> packet);
  Outcome to_kernel(const Arrival &arrival, std::span<const std::byte> packet);

  const Receivers &receivers_;
  const control::Memberships &memberships_;
  Delivery &delivery_;
  kernel::KernelInput *kernel_ = nullptr;
};

}  // namespace ipd::packet

#endif
