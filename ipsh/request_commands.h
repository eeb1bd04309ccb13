// SPDX-License-Identifier: Apache-2.0
// The commands that ask ipd to change something: join, leave, configure, unnumbered, multicast.
#ifndef IPSH_REQUEST_COMMANDS_H
#define IPSH_REQUEST_COMMANDS_H

#include "commands.h"

namespace ipsh {

void add_requests(CommandTree *tree);

}  // namespace ipsh

#endif
