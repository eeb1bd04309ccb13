// SPDX-License-Identifier: Apache-2.0
// The run directory: where segments, sockets and locks of one running system live.
#ifndef RSW_SM_RUN_DIR_H
#define RSW_SM_RUN_DIR_H

#include <string>
#include <string_view>

#define RSW_EXPORT __attribute__((visibility("default")))

namespace rsw {

// RSW_RUN_DIR if set; else /run/rsw for root; else $XDG_RUNTIME_DIR/rsw; else /tmp/rsw-<uid>. Read at each call.
RSW_EXPORT std::string run_directory();

// Makes it (mode 0755) when it is missing. False: *reason says why.
RSW_EXPORT bool make_run_directory(std::string *reason);

// The file of a segment: run directory plus the last component of "/rsw/shm/NAME".
RSW_EXPORT std::string segment_path(std::string_view segment_name);

}  // namespace rsw

#endif
