// SPDX-License-Identifier: Apache-2.0
// How a packet travels to the IP process: chosen once, released once.
//
//   choose    by reference: nothing is done. By segments: the platform makes a vector of the packet's pieces, and a
//             block for those beyond the limit; both are ours until the send is over, the bytes stay in the packet
//   send      in this order: the message goes, the message is released if it is from the heap, the outcome is told, the
//             packet is freed where its call does that, the vector, the block
//
// No step comes before the one it undoes and none is left out, but one: a call that found no memory for the pieces
// returns without releasing a message from the heap. Those few bytes are the smallest trouble of a process that has no
// memory, and callers are used to what happens then.
#include <cstdlib>

#include "carriage.h"
#include "mtrack.h"
#include "probe.h"
#include "report.h"

namespace libip {
namespace {

constexpr uint32_t most_pieces = 8;

}  // namespace

bool Carriage::choose(const PacketCall &call, mbuf *packet) {
  packet_ = packet;
  if ((ip_client.flags & IP_CLIENT_RECV_MTS) == 0) return true;
  uint32_t total_len = 0;
  uint32_t copied_len = 0;
  vector_ = m_convert_mbuf_to_iovec_limited(packet, most_pieces, &options_.w[1], &overflow_, &total_len, &copied_len,
                                            &vector_allocated_);
  if (vector_ == nullptr) {
    direct_debug_line("%s: no memory for m_convert_mbuf_to_iovec_limited\n", call.name);
    if (call.frees_unconverted) m_freem(packet);
    return false;
  }
  mts_send_opts_set_vector(&options_, vector_);
  return true;
}

uint32_t Carriage::reference() const {
  // The pool lies where 32 bits reach.
  return by_segments() ? 0 : static_cast<uint32_t>(reinterpret_cast<uintptr_t>(packet_));
}

uint32_t Carriage::send(const PacketCall &call, uint32_t queue, ip_msgtype *message) {
  const uint32_t sent = ip_cl_mts_send(queue, IP_SAP_PACKET, message, 0, &options_, IP_OPCODE_PACKET);
  IP_PROBE3(packet_handed_over, call.name, sent, static_cast<uint32_t>(by_segments()));
  if (call.message_from_heap) mtrack_free(message);
  if (sent != 0) {
    if (call.shows_good != nullptr && *call.shows_good != 0) debug_line("%s: good send\n", call.shown_as);
    if (by_segments() && call.frees_sent) m_freem(packet_);
  } else {
    if (call.shown_as != nullptr) debug_refusal(call.shown_as, "bad send");
    if (call.frees_unsent) m_freem(packet_);
  }
  if (by_segments()) release_pieces(call.pieces);
  return sent;
}

void Carriage::release_pieces(Pieces how) {
  switch (how) {
    case Pieces::by_mtrack_free:
      if (vector_allocated_ != 0) mtrack_free(vector_);
      if (overflow_ != nullptr) mtrack_free(overflow_);
      break;
    case Pieces::by_free:
      std::free(vector_);
      std::free(overflow_);
      break;
  }
}

}  // namespace libip
