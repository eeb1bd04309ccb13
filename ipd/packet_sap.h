// SPDX-License-Identifier: Apache-2.0
// The packet SAP of this ipd: its queue and the service on it.
#ifndef IPD_PACKET_SAP_H
#define IPD_PACKET_SAP_H

#include <memory>
#include <string>

#include "ipd/config.h"
#include "ipd/control/mts_transport.h"
#include "ipd/control/rights.h"
#include "ipd/event_loop.h"
#include "ipd/packet/local.h"
#include "ipd/packet/service.h"

namespace ipd {

class PacketSap final : public packet::Delivery {
 public:
  // From now on packets are taken, out of the loop. `pool`: packets go to clients by reference where they want that.
  // Null: *reason.
  static std::unique_ptr<PacketSap> open(EventLoop &loop, const Configuration &configuration, bool pool,
                                         std::string *reason);
  PacketSap(const PacketSap &) = delete;
  PacketSap &operator=(const PacketSap &) = delete;

  void configure(const Configuration &configuration);
  // For handlers; who adds one keeps it as long as this lives.
  [[nodiscard]] packet::Service &service() { return service_; }
  void tick() { read(); }

  packet::Outcome deliver(const packet::Receiver &receiver, std::span<std::byte> message,
                          std::span<const std::byte> packet) override;

 private:
  class PoolReferences final : public packet::References {
   public:
    packet::Outcome take(uint32_t reference, int32_t pid, std::span<std::byte> into, size_t *length) override;
  };

  PacketSap(std::unique_ptr<control::MtsTransport> transport, bool pool);
  void read();
  packet::Outcome hand_over(const packet::Receiver &receiver, std::span<std::byte> message,
                            std::span<const std::byte> packet);

  std::unique_ptr<control::MtsTransport> transport_;
  bool pool_;
  control::Rights rights_;
  PoolReferences references_;
  packet::Service service_;
  bool broken_ = false;
};

}  // namespace ipd

#endif
