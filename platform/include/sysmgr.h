// SPDX-License-Identifier: Apache-2.0
// The system manager: is this the supervisor that is in charge, and which system is this?
#ifndef RSW_SYSMGR_H
#define RSW_SYSMGR_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// The supervisor's state, as it is now.
// Threads: any. Blocks: no. Owns: nothing.
// Results: 1: active. 2: standby. A host on which nobody keeps a state is active: there is nobody to stand by for.
uint32_t sysmgr_supstate_get(void);

// The number that tells this system's messages from another's.
// Threads: any. Blocks: no. Owns: nothing.
// Results: the number; it stays the same for the system's life. 0: the system is not up.
uint32_t sysmgr_uuid_get(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
