// SPDX-License-Identifier: Apache-2.0
// Messages to the IP process: how one is begun, and with which options it is sent.
//
// Each message is a record of ip_msg.h, all zeros but for the header and what its sender writes. The uuid is not filled
// here: the transport writes it when the message leaves.
#ifndef IP_MESSAGE_H
#define IP_MESSAGE_H

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "ip_api.h"
#include "log.h"
#include "mtrack.h"
#include "mts.h"

namespace libip {

inline constexpr uint32_t no_queue = ~uint32_t{0};
inline constexpr int32_t dynamic_sap = -1;     // what a queue is bound on when any SAP will do
inline constexpr uint32_t packet_offset = 32;  // of the word in a packet message that names the packet's first buffer

// Fills the common header.
inline void fill_header(ip_msg_header &header, uint16_t minor_type) {
  const auto pid = static_cast<uint32_t>(getpid());
  header.major_type = IP_MAJOR_CLIENT;
  header.minor_type = minor_type;
  header.pid = pid;
  header.epid = ksink_get_epid(pid);
  trel_sys_mclock_get(header.timestamp);
}

// A message on the caller's stack: zeros and its header.
template <class Record>
[[nodiscard]] inline Record begin_message(uint16_t minor_type) {
  Record message{};
  fill_header(message.header, minor_type);
  return message;
}

// What the calls of the transport take.
template <class Record>
inline ip_msgtype *as_message(Record &record) {
  static_assert(sizeof(Record) == IP_MSG_SIZE);
  return reinterpret_cast<ip_msgtype *>(&record);
}

// How many of the first `most` bytes of a received payload may be read: all where the platform tells no size.
[[nodiscard]] inline size_t readable_bytes(mts_msg_ref_t received, size_t most) {
  const uint32_t size = mts_payload_size(received);
  return size == 0 || size > most ? most : size;
}

// Each send has options of its own.
[[nodiscard]] inline mts_send_opts send_options() {
  mts_send_opts options{};
  options.w[0] = 1;
  return options;
}

// `wait` in seconds, 0 without end; `token` of the response that is wanted, 0 for any message.
[[nodiscard]] inline mts_recv_opts receive_options(uint32_t wait, uint32_t token = 0) {
  mts_recv_opts options{};
  options.w[0] = 1;
  options.w[2] = wait;
  options.w[3] = token;
  return options;
}

// Fills a field of a message: the text, cut to the field, then zeros. A text that fills the field is not terminated.
template <size_t Size>
inline void copy_text(char (&field)[Size], const char *text) {
  const size_t length = text == nullptr ? 0 : strnlen(text, Size);
  if (length != 0) std::memmove(field, text, length);  // the text may be the field's own
  std::memset(field + length, 0, Size - length);
}

// Tells whoever looks at the console that memory has run out: the system log may be out of it, too.
//   file  of the caller, from the top of the tree: "routing/ip/ip_register.cc"
inline void warn_no_memory(const char *file, int line, uint32_t size) {
  std::printf("Warning! Malloc Failure in %s[%d] for size %d\n", file, line, static_cast<int>(size));
}

// A message from the memory tracker, all zeros, to be released with mtrack_free. Null after the warning above, which
// names the line that asked.
inline ip_msgtype *allocate_message(const char *file, int line) {
  void *block = mtrack_alloc(IP_COMPONENT, IP_MEM_ip_msgtype, IP_MSG_SIZE);
  if (block == nullptr) {
    warn_no_memory(file, line, IP_MSG_SIZE);
    return nullptr;
  }
  return static_cast<ip_msgtype *>(std::memset(block, 0, IP_MSG_SIZE));
}

}  // namespace libip

#endif
