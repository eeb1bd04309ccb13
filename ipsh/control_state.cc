// SPDX-License-Identifier: Apache-2.0
// Answers come in pages. A page is looked at no further than it is long, and an entry no further than ipd made it: an
// ipd of another version may know more of each, or less.
#include "control_state.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>

#include "asking.h"
#include "tsp/epochs.h"

namespace ipsh {
namespace {

constexpr size_t most_pages = 10000;  // an end, whatever ipd answers

bool ask(uint32_t queue, uint16_t minor, uint32_t after, std::vector<std::byte> *answer, Failure *failure) {
  ip_msg_show question{};
  question.header.major_type = IP_MAJOR_CLIENT;
  question.header.minor_type = minor;
  question.header.pid = static_cast<uint32_t>(getpid());
  question.after = after;
  const Failure rejected{ExitCode::permission, "ipd does not tell this user",
                         "the read_group of ipd's configuration says who may ask, see ipd.conf(5)"};
  return ask_ipd(queue, std::as_bytes(std::span(&question, 1)), rejected, answer, failure);
}

// Adds the entries of a page; what an entry does not have stays zero. False: it makes no sense.
template <class Entry>
bool take_page(const std::vector<std::byte> &answer, std::vector<Entry> *entries, bool *more) {
  ip_msg_show_reply reply{};
  if (answer.size() < sizeof reply) return false;
  std::memcpy(&reply, answer.data(), sizeof reply);
  const uint64_t size = reply.entry_size;
  if (size == 0 || answer.size() - sizeof reply < size * reply.count) return false;
  for (uint32_t i = 0; i < reply.count; ++i) {
    Entry entry{};
    std::memcpy(&entry, answer.data() + sizeof reply + i * size, std::min<size_t>(size, sizeof entry));
    entries->push_back(entry);
  }
  *more = reply.more != 0 && reply.count != 0;
  return true;
}

// Every entry begins with the word that the next page continues behind.
template <class Entry>
std::optional<std::vector<Entry>> read_all(uint32_t queue, uint16_t minor, Failure *failure) {
  std::vector<Entry> entries;
  bool more = true;
  for (size_t page = 0; more && page < most_pages; ++page) {
    uint32_t after = 0;
    if (!entries.empty()) std::memcpy(&after, &entries.back(), sizeof after);
    std::vector<std::byte> answer;
    if (!ask(queue, minor, after, &answer, failure)) return std::nullopt;
    if (!take_page(answer, &entries, &more)) {
      *failure = {ExitCode::unavailable, "ipd's answer makes no sense", "use an ipsh of the same version"};
      return std::nullopt;
    }
  }
  return entries;
}

template <size_t Size>
std::string text_of(const char (&field)[Size]) {
  return {field, strnlen(field, Size)};
}

std::string command_of(int32_t pid) {
  std::string name;
  std::getline(std::ifstream(fmt::format("/proc/{}/comm", pid)), name);
  return name;
}

RegistrationRow row_of(const ip_show_registration &entry) {
  return {.name = text_of(entry.name),
          .key = entry.reg_key,
          .mode = entry.reg_mode,
          .arg1 = entry.reg_arg1,
          .arg2 = entry.reg_arg2,
          .data_sap = entry.data_sap,
          .flags = entry.flags,
          .receive_function = text_of(entry.recv_fn)};
}

ClientOfIpd client_of(const ip_show_client &entry) {
  return {.uid = entry.uid,
          .received = entry.received,
          .refused = entry.refused,
          .registrations = {},
          .memberships = entry.memberships,
          .loans = entry.loans,
          .downloads = entry.downloads,
          .link_local_reports = entry.link_local_reports,
          .link_local_ref = entry.link_local_ref,
          .link_local_value = entry.link_local_value};
}

using ClientsByPid = std::map<int32_t, ClientRow>;

bool add_clients_of_ipd(ClientsByPid *rows, Failure *failure) {
  const AskingQueue queue;
  if (!queue.bound()) {
    *failure = no_queue_failure(errno);
    return false;
  }
  const auto clients = read_all<ip_show_client>(queue.handle(), IP_MSG_SHOW_CLIENTS, failure);
  if (!clients) return false;
  const auto registrations = read_all<ip_show_registration>(queue.handle(), IP_MSG_SHOW_REGISTRATIONS, failure);
  if (!registrations) return false;
  for (const ip_show_client &entry : *clients) {
    const auto pid = static_cast<int32_t>(entry.pid);
    (*rows)[pid].of_ipd = client_of(entry);
  }
  for (const ip_show_registration &entry : *registrations) {
    const auto row = rows->find(static_cast<int32_t>(entry.pid));
    if (row != rows->end() && row->second.of_ipd) row->second.of_ipd->registrations.push_back(row_of(entry));
  }
  return true;
}

constexpr std::array<const char *, IP_SHOW_OUTCOMES> outcome_names{
    "done",         "too-short",   "too-long",   "wrong-major",    "unknown", "wrong-opcode", "bad-field",
    "no-interface", "not-allowed", "name-taken", "not-registered", "limit",   "kernel",       "no-answer"};

constexpr std::array<const char *, IP_SHOW_PACKET_OUTCOMES> packet_outcome_names{
    "done",          "too-short",  "too-long",     "wrong-major", "unknown",      "wrong-opcode", "not-allowed",
    "bad-reference", "bad-length", "bad-packet",   "bad-field",   "no-context",   "no-interface", "interface-down",
    "no-route",      "no-source",  "no-neighbor",  "too-big",     "not-eligible", "rate-limited", "no-member",
    "no-receiver",   "queue-full", "no-privilege", "no-memory",   "kernel"};

uint64_t count_of(const uint32_t (&words)[2]) {
  return words[0] | (uint64_t{words[1]} << 32);
}

// All entries of a listing, from a queue of its own.
template <class Entry>
std::optional<std::vector<Entry>> read_listing(uint16_t minor, Failure *failure) {
  const AskingQueue queue;
  if (!queue.bound()) {
    *failure = no_queue_failure(errno);
    return std::nullopt;
  }
  return read_all<Entry>(queue.handle(), minor, failure);
}

}  // namespace

uint64_t MessageRow::refused() const {
  uint64_t sum = 0;
  for (size_t i = IP_SHOW_DONE + 1; i < counts.size(); ++i) sum += counts[i];
  return sum;
}

uint64_t PacketRow::refused() const {
  uint64_t sum = 0;
  for (size_t i = IP_SHOW_PACKET_DONE + 1; i < counts.size(); ++i) sum += counts[i];
  return sum;
}

const char *packet_outcome_name(size_t outcome) {
  return outcome < packet_outcome_names.size() ? packet_outcome_names[outcome] : "unknown-outcome";
}

const char *outcome_name(size_t outcome) {
  return outcome_names.at(outcome);
}

std::vector<ClientRow> read_clients(Failure *failure) {
  ClientsByPid rows;
  for (const rsw::EpochClient &reader : rsw::epoch_clients()) {
    ClientRow &row = rows[reader.pid];
    row.command = reader.command;
    row.threads = reader.threads;
    row.in_query = reader.inside;
  }
  add_clients_of_ipd(&rows, failure);
  rows.erase(getpid());
  std::vector<ClientRow> sorted;
  for (auto &[pid, row] : rows) {
    row.pid = pid;
    if (row.command.empty()) row.command = command_of(pid);
    sorted.push_back(std::move(row));
  }
  return sorted;
}

std::optional<std::vector<MessageRow>> read_messages(Failure *failure) {
  const auto entries = read_listing<ip_show_message>(IP_MSG_SHOW_MESSAGES, failure);
  if (!entries) return std::nullopt;
  std::vector<MessageRow> rows;
  for (const ip_show_message &entry : *entries) {
    MessageRow row{.minor = entry.minor, .name = text_of(entry.name)};
    for (size_t i = 0; i < row.counts.size(); ++i) row.counts[i] = count_of(entry.counts[i]);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::optional<std::vector<PacketRow>> read_packets(Failure *failure) {
  const auto entries = read_listing<ip_show_packets>(IP_MSG_SHOW_PACKETS, failure);
  if (!entries) {
    // Its control service may be all that it has.
    Failure other;
    if (failure->code == ExitCode::permission && read_messages(&other)) {
      *failure = {ExitCode::unavailable, "ipd takes no packets", "its log says why; one that simulates never does"};
    }
    return std::nullopt;
  }
  std::vector<PacketRow> rows;
  for (const ip_show_packets &entry : *entries) {
    PacketRow row{.minor = entry.minor,
                  .name = text_of(entry.name),
                  .to_client = entry.direction == IP_SHOW_TO_CLIENT,
                  .received = count_of(entry.received),
                  .bytes = count_of(entry.bytes)};
    for (size_t i = 0; i < row.counts.size(); ++i) row.counts[i] = count_of(entry.counts[i]);
    rows.push_back(std::move(row));
  }
  return rows;
}

}  // namespace ipsh
