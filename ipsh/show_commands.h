// SPDX-License-Identifier: Apache-2.0
// The listings: `ipsh show` and what stands below it, and what the other commands share with them.
#ifndef IPSH_SHOW_COMMANDS_H
#define IPSH_SHOW_COMMANDS_H

#include <memory>
#include <string>
#include <string_view>

#include "attachment.h"
#include "commands.h"
#include "snapshot.h"

namespace ipsh {

void add_show(CommandTree *tree);

// Attached, with a word of warning when nobody keeps the database current. Null: *failure.
[[nodiscard]] std::unique_ptr<Attachment> attach(Failure *failure);

// What --context and --interface say. False: *failure.
[[nodiscard]] bool select(const Options &options, Selection *selection, Failure *failure);

// The end of a help text: examples, and what may stand anywhere.
[[nodiscard]] std::string examples(std::string_view lines);

}  // namespace ipsh

#endif
