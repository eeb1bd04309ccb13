// SPDX-License-Identifier: Apache-2.0
// A packet for replication: to every interface that has joined its group. The call takes the packet over whatever
// happens, and says nothing but that memory is missing.
#include "carriage.h"

namespace libip {
namespace {

constexpr PacketCall replicate = {.name = "ip_send_replicate",
                                  .frees_unconverted = true,
                                  .frees_sent = true,
                                  .frees_unsent = true,
                                  .pieces = Pieces::by_free};

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_send_replicate(struct mbuf *packet, uint32_t iod, uint32_t context_id, uint8_t flag) {
  using namespace libip;
  if (packet == nullptr) return 0;
  auto message = begin_message<ip_msg_replicate>(IP_MSG_REPLICATE);
  message.iod = iod;
  message.context_id = context_id;
  message.flags = flag & IP_REPLICATE_LOCAL;
  return send_packet(replicate, ip_client.data_q, packet, message);
}

}  // extern "C"
