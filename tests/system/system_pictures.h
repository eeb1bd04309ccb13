// SPDX-License-Identifier: Apache-2.0
// The same system seen twice, in one form: as the kernel tells it to ip(8), and as ipd publishes it to clients.
#ifndef TESTS_SYSTEM_SYSTEM_PICTURES_H
#define TESTS_SYSTEM_SYSTEM_PICTURES_H

#include <string>

namespace test_support {

// One line for each interface by ifindex, then its addresses in their order. What `ip -j addr` of this process's
// network namespace says; empty when it cannot be run.
std::string kernels_picture();
// What a client reads; this process must be attached.
std::string published_picture();

}  // namespace test_support

#endif
