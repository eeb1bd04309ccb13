// SPDX-License-Identifier: Apache-2.0
// Messages are taken some at a time, so that whoever sends many does not keep us from the kernel's events.
#include "ipd/packet_sap.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ip_api.h"
#include "ipd/process/log.h"
#include "mbuf/buffers.h"
#include "mbuf/references.h"

namespace ipd {
namespace {

using packet::Outcome;

constexpr size_t messages_in_a_row = 64;

Outcome outcome_of(int error) {
  switch (error) {
    case 0:
      return Outcome::done;
    case EAGAIN:
      return Outcome::queue_full;
    case ECONNREFUSED:
    case ECONNRESET:
      return Outcome::no_receiver;
    case ENOMEM:
      return Outcome::no_memory;
    default:
      return Outcome::kernel;
  }
}

}  // namespace

PacketSap::PacketSap(std::unique_ptr<control::MtsTransport> transport, bool pool)
    : transport_(std::move(transport)),
      pool_(pool),
      rights_(geteuid(), control::MtsTransport::sender_in_group),
      service_(references_,
               [this](const control::Request &message) { return rights_.allows(message, control::Right::configure); }) {
}

std::unique_ptr<PacketSap> PacketSap::open(EventLoop &loop, const Configuration &configuration, bool pool,
                                           std::string *reason) {
  auto transport = control::MtsTransport::open(&ip_server_data_mts_q, IP_SAP_PACKET, reason);
  if (transport == nullptr) return nullptr;
  std::unique_ptr<PacketSap> made(new PacketSap(std::move(transport), pool));
  made->configure(configuration);
  PacketSap *self = made.get();
  if (!loop.watch(
          self->transport_->descriptor(), [self] { self->read(); }, reason))
    return nullptr;
  return made;
}

void PacketSap::configure(const Configuration &configuration) {
  rights_.configure(configuration.read_group, configuration.configure_group);
}

void PacketSap::read() {
  if (broken_) return;
  std::string reason;
  const auto reading = transport_->read(
      messages_in_a_row, [this](const control::Request &message) { service_.receive(message); },
      [this](const control::Sender &sender) { service_.process_gone(sender.pid); }, &reason);
  broken_ = reading == control::MtsTransport::Reading::broken;
  if (broken_) log_line(LOG_ERR, "packets of clients are taken no more: %s", reason.c_str());
}

Outcome PacketSap::PoolReferences::take(uint32_t reference, int32_t pid, std::span<std::byte> into, size_t *length) {
  const rsw::PacketReading reading = rsw::read_packet(reference, pid, into, length);
  rsw::free_packet_of(reference, pid);
  if (reading == rsw::PacketReading::ok) return Outcome::done;
  return reading == rsw::PacketReading::too_long ? Outcome::bad_packet : Outcome::bad_reference;
}

// By reference only where the pool can be had; a client looks at packet_ref in either case. The packet is the client's
// before it is told: should it die meanwhile, it is taken back with all that it had.
Outcome PacketSap::hand_over(const packet::Receiver &receiver, std::span<std::byte> message,
                             std::span<const std::byte> packet) {
  const control::Sender to{.pid = receiver.pid, .uid = 0, .sap = receiver.sap};
  if (receiver.by_segments || !pool_) {
    return outcome_of(transport_->send(to, IP_OPCODE_PACKET, message, packet));
  }
  struct mbuf *buffers = rsw::make_packet({reinterpret_cast<const uint8_t *>(packet.data()), packet.size()});
  if (buffers == nullptr) return Outcome::no_memory;
  m_set_owner(buffers, receiver.pid);
  const auto reference = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(buffers));
  std::memcpy(message.data() + offsetof(ip_msg_input, packet_ref), &reference, sizeof reference);
  const Outcome outcome = outcome_of(transport_->send(to, IP_OPCODE_PACKET, message));
  if (outcome != Outcome::done) m_freem(buffers);
  return outcome;
}

Outcome PacketSap::deliver(const packet::Receiver &receiver, std::span<std::byte> message,
                           std::span<const std::byte> packet) {
  const Outcome outcome = hand_over(receiver, message, packet);
  uint32_t iod = 0;
  std::memcpy(&iod, message.data() + offsetof(ip_msg_input, iod), sizeof iod);
  service_.delivered(receiver.pid, iod, outcome, packet);
  return outcome;
}

}  // namespace ipd
