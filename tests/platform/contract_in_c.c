// SPDX-License-Identifier: Apache-2.0
#include "platform/contract_in_c.h"

void contract_set_vector_in_c(struct mts_send_opts *opts, struct mts_iovec *vector) {
  mts_send_opts_set_vector(opts, vector);
}

struct mts_iovec *contract_vector_in_c(const struct mts_send_opts *opts) {
  return mts_send_opts_vector(opts);
}
