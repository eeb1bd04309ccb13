// SPDX-License-Identifier: Apache-2.0
// ICMP: a complete packet for output, and errors about packets, asked for with the packet or with its first bytes.
//
// Unlike other packet calls the first two leave the packet with the caller whenever they fail; only a packet that was
// sent by segments is freed. The driver's request has no packet at all and no uuid; it goes to MTS directly.
#include <cstring>

#include "carriage.h"
#include "mtrack.h"
#include "report.h"

namespace libip {
namespace {

constexpr PacketCall keeps_failed(const char *name, const uint32_t *shows_good) {
  return {.name = name,
          .frees_unconverted = false,
          .frees_sent = true,
          .frees_unsent = false,
          .message_from_heap = true,
          .pieces = Pieces::by_free,
          .shown_as = name,
          .shows_good = shows_good};
}

constexpr PacketCall icmp_output = keeps_failed("ip_cl_icmp_output", &dbg_ip_cl_icmp_output);
constexpr PacketCall icmp_error = keeps_failed("ip_icmp_error", &dbg_ip_icmp_error);

// Where the warnings about memory place the calls.
constexpr int icmp_output_line = 424;
constexpr int icmp_error_line = 316;
constexpr int driver_line = 2392;

bool refused(const PacketCall &call, const mbuf *packet, const struct ip_client *client) {
  if (packet != nullptr && client != nullptr) return false;
  debug_refusal(call.name, packet == nullptr ? "bad packet" : "bad client");
  return true;
}

// A message from the heap with its header. Null: no memory, which is told.
template <class Record>
Record *allocate_record(const PacketCall &call, uint16_t minor_type, int line) {
  ip_msgtype *block = allocate_message(packet_calls_file, line);
  if (block == nullptr) {
    debug_refusal(call.name, "no memory");
    return nullptr;
  }
  auto *message = reinterpret_cast<Record *>(block);
  fill_header(message->header, minor_type);
  return message;
}

// Null: no memory, which is told.
ip_msg_driver_icmp *allocate_driver_message() {
  void *block = mtrack_alloc(IP_COMPONENT, IP_MEM_ip_driver_msgtype, IP_DRIVER_MSG_SIZE);
  if (block == nullptr) {
    warn_no_memory(packet_calls_file, driver_line, IP_DRIVER_MSG_SIZE);
    return nullptr;
  }
  return static_cast<ip_msg_driver_icmp *>(std::memset(block, 0, IP_DRIVER_MSG_SIZE));
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_cl_icmp_output(uint32_t iod, struct mbuf *packet, int32_t context_id, struct ip_client *client,
                           uint32_t flags) {
  using namespace libip;
  if (dbg_ip_api_misc != 0) {
    debug_line("ip_cl_icmp_output (0x%x %ld 0x%x)\n", shown_address(packet), static_cast<long>(context_id),
               shown_address(client));
  }
  if (refused(icmp_output, packet, client)) return 0;
  auto *message = allocate_record<ip_msg_icmp_output>(icmp_output, IP_MSG_ICMP_OUTPUT, icmp_output_line);
  if (message == nullptr) return 0;
  message->iod = iod;
  message->context_id = context_id;
  message->flags = flags;
  return send_packet(icmp_output, client->data_q, packet, *message);
}

uint32_t ip_icmp_error(uint32_t iod, struct mbuf *packet, uint32_t type, uint32_t code, struct ip_client *client,
                       uint32_t context_id, uint32_t rest_of_header) {
  using namespace libip;
  if (dbg_ip_api_misc != 0) {
    debug_line("ip_icmp_error(0x%x %d %d 0x%x)\n", shown_address(packet), static_cast<int>(type),
               static_cast<int>(code), shown_address(client));
  }
  if (refused(icmp_error, packet, client)) return 0;
  auto *message = allocate_record<ip_msg_icmp_error>(icmp_error, IP_MSG_ICMP_ERROR, icmp_error_line);
  if (message == nullptr) return 0;
  message->iod = iod;
  message->type = type;
  message->code = code;
  message->context_id = context_id;
  message->rest_of_header = rest_of_header;
  return send_packet(icmp_error, client->data_q, packet, *message);
}

uint32_t ip_driver_send_icmp_packet(uint32_t type, uint32_t code, uint32_t quoted_len, const void *quoted) {
  using namespace libip;
  if (ip_driver_api_init() == 0) return 0;
  if (quoted == nullptr || quoted_len < IP_QUOTED_MIN || quoted_len > IP_QUOTED_MAX) return 0;
  ip_msg_driver_icmp *message = allocate_driver_message();
  if (message == nullptr) return 0;
  // The header that all messages share, but for its uuid, where this one has a length.
  ip_msg_header header{};
  fill_header(header, IP_MSG_DRIVER_ICMP);
  std::memcpy(message, &header, offsetof(ip_msg_header, uuid));
  std::memcpy(message->quoted, quoted, quoted_len);
  message->quoted_len = quoted_len;
  message->type = type;
  message->code = code;
  mts_send_opts options = send_options();
  const int32_t status = mts_send(ip_client.data_q, IP_NODE_LOCAL, IP_SAP_PACKET, IP_OPCODE_PACKET, message,
                                  IP_DRIVER_MSG_SIZE, nullptr, 0, &options);
  mtrack_free(message);
  return status < 0 ? 0 : 1;
}

uint32_t ip_driver_send_icmp_unreachable(uint32_t quoted_len, const void *quoted) {
  constexpr uint32_t destination_unreachable = 3;
  constexpr uint32_t fragmentation_needed = 4;
  return ip_driver_send_icmp_packet(destination_unreachable, fragmentation_needed, quoted_len, quoted);
}

}  // extern "C"
