// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_TSP_BENCH_INLINE_H
#define BENCH_TSP_BENCH_INLINE_H

// liburcu's read side as its inline functions, in a source of their own because the choice is made per source.
void urcu_inline_once();

#endif
