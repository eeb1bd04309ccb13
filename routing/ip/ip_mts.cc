// SPDX-License-Identifier: Apache-2.0
// Transport: how messages leave for the IP process.
//
// A message is the caller's, often on its stack, and so are its options; nothing is allocated on the way. The transport
// adds the one word that no builder of a message may choose, the sender's identity at the system manager, and gives the
// message to MTS. A failed send is silent here: the callers know what it means.
//
// The priority goes nowhere. It is checked because callers rely on a bad one being refused.
#include <cerrno>
#include <cstring>

#include "ip_api.h"
#include "mbuf.h"
#include "message.h"
#include "mts.h"
#include "probe.h"
#include "report.h"
#include "sysmgr.h"

extern "C" {

uint32_t ip_urib_mts_q = ~uint32_t{0};
uint32_t ip_server_ctrl_mts_q = ~uint32_t{0};
uint32_t ip_server_data_mts_q = ~uint32_t{0};

}  // extern "C"

namespace libip {
namespace {

constexpr uint32_t queue_kind = 1;
constexpr int32_t highest_priority = 32768;
constexpr mts_bind_opts bind_template = {.w0 = 1, .flags = 0, .w2 = 1024, .module = 0, .w4 = 0, .w5 = 15};
constexpr uint32_t fixed_sap = 1;  // bit 0 of the bind options' flags

// Both sends; `name` is the one that was called. The traced length is the usual one, whatever the real one.
uint32_t send(const char *name, uint32_t queue, uint32_t sap, void *message, uint32_t size, int32_t priority,
              void *options, uint32_t opcode) {
  if (priority > highest_priority) {
    if (dbg_ip_api_misc != 0) debug_line("%s: bad prio %d for message 0x%x\n", name, priority, shown_address(message));
    return 0;
  }
  if (dbg_cl_mts_send != 0) debug_line("%s (0x%x 0x%x) len %u\n", name, queue, shown_address(message), IP_MSG_SIZE);
  if (queue == no_queue || message == nullptr) {
    if (dbg_ip_api_misc != 0) debug_line("%s: bad queue or message 0x%x 0x%x\n", name, queue, shown_address(message));
    return 0;
  }
  // A message of any layout, so copied by bytes.
  const uint32_t uuid = sysmgr_uuid_get();
  std::memcpy(static_cast<uint8_t *>(message) + offsetof(ip_msg_header, uuid), &uuid, sizeof uuid);
  const uint32_t sent = mts_send(queue, IP_NODE_LOCAL, sap, opcode, message, size, nullptr, 0, options) < 0 ? 0 : 1;
  IP_PROBE4(message_sent, sap, opcode, size, sent);
  return sent;
}

// The buffer of a packet message; null: none.
mbuf *packet_of(const ip_msgtype &message) {
  uint32_t word = 0;
  std::memcpy(&word, message.body + (packet_offset - offsetof(ip_msgtype, body)), sizeof word);
  return reinterpret_cast<mbuf *>(static_cast<uintptr_t>(word));
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_init_mts(uint32_t *queue_out, int32_t sap) {
  using namespace libip;
  mts_bind_opts options = bind_template;
  if (queue_out == nullptr) return 0;
  // Only these two are bound without the flag; so the IP process's packet queue is, too.
  if (sap != dynamic_sap && sap != static_cast<int32_t>(IP_SAP_PACKET)) options.flags |= fixed_sap;
  options.module = IP_COMPONENT;
  *queue_out = mts_bind(queue_kind, sap, &options, "IP MTS queue");
  if (*queue_out == no_queue) return 0;
  mts_recv_q_unblock(*queue_out);
  return 1;
}

uint32_t ip_get_urib_q(void) {
  using namespace libip;
  // Unlike ip_init_mts: always a fixed SAP, and no module.
  mts_bind_opts options = bind_template;
  options.flags |= fixed_sap;
  ip_urib_mts_q = mts_bind(queue_kind, IP_SAP_URIB, &options, "IP-URIB MTS queue");
  if (ip_urib_mts_q == no_queue) {
    static constexpr char text[] = "bind to MTS_SAP_IP_URIB";
    report_values(msg_error_IP_IP_STARTUP_FAILURE, text, text, errno);
    return 0;
  }
  mts_recv_q_unblock(ip_urib_mts_q);
  return 1;
}

uint32_t ip_cl_mts_send(uint32_t queue, uint32_t sap, ip_msgtype *msg, int32_t prio, void *opts, uint32_t opcode) {
  return libip::send("ip_cl_mts_send", queue, sap, msg, IP_MSG_SIZE, prio, opts, opcode);
}

uint32_t ip_cl_mts_send_with_sz(uint32_t queue, uint32_t sap, void *msg, uint32_t size, int32_t prio, void *opts,
                                uint32_t opcode) {
  return libip::send("ip_cl_mts_send_with_sz", queue, sap, msg, size, prio, opts, opcode);
}

uint32_t ip_mts_send(ip_msgtype *msg) {
  mts_send_opts options = libip::send_options();
  return ip_cl_mts_send(ip_client.ctrl_q, IP_SAP_CONTROL, msg, 0, &options, IP_OPCODE_CLIENT);
}

void ip_free_message_queue(void) {
  mts_unbind(ip_server_ctrl_mts_q, 0);
  mts_unbind(ip_server_data_mts_q, 0);
}

void ip_change_msg_owner(ip_msgtype *msg, int32_t owner) {
  using namespace libip;
  if (msg == nullptr) return;
  // Twice, each time with what the message says then: the second time is harmless, and part of what callers know.
  if (mbuf *packet = packet_of(*msg); packet != nullptr) m_set_owner(packet, owner);
  if (mbuf *packet = packet_of(*msg); packet != nullptr) m_set_owner(packet, owner);
}

}  // extern "C"
