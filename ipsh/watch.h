// SPDX-License-Identifier: Apache-2.0
// Changes of the shared database as they happen.
#ifndef IPSH_WATCH_H
#define IPSH_WATCH_H

#include <cstdint>
#include <optional>
#include <variant>
#include <vector>

#include "attachment.h"
#include "exit_code.h"
#include "snapshot.h"

namespace ipsh {

struct IpdRow {  // the writer of the database
  uint32_t pid;
  uint32_t instance;
  bool operator==(const IpdRow &) const = default;
};

struct Picture {
  IpdRow ipd;
  std::vector<ContextRow> contexts;
  std::vector<InterfaceRow> interfaces;
  std::vector<AddressRow> addresses;
};

enum class Change { added, removed, changed };
[[nodiscard]] const char *to_text(Change change);

using WatchedRow = std::variant<IpdRow, ContextRow, InterfaceRow, AddressRow>;

struct Event {
  Change change;
  WatchedRow row;                    // as it is now; of a removed one, as it was
  std::optional<WatchedRow> before;  // of a changed one
};

// What happened between two pictures, in the order in which it can have happened: addresses go before their interface
// and interfaces before their context; contexts come before interfaces and these before addresses.
[[nodiscard]] std::vector<Event> difference(const Picture &before, const Picture &after);

struct WatchLimits {
  std::optional<uint32_t> count;  // stop after so many events
  std::optional<double> seconds;  // stop after so long
};

struct WatchOutput {
  void (*start)(const Picture &picture);
  void (*event)(const Event &event);
};

// Blocks until a limit is reached. found: the count was reached, or without a count something changed; none: the time
// ended first. unavailable, with *failure: the database was replaced by another file.
[[nodiscard]] ExitCode watch(const Attachment &attachment, const WatchLimits &limits, const WatchOutput &output,
                             Failure *failure);

}  // namespace ipsh

#endif
