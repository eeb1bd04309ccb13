// SPDX-License-Identifier: Apache-2.0
// What ipd's control service says of its clients, their messages and packets, and which processes read the shared
// database.
#ifndef IPSH_CONTROL_STATE_H
#define IPSH_CONTROL_STATE_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "exit_code.h"
#include "ip_show.h"

namespace ipsh {

struct RegistrationRow {
  std::string name;  // may be empty
  uint8_t key = 0;
  uint32_t mode = 0, arg1 = 0, arg2 = 0;
  uint32_t data_sap = 0;  // 0: no queue for packets
  uint32_t flags = 0;
  std::string receive_function;
};

// What ipd knows of a process.
struct ClientOfIpd {
  uint32_t uid = 0;
  uint32_t received = 0, refused = 0;  // messages
  std::vector<RegistrationRow> registrations;
  uint32_t memberships = 0, loans = 0, downloads = 0;
  uint32_t link_local_reports = 0;
  uint32_t link_local_ref = 0, link_local_value = 0;
};

struct ClientRow {
  int32_t pid = 0;
  std::string command;
  uint32_t threads = 0;  // that read the shared database; 0: it does not
  bool in_query = false;
  std::optional<ClientOfIpd> of_ipd;  // nothing: ipd knows nothing of it, or was not reached
};

struct MessageRow {
  uint32_t minor = 0;  // 0: messages of no kind that is known
  std::string name;
  std::array<uint64_t, IP_SHOW_OUTCOMES> counts{};  // by IP_SHOW_...
  [[nodiscard]] uint64_t refused() const;
};

// The name of an outcome, as a member of an object; for people, its dashes are blanks.
[[nodiscard]] const char *outcome_name(size_t outcome);

struct PacketRow {
  uint32_t minor = 0;  // of the message; 0: messages of no kind that is known
  std::string name;
  bool to_client = false;                                  // else from one
  uint64_t received = 0;                                   // messages
  uint64_t bytes = 0;                                      // of their packets
  std::array<uint64_t, IP_SHOW_PACKET_OUTCOMES> counts{};  // by IP_SHOW_PACKET_...
  [[nodiscard]] uint64_t refused() const;
};

// The same for an outcome of packets; one that ipd has and this ipsh does not know: "unknown-outcome".
[[nodiscard]] const char *packet_outcome_name(size_t outcome);

// By process, ipsh itself left out. Where ipd cannot be asked, those that read the database, and *failure says why.
[[nodiscard]] std::vector<ClientRow> read_clients(Failure *failure);
// By minor type. Nothing: *failure.
[[nodiscard]] std::optional<std::vector<MessageRow>> read_messages(Failure *failure);
// The same of packets, deliveries last.
[[nodiscard]] std::optional<std::vector<PacketRow>> read_packets(Failure *failure);

}  // namespace ipsh

#endif
