// SPDX-License-Identifier: Apache-2.0
// A small system that a test publishes itself, without an ipd.
#ifndef TESTS_SYSTEM_PUBLISHED_SYSTEM_H
#define TESTS_SYSTEM_PUBLISHED_SYSTEM_H

#include <memory>

#include "ipd/publish/publisher.h"

namespace test_support {

// Publishes and commits, in RSW_RUN_DIR; null when that failed, with a test failure. Interfaces lo, eth0 and tun0 in
// "default" (table 254), eth1 in "red" (table 100). eth0: 10.0.0.1/24, secondaries 10.0.0.2/24 and 10.0.1.1/24, virtual
// 10.0.0.100; tun0 borrows from eth0; lo: 127.0.0.1/8; eth1: 192.0.2.1/25.
std::unique_ptr<ipd::Publisher> publish_test_system();

}  // namespace test_support

#endif
