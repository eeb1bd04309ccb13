// SPDX-License-Identifier: Apache-2.0
// The command `ipsh doctor`.
#ifndef IPSH_DOCTOR_COMMAND_H
#define IPSH_DOCTOR_COMMAND_H

#include "commands.h"

namespace ipsh {

void add_doctor(CommandTree *tree);

}  // namespace ipsh

#endif
