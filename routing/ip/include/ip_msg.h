// SPDX-License-Identifier: Apache-2.0
// The messages between clients and the IP process.
//
// A control message goes to SAP IP_SAP_CONTROL, a packet to IP_SAP_PACKET. Each begins with the header below; what
// follows depends on its minor type. All numbers are in the machine's byte order, addresses in host order; sender and
// receiver run on one system. The library builds these messages (ip_register and the calls after it in ip_api.h) and
// reads the replies; who looks at one directly is the IP process, and a client that collects a reply by itself.
//
// Nothing in a received message is trusted: its size is compared first, and words that a message does not define are
// ignored on receipt.
#ifndef IP_MSG_H
#define IP_MSG_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// ------------------------------------------------------------------------------------------------------ where and what

#define IP_SAP_CONTROL 263u  // the IP process: requests
#define IP_SAP_PACKET 264u   // the IP process: packets
#define IP_SAP_URIB 266u     // the queue between IP process and URIB
#define IP_NODE_LOCAL 0xfe000000u

#define IP_OPCODE_CLIENT 0x14c01u     // registration and requests
#define IP_OPCODE_CONFIGURE 0x14c03u  // address configuration, and its reply
#define IP_OPCODE_PACKET 0x14c04u     // packets
#define IP_OPCODE_IF_INFO 0x14c05u    // interface information from the IP process, in TLV form

#define IP_MAJOR_CLIENT 5u  // major_type of every message

// minor_type. Packets first, then requests.
#define IP_MSG_INPUT 3u
#define IP_MSG_OUTPUT 4u
#define IP_MSG_ICMP_OUTPUT 6u
#define IP_MSG_REPLICATE 11u
#define IP_MSG_ICMP_ERROR 12u
#define IP_MSG_DRIVER_ICMP 18u
#define IP_MSG_OUTPUT_L2 20u
#define IP_MSG_CONSUME 25u
#define IP_MSG_OUTPUT_L2_DCE 26u
#define IP_MSG_OUTPUT_L2_MVR 30u

#define IP_MSG_REGISTER 1u
#define IP_MSG_DEREGISTER 2u
#define IP_MSG_CONFIG_ADDRESS 7u
#define IP_MSG_JOIN_GROUP 9u
#define IP_MSG_LEAVE_GROUP 10u
#define IP_MSG_REGISTER_REPLY 17u
#define IP_MSG_DOWNLOAD_IF_INFO 19u
#define IP_MSG_LOAD_SHARE_CFG 23u
#define IP_MSG_REPORT_LINK_LOCAL 24u
#define IP_MSG_SET_UNNUMBERED 27u
#define IP_MSG_UNSET_UNNUMBERED 28u
#define IP_MSG_REDIRECT_DISABLE 29u
#define IP_MSG_GET_IF_STATS 31u
#define IP_MSG_UNNUMBERED_PSS_CLEANUP 32u

#define IP_MSG_SIZE 232u            // of every message that does not say otherwise
#define IP_MAX_IPC_PAYLOAD 120832u  // of a message at most

// Client flags, in ip_client.flags and in the registration.
#define IP_CLIENT_RECV_MTS 1u  // packets travel inside the messages, as data segments
#define IP_CLIENT_RECV_TX_MTS 2u
#define IP_CLIENT_NO_ACK 4u            // do not wait for the registration's reply
#define IP_CLIENT_KEEP_MTS_OPTION 16u  // leave the control queue's option for requests as it is

// A message as the calls take it.
typedef struct ip_msgtype {
  uint16_t major_type;    // IP_MAJOR_CLIENT
  uint16_t minor_type;    // IP_MSG_...
  uint32_t pid;           // of the sender
  uint32_t epid;          // the sender's endpoint
  uint32_t timestamp[2];  // the platform's monotonic clock; two words: it does not lie at a multiple of 8
  uint32_t uuid;          // the sender's identity at the system manager, written when the message is sent
  uint8_t body[208];      // by minor_type
} ip_msgtype;
static_assert(sizeof(ip_msgtype) == IP_MSG_SIZE, "what sender and receiver compare first");
static_assert(offsetof(ip_msgtype, minor_type) == 2, "");
static_assert(offsetof(ip_msgtype, pid) == 4, "");
static_assert(offsetof(ip_msgtype, epid) == 8, "");
static_assert(offsetof(ip_msgtype, timestamp) == 12, "");
static_assert(offsetof(ip_msgtype, uuid) == 20, "");
static_assert(offsetof(ip_msgtype, body) == 24, "");

// The header alone, in front of each record below.
struct ip_msg_header {
  uint16_t major_type;
  uint16_t minor_type;
  uint32_t pid;
  uint32_t epid;
  uint32_t timestamp[2];
  uint32_t uuid;
};
static_assert(sizeof(struct ip_msg_header) == offsetof(ip_msgtype, body), "the header of ip_msgtype");

// ------------------------------------------------------------------------------------------------------- registration

// IP_MSG_REGISTER. Zero where nothing is said.
struct ip_msg_register {
  struct ip_msg_header header;
  uint8_t reg_key;  // with the name, what the registration is known by; an IP protocol number asks for its packets
  uint8_t reserved25[3];
  uint32_t reg_mode;
  char name[68];       // NUL-terminated
  uint32_t data_sap;   // of the client's packet queue; 0: none
  uint32_t reply_sap;  // where the reply goes
  uint32_t client_pid;
  uint32_t client_epid;
  uint32_t reg_arg2;
  uint32_t reg_arg1;
  uint32_t reserved124[2];
  uint32_t flags;    // IP_CLIENT_...
  char recv_fn[32];  // not terminated when it fills the field
  uint8_t reserved168[64];
};
static_assert(sizeof(struct ip_msg_register) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_register, reg_key) == 24, "");
static_assert(offsetof(struct ip_msg_register, reg_mode) == 28, "");
static_assert(offsetof(struct ip_msg_register, name) == 32, "");
static_assert(offsetof(struct ip_msg_register, data_sap) == 100, "");
static_assert(offsetof(struct ip_msg_register, reply_sap) == 104, "");
static_assert(offsetof(struct ip_msg_register, client_pid) == 108, "");
static_assert(offsetof(struct ip_msg_register, client_epid) == 112, "");
static_assert(offsetof(struct ip_msg_register, reg_arg2) == 116, "");
static_assert(offsetof(struct ip_msg_register, reg_arg1) == 120, "");
static_assert(offsetof(struct ip_msg_register, flags) == 132, "");
static_assert(offsetof(struct ip_msg_register, recv_fn) == 136, "");

// IP_MSG_REGISTER_REPLY, to the reply SAP. Its result stands where other messages have the uuid.
struct ip_msg_register_reply {
  uint16_t major_type;
  uint16_t minor_type;
  uint32_t pid;
  uint32_t epid;
  uint32_t timestamp[2];
  uint32_t result;  // nonzero: accepted
};
static_assert(sizeof(struct ip_msg_register_reply) == 24, "");
static_assert(offsetof(struct ip_msg_register_reply, result) == 20, "");

// IP_MSG_DEREGISTER.
struct ip_msg_deregister {
  struct ip_msg_header header;
  uint8_t reg_key;
  uint8_t reserved25[7];
  char name[68];
  uint8_t reserved100[8];
  uint32_t client_pid;
  uint8_t reserved112[12];
  uint32_t reg_aux8;
  uint32_t reg_aux32;
  uint8_t reserved132[100];
};
static_assert(sizeof(struct ip_msg_deregister) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_deregister, reg_key) == 24, "");
static_assert(offsetof(struct ip_msg_deregister, name) == 32, "");
static_assert(offsetof(struct ip_msg_deregister, client_pid) == 108, "");
static_assert(offsetof(struct ip_msg_deregister, reg_aux8) == 124, "");
static_assert(offsetof(struct ip_msg_deregister, reg_aux32) == 128, "");

// ----------------------------------------------------------------------------------------------------------- requests

// IP_MSG_JOIN_GROUP, IP_MSG_LEAVE_GROUP. Group 0 is the interface as a whole: multicast on or off; then nothing but the
// interface is defined.
struct ip_msg_group {
  struct ip_msg_header header;
  uint8_t reserved24[8];
  uint32_t group;
  uint32_t source;  // of a channel; 0: any source
  uint32_t iod;
  uint32_t reserved44;  // 0
  uint8_t reserved48[184];
};
static_assert(sizeof(struct ip_msg_group) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_group, group) == 32, "");
static_assert(offsetof(struct ip_msg_group, source) == 36, "");
static_assert(offsetof(struct ip_msg_group, iod) == 40, "");
static_assert(offsetof(struct ip_msg_group, reserved44) == 44, "");

// IP_MSG_REPORT_LINK_LOCAL.
struct ip_msg_link_local {
  struct ip_msg_header header;
  uint8_t reserved24[8];
  uint32_t value;
  uint32_t ref;  // never 0
  uint8_t reserved40[192];
};
static_assert(sizeof(struct ip_msg_link_local) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_link_local, value) == 32, "");
static_assert(offsetof(struct ip_msg_link_local, ref) == 36, "");

// IP_MSG_SET_UNNUMBERED, IP_MSG_UNSET_UNNUMBERED; the latter defines the interface only.
struct ip_msg_unnumbered {
  struct ip_msg_header header;
  uint8_t reserved24[8];
  uint32_t iod;     // the borrower
  char lender[40];  // the lender's name; not terminated when it fills the field
  uint8_t reserved76[156];
};
static_assert(sizeof(struct ip_msg_unnumbered) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_unnumbered, iod) == 32, "");
static_assert(offsetof(struct ip_msg_unnumbered, lender) == 36, "");

// IP_MSG_REDIRECT_DISABLE, IP_MSG_UNNUMBERED_PSS_CLEANUP: IP_MSG_SIZE + 4 * count bytes. The interfaces follow `count`,
// zeros follow the interfaces.
struct ip_msg_interface_list {
  struct ip_msg_header header;
  uint8_t reserved24[8];
  uint32_t count;
  uint32_t iods[49];  // as many as fit into IP_MSG_SIZE; more follow
};
static_assert(sizeof(struct ip_msg_interface_list) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_interface_list, count) == 32, "");
static_assert(offsetof(struct ip_msg_interface_list, iods) == 36, "");

// IP_MSG_CONFIG_ADDRESS, with IP_OPCODE_CONFIGURE.
struct ip_msg_config_address {
  struct ip_msg_header header;
  uint8_t reserved24[8];
  uint32_t iod;
  uint32_t address;
  uint8_t mask_len;
  uint8_t reserved41[7];
  uint32_t cfg_flags;  // IP_CONFIG_...
  uint8_t reserved52[180];
};
static_assert(sizeof(struct ip_msg_config_address) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_config_address, iod) == 32, "");
static_assert(offsetof(struct ip_msg_config_address, address) == 36, "");
static_assert(offsetof(struct ip_msg_config_address, mask_len) == 40, "");
static_assert(offsetof(struct ip_msg_config_address, cfg_flags) == 48, "");

#define IP_CONFIG_NO_WAIT 1u  // no reply is wanted
#define IP_CONFIG_COLLECT 2u  // the caller collects the reply later
#define IP_CONFIG_REMOVE 4u   // the address is to be taken away

// The reply, with the same opcode, to the control queue that asked.
struct ip_msg_config_reply {
  struct ip_msg_header header;
  uint8_t reserved24[20];
  uint32_t cfg_result;  // more about the status; 0: nothing more
  uint8_t reserved48[4];
  uint8_t status;  // IP_CONFIG_STATUS_...
  uint8_t reserved53[179];
};
static_assert(sizeof(struct ip_msg_config_reply) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_config_reply, cfg_result) == 44, "");
static_assert(offsetof(struct ip_msg_config_reply, status) == 52, "");

// What ip_configure_address answers. 1, 4 and 5 are the library's own; from 16 on the IP process's, with what
// cfg_result says.
#define IP_CONFIG_STATUS_DONE 0u           // the address is on the interface and published; removed: it is not
#define IP_CONFIG_STATUS_NO_REPLY 1u       // sent, and no reply came
#define IP_CONFIG_STATUS_BAD_ARGUMENT 4u   // no interface, no mask length, or an address that no host may have
#define IP_CONFIG_STATUS_NOT_SENT 5u       // the IP process was not reached
#define IP_CONFIG_STATUS_NO_INTERFACE 16u  // no such interface
#define IP_CONFIG_STATUS_OVERLAP 17u       // another interface of the context has that prefix; its iod
#define IP_CONFIG_STATUS_MARTIAN 18u       // an address that no host may have
#define IP_CONFIG_STATUS_BUSY 19u          // the IP process cannot take it on now: try again
#define IP_CONFIG_STATUS_NO_PRIVILEGE 20u  // the asking process may not, or the IP process itself may not
#define IP_CONFIG_STATUS_KERNEL 21u        // the kernel refused; its error number
#define IP_CONFIG_STATUS_MALFORMED 22u     // the request made no sense

// IP_MSG_DOWNLOAD_IF_INFO.
struct ip_msg_download {
  struct ip_msg_header header;
  uint8_t reserved24[8];
  uint32_t cookie;  // tells the downloads of one SAP apart; the same one again replaces the earlier
  uint32_t node;    // IP_NODE_LOCAL
  uint32_t sap;     // where the information goes: of the queue that sends this
  uint32_t mode;    // IP_DOWNLOAD_...
  uint8_t reserved48[184];
};
static_assert(sizeof(struct ip_msg_download) == IP_MSG_SIZE, "");
static_assert(offsetof(struct ip_msg_download, cookie) == 32, "");
static_assert(offsetof(struct ip_msg_download, node) == 36, "");
static_assert(offsetof(struct ip_msg_download, sap) == 40, "");
static_assert(offsetof(struct ip_msg_download, mode) == 44, "");

#define IP_DOWNLOAD_FOLLOW 0u  // everything, then each change
#define IP_DOWNLOAD_ONCE 1u    // everything
#define IP_DOWNLOAD_END 2u     // no more changes

// ----------------------------------------------------------------------------------------------- interface information

// One interface. The members are named by their ids in TLV form.
typedef struct ip_if_info_msg_entry {
  uint32_t f0;   // iod
  uint32_t f3;   // ifindex
  uint32_t f7;   // context id
  uint32_t f2;   // IP_IF_INFO_...
  uint32_t f4;   // primary address; 0: none
  uint32_t f8;   // its mask length
  uint32_t f9;   // MTU
  uint32_t f10;  // iod of the interface whose address is borrowed; 0: none
  char f1[64];   // name
} ip_if_info_msg_entry;
static_assert(sizeof(ip_if_info_msg_entry) == 96, "the step of the description table's array");
static_assert(offsetof(ip_if_info_msg_entry, f3) == 4, "");
static_assert(offsetof(ip_if_info_msg_entry, f7) == 8, "");
static_assert(offsetof(ip_if_info_msg_entry, f2) == 12, "");
static_assert(offsetof(ip_if_info_msg_entry, f4) == 16, "");
static_assert(offsetof(ip_if_info_msg_entry, f8) == 20, "");
static_assert(offsetof(ip_if_info_msg_entry, f9) == 24, "");
static_assert(offsetof(ip_if_info_msg_entry, f10) == 28, "");
static_assert(offsetof(ip_if_info_msg_entry, f1) == 32, "");

// Bits of f2.
#define IP_IF_INFO_UP 1u  // running
#define IP_IF_INFO_ADMIN_UP 2u
#define IP_IF_INFO_LOOPBACK 4u
#define IP_IF_INFO_MULTICAST 8u
#define IP_IF_INFO_FORWARDING 16u
#define IP_IF_INFO_UNNUMBERED 32u
#define IP_IF_INFO_REMOVED 64u  // the interface is gone: nothing but f0, f3 and f1 counts
#define IP_IF_INFO_LAST 128u    // the last entry of the first full set. No entry at all: that set is empty

// A notification: a count and that many entries.
typedef struct ip_if_info_msg {
  uint32_t count;  // entries that follow, at offset 4
} ip_if_info_msg;
static_assert(sizeof(ip_if_info_msg) == 4, "");

// What the IP process fills before it sends one; stays inside the process.
typedef struct ip_if_info_notification {
  uint32_t id;
  void *payload;  // from the memory tracker; null: none
  uint32_t payload_len;
  uint32_t tlv_payload;  // 1: the payload is in TLV form
} ip_if_info_notification;

// ----------------------------------------------------------------------------------------------- interface statistics

// IP_MSG_GET_IF_STATS: the request, at least this long. The header is the library's, the rest the caller's.
struct ip_msg_if_stats_request {
  struct ip_msg_header header;
  uint8_t reserved24[8];
  uint32_t iod;
};
static_assert(sizeof(struct ip_msg_if_stats_request) == 36, "");
static_assert(offsetof(struct ip_msg_if_stats_request, iod) == 32, "");

// The response. A request that cannot be answered is rejected. Counters as the kernel has them, since the interface was
// made; each as two words, the low one first, because a 64-bit number is aligned differently in the two widths.
struct ip_msg_if_stats_reply {
  struct ip_msg_header header;
  uint32_t iod;
  uint32_t count;            // of the counters that follow; a newer IP process may know more
  uint32_t counters[16][2];  // by IP_IF_STAT_...
};
static_assert(sizeof(struct ip_msg_if_stats_reply) == 160, "");
static_assert(offsetof(struct ip_msg_if_stats_reply, iod) == 24, "");
static_assert(offsetof(struct ip_msg_if_stats_reply, count) == 28, "");
static_assert(offsetof(struct ip_msg_if_stats_reply, counters) == 32, "");

#define IP_IF_STAT_RX_PACKETS 0u
#define IP_IF_STAT_TX_PACKETS 1u
#define IP_IF_STAT_RX_BYTES 2u
#define IP_IF_STAT_TX_BYTES 3u
#define IP_IF_STAT_RX_ERRORS 4u
#define IP_IF_STAT_TX_ERRORS 5u
#define IP_IF_STAT_RX_DROPPED 6u
#define IP_IF_STAT_TX_DROPPED 7u
#define IP_IF_STAT_MULTICAST 8u
#define IP_IF_STAT_COLLISIONS 9u
#define IP_IF_STAT_RX_LENGTH_ERRORS 10u
#define IP_IF_STAT_RX_CRC_ERRORS 11u
#define IP_IF_STAT_RX_FRAME_ERRORS 12u
#define IP_IF_STAT_RX_MISSED_ERRORS 13u
#define IP_IF_STAT_TX_CARRIER_ERRORS 14u
#define IP_IF_STAT_RX_NOHANDLER 15u

#ifdef __cplusplus
}
#endif
#endif
