// SPDX-License-Identifier: Apache-2.0
// An interface's flags (IFF_...), asked and changed by its ifindex.
#ifndef IPD_KERNEL_LINK_FLAGS_H
#define IPD_KERNEL_LINK_FLAGS_H

#include <cstdint>

namespace ipd::kernel {

// Both: Threads: any. Blocks: until the kernel answers. Results: 0, or an error number: ENODEV: no such interface;
// EPERM: changing needs CAP_NET_ADMIN.
[[nodiscard]] int read_link_flags(uint32_t ifindex, uint32_t *flags);
// Those of `mask` become what `flags` says; the others stay.
[[nodiscard]] int change_link_flags(uint32_t ifindex, uint32_t flags, uint32_t mask);

}  // namespace ipd::kernel

#endif
