/* SPDX-License-Identifier: Apache-2.0
 * What the soak's driver and its clients tell each other: a file that all of them map, with a seat for each client.
 * Words of 32 bits only, as clients have either width; each is written by one side and stands for itself. */
#ifndef TESTS_SOAK_SOAK_BOARD_H
#define TESTS_SOAK_SOAK_BOARD_H

#include <stdint.h>

enum soak_kind {
  SOAK_ATTACH,
  SOAK_QUERY,  /* questions about addresses and routes, a hundred of them */
  SOAK_WALK,   /* all interfaces with their addresses */
  SOAK_THREAD, /* a thread that asks and ends */
  SOAK_REGISTER,
  SOAK_DEREGISTER,
  SOAK_JOIN,
  SOAK_LEAVE,
  SOAK_CONFIGURE,
  SOAK_STATISTICS,
  SOAK_DOWNLOAD,
  SOAK_SEND_REFERENCE,
  SOAK_SEND_SEGMENTS,
  SOAK_HAND_IN, /* a packet as input */
  SOAK_RECEIVE,
  SOAK_KINDS
};

enum soak_role { SOAK_ASKS, SOAK_SENDS, SOAK_RECEIVES, SOAK_REQUESTS, SOAK_ROLES };

#define SOAK_SEATS 16
#define SOAK_TEXT 160

struct soak_seat {
  /* By the client. Numbers wrap. */
  uint32_t done[16];     /* operations by kind that did what was asked */
  uint32_t refused[16];  /* operations that ended otherwise, as documented */
  uint32_t in_hand;      /* kind + 1; 0: between two operations */
  uint32_t began;        /* when, in milliseconds of the monotonic clock */
  uint32_t by_reference; /* whole packets that came by reference */
  uint32_t by_segments;  /* and inside messages */
  uint32_t wrong;        /* answers that cannot be; the first is told */
  char wrong_text[SOAK_TEXT];
};

struct soak_board {
  /* By the driver. */
  uint32_t stop;      /* clients are to end */
  uint32_t ipd_epoch; /* even: ipd is live and undisturbed; each change counts */
  uint32_t spoil;     /* senders turn a bit of their packets, which receivers have to notice */
  struct soak_seat seats[SOAK_SEATS];
};

#ifdef __cplusplus
#define SOAK_ASSERT static_assert
#else
#define SOAK_ASSERT _Static_assert
#endif
SOAK_ASSERT(sizeof(struct soak_seat) == 308, "both widths agree");
SOAK_ASSERT(sizeof(struct soak_board) == 12 + SOAK_SEATS * 308, "both widths agree");
SOAK_ASSERT(SOAK_KINDS <= 16, "a word for each kind");

/* The system that the driver keeps, and clients know:
 *   10.1.0.1 .. 10.1.0.32   /24, on "left", always
 *   198.51.100.0/24         by "left", always
 *   10.2.0.1 .. 10.2.0.64   /32, on "right", come and go
 *   10.3/16                 never
 *   10.4.N.1 .. 10.4.N.4    /24, on "soakN", which comes and goes; its MTU is 1300 + N
 *   10.5.SEAT.1 ..          /24, on "right": clients configure them
 *   100.64.N.0/24           by "left" or "right", come and go
 * Packets of protocol 253 go to 239.1.1.1 by "left", where receivers join. */
#define SOAK_FIXED 0x0a010000u
#define SOAK_FIXED_COUNT 32u
#define SOAK_FLIPPING 0x0a020000u
#define SOAK_FLIPPING_COUNT 64u
#define SOAK_ABSENT 0x0a030000u
#define SOAK_TRANSIENT 0x0a040000u
#define SOAK_TRANSIENT_COUNT 8u
#define SOAK_CONFIGURED 0x0a050000u
#define SOAK_FIXED_ROUTE 0xc6336400u
#define SOAK_ROUTES 0x64400000u
#define SOAK_ROUTE_COUNT 64u
#define SOAK_GROUP 0xef010101u
#define SOAK_HANDED_IN_FROM 0x0a0100c8u
#define SOAK_PROTOCOL 253u
#define SOAK_MTU 1300u

#endif
