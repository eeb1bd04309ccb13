// SPDX-License-Identifier: Apache-2.0
// The message catalogue: what libip may tell an operator. One row per message; the declarations in ip_api.h and the
// records in messages.cc are generated from this table, in this order.
//
// Columns: name, severity (0 most severe; also the lowest facility level at which the message is emitted), parameter of
// the rate limiter, whether a traceback is added, text. The log collector knows the texts by heart: "opcde", the blank
// that is missing after "Adv len %d," and the newline that ends one of them stay as they are.
#ifndef IP_MESSAGES_H
#define IP_MESSAGES_H

// clang-format off
#define IP_MESSAGES(X)                                                                                   \
  X(IP_STARTUP_FAILURE, 2, 0,  0, "Failed to %s during startup. error %d")                               \
  X(CRIT_FAILURE,       2, 0,  0, "Failed to %s")                                                        \
  X(IP_FAILURE,         3, 0,  0, "Failed to %s")                                                        \
  X(IP_CLNT_FAILURE,    3, 0,  0, "Invalid IP registration reply. Message major type %d, minor type %d") \
  X(NO_SH_MEM,          3, 10, 0, "Failed to allocate shared memory %s")                                 \
  X(IP_NO_MEM,          3, 10, 0, "Failed to allocate private memory for %s")                            \
  X(IP_NO_MBUF,         3, 10, 0, "Failed to allocate mbuf %s")                                          \
  X(IP_THR_CREATE,      3, 10, 0, "Failed to create %s thread. error %d")                                \
  X(IP_UNK_MSG,         3, 10, 0, "Unrecognized message major type %d, minor type %d")                   \
  X(IP_UNK_MSG_MAJOR,   6, 10, 0, "Unrecognized message from %s. Major type %d")                         \
  X(IP_UNK_MSG_MINOR,   6, 10, 0, "Unrecognized message from %s. Minor type %d")                         \
  X(URIB_ERR,           3, 10, 0, "Failed to %s urib")                                                   \
  X(IP_INTERNAL_ERROR,  3, 10, 1, "%s")                                                                  \
  X(STATS_ERROR,        6, 10, 0, "Failed to get hardware statistics for interface %s, reason %s")       \
  X(IM_RECOVER_ERROR,   6, 10, 0, "Failed to recover correct information for interface %s %d")           \
  X(MRIB_ADD_ROUTE,     3, 10, 0, "MRIB add route failed in %s for VRF %s")                              \
  X(MRIB_DELETE_ROUTE,  3, 10, 0, "MRIB delete route failed in %s for VRF %s")                           \
  X(TXLIST_CREATE,      3, 10, 0, "Couldn't create txlist for %s")                                       \
  X(MV_INIT,            3, 10, 0, "Couldn't init mutex %s")                                              \
  X(CV_INIT,            3, 10, 0, "Couldn't init cond var %s")                                           \
  X(INVALID_IF_INDEX,   3, 10, 0, "Invalid interface index received from %d")                            \
  X(SYSMAN_CLEANUP,     6, 10, 0, "Terminated by SYSMAN cleanup signal %d")                              \
  X(BAD_ICMP_PKT,       6, 10, 0, "Received ICMP packet with bad length (%d). Min len %d, Adv len %d,"   \
                                  "IP hdr length %d, Expected IP hdr len %d")                            \
  X(MQ_FLUSH,           6, 10, 0, "Flushing %d messages from the MRIB message queue")                    \
  X(REG_SEND_MSG,       6, 10, 0, "Suppress PIM Data Register for (%s, %s) due to suppression-timer\n")  \
  X(INVALID_NOTIFY,     5, 10, 0, "Received invalid notification message")                               \
  X(IP_MTS_UNKNOWN_MSG, 6, 10, 0, "Received unknown MTS message with opcde %d, dropping it")             \
  X(IP_MTSRECV,         3, 10, 0, "Error returned from mts_recv(), errno: %s")                           \
  X(IP_MTSDROP,         3, 10, 0, "Error returned from mts_drop(), errno: %s")                           \
  X(IP_MTSSEND,         3, 10, 0, "Error returned from mts_send(), errno: %s")                           \
  X(IP_MSG_TO_TLV,      3, 10, 0, "TLV Conversion failed (%d)")                                          \
  X(IP_TLV_TO_STRUCT,   3, 10, 0, "TLV to Struct Conversion failed (%d)")                                \
  X(IP_HA_UPDATE,       3, 10, 0, "HA update failed (%d)")                                               \
  X(IP_CLIENT_GET,      3, 10, 0, "HA client filter recovery failed (%d)")
// clang-format on

#endif
