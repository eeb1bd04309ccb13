// SPDX-License-Identifier: Apache-2.0
// What the IP process shows of its control service to people: who its clients are, what they hold, which messages came
// and what was refused. Requests of the transport to SAP IP_SAP_CONTROL with IP_OPCODE_CLIENT; for tools such as ipsh,
// not for clients: entries may grow, and a reader takes from each what it knows.
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

// All three requests. One that its sender may not ask, or that is malformed, is rejected.
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

#ifdef __cplusplus
}
#endif
#endif
