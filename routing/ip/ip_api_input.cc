// SPDX-License-Identifier: Apache-2.0
// Received packets for input processing. Both calls take the packet over whatever happens: their callers are receive
// paths, which have nobody to give it back to.
//
// They differ in the frame's source, and in the flag that traces the call. The flag of a good send is the same one for
// both, though one of them is not named after it: who watches the input path sees all of it.
#include "carriage.h"
#include "mtrack.h"
#include "report.h"

namespace libip {
namespace {

struct InputCall {
  PacketCall packet;
  uint16_t minor_type;
  const uint32_t *traced;  // the flag of the line about the call itself
  int line;                // of the warning about memory
};

constexpr PacketCall takes_the_packet(const char *name) {
  return {.name = name,
          .frees_unconverted = true,
          .frees_sent = true,
          .frees_unsent = true,
          .message_from_heap = true,
          .pieces = Pieces::by_free,
          .shown_as = name,
          .shows_good = &dbg_ip_cl_input};
}

constexpr InputCall input = {
    .packet = takes_the_packet("ip_cl_input"), .minor_type = IP_MSG_INPUT, .traced = &dbg_cl_input, .line = 710};
constexpr InputCall consume = {.packet = takes_the_packet("ip_cl_consume"),
                               .minor_type = IP_MSG_CONSUME,
                               .traced = &dbg_ip_cl_consume,
                               .line = 810};

uint32_t send_input(const InputCall &call, uint32_t iod, mbuf *packet, uint32_t context_id, const uint8_t *src_l2,
                    const struct ip_client *client) {
  if (*call.traced != 0) {
    debug_line("%s (0x%x 0x%x)\n", call.packet.name, shown_address(packet), shown_address(client));
  }
  if (packet == nullptr) {
    debug_refusal(call.packet.name, "bad packet");
    return 0;
  }
  if (client == nullptr) {
    debug_refusal(call.packet.name, "bad client");
    m_freem(packet);
    return 0;
  }
  ip_msgtype *block = allocate_message(packet_calls_file, call.line);
  if (block == nullptr) {
    report(msg_error_IP_IP_NO_MEM, "client message");
    m_freem(packet);
    return 0;
  }
  auto &message = *reinterpret_cast<ip_msg_input *>(block);
  fill_header(message.header, call.minor_type);
  message.iod = iod;
  message.context_id = context_id;
  copy_l2_address(message.src_l2_addr, src_l2);
  return send_packet(call.packet, client->data_q, packet, message);
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_cl_input(uint32_t iod, struct mbuf *packet, uint32_t context_id, struct ip_client *client) {
  return libip::send_input(libip::input, iod, packet, context_id, nullptr, client);
}

uint32_t ip_cl_consume(uint32_t iod, struct mbuf *packet, uint32_t context_id, const uint8_t *src_l2,
                       struct ip_client *client) {
  return libip::send_input(libip::consume, iod, packet, context_id, src_l2, client);
}

}  // extern "C"
