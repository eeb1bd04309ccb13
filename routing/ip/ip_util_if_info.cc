// SPDX-License-Identifier: Apache-2.0
// Notifications of interface information: built by the IP process, read by clients.
//
// The two ends share the encoding and little else. The IP process encodes into memory of its own that travels with the
// notification, so the library's buffer is copied and released at once; a client's record lives while the callback
// runs. A notification for which there is no memory is lost as a whole: it is released here, because the code that
// builds notifications has nothing to send any more.
#include <cstring>

#include "ip_api.h"
#include "message.h"
#include "mtrack.h"
#include "report.h"

namespace libip {
namespace {

[[gnu::noinline, gnu::cold]] void report_tlv_error(uint32_t error) {
  char text[message_text_size];
  ksink_snprintf(text, sizeof text, msg_error_IP_IP_TLV_TO_STRUCT.text, error);
  report_values(msg_error_IP_IP_TLV_TO_STRUCT, text, error);
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_convert_if_info_notification_to_tlv(ip_if_info_notification *n, ip_if_info_msg *msg) {
  using namespace libip;
  const uint32_t size = ip_if_info_msg_get_tlv_sz(msg);
  void *payload = mtrack_alloc(IP_COMPONENT, IP_MEM_ip_msgtype, size);
  if (payload == nullptr) {
    warn_no_memory("routing/ip/ip_util_if_info.cc", __LINE__, size);
    n->payload = nullptr;
    report_formatted(msg_error_IP_IP_INTERNAL_ERROR, "IF_INFO mode notification: tlv allocation failed for %d (%d)",
                     n->id, size);
    mtrack_free(n);
    return 0;
  }
  std::memset(payload, 0, size);
  n->payload = payload;
  n->payload_len = size;
  n->tlv_payload = 1;

  void *tlv = nullptr;
  uint32_t tlv_size = 0;
  const uint32_t error = ip_if_info_msg_to_tlv(msg, &tlv, &tlv_size, 0, 0, 0);
  if (error != 0 || tlv == nullptr) {
    report_tlv_error(error);
    return 0;
  }
  // tlv_size is the same number: the size of a record's encoding depends on the record alone.
  std::memcpy(payload, tlv, size);
  tlvu_free(tlv, 0);
  return 0;
}

uint32_t ip_parse_if_info_notification(mts_msg_ref_t msg, void (*callback)(ip_if_info_msg *record)) {
  using namespace libip;
  if (callback == nullptr) return 0;
  const void *payload = mts_payload_get(msg);
  if (payload == nullptr) return 0;
  void *record = nullptr;
  const uint32_t error = ip_if_info_msg_to_struct(&record, payload, mts_payload_size(msg), 0);
  if (error != 0) {
    report_tlv_error(error);
    return 0;
  }
  callback(static_cast<ip_if_info_msg *>(record));
  ip_free_if_info_tlv(record, 0);
  return 1;
}

}  // extern "C"
