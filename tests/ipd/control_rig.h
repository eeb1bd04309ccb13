// SPDX-License-Identifier: Apache-2.0
// The control service without a queue and without processes: both are lists.
#ifndef TESTS_IPD_CONTROL_RIG_H
#define TESTS_IPD_CONTROL_RIG_H

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ip_msg.h"
#include "ipd/control/clients.h"
#include "ipd/control/processes.h"
#include "ipd/control/rights.h"
#include "ipd/control/service.h"
#include "ipd/control/transport.h"

namespace control_rig {

using namespace ipd::control;

using Bytes = std::vector<std::byte>;

template <class Record>
Bytes bytes_of(const Record &record) {
  const auto bytes = std::as_bytes(std::span(&record, 1));
  return {bytes.begin(), bytes.end()};
}

template <class Record>
Record begin_message(uint16_t minor) {
  Record message{};
  message.header.major_type = IP_MAJOR_CLIENT;
  message.header.minor_type = minor;
  return message;
}

class RecordingTransport final : public Transport {
 public:
  struct Sent {
    uint32_t sap;
    uint32_t opcode;
    Bytes bytes;
  };
  int send(const Sender &to, uint32_t opcode, std::span<const std::byte> message) override {
    if (error == 0) sent.push_back({to.sap, opcode, {message.begin(), message.end()}});
    return error;
  }
  int answer(const Request &, std::span<const std::byte> message) override {
    if (error == 0) answers.emplace_back(message.begin(), message.end());
    return error;
  }
  int reject(const Request &) override {
    ++rejects;
    return error;
  }

  void hang_up(const Request &) override { ++hang_ups; }

  int hang_ups = 0;
  int error = 0;  // of every call
  std::vector<Sent> sent;
  std::vector<Bytes> answers;
  int rejects = 0;
};

class FakeWatch final : public ProcessWatch {
 public:
  int watch(int32_t pid) override {
    if (error != 0) return -error;
    if (!starts.contains(pid)) return -ESRCH;
    handles[++last_handle] = {pid, starts[pid]};
    return last_handle;
  }
  void forget(int handle) override { handles.erase(handle); }
  bool ended(int handle) override {
    const auto &[pid, start] = handles.at(handle);
    return !starts.contains(pid) || starts.at(pid) != start;
  }
  std::vector<int32_t> ended_processes() override {
    std::vector<int32_t> pids;
    for (const auto &[handle, process] : handles) {
      if (ended(handle)) pids.push_back(process.first);
    }
    return pids;
  }
  uint64_t start_time(int32_t pid) override { return starts.contains(pid) ? starts.at(pid) : 0; }

  void begin(int32_t pid) { starts[pid] = ++clock; }
  void end(int32_t pid) { starts.erase(pid); }

  int error = 0;  // of watch()
  std::map<int32_t, uint64_t> starts;
  std::map<int, std::pair<int32_t, uint64_t>> handles;
  int last_handle = 100;
  uint64_t clock = 0;
};

// What ipd prints is read from where it prints it.
struct System {
  static constexpr uint32_t own_uid = 77;

  System() { service.add(clients, {IP_MSG_REGISTER, IP_MSG_DEREGISTER}); }

  // The sender's process lives unless a test ended it.
  void receive(const Sender &sender, uint32_t opcode, const Bytes &bytes, bool wants_answer = false) {
    service.receive({.sender = sender,
                     .minor = 0,
                     .opcode = opcode,
                     .bytes = bytes,
                     .reference = nullptr,
                     .wants_answer = wants_answer});
  }
  template <class Record>
  void receive(const Sender &sender, const Record &record) {
    receive(sender, IP_OPCODE_CLIENT, bytes_of(record));
  }
  [[nodiscard]] uint64_t count(uint16_t minor, Refusal refusal) const {
    return service.counts().at(minor).by_outcome[static_cast<size_t>(refusal)];
  }
  void kill(int32_t pid) {
    watch.end(pid);
    processes.look();
    processes.settle();
  }

  RecordingTransport transport;
  FakeWatch watch;
  Processes processes{watch};
  std::set<std::pair<uint32_t, uint32_t>> members;  // user, group
  Rights rights{own_uid, [this](const Request &request, uint32_t gid) {
                  return members.contains({request.sender.uid, gid});
                }};
  Service service{transport, processes, rights};
  Clients clients{transport, processes};
};

}  // namespace control_rig

#endif
