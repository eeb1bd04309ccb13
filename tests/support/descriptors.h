// SPDX-License-Identifier: Apache-2.0
// How many descriptors a test and what it starts may have, which is a matter of who started the test.
#ifndef TESTS_SUPPORT_DESCRIPTORS_H
#define TESTS_SUPPORT_DESCRIPTORS_H

#include <cstdint>

namespace test_support {

// Raises the limit of this process, and of those that it starts from now on, to so many if it may and if it is lower.
// What the limit is then.
uint64_t allow_descriptors(uint64_t wanted);

}  // namespace test_support

#endif
