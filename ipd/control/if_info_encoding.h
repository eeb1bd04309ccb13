// SPDX-License-Identifier: Apache-2.0
// A notification's bytes, by the library's own conversion.
#ifndef IPD_CONTROL_IF_INFO_ENCODING_H
#define IPD_CONTROL_IF_INFO_ENCODING_H

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "ip_msg.h"

namespace ipd::control {

// Nothing: there is no memory for it now, or it cannot be encoded; the library has reported that then.
[[nodiscard]] std::optional<std::vector<std::byte>> encode_if_info(std::span<const ip_if_info_msg_entry> entries);

}  // namespace ipd::control

#endif
