// SPDX-License-Identifier: Apache-2.0
// Packets that pass ipd, shown or written to a file until interrupted.
#ifndef IPSH_CAPTURE_H
#define IPSH_CAPTURE_H

#include <optional>
#include <string>

#include "capture_stream.h"
#include "captured_row.h"
#include "exit_code.h"

namespace ipsh {

struct CaptureOrder {
  CaptureFilter filter;
  std::string file;               // pcapng; "-": standard output; empty: each is shown
  std::optional<uint32_t> count;  // end after so many
};

// Blocks. found: a packet was captured; none: none was before the end.
[[nodiscard]] ExitCode capture(const CaptureOrder &order, void (*show)(const CapturedRow &row), Failure *failure);

}  // namespace ipsh

#endif
