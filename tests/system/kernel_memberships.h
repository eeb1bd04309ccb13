// SPDX-License-Identifier: Apache-2.0
// What the kernel's tables say about multicast memberships of this process's network namespace.
#ifndef TESTS_SYSTEM_KERNEL_MEMBERSHIPS_H
#define TESTS_SYSTEM_KERNEL_MEMBERSHIPS_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace test_support {

// Groups of an interface, without 224.0.0.1, which the kernel joins itself; how many sockets want each.
std::map<uint32_t, unsigned> kernel_groups(const std::string &interface);

// (group, source): how many sockets want the source, and how many want all but it.
using SourceFilters = std::map<std::pair<uint32_t, uint32_t>, std::pair<unsigned, unsigned>>;
SourceFilters kernel_sources(const std::string &interface);

// How many want the interface to take in every group; -1: no such interface, or the kernel does not say.
int kernel_all_multicast(const std::string &interface);
// Whether it has the flag IFF_MULTICAST.
bool kernel_multicast_flag(const std::string &interface);

}  // namespace test_support

#endif
