// SPDX-License-Identifier: Apache-2.0
// What the packet service of a box that mirrors a kernel does: the handlers that need it.
#ifndef IPD_PACKET_HANDLERS_H
#define IPD_PACKET_HANDLERS_H

#include <cstdint>
#include <set>

#include "ipd/config.h"
#include "ipd/control/live_box.h"
#include "ipd/control_handlers.h"
#include "ipd/control_sap.h"
#include "ipd/event_loop.h"
#include "ipd/kernel/picture.h"
#include "ipd/packet/capture.h"
#include "ipd/packet/icmp_errors.h"
#include "ipd/packet/icmp_output.h"
#include "ipd/packet/show.h"
#include "ipd/packet_reception.h"
#include "ipd/packet_sap.h"
#include "ipd/packet_senders.h"

namespace ipd {

class PacketHandlers {
 public:
  // All of them outlive it. It has to outlive the packet service.
  PacketHandlers(State &state, const Publisher &publisher, const kernel::Picture &picture, EventLoop &loop,
                 ControlSap &control, ControlHandlers &requests, PacketSap &packets);

  void configure(const Configuration &configuration);
  // These may have come, changed or gone.
  void interfaces_changed(const std::set<uint32_t> &ifindexes);
  void tick();

 private:
  control::LiveBox box_;
  PacketSenders senders_;
  packet::IcmpOutput icmp_output_;
  packet::IcmpErrors icmp_errors_;
  packet::Show show_;
  packet::Capture capture_;
  PacketReception reception_;
};

}  // namespace ipd

#endif
