// SPDX-License-Identifier: Apache-2.0
// What the shell may offer next, read from the command tree and, for names, from the running system.
#ifndef IPSH_COMPLETE_H
#define IPSH_COMPLETE_H

#include <span>
#include <string>
#include <vector>

#include "commands.h"

namespace ipsh {

// `words`: the command line after "ipsh", the last one being the word under the cursor (empty at its start). The
// candidates begin with that word; sorted.
[[nodiscard]] std::vector<std::string> complete(const CommandTree &tree, std::span<const std::string> words);

}  // namespace ipsh

#endif
