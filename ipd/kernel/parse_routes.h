// SPDX-License-Identifier: Apache-2.0
// The readers of route and nexthop-object messages; parse() calls them.
#ifndef IPD_KERNEL_PARSE_ROUTES_H
#define IPD_KERNEL_PARSE_ROUTES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "ipd/kernel/parse.h"

namespace ipd::kernel {

// `flags`: of the message's header; they say where a new route stands. Nothing: it went to the sink or is not ours.
[[nodiscard]] std::optional<Refusal> read_route(std::span<const std::byte> body, bool removed, uint16_t flags,
                                                const Origin &origin, Sink &sink);
[[nodiscard]] std::optional<Refusal> read_nexthop(std::span<const std::byte> body, bool removed, const Origin &origin,
                                                  Sink &sink);

}  // namespace ipd::kernel

#endif
