// SPDX-License-Identifier: Apache-2.0
// Address configuration: the one request whose outcome a client waits for.
//
// It goes out on the client's control queue and the reply comes back there. Whatever else arrives meanwhile is passed
// over and not dropped: nobody here knows how. A client that waits for more than this reply says so, and collects it by
// itself.
#include <cerrno>
#include <cstring>

#include "ip_api.h"
#include "message.h"
#include "mts.h"
#include "sysmgr.h"

namespace libip {
namespace {

bool send_configuration(uint32_t iod, uint32_t address, uint8_t masklen, uint32_t cfg_flags) {
  auto message = begin_message<ip_msg_config_address>(IP_MSG_CONFIG_ADDRESS);
  message.header.uuid = sysmgr_uuid_get();
  message.iod = iod;
  message.address = address;
  message.mask_len = masklen;
  message.cfg_flags = cfg_flags;
  mts_send_opts options = send_options();
  return ip_cl_mts_send(ip_client.ctrl_q, IP_SAP_CONTROL, as_message(message), 0, &options, IP_OPCODE_CONFIGURE) != 0;
}

uint32_t wait_for_reply(uint32_t *cfg_result, uint32_t wait) {
  mts_recv_opts options = receive_options(wait);
  while (true) {
    mts_msg_ref_t received = nullptr;
    if (mts_recv(ip_client.ctrl_q, &received, &options) < 0) {
      if (errno == EINTR) continue;
      return IP_CONFIG_STATUS_NO_REPLY;
    }
    if (mts_opc_get(received) == IP_OPCODE_CONFIGURE) return ip_parse_config_response(received, 0, 0, 0, cfg_result);
  }
}

// What a received message says as a reply.
uint32_t read_reply(mts_msg_ref_t received, uint32_t *cfg_result) {
  constexpr size_t needed = offsetof(ip_msg_config_reply, status) + sizeof(ip_msg_config_reply::status);
  const auto *payload = static_cast<const uint8_t *>(mts_payload_get(received));
  if (payload == nullptr || readable_bytes(received, needed) < needed) return IP_CONFIG_STATUS_NO_REPLY;
  ip_msg_config_reply reply{};
  std::memcpy(&reply, payload, needed);
  if (reply.cfg_result != 0 && cfg_result != nullptr) *cfg_result = reply.cfg_result;
  return reply.status;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_configure_address(uint32_t iod, uint32_t address, uint8_t masklen, uint32_t *cfg_result, uint32_t cfg_flags,
                              uint32_t wait) {
  using namespace libip;
  if (iod == 0 || masklen == 0 || ip_address_martian(address) != 0) return IP_CONFIG_STATUS_BAD_ARGUMENT;
  const bool sent = send_configuration(iod, address, masklen, cfg_flags);
  if ((cfg_flags & IP_CONFIG_NO_WAIT) != 0) return sent ? 1 : 0;
  if (!sent) return IP_CONFIG_STATUS_NOT_SENT;
  if ((cfg_flags & IP_CONFIG_COLLECT) != 0) {
    errno = EAGAIN;
    return 0;
  }
  return wait_for_reply(cfg_result, wait);
}

uint32_t ip_parse_config_response(mts_msg_ref_t msg, uint32_t, uint32_t, uint32_t, uint32_t *cfg_result) {
  const uint32_t status = libip::read_reply(msg, cfg_result);
  mts_drop(ip_client.ctrl_q, msg);
  return status;
}

}  // extern "C"
