// SPDX-License-Identifier: Apache-2.0
// The layer-3 context manager: which context (VRF) an interface belongs to. Answers come from the interface table, see
// im.h, and need it open.
#ifndef RSW_L3VM_H
#define RSW_L3VM_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// The context of an interface.
//   iod           the interface
// Threads: any. Blocks: no. Owns: nothing. Results: the context id. 0: no such interface.
uint32_t l3vm_if_get_context_id(uint32_t iod);

// The URIB table of an interface's context: what the urib calls take as `table`.
//   iod           the interface
//   base          the topology; always "base"
// Threads: any. Blocks: no. Owns: nothing. Results: the table id. 0: no such interface, or its context has no table.
uint32_t l3vm_if_get_table_id(uint32_t iod, uint32_t one, const char *base);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
