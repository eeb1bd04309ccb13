// SPDX-License-Identifier: Apache-2.0
// What the clients have in common that do what their arguments say, step by step.
#ifndef TESTS_SYSTEM_STEPS_H
#define TESTS_SYSTEM_STEPS_H

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "im.h"

static inline uint32_t address_of(const char *text) {
  struct in_addr address;
  if (inet_pton(AF_INET, text, &address) != 1) exit(2);
  return ntohl(address.s_addr);
}

/* 0: there is none of that name. */
static inline uint32_t interface_of(const char *name) {
  for (uint32_t iod = im_get_next_ext_if(0, 267); iod != 0; iod = im_get_next_ext_if(iod, 267)) {
    const char *found = im_get_if_name(iod);
    if (found != NULL && strcmp(found, name) == 0) return iod;
  }
  return 0;
}

/* One step. How many words it took; 0: there is no such step. */
typedef int step_fn(char **words, int count);

/* The status to exit with. */
static inline int take_steps(int argc, char **argv, step_fn *step) {
  for (int i = 1; i < argc;) {
    const int taken = step(argv + i, argc - i);
    if (taken == 0) {
      fprintf(stderr, "no such step: %s\n", argv[i]);
      return 2;
    }
    i += taken;
  }
  return 0;
}

#endif
