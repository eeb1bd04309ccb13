// SPDX-License-Identifier: Apache-2.0
// Key 0 is a key and no protocol, and 255 is no protocol that anything is received by: the kernel keeps it for raw
// sockets that only send. Queues of ours are no receivers: what we would send there would come back as a request.
#include "ipd/packet/receivers.h"

#include <algorithm>

namespace ipd::packet {
namespace {

constexpr uint8_t no_protocol = 0, raw_protocol = 255;

bool is_for_packets(const control::Registration &registration) {
  const uint32_t sap = registration.data_sap;
  const bool ours = sap == IP_SAP_CONTROL || sap == IP_SAP_PACKET || sap == IP_SAP_URIB;
  return registration.key != no_protocol && registration.key != raw_protocol && sap != 0 && !ours;
}

}  // namespace

// Of several registrations for one queue, the last one says how.
void Receivers::list(Protocol &protocol) {
  protocol.each.clear();
  for (const auto &entry : protocol.by_serial) {
    const Receiver &receiver = entry.second;
    const auto known = std::ranges::find_if(
        protocol.each, [&](const Receiver &other) { return other.pid == receiver.pid && other.sap == receiver.sap; });
    if (known == protocol.each.end()) {
      protocol.each.push_back(receiver);
    } else {
      *known = receiver;
    }
  }
}

void Receivers::add(const control::Registration &registration) {
  if (!is_for_packets(registration)) return;
  Protocol &protocol = protocols_[registration.key];
  const bool first = protocol.by_serial.empty();
  protocol.by_serial[registration.serial] = {.pid = registration.pid,
                                             .sap = registration.data_sap,
                                             .by_segments = (registration.flags & IP_CLIENT_RECV_MTS) != 0};
  list(protocol);
  if (first && changed_) changed_(registration.key, true);
}

void Receivers::remove(const control::Registration &registration) {
  Protocol &protocol = protocols_[registration.key];
  if (protocol.by_serial.erase(registration.serial) == 0) return;
  list(protocol);
  if (protocol.by_serial.empty() && changed_) changed_(registration.key, false);
}

}  // namespace ipd::packet
