// SPDX-License-Identifier: Apache-2.0
// Packets for output in a frame that the caller describes.
//
// Three calls, one message with more or fewer of its fields filled. They name no client, say nothing in debug lines but
// that memory is missing, and free the packet when the caller's free_flag says so; but a packet whose pieces found no
// memory is freed whatever it says. The fourth call is the first without an interface: it sends nothing.
#include "carriage.h"
#include "mtrack.h"

namespace libip {
namespace {

constexpr PacketCall output_l2_call(const char *name, uint32_t free_flag) {
  const bool frees = free_flag != 0;
  return {
      .name = name, .frees_unconverted = true, .frees_sent = frees, .frees_unsent = frees, .pieces = Pieces::by_free};
}

// What all three say.
struct Frame {
  uint32_t iod;
  uint32_t next_hop;
  uint32_t vlan;
  const uint8_t *dst_l2;
};

bool refused(mbuf *packet, uint32_t iod, uint32_t free_flag) {
  if (packet != nullptr && iod != 0) return false;
  if (free_flag != 0) m_freem(packet);  // a null one, too
  return true;
}

ip_msg_output_l2 begin_frame(uint16_t minor_type, const Frame &frame) {
  auto message = begin_message<ip_msg_output_l2>(minor_type);
  message.iod = frame.iod;
  message.next_hop = frame.next_hop;
  message.vlan = frame.vlan;
  copy_l2_address(message.dst_l2_addr, frame.dst_l2);
  return message;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_cl_output_l2(struct mbuf *packet, uint32_t iod, uint32_t next_hop, uint32_t vlan, uint32_t,
                         uint32_t free_flag, const uint8_t *l2_addr, uint32_t flags) {
  using namespace libip;
  if (refused(packet, iod, free_flag)) return 0;
  auto message = begin_frame(IP_MSG_OUTPUT_L2, {iod, next_hop, vlan, l2_addr});
  message.flags = (flags & IP_OUTPUT_L2_UNCHANGED) != 0 ? IP_L2_UNCHANGED : 0;
  return send_packet(output_l2_call("ip_cl_output_l2", free_flag), ip_client.data_q, packet, message);
}

uint32_t ip_cl_output_l2_mvr(struct mbuf *packet, uint32_t iod, uint32_t next_hop, uint32_t vlan, uint32_t,
                             uint32_t free_flag, const uint8_t *l2_addr, uint32_t flags) {
  using namespace libip;
  if (refused(packet, iod, free_flag)) return 0;
  auto message = begin_frame(IP_MSG_OUTPUT_L2_MVR, {iod, next_hop, vlan, l2_addr});
  message.mvr = 1;
  message.flags = (flags & IP_OUTPUT_L2_MVR_UNCHANGED) != 0 ? IP_L2_UNCHANGED : 0;  // another bit than above
  return send_packet(output_l2_call("ip_cl_output_l2_mvr", free_flag), ip_client.data_q, packet, message);
}

uint32_t ip_cl_output_l2_dce(struct mbuf *packet, uint32_t iod, uint32_t next_hop, uint32_t vlan, uint32_t free_flag,
                             const uint8_t *l2_addr, uint16_t a7, uint16_t a8, uint16_t a9, uint16_t a10, uint16_t a11,
                             uint16_t a12, uint16_t a13, uint16_t a14, const uint8_t *l2_addr2, uint32_t word112,
                             uint32_t word108) {
  using namespace libip;
  if (refused(packet, iod, free_flag)) return 0;
  auto message = begin_frame(IP_MSG_OUTPUT_L2_DCE, {iod, next_hop, vlan, l2_addr});
  copy_l2_address(message.src_l2_addr, l2_addr2);
  message.argument7 = a7;
  message.argument8 = a8;
  message.argument9 = a9;
  message.argument10 = a10;
  message.argument11 = a11;
  message.argument12 = a12;
  message.argument13 = a13;
  message.argument14 = a14;
  message.word112 = word112;
  message.word108 = word108;
  return send_packet(output_l2_call("ip_cl_output_l2_dce", free_flag), ip_client.data_q, packet, message);
}

uint32_t ip_cl_output_l2_pw(struct mbuf *packet, uint32_t, uint32_t next_hop, uint32_t vlan, uint32_t free_flag,
                            const uint8_t *l2_addr) {
  constexpr uint32_t no_interface = 0;  // so it is refused: callers rely on the packet being freed, and on the 0
  return ip_cl_output_l2(packet, no_interface, next_hop, vlan, 0, free_flag, l2_addr, 5);
}

}  // extern "C"
