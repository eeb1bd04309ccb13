/* SPDX-License-Identifier: Apache-2.0
 * What the files of the soak's client share. */
#ifndef TESTS_SOAK_SOAK_CLIENT_H
#define TESTS_SOAK_SOAK_CLIENT_H

#include "soak_board.h"

#define NO_QUEUE 0xffffffffu

extern struct soak_board *board;
extern struct soak_seat *seat;
extern uint32_t seat_number;
extern uint32_t left; /* iods of the two interfaces that stay */
extern uint32_t right;
extern uint32_t control_queue;
extern uint32_t data_queue;

/* An operation: what the driver sees when it looks, or kills. */
void begin(enum soak_kind kind);
void end(enum soak_kind kind, int as_asked);
/* An answer that cannot be. */
void tell_wrong(const char *what, uint32_t about, uint32_t value);

uint32_t random_word(void);
void rest(uint32_t microseconds);
/* What the driver says of ipd now; undisturbed_since(): live then, and not stopped or killed since. */
uint32_t ipd_epoch(void);
int undisturbed_since(uint32_t epoch);
/* The board says that packets are to be sent with a bit turned. */
int spoils_packets(void);

/* soak_questions.c */
int know_the_interfaces(void);
void ask(void);
void walk(void);
void ask_in_a_thread(void);

/* soak_packets.c */
void send_packet(enum soak_kind kind);
void receive_packet(void);

#endif
