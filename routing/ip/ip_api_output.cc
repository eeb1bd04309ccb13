// SPDX-License-Identifier: Apache-2.0
// Packets for output: routed, or by the interface and next hop that the caller names.
//
// Three calls that differ in two things: whether the source of the frame is given, and whether the packet may be freed.
// In debug lines they are one: each is "ip_cl_output", and the line about missing memory bears the name of what they
// have in common.
#include "carriage.h"
#include "report.h"

namespace libip {
namespace {

enum class Freeing { allowed, never };

constexpr PacketCall output_call(Freeing freeing) {
  const bool frees = freeing == Freeing::allowed;
  return {.name = "ip_cl_output_src_l2_addr_common",
          .frees_unconverted = frees,
          .frees_sent = frees,
          .frees_unsent = frees,
          .pieces = Pieces::by_mtrack_free,
          .shown_as = "ip_cl_output",
          .shows_good = &dbg_ip_cl_output};
}

// What the three calls say; src_l2 null: not given.
struct Output {
  uint32_t iod;
  uint32_t next_hop;
  int32_t context_id;
  uint32_t flags;
  const uint8_t *src_l2;
};

uint32_t send_output(const Output &output, mbuf *packet, const struct ip_client *client, Freeing freeing) {
  const PacketCall call = output_call(freeing);
  if (dbg_ip_api_misc != 0) {
    debug_line("ip_cl_output (0x%x %ld 0x%x)\n", shown_address(packet), static_cast<long>(output.context_id),
               shown_address(client));
  }
  if (packet == nullptr) {
    debug_refusal(call.shown_as, "bad packet");
    return 0;
  }
  if (client == nullptr) {
    debug_refusal(call.shown_as, "bad client");
    if (freeing == Freeing::allowed) m_freem(packet);
    return 0;
  }
  auto message = begin_message<ip_msg_output>(IP_MSG_OUTPUT);
  message.iod = output.iod;
  message.next_hop = output.next_hop;
  message.context_id = output.context_id;
  message.flags = output.flags;
  copy_l2_address(message.src_l2_addr, output.src_l2);
  message.src_l2_valid = output.src_l2 != nullptr ? 1 : 0;
  return send_packet(call, client->data_q, packet, message);
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_cl_output(uint32_t iod, struct mbuf *packet, uint32_t next_hop, int32_t context_id, uint32_t flags,
                      struct ip_client *client) {
  return libip::send_output({iod, next_hop, context_id, flags, nullptr}, packet, client, libip::Freeing::allowed);
}

uint32_t ip_cl_output_nfree(uint32_t iod, struct mbuf *packet, uint32_t next_hop, int32_t context_id, uint32_t flags,
                            struct ip_client *client) {
  return libip::send_output({iod, next_hop, context_id, flags, nullptr}, packet, client, libip::Freeing::never);
}

uint32_t ip_cl_output_src_l2_addr(uint32_t iod, struct mbuf *packet, uint32_t next_hop, int32_t context_id,
                                  uint32_t flags, struct ip_client *client, const uint8_t *src_l2) {
  return libip::send_output({iod, next_hop, context_id, flags, src_l2}, packet, client, libip::Freeing::allowed);
}

}  // extern "C"
