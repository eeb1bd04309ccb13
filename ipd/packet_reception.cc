// SPDX-License-Identifier: Apache-2.0
// Who gets the packets of a protocol sees what others send and receive, so it takes the right that sending them takes.
// A client without it is registered all the same, and gets none.
#include "ipd/packet_reception.h"

#include <cerrno>
#include <cstring>

#include "ip_msg.h"
#include "ipd/process/log.h"

namespace ipd {

PacketReception::PacketReception(const control::Box &box, const control::Memberships &memberships,
                                 packet::Output &output, EventLoop &loop, ControlSap &control, PacketSap &packets)
    : distribution_(receivers_, memberships, packets),
      input_(box, addresses_, distribution_),
      replicate_(box, addresses_, memberships, output, distribution_),
      tun_(kernel::TunInput::make()) {
  packets.service().add(input_, {IP_MSG_INPUT, IP_MSG_CONSUME});
  packets.service().add(replicate_, {IP_MSG_REPLICATE});
  open_sockets(box, loop, packets);
  control.clients().on_change(
      [this, &rights = control.rights()](const control::Registration &registration, const control::Request *request) {
        registered(registration, request, rights);
      });
}

// Without them, packets that clients hand in are delivered all the same.
void PacketReception::open_sockets(const control::Box &box, EventLoop &loop, PacketSap &packets) {
  int error = 0;
  std::string reason;
  sockets_ = kernel::RawReception::make(&error);
  if (sockets_ == nullptr) return log_line(LOG_ERR, "no packets are received: %s", strerror(error));
  const bool watched = loop.watch(
      sockets_->descriptor(), [this] { reception_->read(); }, &reason);
  if (!watched) return log_line(LOG_ERR, "no packets are received: %s", reason.c_str());
  reception_ = std::make_unique<packet::Reception>(
      box, *sockets_, distribution_,
      [&service = packets.service()](uint32_t iod, packet::Outcome outcome, std::span<const std::byte> packet) {
        service.delivered(0, iod, outcome, packet);
      });
  receivers_.on_change([this](uint8_t protocol, bool wanted) { reception_->want(protocol, wanted); });
}

void PacketReception::registered(const control::Registration &registration, const control::Request *request,
                                 const control::Rights &rights) {
  if (request == nullptr) return receivers_.remove(registration);
  if (rights.allows(*request, control::Right::configure)) return receivers_.add(registration);
  if (registration.key == 0 || registration.data_sap == 0) return;
  log_line(LOG_NOTICE, "process %d (user %u) gets no packets of protocol %u: it may not configure", registration.pid,
           registration.uid, registration.key);
}

void PacketReception::configure(const Configuration &configuration) {
  const bool failed = kernel_wanted_ && tun_->ifindex() == 0;
  if (configuration.input_to_kernel != kernel_wanted_ || failed) feed_kernel(configuration.input_to_kernel);
}

void PacketReception::feed_kernel(bool wanted) {
  kernel_wanted_ = wanted;
  const int error = wanted ? tun_->open() : 0;
  if (error != 0) {
    const char *why = error == ENOTSUP ? "net.ipv4.conf.all.rp_filter is on" : strerror(error);
    log_line(LOG_ERR, "no packets go to the kernel for input: %s", why);
  }
  if (!wanted) tun_->close();
  distribution_.set_kernel(wanted ? tun_.get() : nullptr);
  if (reception_ != nullptr) reception_->ignore(tun_->ifindex());
}

void PacketReception::interfaces_changed() {
  if (reception_ != nullptr) reception_->interfaces_changed();
}

void PacketReception::tick() {
  if (reception_ != nullptr) reception_->tick(packet::Reception::Clock::now());
}

}  // namespace ipd
