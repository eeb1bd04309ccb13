// SPDX-License-Identifier: Apache-2.0
// The commands about packets: capture, ping.
#ifndef IPSH_PACKET_COMMANDS_H
#define IPSH_PACKET_COMMANDS_H

#include "commands.h"

namespace ipsh {

void add_packets(CommandTree *tree);

}  // namespace ipsh

#endif
