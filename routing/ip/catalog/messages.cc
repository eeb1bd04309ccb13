// SPDX-License-Identifier: Apache-2.0
// The records of the message catalogue, generated from the table in ip_messages.h.
//
// Each message is a pair: what is printed (syslog_msg_IP_<name>) and how it is limited (msg_error_IP_<name>, which
// points to the first). The log collector knows both layouts, and steps through each family as if it were an array:
// within a family the records lie in memory in table order, without gaps. A compiler may place globals as it likes: gcc
// places them backwards unless every one of them says no_reorder (clang keeps the order of the source), and both leave
// gaps for alignment's sake unless a record states its own.
//
// A format is the prefix "<<%%%s-%d-<name>>> " and the text: facility name, severity, then the message's own arguments.
#include "ip_api.h"

#if defined(__GNUC__) && !defined(__clang__)
#define IN_TABLE_ORDER __attribute__((no_reorder, aligned(alignof(void *))))
#else
#define IN_TABLE_ORDER __attribute__((aligned(alignof(void *))))
#endif

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(syslog_msg_rec) == 16, "the log collector reads these records");
static_assert(offsetof(syslog_msg_rec, format) == 8);
static_assert(offsetof(syslog_msg_rec, severity) == 12);
static_assert(sizeof(msg_error_rec) == 44);
static_assert(offsetof(msg_error_rec, name) == 4);
static_assert(offsetof(msg_error_rec, text) == 8);
static_assert(offsetof(msg_error_rec, rate) == 16);
static_assert(offsetof(msg_error_rec, min_level) == 32);
static_assert(offsetof(msg_error_rec, flags) == 33);
static_assert(offsetof(msg_error_rec, msg) == 36);
static_assert(sizeof(msg_component_rec) == 8);
static_assert(sizeof(syslog_fac_rec) == 12);
#endif

extern "C" {

IN_TABLE_ORDER msg_component_rec msg_component_IP = {.name = "IP", .r4 = 0};

IN_TABLE_ORDER syslog_fac_rec syslog_fac_LOG_IP = {.name = "ip", .n1 = 3048, .n2 = 514};

#define DEFINE_MESSAGE(message, severity_, rate_, traceback_, text_) \
  IN_TABLE_ORDER syslog_msg_rec syslog_msg_IP_##message = {          \
      .name = #message,                                              \
      .r4 = 0,                                                       \
      .format = "<<%%%s-%d-" #message ">> " text_,                   \
      .severity = (severity_),                                       \
  };
IP_MESSAGES(DEFINE_MESSAGE)
#undef DEFINE_MESSAGE

#define DEFINE_ERROR(message, severity_, rate_, traceback_, text_) \
  IN_TABLE_ORDER msg_error_rec msg_error_IP_##message = {          \
      .r0 = 0,                                                     \
      .name = #message,                                            \
      .text = (text_),                                             \
      .r12 = 0,                                                    \
      .rate = (rate_),                                             \
      .r20 = {},                                                   \
      .min_level = (severity_),                                    \
      .flags = (traceback_),                                       \
      .r34 = {},                                                   \
      .msg = &syslog_msg_IP_##message,                             \
      .r40 = 0,                                                    \
  };
IP_MESSAGES(DEFINE_ERROR)
#undef DEFINE_ERROR

}  // extern "C"
