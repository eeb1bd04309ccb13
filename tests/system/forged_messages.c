// SPDX-License-Identifier: Apache-2.0
#include "forged_messages.h"

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ip_msg.h"
#include "ip_show.h"
#include "mts.h"

struct kind {
  uint16_t minor;
  uint32_t opcode;
  uint32_t least, most; /* sizes */
};

static const struct kind kinds[] = {
    {IP_MSG_REGISTER, IP_OPCODE_CLIENT, 232, 232},
    {IP_MSG_DEREGISTER, IP_OPCODE_CLIENT, 232, 232},
    {IP_MSG_CONFIG_ADDRESS, IP_OPCODE_CONFIGURE, 232, 232},
    {IP_MSG_JOIN_GROUP, IP_OPCODE_CLIENT, 232, 232},
    {IP_MSG_LEAVE_GROUP, IP_OPCODE_CLIENT, 232, 232},
    {IP_MSG_DOWNLOAD_IF_INFO, IP_OPCODE_CLIENT, 232, 232},
    {IP_MSG_LOAD_SHARE_CFG, IP_OPCODE_CLIENT, 232, 232},
    {IP_MSG_REPORT_LINK_LOCAL, IP_OPCODE_CLIENT, 232, 232},
    {IP_MSG_SET_UNNUMBERED, IP_OPCODE_CLIENT, 232, 232},
    {IP_MSG_UNSET_UNNUMBERED, IP_OPCODE_CLIENT, 232, 232},
    {IP_MSG_REDIRECT_DISABLE, IP_OPCODE_CLIENT, 232, IP_MAX_IPC_PAYLOAD},
    {IP_MSG_GET_IF_STATS, IP_OPCODE_CLIENT, 36, IP_MAX_IPC_PAYLOAD},
    {IP_MSG_UNNUMBERED_PSS_CLEANUP, IP_OPCODE_CLIENT, 232, IP_MAX_IPC_PAYLOAD},
    {IP_MSG_SHOW_CLIENTS, IP_OPCODE_CLIENT, 32, 32},
    {IP_MSG_SHOW_REGISTRATIONS, IP_OPCODE_CLIENT, 32, 32},
    {IP_MSG_SHOW_MESSAGES, IP_OPCODE_CLIENT, 32, 32},
};
#define KINDS (sizeof kinds / sizeof kinds[0])

static unsigned char message[IP_MAX_IPC_PAYLOAD];
static uint32_t random_state;
static uint32_t queue;
static uint32_t forged, rejected, requests;

static uint32_t next_random(void) {
  random_state = random_state * 1664525u + 1013904223u;
  return random_state >> 8;
}

static void put16(size_t at, uint16_t value) {
  memcpy(message + at, &value, sizeof value);
}
static void put32(size_t at, uint32_t value) {
  memcpy(message + at, &value, sizeof value);
}

static void begin(uint16_t major, uint16_t minor, uint32_t size) {
  for (uint32_t i = 0; i < size; ++i) message[i] = (unsigned char)next_random();
  if (size >= 2) put16(0, major);
  if (size >= 4) put16(2, minor);
}

static void fail(const char *what) {
  fprintf(stderr, "%s: %s\n", what, strerror(errno));
  exit(1);
}

/* Replies that came meanwhile. */
static void drain(void) {
  mts_msg_ref_t msg = NULL;
  while (mts_recv_now(queue, &msg) == 0) mts_drop(queue, msg);
}

/* The answer's bytes, or -1 for a reject. */
static int64_t ask(uint32_t opcode, uint32_t size) {
  mts_msg_ref_t sent = NULL;
  if (mts_send(queue, IP_NODE_LOCAL, IP_SAP_CONTROL, opcode, message, size, &sent, 0, NULL) != 0) fail("request");
  struct mts_recv_opts options = {{1, 0, 60, mts_rr_token_get(sent)}};
  mts_msg_ref_t answer = NULL;
  int32_t status;
  do {
    status = mts_recv(queue, &answer, &options);
  } while (status < 0 && errno == EINTR);
  if (status < 0) fail("answer");
  const int64_t result = mts_is_reject(answer) == 1 ? -1 : (int64_t)mts_payload_size(answer);
  mts_drop(queue, answer);
  mts_drop(queue, sent);
  return result;
}

static void forge(uint32_t opcode, uint32_t size) {
  struct mts_send_opts options = {{1}};
  if (mts_send(queue, IP_NODE_LOCAL, IP_SAP_CONTROL, opcode, message, size, NULL, 0, &options) != 0) fail("message");
  drain();
  ++forged;
  if (ask(opcode, size) < 0) ++rejected;
  drain();
  ++requests;
  ++forged;
}

static void wrong_major_types(const struct kind *kind) {
  static const uint16_t majors[] = {0, 4, 6, 0x0500, 0xffff};
  for (size_t i = 0; i < sizeof majors / sizeof majors[0]; ++i) {
    begin(majors[i], kind->minor, kind->least);
    forge(kind->opcode, kind->least);
  }
}

static void wrong_opcodes(const struct kind *kind) {
  static const uint32_t opcodes[] = {IP_OPCODE_CLIENT, IP_OPCODE_CONFIGURE, IP_OPCODE_PACKET, IP_OPCODE_IF_INFO, 0,
                                     0xffffffffu};
  for (size_t i = 0; i < sizeof opcodes / sizeof opcodes[0]; ++i) {
    if (opcodes[i] == kind->opcode) continue;
    begin(IP_MAJOR_CLIENT, kind->minor, kind->least);
    forge(opcodes[i], kind->least);
  }
}

static void wrong_sizes(const struct kind *kind) {
  const uint32_t sizes[] = {
      0, 1, 3, 4, 20, 23, 24, 28, 31, 32, 35, 36, 100, kind->least - 1, kind->most + 1, 65536, IP_MAX_IPC_PAYLOAD};
  for (size_t i = 0; i < sizeof sizes / sizeof sizes[0]; ++i) {
    if (sizes[i] > IP_MAX_IPC_PAYLOAD || (sizes[i] >= kind->least && sizes[i] <= kind->most)) continue;
    begin(IP_MAJOR_CLIENT, kind->minor, sizes[i]);
    forge(kind->opcode, sizes[i]);
  }
}

/* Lists whose count is not that of their size. */
static void wrong_counts(const struct kind *kind) {
  if (kind->minor != IP_MSG_REDIRECT_DISABLE && kind->minor != IP_MSG_UNNUMBERED_PSS_CLEANUP) return;
  static const uint32_t counts[] = {1, 49, 50, 0x3fffffff, 0x40000000, 0x80000000, 0xffffffff};
  for (size_t i = 0; i < sizeof counts / sizeof counts[0]; ++i) {
    begin(IP_MAJOR_CLIENT, kind->minor, kind->least);
    put32(32, counts[i]);
    forge(kind->opcode, kind->least);
  }
  begin(IP_MAJOR_CLIENT, kind->minor, kind->least + 4);
  put32(32, 0);
  forge(kind->opcode, kind->least + 4);
  begin(IP_MAJOR_CLIENT, kind->minor, kind->least + 5);
  put32(32, 1);
  forge(kind->opcode, kind->least + 5);
}

static int is_known(uint16_t minor) {
  for (size_t i = 0; i < KINDS; ++i) {
    if (kinds[i].minor == minor) return 1;
  }
  return 0;
}

static void unknown_minor_types(void) {
  for (uint32_t minor = 0; minor < 100; ++minor) {
    if (is_known((uint16_t)minor)) continue;
    begin(IP_MAJOR_CLIENT, (uint16_t)minor, IP_MSG_SIZE);
    forge(IP_OPCODE_CLIENT, IP_MSG_SIZE);
  }
  begin(IP_MAJOR_CLIENT, 0xffff, IP_MSG_SIZE);
  forge(IP_OPCODE_CLIENT, IP_MSG_SIZE);
}

static void registration(const char *name, uint32_t reply_sap, uint32_t data_sap) {
  begin(IP_MAJOR_CLIENT, IP_MSG_REGISTER, IP_MSG_SIZE);
  memset(message + 24, 0, IP_MSG_SIZE - 24);
  memcpy(message + offsetof(struct ip_msg_register, name), name, strlen(name));
  put32(offsetof(struct ip_msg_register, reply_sap), reply_sap);
  put32(offsetof(struct ip_msg_register, data_sap), data_sap);
  forge(IP_OPCODE_CLIENT, IP_MSG_SIZE);
}

static void impossible_fields(void) {
  static const char endless[] = "sixty-eight-characters-without-a-terminator-sixty-eight-characters-w";
  registration(endless, 0, 0);
  registration("two\nlines", 0, 0);
  registration("not-its-queue", IP_SAP_CONTROL, 0);
  registration("no-such-queue", 0, 65536);
  begin(IP_MAJOR_CLIENT, IP_MSG_DEREGISTER, IP_MSG_SIZE);
  memset(message + 24, 0, IP_MSG_SIZE - 24);
  forge(IP_OPCODE_CLIENT, IP_MSG_SIZE);
  begin(IP_MAJOR_CLIENT, IP_MSG_REPORT_LINK_LOCAL, IP_MSG_SIZE);
  put32(offsetof(struct ip_msg_link_local, ref), 0);
  forge(IP_OPCODE_CLIENT, IP_MSG_SIZE);
  begin(IP_MAJOR_CLIENT, IP_MSG_DOWNLOAD_IF_INFO, IP_MSG_SIZE);
  put32(offsetof(struct ip_msg_download, sap), IP_SAP_CONTROL);
  put32(offsetof(struct ip_msg_download, mode), IP_DOWNLOAD_FOLLOW);
  forge(IP_OPCODE_CLIENT, IP_MSG_SIZE);
}

void forge_messages(uint32_t from, uint32_t seed) {
  queue = from;
  random_state = seed;
  for (size_t i = 0; i < KINDS; ++i) {
    wrong_major_types(&kinds[i]);
    wrong_opcodes(&kinds[i]);
    wrong_sizes(&kinds[i]);
    wrong_counts(&kinds[i]);
  }
  unknown_minor_types();
  impossible_fields();
  printf("forged %u\nrejected %u of %u\n", forged, rejected, requests);
  fflush(stdout);
}
