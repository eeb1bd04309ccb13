// SPDX-License-Identifier: Apache-2.0
// The same route tables seen twice, in one form: as the kernel tells them to ip(8), and as ipd publishes them.
#ifndef TESTS_SYSTEM_ROUTE_TABLES_H
#define TESTS_SYSTEM_ROUTE_TABLES_H

#include <cstdint>
#include <map>
#include <string>

namespace test_support {

// Where each interface's routes of the kernel's table 255 belong.
using TableOfInterface = std::map<std::string, uint32_t>;

// One line for each prefix of each table: what `ip -j -d route show table all` and `ip -j nexthop` of this process's
// network namespace say, brought into the tables' form by this file's own rules. Interfaces that are not named are in
// table 254. Empty when they cannot be run.
std::string kernels_routes(const TableOfInterface &interfaces);
// What a client reads; this process must be attached. Configured routes are left out.
std::string published_routes();

}  // namespace test_support

#endif
