// SPDX-License-Identifier: Apache-2.0
#include "control_shown.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "ip_api.h"
#include "mts.h"
#include "mts/mts_server.h"
#include "support/run_directory.h"

namespace ipd_test {
namespace {

using test_support::wait_until;

constexpr std::chrono::seconds patience(60);
constexpr uint32_t no_queue = ~uint32_t{0};

// One answer; empty: none.
std::vector<char> ask(uint32_t queue, uint16_t minor, uint32_t after) {
  ip_msg_show request{};
  request.header.major_type = IP_MAJOR_CLIENT;
  request.header.minor_type = minor;
  request.after = after;
  mts_msg_ref_t sent = nullptr;
  if (mts_send(queue, IP_NODE_LOCAL, IP_SAP_CONTROL, IP_OPCODE_CLIENT, &request, sizeof request, &sent, 0, nullptr) !=
      0) {
    return {};
  }
  mts_recv_opts options{{1, 0, 60, mts_rr_token_get(sent)}};
  mts_msg_ref_t answer = nullptr;
  std::vector<char> bytes;
  if (mts_recv(queue, &answer, &options) == 0) {
    const auto *payload = static_cast<const char *>(mts_payload_get(answer));
    if (mts_is_reject(answer) == 0 && payload != nullptr) bytes.assign(payload, payload + mts_payload_size(answer));
    mts_drop(queue, answer);
  }
  mts_drop(queue, sent);
  return bytes;
}

template <class Entry>
std::vector<Entry> shown(uint16_t minor) {
  std::vector<Entry> entries;
  uint32_t queue = no_queue;
  if (ip_init_mts(&queue, -1) == 0) return entries;
  ip_msg_show_reply reply{};
  uint32_t after = 0;
  do {
    const std::vector<char> bytes = ask(queue, minor, after);
    if (bytes.size() < sizeof reply) break;
    std::memcpy(&reply, bytes.data(), sizeof reply);
    for (uint32_t i = 0; i < reply.count; ++i) {
      Entry entry;
      std::memcpy(&entry, bytes.data() + sizeof reply + size_t{i} * reply.entry_size, sizeof entry);
      std::memcpy(&after, &entry, sizeof after);
      entries.push_back(entry);
    }
  } while (reply.more != 0);
  mts_unbind(queue, 0);
  return entries;
}

}  // namespace

std::vector<ip_show_client> shown_clients() {
  return shown<ip_show_client>(IP_MSG_SHOW_CLIENTS);
}

std::vector<ip_show_registration> shown_registrations() {
  return shown<ip_show_registration>(IP_MSG_SHOW_REGISTRATIONS);
}

std::vector<ip_show_message> shown_messages() {
  return shown<ip_show_message>(IP_MSG_SHOW_MESSAGES);
}

std::optional<ip_show_client> shown_client(pid_t pid) {
  for (const ip_show_client &client : shown_clients()) {
    if (client.pid == static_cast<uint32_t>(pid)) return client;
  }
  return std::nullopt;
}

uint32_t holder_of(const std::string &name) {
  for (const ip_show_registration &registration : shown_registrations()) {
    if (registration.name == name) return registration.pid;
  }
  return 0;
}

uint64_t shown_count(uint16_t minor, uint32_t outcome) {
  for (const ip_show_message &message : shown_messages()) {
    if (message.minor == minor) return message.counts[outcome][0] | uint64_t{message.counts[outcome][1]} << 32;
  }
  return 0;
}

uint64_t shown_packets(uint16_t minor, uint32_t outcome) {
  for (const auto &packets : shown<ip_show_packets>(IP_MSG_SHOW_PACKETS)) {
    if (packets.direction != IP_SHOW_FROM_CLIENT || packets.minor != minor) continue;
    return packets.counts[outcome][0] | uint64_t{packets.counts[outcome][1]} << 32;
  }
  return 0;
}

test_support::Process control_client(const std::string &steps) {
  std::vector<std::string> command{CONTROL_CLIENT};
  std::istringstream words(steps);
  for (std::string word; words >> word;) command.push_back(word);
  return test_support::Process(command);
}

bool says(test_support::Process &client, const std::string &line) {
  const auto said = [&] { return ("\n" + client.output()).find("\n" + line + "\n") != std::string::npos; };
  return wait_until([&] { return said() || !client.running(); }, patience) && said();
}

bool stands_still(pid_t pid) {
  return wait_until(
      [pid] {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid;
      },
      patience);
}

bool has_sent(pid_t pid, uint32_t messages) {
  return wait_until(
      [pid, messages] {
        return std::ranges::any_of(rsw::mts_queues(), [&](const rsw::MtsQueueUse &queue) {
          return queue.pid == pid && queue.sent >= messages;
        });
      },
      patience);
}

}  // namespace ipd_test
