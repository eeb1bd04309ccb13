// SPDX-License-Identifier: Apache-2.0
// What the IP process shows of its services to people: who its clients are, what they hold, which messages and packets
// came and what was refused, and packets as they pass. Requests of the transport to SAP IP_SAP_CONTROL with
// IP_OPCODE_CLIENT; for tools such as ipsh, not for clients: entries may grow, and a reader takes from each what it
// knows.
//
// An answer has as many entries as fit into a message. Where there are more, the next request begins behind the last
// one: entries are ascending by their first word, and what changes meanwhile is in the answer or not.
#ifndef IP_SHOW_H
#define IP_SHOW_H

#include "ip_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

#define IP_MSG_SHOW_CLIENTS 64u        // struct ip_show_client
#define IP_MSG_SHOW_REGISTRATIONS 65u  // struct ip_show_registration
#define IP_MSG_SHOW_MESSAGES 66u       // struct ip_show_message
#define IP_MSG_SHOW_PACKETS 67u        // struct ip_show_packets
#define IP_MSG_CAPTURE 68u             // struct ip_msg_capture, no listing
#define IP_MSG_CAPTURED 69u            // struct ip_msg_captured, from the IP process

// The requests of all listings. One that its sender may not ask, or that is malformed, is rejected.
struct ip_msg_show {
  struct ip_msg_header header;
  uint32_t after;  // begin behind the entry with this first word; 0: at the beginning
  uint32_t reserved28;
};
static_assert(sizeof(struct ip_msg_show) == 32, "");
static_assert(offsetof(struct ip_msg_show, after) == 24, "");

// The answer; its entries follow.
struct ip_msg_show_reply {
  struct ip_msg_header header;
  uint32_t count;
  uint32_t entry_size;  // the step from one to the next
  uint32_t more;        // 1: there are more behind the last
  uint32_t reserved36;
};
static_assert(sizeof(struct ip_msg_show_reply) == 40, "");
static_assert(offsetof(struct ip_msg_show_reply, count) == 24, "");
static_assert(offsetof(struct ip_msg_show_reply, entry_size) == 28, "");
static_assert(offsetof(struct ip_msg_show_reply, more) == 32, "");

// A process that sent something and is there still.
struct ip_show_client {
  uint32_t pid;
  uint32_t uid;
  uint32_t received;  // messages from it; wraps
  uint32_t refused;   // of them; wraps
  uint32_t registrations;
  uint32_t memberships;  // groups and channels that it joined
  uint32_t loans;        // interfaces that it made unnumbered
  uint32_t downloads;    // of interface information, that go on
  uint32_t link_local_reports;
  uint32_t link_local_ref;  // of the report with the greatest one
  uint32_t link_local_value;
  uint32_t reserved44;
};
static_assert(sizeof(struct ip_show_client) == 48, "");
static_assert(offsetof(struct ip_show_client, uid) == 4, "");
static_assert(offsetof(struct ip_show_client, received) == 8, "");
static_assert(offsetof(struct ip_show_client, refused) == 12, "");
static_assert(offsetof(struct ip_show_client, registrations) == 16, "");
static_assert(offsetof(struct ip_show_client, memberships) == 20, "");
static_assert(offsetof(struct ip_show_client, loans) == 24, "");
static_assert(offsetof(struct ip_show_client, downloads) == 28, "");
static_assert(offsetof(struct ip_show_client, link_local_reports) == 32, "");
static_assert(offsetof(struct ip_show_client, link_local_ref) == 36, "");
static_assert(offsetof(struct ip_show_client, link_local_value) == 40, "");

struct ip_show_registration {
  uint32_t serial;  // each has its own, in the order in which they were made
  uint32_t pid;
  uint32_t uid;
  uint32_t reg_mode;
  uint32_t reg_arg1;
  uint32_t reg_arg2;
  uint32_t data_sap;  // 0: none
  uint32_t flags;     // IP_CLIENT_...
  uint8_t reg_key;
  uint8_t reserved33[3];
  char name[68];     // NUL-terminated; may be empty
  char recv_fn[40];  // NUL-terminated; may be empty
};
static_assert(sizeof(struct ip_show_registration) == 144, "");
static_assert(offsetof(struct ip_show_registration, pid) == 4, "");
static_assert(offsetof(struct ip_show_registration, uid) == 8, "");
static_assert(offsetof(struct ip_show_registration, reg_mode) == 12, "");
static_assert(offsetof(struct ip_show_registration, reg_arg1) == 16, "");
static_assert(offsetof(struct ip_show_registration, reg_arg2) == 20, "");
static_assert(offsetof(struct ip_show_registration, data_sap) == 24, "");
static_assert(offsetof(struct ip_show_registration, flags) == 28, "");
static_assert(offsetof(struct ip_show_registration, reg_key) == 32, "");
static_assert(offsetof(struct ip_show_registration, name) == 36, "");
static_assert(offsetof(struct ip_show_registration, recv_fn) == 104, "");

// Why a message was refused: the places in ip_show_message.counts.
#define IP_SHOW_DONE 0u  // not at all
#define IP_SHOW_TOO_SHORT 1u
#define IP_SHOW_TOO_LONG 2u
#define IP_SHOW_WRONG_MAJOR 3u
#define IP_SHOW_UNKNOWN_MINOR 4u
#define IP_SHOW_WRONG_OPCODE 5u
#define IP_SHOW_BAD_FIELD 6u
#define IP_SHOW_NO_INTERFACE 7u
#define IP_SHOW_NOT_ALLOWED 8u
#define IP_SHOW_NAME_TAKEN 9u
#define IP_SHOW_NOT_REGISTERED 10u
#define IP_SHOW_LIMIT 11u
#define IP_SHOW_KERNEL 12u
#define IP_SHOW_NO_ANSWER 13u
#define IP_SHOW_OUTCOMES 14u  // how many there are

// A kind of message, since the IP process started. Counts as two words, the low one first.
struct ip_show_message {
  uint32_t order;  // ascending; says nothing else
  uint32_t minor;  // IP_MSG_...; 0: of no kind that is known
  char name[40];   // NUL-terminated
  uint32_t counts[16][2];
};
static_assert(sizeof(struct ip_show_message) == 176, "");
static_assert(offsetof(struct ip_show_message, minor) == 4, "");
static_assert(offsetof(struct ip_show_message, name) == 8, "");
static_assert(offsetof(struct ip_show_message, counts) == 48, "");

// What became of a packet: the places in ip_show_packets.counts.
#define IP_SHOW_PACKET_DONE 0u           // sent, or delivered, as asked
#define IP_SHOW_PACKET_TOO_SHORT 1u      // the message is less than its record
#define IP_SHOW_PACKET_TOO_LONG 2u       // more than its record, and no packet behind it is expected
#define IP_SHOW_PACKET_WRONG_MAJOR 3u    // no client message
#define IP_SHOW_PACKET_UNKNOWN_MINOR 4u  // no message that the packet queue takes
#define IP_SHOW_PACKET_WRONG_OPCODE 5u
#define IP_SHOW_PACKET_NOT_ALLOWED 6u    // the sender lacks the right
#define IP_SHOW_PACKET_BAD_REFERENCE 7u  // it names no packet of the sender's
#define IP_SHOW_PACKET_BAD_LENGTH 8u     // the packet is not as long as the message says
#define IP_SHOW_PACKET_BAD_PACKET 9u     // no IPv4 packet, or one that nobody may send or receive
#define IP_SHOW_PACKET_BAD_FIELD 10u     // another field has a value that makes no sense
#define IP_SHOW_PACKET_NO_CONTEXT 11u
#define IP_SHOW_PACKET_NO_INTERFACE 12u
#define IP_SHOW_PACKET_INTERFACE_DOWN 13u  // or it cannot do what is asked, as multicast
#define IP_SHOW_PACKET_NO_ROUTE 14u
#define IP_SHOW_PACKET_NO_SOURCE 15u     // the packet wants a source address, and there is none
#define IP_SHOW_PACKET_NO_NEIGHBOR 16u   // who is to get the frame does not answer
#define IP_SHOW_PACKET_TOO_BIG 17u       // it does not fit the interface, and must not be fragmented
#define IP_SHOW_PACKET_NOT_ELIGIBLE 18u  // about this packet no ICMP error may be sent
#define IP_SHOW_PACKET_RATE_LIMITED 19u  // enough ICMP errors were sent for now
#define IP_SHOW_PACKET_NO_MEMBER 20u     // no interface has joined the group
#define IP_SHOW_PACKET_NO_RECEIVER 21u   // nobody takes packets of this protocol
#define IP_SHOW_PACKET_QUEUE_FULL 22u    // the receiver, or what waits for a neighbour, has no room
#define IP_SHOW_PACKET_NO_PRIVILEGE 23u  // the IP process runs without the right that it takes
#define IP_SHOW_PACKET_NO_MEMORY 24u
#define IP_SHOW_PACKET_KERNEL 25u    // the kernel refused
#define IP_SHOW_PACKET_OUTCOMES 26u  // how many there are

// Packets of one kind of message, since the IP process started. Counts as two words, the low one first.
struct ip_show_packets {
  uint32_t order;      // ascending; says nothing else
  uint32_t minor;      // IP_MSG_...; 0: of no kind that is known
  char name[40];       // NUL-terminated
  uint32_t direction;  // IP_SHOW_FROM_CLIENT or IP_SHOW_TO_CLIENT
  uint32_t reserved52;
  uint32_t received[2];  // messages
  uint32_t bytes[2];     // of their packets
  uint32_t counts[32][2];
};
static_assert(sizeof(struct ip_show_packets) == 328, "");
static_assert(offsetof(struct ip_show_packets, minor) == 4, "");
static_assert(offsetof(struct ip_show_packets, name) == 8, "");
static_assert(offsetof(struct ip_show_packets, direction) == 48, "");
static_assert(offsetof(struct ip_show_packets, received) == 56, "");
static_assert(offsetof(struct ip_show_packets, bytes) == 64, "");
static_assert(offsetof(struct ip_show_packets, counts) == 72, "");

#define IP_SHOW_FROM_CLIENT 1u  // handed over to the IP process
#define IP_SHOW_TO_CLIENT 2u    // delivered by it

// Begins or ends a capture of the packets that pass IP_SAP_PACKET, which goes to the queue that asks: a request of the
// transport. One that its sender may not ask, or that is malformed, is rejected. A queue has one capture: a new one
// takes the place of the last. It ends with the queue, too.
struct ip_msg_capture {
  struct ip_msg_header header;
  uint32_t action;      // IP_CAPTURE_...
  uint32_t snap_len;    // bytes of each packet at most; 0: all
  uint32_t directions;  // IP_SHOW_FROM_CLIENT, IP_SHOW_TO_CLIENT or both; 0: both
  uint32_t iod;         // only with this interface in their message; 0: whatever it is
  uint32_t protocol;    // only of this IP protocol; IP_CAPTURE_ANY_PROTOCOL: whatever it is
  uint32_t pid;         // only to or from this client; 0: whoever it is
};
static_assert(sizeof(struct ip_msg_capture) == 48, "");
static_assert(offsetof(struct ip_msg_capture, action) == 24, "");
static_assert(offsetof(struct ip_msg_capture, snap_len) == 28, "");
static_assert(offsetof(struct ip_msg_capture, directions) == 32, "");
static_assert(offsetof(struct ip_msg_capture, iod) == 36, "");
static_assert(offsetof(struct ip_msg_capture, protocol) == 40, "");
static_assert(offsetof(struct ip_msg_capture, pid) == 44, "");

#define IP_CAPTURE_BEGIN 1u
#define IP_CAPTURE_END 2u
#define IP_CAPTURE_ANY_PROTOCOL 256u

// The answer.
struct ip_msg_capture_reply {
  struct ip_msg_header header;
  uint32_t status;    // IP_CAPTURE_DONE ...
  uint32_t captures;  // how many there are now, of all queues
};
static_assert(sizeof(struct ip_msg_capture_reply) == 32, "");
static_assert(offsetof(struct ip_msg_capture_reply, status) == 24, "");
static_assert(offsetof(struct ip_msg_capture_reply, captures) == 28, "");

#define IP_CAPTURE_DONE 0u
#define IP_CAPTURE_LIMIT 1u  // there are as many captures as there may be

// A packet that passed, with IP_OPCODE_CLIENT. Its first bytes follow, as it was when it came. A message that was
// refused before its packet was looked for has none.
struct ip_msg_captured {
  struct ip_msg_header header;
  uint32_t seconds[2];  // since 1970, the low word first
  uint32_t nanoseconds;
  uint32_t dropped;       // that are not told of, since this queue had no room, after the record before
  uint32_t direction;     // IP_SHOW_FROM_CLIENT or IP_SHOW_TO_CLIENT
  uint32_t client;        // its process
  uint32_t minor;         // IP_MSG_... of the message
  uint32_t iod;           // that the message names; 0: none
  uint32_t outcome;       // IP_SHOW_PACKET_...
  uint32_t packet_len;    // bytes of the packet
  uint32_t captured_len;  // of them that follow
  uint32_t reserved68;
};
static_assert(sizeof(struct ip_msg_captured) == 72, "");
static_assert(offsetof(struct ip_msg_captured, seconds) == 24, "");
static_assert(offsetof(struct ip_msg_captured, nanoseconds) == 32, "");
static_assert(offsetof(struct ip_msg_captured, dropped) == 36, "");
static_assert(offsetof(struct ip_msg_captured, direction) == 40, "");
static_assert(offsetof(struct ip_msg_captured, client) == 44, "");
static_assert(offsetof(struct ip_msg_captured, minor) == 48, "");
static_assert(offsetof(struct ip_msg_captured, iod) == 52, "");
static_assert(offsetof(struct ip_msg_captured, outcome) == 56, "");
static_assert(offsetof(struct ip_msg_captured, packet_len) == 60, "");
static_assert(offsetof(struct ip_msg_captured, captured_len) == 64, "");
static_assert(offsetof(struct ip_msg_captured, reserved68) == 68, "");

#ifdef __cplusplus
}
#endif
#endif
