// SPDX-License-Identifier: Apache-2.0
// Statistics of an interface: asked of the IP process, because most of them are the kernel's and in no segment.
//
// A request with a response: MTS gives the request a token, and the receive takes the response with that token and no
// other message. What the response says is the caller's to read.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "ip_api.h"
#include "message.h"
#include "mts.h"

namespace libip {
namespace {

constexpr uint32_t longest_wait = 10;  // seconds

// Sends the request. False: not sent.
bool send_request(uint32_t queue, void *request, uint32_t size, uint32_t &token) {
  mts_msg_ref_t sent = nullptr;
  // Unlike other sends, one that reports anything but 0 has failed: there is no request to wait for then.
  if (mts_send(queue, IP_NODE_LOCAL, IP_SAP_CONTROL, IP_OPCODE_CLIENT, request, size, &sent, 0, nullptr) != 0) {
    return false;
  }
  token = mts_rr_token_get(sent);
  mts_drop(queue, sent);
  return true;
}

// A copy of what a received message carries. Null: a reject, or no memory.
void *copy_response(mts_msg_ref_t received) {
  if (mts_is_reject(received) == 1) return nullptr;
  const uint32_t size = mts_payload_size(received);
  const void *payload = mts_payload_get(received);
  if (payload == nullptr && size != 0) return nullptr;
  void *copy = std::malloc(std::max(size, 1u));  // an empty response is one, too
  if (copy != nullptr && size != 0) std::memcpy(copy, payload, size);
  return copy;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_get_interface_stats(uint32_t queue, void *request, uint32_t size, void **reply) {
  using namespace libip;
  if (request == nullptr || reply == nullptr) return 0;
  // The uuid behind it is the caller's to write.
  constexpr size_t filled = offsetof(ip_msg_header, uuid);
  if (size < filled) return 0;
  ip_msg_header header{};
  fill_header(header, IP_MSG_GET_IF_STATS);
  std::memcpy(request, &header, filled);

  uint32_t token = 0;
  if (!send_request(queue, request, size, token)) return 0;
  mts_msg_ref_t received = nullptr;
  mts_recv_opts options = receive_options(longest_wait, token);
  if (mts_recv(queue, &received, &options) != 0) return 0;
  void *copy = copy_response(received);
  mts_drop(queue, received);
  if (copy == nullptr) return 0;
  *reply = copy;
  return 1;
}

}  // extern "C"
