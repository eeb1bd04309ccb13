// SPDX-License-Identifier: Apache-2.0
// The send options' accessors as a C program has them.
#ifndef TESTS_PLATFORM_CONTRACT_IN_C_H
#define TESTS_PLATFORM_CONTRACT_IN_C_H

#include "mts.h"

#ifdef __cplusplus
extern "C" {
#endif

void contract_set_vector_in_c(struct mts_send_opts *opts, struct mts_iovec *vector);
struct mts_iovec *contract_vector_in_c(const struct mts_send_opts *opts);

#ifdef __cplusplus
}
#endif
#endif
