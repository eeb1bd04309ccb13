// SPDX-License-Identifier: Apache-2.0
/* Packets whose bytes follow from a number that stands in them, so that a receiver sees whether one is whole. */
#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"
#include "mbuf.h"
#include "mts.h"
#include "soak_client.h"

#define HEADER 20u
#define LEAST (HEADER + 12u)
#define MOST 4000u
#define MARK 0x534f414bu

static void put(uint8_t *place, uint32_t word) {
  const uint32_t word_net = htonl(word);
  memcpy(place, &word_net, sizeof word_net);
}

static uint32_t get(const uint8_t *place) {
  uint32_t word_net;
  memcpy(&word_net, place, sizeof word_net);
  return ntohl(word_net);
}

static uint8_t byte_of(uint32_t number, uint32_t place) {
  const uint32_t mixed = (number ^ place * 2654435761u) * 2246822519u;
  return (uint8_t)(mixed >> 24);
}

static uint16_t checksum(const uint8_t *header) {
  uint32_t sum = 0;
  for (uint32_t i = 0; i < HEADER; i += 2) sum += (uint32_t)header[i] << 8 | header[i + 1];
  while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
  return (uint16_t)~sum;
}

/* `source` 0: ipd fills it in, and the checksum. */
static uint32_t write_packet(uint8_t *bytes, uint32_t source) {
  const uint32_t length = LEAST + random_word() % (random_word() % 8 == 0 ? MOST - LEAST : 400);
  const uint32_t number = random_word();
  memset(bytes, 0, HEADER);
  bytes[0] = 0x45;
  bytes[2] = (uint8_t)(length >> 8);
  bytes[3] = (uint8_t)length;
  bytes[8] = 1;
  bytes[9] = SOAK_PROTOCOL;
  put(bytes + 12, source);
  put(bytes + 16, SOAK_GROUP);
  if (source != 0) {
    const uint16_t sum = checksum(bytes);
    bytes[10] = (uint8_t)(sum >> 8);
    bytes[11] = (uint8_t)sum;
  }
  put(bytes + HEADER, MARK);
  put(bytes + HEADER + 4, number);
  put(bytes + HEADER + 8, length);
  for (uint32_t i = LEAST; i < length; ++i) bytes[i] = byte_of(number, i);
  if (spoils_packets() && length > LEAST) bytes[length - 1] ^= 1;
  return length;
}

static void check_packet(const uint8_t *bytes, uint32_t length) {
  if (length < LEAST || bytes[0] != 0x45 || bytes[9] != SOAK_PROTOCOL) {
    tell_wrong("no packet of ours", length, 0);
    return;
  }
  const uint32_t source = get(bytes + 12);
  const uint32_t number = get(bytes + HEADER + 4);
  if (source != SOAK_FIXED + 1 && source != SOAK_HANDED_IN_FROM) tell_wrong("a packet from elsewhere", source, number);
  if (get(bytes + 16) != SOAK_GROUP) tell_wrong("a packet to elsewhere", get(bytes + 16), number);
  if (get(bytes + HEADER) != MARK || get(bytes + HEADER + 8) != length) {
    tell_wrong("a packet of another length", get(bytes + HEADER + 8), length);
    return;
  }
  for (uint32_t i = LEAST; i < length; ++i) {
    if (bytes[i] != byte_of(number, i)) {
      tell_wrong("a packet with another's bytes", number, i);
      return;
    }
  }
}

void send_packet(enum soak_kind kind) {
  uint8_t bytes[MOST];
  const uint32_t length = write_packet(bytes, kind == SOAK_HAND_IN ? SOAK_HANDED_IN_FROM : 0);
  begin(kind);
  ip_client.flags = kind == SOAK_SEND_SEGMENTS ? IP_CLIENT_RECV_MTS : 0;
  ip_client.data_q = data_queue;
  struct mbuf *packet = m_gethdr();
  uint32_t sent = 0;
  if (packet != NULL && m_append(packet, bytes, length) != 1) {
    m_freem(packet);
    packet = NULL;
  }
  if (packet != NULL) {
    sent = kind == SOAK_HAND_IN ? ip_cl_input(left, packet, 0, &ip_client)
                                : ip_cl_output(left, packet, 0, 0, IP_OUTPUT_LOOPBACK, &ip_client);
  }
  end(kind, sent == 1);
}

static void read_message(mts_msg_ref_t msg) {
  static uint8_t bytes[65536];
  struct ip_msg_input record;
  const uint32_t size = mts_payload_size(msg);
  const uint8_t *payload = mts_payload_get(msg);
  if (mts_opc_get(msg) != IP_OPCODE_PACKET) return;
  if (payload == NULL || size < sizeof record) {
    tell_wrong("a short message", size, 0);
    return;
  }
  memcpy(&record, payload, sizeof record);
  if (record.packet_ref == 0) {
    check_packet(payload + sizeof record, size - (uint32_t)sizeof record);
    seat->by_segments++;
    return;
  }
  struct mbuf *packet = m_packet_at(record.packet_ref);
  if (packet == NULL) {
    tell_wrong("a packet that is not ours", record.packet_ref, size);
    return;
  }
  const uint32_t length = m_length(packet);
  if (length > sizeof bytes || (m_copydata(packet, 0, (int32_t)length, bytes) & 0xffff) != 0) {
    tell_wrong("a packet that cannot be read", record.packet_ref, length);
  } else {
    check_packet(bytes, length);
  }
  m_freem(packet);
  seat->by_reference++;
}

void receive_packet(void) {
  struct mts_recv_opts options = {{1, 0, 1}};
  mts_msg_ref_t msg = NULL;
  begin(SOAK_RECEIVE);
  const int arrived = mts_recv(data_queue, &msg, &options) == 0;
  if (arrived == 0 && errno != ETIMEDOUT && errno != ECONNRESET && errno != EINTR) {
    tell_wrong("a receive that failed", (uint32_t)errno, 0);
  }
  if (arrived != 0) {
    read_message(msg);
    (void)mts_drop(data_queue, msg);
  }
  end(SOAK_RECEIVE, arrived);
}
