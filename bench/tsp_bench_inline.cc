// SPDX-License-Identifier: Apache-2.0
#include "tsp_bench_inline.h"

#define URCU_INLINE_SMALL_FUNCTIONS
#define _LGPL_SOURCE
#include <urcu/urcu-memb.h>

void urcu_inline_once() {
  urcu_memb_read_lock();
  __asm__ volatile("" ::: "memory");
  urcu_memb_read_unlock();
}
