// SPDX-License-Identifier: Apache-2.0
/* Messages that no library builds. */
#ifndef TESTS_SYSTEM_FORGED_MESSAGES_H
#define TESTS_SYSTEM_FORGED_MESSAGES_H

#include <stdint.h>

/* Sends every kind of message to the control SAP, each wrong in one way: the major type, the minor type, the opcode,
 * the size, a list's count, a field; with random bytes behind the header. Then each again as a request of the
 * transport, which must be rejected. Says how many went out ("forged N") and how many were rejected ("rejected N of
 * M"), when the IP process has seen all of them. */
void forge_messages(uint32_t queue, uint32_t seed);

#endif
