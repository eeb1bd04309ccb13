// SPDX-License-Identifier: Apache-2.0
// A small system that a test publishes itself, without an ipd.
#ifndef TESTS_SYSTEM_PUBLISHED_SYSTEM_H
#define TESTS_SYSTEM_PUBLISHED_SYSTEM_H

#include <memory>

#include "ipd/publish/publisher.h"
#include "tsp/epochs.h"
#include "urib/urib_writer.h"

namespace test_support {

// Publishes and commits, in RSW_RUN_DIR; null when that failed, with a test failure. Interfaces lo, eth0 and tun0 in
// "default" (table 254), eth1 in "red" (table 100). eth0: 10.0.0.1/24, secondaries 10.0.0.2/24 and 10.0.1.1/24, virtual
// 10.0.0.100; tun0 borrows from eth0; lo: 127.0.0.1/8; eth1: 192.0.2.1/25. eth0 has
// joined 224.0.0.5 (data 1) and 239.1.2.3 (data 7), and counts 11 to 15 packets, 2^40 and 22 bytes and 3 PIM asserts;
// load is shared by mode 2, value 5.
std::unique_ptr<ipd::Publisher> publish_test_system();

struct RoutedSystem {
  std::unique_ptr<rsw::Epochs> epochs;  // which the two writers share
  std::unique_ptr<ipd::Publisher> publisher;
  std::unique_ptr<rsw::UribWriter> routes;
};

// The same system with routes; a null member when that failed, with a test failure. Table 254, all by eth0: attached
// 10.0.0.0/24 and 10.0.1.0/24, local routes for eth0's and lo's addresses (the virtual one inactive), a default route
// by 10.0.0.254, 198.51.100.0/24 by 10.0.0.9 to be resolved, 198.51.101.0/24 by 10.0.0.9 and three times as
// often 10.0.1.9, 203.0.113.0/24 a blackhole, 192.0.2.0/25 leaked from table 100, where it is attached to eth1;
// 198.18.0.0/15 out of tun0. Multicast static: 198.51.100.0/24 and 10.0.1.0/24 by 10.0.0.7.
RoutedSystem publish_test_routes();

}  // namespace test_support

#endif
