// SPDX-License-Identifier: Apache-2.0
// Requests on a queue that the caller names, with messages from the heap: lists of interfaces, and the request for the
// load-sharing configuration.
//
// A list is longer than other messages, by its interfaces, so its size is computed in 64 bits: a count of 2^30 would
// come round to a small one otherwise. The two lists differ in who says no to a long one: the cleanup knows the limit
// of a message; the redirects leave it to MTS, and only what no message could ever be counts as memory that is missing.
#include <cstdlib>
#include <cstring>
#include <limits>

#include "ip_api.h"
#include "message.h"
#include "report.h"

namespace libip {
namespace {

// The name in it is that of another call: one text for all messages that find no memory.
void debug_no_memory() {
  if (dbg_ip_api_misc != 0) debug_line("ip_register: no memory\n");
}

uint64_t list_size(uint32_t count) {
  return IP_MSG_SIZE + uint64_t{sizeof(uint32_t)} * count;
}

// A list of `size` bytes, all zeros but for what it says. Null: no memory.
void *allocate_list(uint16_t minor_type, uint32_t size, uint32_t count, const uint32_t *iods) {
  auto *block = static_cast<uint8_t *>(std::malloc(size));
  if (block == nullptr) return nullptr;
  std::memset(block, 0, size);
  auto message = begin_message<ip_msg_interface_list>(minor_type);
  message.count = count;
  constexpr size_t fixed = offsetof(ip_msg_interface_list, iods);
  std::memcpy(block, &message, fixed);
  if (count != 0) std::memcpy(block + fixed, iods, sizeof(uint32_t) * size_t{count});
  return block;
}

uint32_t send_list(uint32_t queue, void *list, uint32_t size) {
  mts_send_opts options = send_options();
  const uint32_t result = ip_cl_mts_send_with_sz(queue, IP_SAP_CONTROL, list, size, 0, &options, IP_OPCODE_CLIENT);
  std::free(list);
  return result;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_unnumbered_pss_cleanup(uint32_t queue, uint32_t count, const uint32_t *iods) {
  using namespace libip;
  if (list_size(count) > IP_MAX_IPC_PAYLOAD) {
    report(msg_error_IP_IP_FAILURE, "message size > max ipc payload, too many ifs to clean");
    return 0;
  }
  const auto size = static_cast<uint32_t>(list_size(count));
  void *list = allocate_list(IP_MSG_UNNUMBERED_PSS_CLEANUP, size, count, iods);
  if (list == nullptr) {
    report(msg_error_IP_IP_FAILURE, " mem allocation failed");
    return 0;
  }
  return send_list(queue, list, size);
}

uint32_t ip_req_redirect_disable(uint32_t queue, uint32_t count, const uint32_t *iods) {
  using namespace libip;
  void *list = nullptr;
  const auto size = static_cast<uint32_t>(list_size(count));
  if (list_size(count) <= std::numeric_limits<uint32_t>::max()) {
    list = allocate_list(IP_MSG_REDIRECT_DISABLE, size, count, iods);
  }
  if (list == nullptr) {
    debug_no_memory();
    return 0;
  }
  return send_list(queue, list, size);
}

uint32_t ip_request_load_share_cfg(uint32_t queue) {
  using namespace libip;
  auto *message = static_cast<ip_msgtype *>(std::malloc(IP_MSG_SIZE));
  if (message == nullptr) {
    debug_no_memory();
    return 0;
  }
  std::memset(message, 0, IP_MSG_SIZE);
  ip_msg_header header{};
  fill_header(header, IP_MSG_LOAD_SHARE_CFG);
  std::memcpy(message, &header, sizeof header);
  mts_send_opts options = send_options();
  const uint32_t result = ip_cl_mts_send(queue, IP_SAP_CONTROL, message, 0, &options, IP_OPCODE_CLIENT);
  std::free(message);
  return result;
}

}  // extern "C"
