// SPDX-License-Identifier: Apache-2.0
// What a running ipd shows of its clients, asked by this process; and programs of the test that are its clients.
#ifndef TESTS_SYSTEM_CONTROL_SHOWN_H
#define TESTS_SYSTEM_CONTROL_SHOWN_H

#include <optional>
#include <string>
#include <vector>

#include "ip_show.h"
#include "support/process.h"

namespace ipd_test {

// Empty when ipd does not answer.
std::vector<ip_show_client> shown_clients();
std::vector<ip_show_registration> shown_registrations();
std::vector<ip_show_message> shown_messages();

// What is shown of one process; nothing: it is not known.
std::optional<ip_show_client> shown_client(pid_t pid);
// The process that has a registration; 0: nobody.
uint32_t holder_of(const std::string &name);
// Messages of a minor type that were done, or that had another outcome.
uint64_t shown_count(uint16_t minor, uint32_t outcome);
// Packet messages of a minor type that had this outcome, IP_SHOW_PACKET_...
uint64_t shown_packets(uint16_t minor, uint32_t outcome);

// control_client with these steps, separated by blanks.
test_support::Process control_client(const std::string &steps);
// Waits until it has said this line; false: it ended, or half a minute passed.
bool says(test_support::Process &client, const std::string &line);
// Waits until a process stands still by SIGSTOP.
bool stands_still(pid_t pid);
// Waits until a process has sent so many messages from one of its queues.
bool has_sent(pid_t pid, uint32_t messages);

}  // namespace ipd_test

#endif
