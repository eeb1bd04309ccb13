// SPDX-License-Identifier: Apache-2.0
// The request for interface information. What comes back goes to the asking queue's SAP, for as long as the mode says;
// ip_util_if_info.cc reads it.
#include "guard.h"
#include "ip_api.h"
#include "message.h"
#include "mtrack.h"
#include "report.h"
extern "C" {

uint32_t ip_download_if_info(uint32_t queue, uint32_t cookie, uint32_t mode) {
  using namespace libip;
  if (!attached()) {
    report(msg_error_IP_IP_INTERNAL_ERROR, "IP API not initialised while downloading if info");
    return 0;
  }
  ip_msgtype *message = allocate_message("routing/ip/ip_register_if_info.cc", __LINE__);
  if (message == nullptr) {
    // The words of every request that finds no memory.
    if (dbg_ip_api_misc != 0) debug_line("ip_register: no memory\n");
    return 0;
  }
  auto *download = reinterpret_cast<ip_msg_download *>(message);
  fill_header(download->header, IP_MSG_DOWNLOAD_IF_INFO);
  download->cookie = cookie;
  download->node = IP_NODE_LOCAL;
  download->sap = mts_sap_get(queue);
  download->mode = mode;
  mts_send_opts options = send_options();
  const uint32_t sent = ip_cl_mts_send(queue, IP_SAP_CONTROL, message, 0, &options, IP_OPCODE_CLIENT);
  mtrack_free(message);
  return sent;
}

}  // extern "C"
