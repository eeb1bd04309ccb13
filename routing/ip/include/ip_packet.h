// SPDX-License-Identifier: Apache-2.0
// Packets to the IP process: for output, for input processing, for replication, as ICMP. Part of ip_api.h, which says
// what its words mean (host order, Threads, Blocks, Owns).
//
// A packet is a chain of buffers (mbuf.h) and goes to IP_SAP_PACKET with a message that says what is to be done with
// it. It travels in one of two ways, which IP_CLIENT_RECV_MTS in the process's own ip_client.flags chooses:
//
//   by reference  the flag is not set. The message names the first buffer (packet_ref). After a good send the packet is
//                 the IP process's: not to be touched any more, whatever the call says about freeing
//   by segments   the flag is set. The packet's bytes go with the message, as at most 8 pieces, and packet_ref is 0.
//                 The buffers stay behind
//
// The calls differ in who frees the packet when it did not travel by reference, and that is on purpose:
//
//                                 null client  no memory  not converted  sent, by segments  not sent
//   ip_cl_output, .._src_l2_addr  freed        -          freed          freed              freed
//   ip_cl_output_nfree            caller's     -          caller's       caller's           caller's
//   ip_cl_output_l2, _mvr, _dce   -            -          freed          free_flag          free_flag
//   ip_cl_icmp_output, ip_icmp_   caller's     caller's   caller's       freed              caller's
//     error
//   ip_cl_input, ip_cl_consume    freed        freed      freed          freed              freed
//   ip_send_replicate             -            -          freed          freed              freed
//
// "Not converted": there was no memory for the pieces, which a debug line tells. "Free_flag": freed if it is not 0. The
// same goes for a packet whose interface is refused, see there. A null packet is refused by every call.
//
// Unless a function says otherwise: Threads: any, one per packet. Blocks: as mts_send. Results: 1: the message was
// sent; 0: it was not. Whether the IP process could do what was asked is not told.
#ifndef IP_PACKET_H
#define IP_PACKET_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "ip_msg.h"
#include "mbuf.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct ip_client;

// ----------------------------------------------------------------------------------------------------------- messages

// What the IP process receives with IP_OPCODE_PACKET. The library carries the callers' words without looking at them;
// the names say what the IP process takes them for. All bytes without a name are zero. Addresses and lengths are in
// host order, layer-2 addresses as they lie in a frame.
//
// Every message but that of a driver says of its packet:
//   packet_ref   address of the first buffer; 0: the bytes come as segments
//   packet_len   bytes of the packet, the low 16 bits of that number
//   packet_word  hdr_word of the first buffer, and its hdr_byte: packet_byte

// IP_MSG_OUTPUT.
struct ip_msg_output {
  struct ip_msg_header header;
  uint32_t reserved24;
  uint32_t iod;  // the interface to leave by; 0: the route says
  uint32_t packet_ref;
  uint32_t next_hop;   // 0: the route says
  int32_t context_id;  // whose routes; 0 and below: the interface's, else those of the default context
  uint32_t reserved44;
  uint32_t flags;          // IP_OUTPUT_...
  uint8_t src_l2_addr[6];  // source address of the frame, if src_l2_valid
  uint16_t packet_len;
  uint16_t packet_word;
  uint8_t packet_byte;
  uint8_t src_l2_valid;  // 1: src_l2_addr was given
  uint8_t reserved64[168];
};
static_assert(sizeof(struct ip_msg_output) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_output, iod) == 28, "");
static_assert(offsetof(struct ip_msg_output, packet_ref) == 32, "");
static_assert(offsetof(struct ip_msg_output, next_hop) == 36, "");
static_assert(offsetof(struct ip_msg_output, context_id) == 40, "");
static_assert(offsetof(struct ip_msg_output, flags) == 48, "");
static_assert(offsetof(struct ip_msg_output, src_l2_addr) == 52, "");
static_assert(offsetof(struct ip_msg_output, packet_len) == 58, "");
static_assert(offsetof(struct ip_msg_output, packet_word) == 60, "");
static_assert(offsetof(struct ip_msg_output, packet_byte) == 62, "");
static_assert(offsetof(struct ip_msg_output, src_l2_valid) == 63, "");

#define IP_OUTPUT_DONT_ROUTE 1u  // only to a destination on the interface's own subnets
#define IP_OUTPUT_LOOPBACK 2u    // a multicast packet goes to this system's own members, too

// IP_MSG_INPUT and IP_MSG_CONSUME.
struct ip_msg_input {
  struct ip_msg_header header;
  uint32_t reserved24;
  uint32_t iod;  // the interface that the packet came in by
  uint32_t packet_ref;
  uint32_t reserved36;
  uint32_t context_id;  // 0: the interface's
  uint8_t reserved44[14];
  uint16_t packet_len;
  uint16_t packet_word;
  uint8_t packet_byte;
  uint8_t reserved63[17];
  uint8_t src_l2_addr[6];  // IP_MSG_CONSUME: source address of the frame; all zeros: not known
  uint8_t reserved86[146];
};
static_assert(sizeof(struct ip_msg_input) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_input, iod) == 28, "");
static_assert(offsetof(struct ip_msg_input, packet_ref) == 32, "");
static_assert(offsetof(struct ip_msg_input, context_id) == 40, "");
static_assert(offsetof(struct ip_msg_input, packet_len) == 58, "");
static_assert(offsetof(struct ip_msg_input, packet_word) == 60, "");
static_assert(offsetof(struct ip_msg_input, packet_byte) == 62, "");
static_assert(offsetof(struct ip_msg_input, src_l2_addr) == 80, "");

// IP_MSG_REPLICATE.
struct ip_msg_replicate {
  struct ip_msg_header header;
  uint32_t reserved24;
  uint32_t iod;  // the interface that the packet came in by, to which no copy goes
  uint32_t packet_ref;
  uint32_t reserved36;
  uint32_t context_id;  // 0: the interface's
  uint8_t reserved44[14];
  uint16_t packet_len;
  uint16_t packet_word;
  uint8_t packet_byte;
  uint8_t reserved63[65];
  uint8_t flags;  // IP_REPLICATE_...
  uint8_t reserved129[103];
};
static_assert(sizeof(struct ip_msg_replicate) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_replicate, iod) == 28, "");
static_assert(offsetof(struct ip_msg_replicate, packet_ref) == 32, "");
static_assert(offsetof(struct ip_msg_replicate, context_id) == 40, "");
static_assert(offsetof(struct ip_msg_replicate, packet_len) == 58, "");
static_assert(offsetof(struct ip_msg_replicate, packet_word) == 60, "");
static_assert(offsetof(struct ip_msg_replicate, packet_byte) == 62, "");
static_assert(offsetof(struct ip_msg_replicate, flags) == 128, "");

#define IP_REPLICATE_LOCAL 1u  // one copy goes to this system's own members

// IP_MSG_ICMP_OUTPUT: a packet whose protocol is ICMP.
struct ip_msg_icmp_output {
  struct ip_msg_header header;
  uint32_t reserved24;
  uint32_t iod;  // the interface to leave by; 0: the route says
  uint32_t packet_ref;
  uint32_t reserved36;
  int32_t context_id;  // as in ip_msg_output
  uint32_t flags;      // IP_OUTPUT_...
  uint8_t reserved48[10];
  uint16_t packet_len;
  uint16_t packet_word;
  uint8_t packet_byte;
  uint8_t reserved63[169];
};
static_assert(sizeof(struct ip_msg_icmp_output) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_icmp_output, iod) == 28, "");
static_assert(offsetof(struct ip_msg_icmp_output, packet_ref) == 32, "");
static_assert(offsetof(struct ip_msg_icmp_output, context_id) == 40, "");
static_assert(offsetof(struct ip_msg_icmp_output, flags) == 44, "");
static_assert(offsetof(struct ip_msg_icmp_output, packet_len) == 58, "");
static_assert(offsetof(struct ip_msg_icmp_output, packet_word) == 60, "");
static_assert(offsetof(struct ip_msg_icmp_output, packet_byte) == 62, "");

// IP_MSG_ICMP_ERROR: an ICMP error is wanted about the packet. What it says of the packet stands six bytes before the
// place that it has in the other messages.
struct ip_msg_icmp_error {
  struct ip_msg_header header;
  uint32_t reserved24;
  uint32_t iod;  // the interface that the packet came in by; 0: not known
  uint32_t packet_ref;
  uint32_t type;  // of the ICMP error (RFC 792)
  uint32_t code;
  uint32_t context_id;      // 0: the interface's, else the default context
  uint32_t rest_of_header;  // bytes 4 .. 7 of the ICMP header, byte 4 the most significant: MTU, pointer or gateway
  uint16_t packet_len;
  uint16_t packet_word;
  uint8_t packet_byte;
  uint8_t reserved57[175];
};
static_assert(sizeof(struct ip_msg_icmp_error) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_icmp_error, iod) == 28, "");
static_assert(offsetof(struct ip_msg_icmp_error, packet_ref) == 32, "");
static_assert(offsetof(struct ip_msg_icmp_error, type) == 36, "");
static_assert(offsetof(struct ip_msg_icmp_error, code) == 40, "");
static_assert(offsetof(struct ip_msg_icmp_error, context_id) == 44, "");
static_assert(offsetof(struct ip_msg_icmp_error, rest_of_header) == 48, "");
static_assert(offsetof(struct ip_msg_icmp_error, packet_len) == 52, "");
static_assert(offsetof(struct ip_msg_icmp_error, packet_word) == 54, "");
static_assert(offsetof(struct ip_msg_icmp_error, packet_byte) == 56, "");

#define IP_QUOTED_MIN 28u  // an IPv4 header without options and 8 bytes behind it
#define IP_QUOTED_MAX 68u  // the longest IPv4 header and 8 bytes behind it

// IP_MSG_DRIVER_ICMP, of IP_DRIVER_MSG_SIZE bytes: an ICMP error is wanted about the packet that begins with these
// bytes. It has no uuid: its length stands there.
struct ip_msg_driver_icmp {
  uint16_t major_type;
  uint16_t minor_type;
  uint32_t pid;
  uint32_t epid;
  uint32_t timestamp[2];
  uint32_t quoted_len;            // IP_QUOTED_MIN .. IP_QUOTED_MAX
  uint8_t quoted[IP_QUOTED_MAX];  // zeros behind quoted_len bytes
  uint32_t type;                  // of the ICMP error (RFC 792)
  uint32_t code;
};
#define IP_DRIVER_MSG_SIZE 100u
static_assert(sizeof(struct ip_msg_driver_icmp) == IP_DRIVER_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_driver_icmp, minor_type) == 2, "");
static_assert(offsetof(struct ip_msg_driver_icmp, pid) == 4, "");
static_assert(offsetof(struct ip_msg_driver_icmp, epid) == 8, "");
static_assert(offsetof(struct ip_msg_driver_icmp, timestamp) == 12, "");
static_assert(offsetof(struct ip_msg_driver_icmp, quoted_len) == 20, "");
static_assert(offsetof(struct ip_msg_driver_icmp, quoted) == 24, "");
static_assert(offsetof(struct ip_msg_driver_icmp, type) == 92, "");
static_assert(offsetof(struct ip_msg_driver_icmp, code) == 96, "");

// IP_MSG_OUTPUT_L2, IP_MSG_OUTPUT_L2_MVR and IP_MSG_OUTPUT_L2_DCE. What stands from src_l2_addr to word112 belongs to
// the last, mvr to the second, flags to the first two.
struct ip_msg_output_l2 {
  struct ip_msg_header header;
  uint8_t reserved24[8];
  uint32_t packet_ref;
  uint8_t reserved36[22];
  uint16_t packet_len;
  uint16_t packet_word;
  uint8_t packet_byte;
  uint8_t reserved63;
  uint32_t next_hop;  // who resolves to the frame's destination when dst_l2_addr is all zeros; 0: the packet's own
  uint32_t reserved68;
  uint32_t iod;            // the interface to leave by, never 0
  uint32_t vlan;           // tag of the frame; 0: none
  uint8_t dst_l2_addr[6];  // destination of the frame; all zeros: not given
  uint8_t src_l2_addr[6];  // source of the frame; all zeros: the interface's own
  // Eight values of the call, by their place among its arguments; in the message they stand in another order.
  uint16_t argument7;
  uint16_t argument10;
  uint16_t argument9;
  uint16_t argument11;
  uint16_t argument8;
  uint16_t argument12;
  uint16_t argument13;
  uint16_t argument14;
  uint32_t word108;
  uint32_t word112;
  uint32_t mvr;  // 1 in IP_MSG_OUTPUT_L2_MVR
  uint8_t reserved120[8];
  uint8_t flags;  // IP_L2_...
  uint8_t reserved129[103];
};
static_assert(sizeof(struct ip_msg_output_l2) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_output_l2, packet_ref) == 32, "");
static_assert(offsetof(struct ip_msg_output_l2, packet_len) == 58, "");
static_assert(offsetof(struct ip_msg_output_l2, packet_word) == 60, "");
static_assert(offsetof(struct ip_msg_output_l2, packet_byte) == 62, "");
static_assert(offsetof(struct ip_msg_output_l2, next_hop) == 64, "");
static_assert(offsetof(struct ip_msg_output_l2, iod) == 72, "");
static_assert(offsetof(struct ip_msg_output_l2, vlan) == 76, "");
static_assert(offsetof(struct ip_msg_output_l2, dst_l2_addr) == 80, "");
static_assert(offsetof(struct ip_msg_output_l2, src_l2_addr) == 86, "");
static_assert(offsetof(struct ip_msg_output_l2, argument7) == 92, "");
static_assert(offsetof(struct ip_msg_output_l2, argument10) == 94, "");
static_assert(offsetof(struct ip_msg_output_l2, argument9) == 96, "");
static_assert(offsetof(struct ip_msg_output_l2, argument11) == 98, "");
static_assert(offsetof(struct ip_msg_output_l2, argument8) == 100, "");
static_assert(offsetof(struct ip_msg_output_l2, argument12) == 102, "");
static_assert(offsetof(struct ip_msg_output_l2, argument13) == 104, "");
static_assert(offsetof(struct ip_msg_output_l2, argument14) == 106, "");
static_assert(offsetof(struct ip_msg_output_l2, word108) == 108, "");
static_assert(offsetof(struct ip_msg_output_l2, word112) == 112, "");
static_assert(offsetof(struct ip_msg_output_l2, mvr) == 116, "");
static_assert(offsetof(struct ip_msg_output_l2, flags) == 128, "");

#define IP_L2_UNCHANGED 1u  // in the message: no field of the IP header is filled in, not even a zero checksum

// The same as the calls' flags argument: each reads another bit of it, and no more.
#define IP_OUTPUT_L2_UNCHANGED 4u      // ip_cl_output_l2
#define IP_OUTPUT_L2_MVR_UNCHANGED 1u  // ip_cl_output_l2_mvr

// ------------------------------------------------------------------------------------------------------------- output

// Hands a packet over for output: an IPv4 packet with its header.
//   iod, next_hop, context_id, flags  as in struct ip_msg_output
//   client                            whose data queue sends, &ip_client; null: refused
//   src_l2                            6 bytes; null: as ip_cl_output
// Owns: see the top; ip_cl_output_nfree leaves the packet with the caller, also after a good send by segments.
// Debug lines: dbg_ip_api_misc each call and what was refused or not sent, dbg_ip_cl_output each good send.
uint32_t ip_cl_output(uint32_t iod, struct mbuf *packet, uint32_t next_hop, int32_t context_id, uint32_t flags,
                      struct ip_client *client);
uint32_t ip_cl_output_nfree(uint32_t iod, struct mbuf *packet, uint32_t next_hop, int32_t context_id, uint32_t flags,
                            struct ip_client *client);
uint32_t ip_cl_output_src_l2_addr(uint32_t iod, struct mbuf *packet, uint32_t next_hop, int32_t context_id,
                                  uint32_t flags, struct ip_client *client, const uint8_t *src_l2);

// Hands a packet over for output by an interface in a frame that the caller describes. Sent from the process's own data
// queue.
//   iod, next_hop, vlan  as in struct ip_msg_output_l2; iod 0: refused
//   ignored              not looked at
//   free_flag            nonzero: the packet is freed when it did not travel by reference. Without memory for its
//                        pieces it is freed in any case
//   l2_addr, l2_addr2    6 bytes, destination and source of the frame; null: not given
//   flags                IP_OUTPUT_L2_UNCHANGED and IP_OUTPUT_L2_MVR_UNCHANGED, respectively
//   a7 .. a14, word112, word108  as in struct ip_msg_output_l2
// Owns: see the top. A null packet with a free_flag reaches m_freem as it is.
uint32_t ip_cl_output_l2(struct mbuf *packet, uint32_t iod, uint32_t next_hop, uint32_t vlan, uint32_t ignored,
                         uint32_t free_flag, const uint8_t *l2_addr, uint32_t flags);
uint32_t ip_cl_output_l2_mvr(struct mbuf *packet, uint32_t iod, uint32_t next_hop, uint32_t vlan, uint32_t ignored,
                             uint32_t free_flag, const uint8_t *l2_addr, uint32_t flags);
uint32_t ip_cl_output_l2_dce(struct mbuf *packet, uint32_t iod, uint32_t next_hop, uint32_t vlan, uint32_t free_flag,
                             const uint8_t *l2_addr, uint16_t a7, uint16_t a8, uint16_t a9, uint16_t a10, uint16_t a11,
                             uint16_t a12, uint16_t a13, uint16_t a14, const uint8_t *l2_addr2, uint32_t word112,
                             uint32_t word108);

// Sends nothing: it is ip_cl_output_l2 without an interface. Kept for its callers.
//   ignored, next_hop, vlan, l2_addr  not looked at
//   free_flag                         nonzero: the packet is freed
// Owns: takes the packet if free_flag is not 0. Results: 0.
uint32_t ip_cl_output_l2_pw(struct mbuf *packet, uint32_t ignored, uint32_t next_hop, uint32_t vlan, uint32_t free_flag,
                            const uint8_t *l2_addr);

// --------------------------------------------------------------------------------------------------------------- ICMP

// Whether an ICMP message may be sent at all (RFC 1122 3.2.2, RFC 1812 4.3.2), and how many, is the IP process's to
// decide: nothing here looks at the packet.

// Hands a complete ICMP packet over for output.
//   iod, context_id, flags  as in struct ip_msg_icmp_output
//   client                  whose data queue sends, &ip_client; null: refused
// Owns: see the top: whenever it fails the packet is the caller's. Without memory for the packet's pieces the message's
// 232 bytes are lost.
// Debug lines: dbg_ip_api_misc each call and what was refused or not sent, dbg_ip_cl_icmp_output each good send. No
// memory for the message is told on the console, too.
uint32_t ip_cl_icmp_output(uint32_t iod, struct mbuf *packet, int32_t context_id, struct ip_client *client,
                           uint32_t flags);

// Asks for an ICMP error about a packet.
//   iod, type, code, context_id, rest_of_header  as in struct ip_msg_icmp_error
//   packet, client                               as above
// Owns, Debug lines: as above; dbg_ip_icmp_error each good send.
uint32_t ip_icmp_error(uint32_t iod, struct mbuf *packet, uint32_t type, uint32_t code, struct ip_client *client,
                       uint32_t context_id, uint32_t rest_of_header);

// The same for a driver, which has no buffers: about the packet that begins with these bytes. Sent from the process's
// own data queue.
//   type, code  of the ICMP error (RFC 792)
//   quoted_len  IP_QUOTED_MIN .. IP_QUOTED_MAX; else refused
//   quoted      IPv4 header and what follows; null: refused
// Owns: nothing. No memory for the message is told on the console.
uint32_t ip_driver_send_icmp_packet(uint32_t type, uint32_t code, uint32_t quoted_len, const void *quoted);

// The same for a packet that would have to be fragmented and must not be (type 3, code 4).
uint32_t ip_driver_send_icmp_unreachable(uint32_t quoted_len, const void *quoted);

// -------------------------------------------------------------------------------------------------------------- input

// Hands a received packet over: for input processing; or for input processing with the source of its frame.
//   iod, context_id  as in struct ip_msg_input
//   src_l2           6 bytes; null: not known
//   client           whose data queue sends, &ip_client; null: refused
// Owns: takes the packet in every case. Without memory for the packet's pieces the message's 232 bytes are lost.
// Debug lines: dbg_cl_input and dbg_ip_cl_consume each call, dbg_ip_cl_input each good send of both, dbg_ip_api_misc
// what was refused or not sent. No memory for the message is told on the console, and logged as IP_NO_MEM.
uint32_t ip_cl_input(uint32_t iod, struct mbuf *packet, uint32_t context_id, struct ip_client *client);
uint32_t ip_cl_consume(uint32_t iod, struct mbuf *packet, uint32_t context_id, const uint8_t *src_l2,
                       struct ip_client *client);

// ------------------------------------------------------------------------------------------- replication, and the rest

// Hands a packet over to be sent to every interface that has joined its group. Sent from the process's own data queue.
//   iod, context_id  as in struct ip_msg_replicate
//   flag             IP_REPLICATE_...; no other bit of it is carried
// Owns: takes the packet, but a null one.
uint32_t ip_send_replicate(struct mbuf *packet, uint32_t iod, uint32_t context_id, uint8_t flag);

// Marks the client record for a restart. Nothing is sent: the mark reaches the IP process with ip_deregister().
//   name, number  for the debug line (dbg_ip_api_misc)
//   client        its reg_aux8 becomes 1 and its reg_aux32 the interval; ip_register() takes both back. Null: refused
// Threads: start-up. Blocks: no. Results: 1; 0: no client.
uint32_t ip_dont_forward_ra_on_restart(const char *name, uint8_t number, struct ip_client *client, uint32_t interval);

// The address to use towards a remote one: ip_get_route(), but for loopback, and without its out-value.
//   context_id  where to look
//   remote_net  network order
// Threads: any. Blocks: no. Results: as ip_get_route() says; 127.0.0.1 in host order for itself; 0 for an address that
// no host may have.
uint32_t ip_local_from_remote(uint32_t context_id, uint32_t remote_net);

// Writes a 20-byte IPv4 header without options, identification and checksum, with TTL 255.
//   hdr        20 bytes, of any alignment
//   total_len  network order: written as it is
//   proto      the IP protocol of what follows
//   src, dst   host order
// Threads: any. Blocks: no. Results: 1.
uint32_t ip_l3_encap(void *hdr, uint16_t total_len, uint8_t proto, uint32_t src, uint32_t dst);

// What a destination counts as.
//   addr  the destination, host order
//   iod   of the interface whose directed broadcasts count
// Threads: any. Blocks: no. Results: IP_PACKET_UNICAST, IP_PACKET_MULTICAST or IP_PACKET_BROADCAST.
uint32_t ip_packet_stats_type(uint32_t addr, uint32_t iod);

#define IP_PACKET_UNICAST 0u
#define IP_PACKET_MULTICAST 1u
#define IP_PACKET_BROADCAST 2u

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
