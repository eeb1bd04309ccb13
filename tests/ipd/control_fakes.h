// SPDX-License-Identifier: Apache-2.0
// What a handler of the control service stands on, in memory: a box that is set up by hand, a transport that keeps what
// was sent, and requests as they come from the queue.
#ifndef TESTS_IPD_CONTROL_FAKES_H
#define TESTS_IPD_CONTROL_FAKES_H

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "ipd/control/box.h"
#include "ipd/control/request.h"
#include "ipd/control/transport.h"

namespace test_support {

class FakeBox final : public ipd::control::Box {
 public:
  [[nodiscard]] std::optional<ipd::control::InterfaceFacts> interface(uint32_t iod) const override {
    const auto found = interfaces.find(iod);
    return found == interfaces.end() ? std::nullopt : std::optional(found->second);
  }
  [[nodiscard]] std::optional<ipd::control::InterfaceFacts> interface_by_ifindex(uint32_t ifindex) const override {
    for (const auto &[iod, facts] : interfaces) {
      if (facts.state.ifindex == ifindex) return facts;
    }
    return std::nullopt;
  }
  [[nodiscard]] std::vector<uint32_t> iods() const override {
    std::vector<uint32_t> list;
    for (const auto &[iod, facts] : interfaces) list.push_back(iod);
    return list;
  }
  void lend(const std::vector<ipd::UnnumberedRule> &rules) override { loans.push_back(rules); }

  // An interface that is up, with multicast, in the default context.
  ipd::control::InterfaceFacts &add(uint32_t iod, uint32_t ifindex, const std::string &name) {
    ipd::control::InterfaceFacts facts;
    facts.iod = iod;
    facts.state = {.ifindex = ifindex,
                   .name = name,
                   .up = true,
                   .admin_up = true,
                   .loopback = false,
                   .multicast = true,
                   .forwarding = false,
                   .directed_broadcast = false,
                   .mtu = 1500,
                   .context_id = 1};
    return interfaces[iod] = facts;
  }

  std::map<uint32_t, ipd::control::InterfaceFacts> interfaces;
  std::vector<std::vector<ipd::UnnumberedRule>> loans;  // each call of lend()
};

class FakeTransport final : public ipd::control::Transport {
 public:
  struct Sent {
    uint32_t sap = 0;  // 0: the answer of a request
    uint32_t opcode = 0;
    std::vector<std::byte> bytes;

    template <class Record>
    [[nodiscard]] Record as() const {
      Record record{};
      std::memcpy(&record, bytes.data(), std::min(sizeof record, bytes.size()));
      return record;
    }
  };

  int send(const ipd::control::Sender &to, uint32_t opcode, std::span<const std::byte> message) override {
    if (error != 0) return error;
    sent.push_back({.sap = to.sap, .opcode = opcode, .bytes = {message.begin(), message.end()}});
    return 0;
  }
  int answer(const ipd::control::Request &request, std::span<const std::byte> message) override {
    if (error != 0) return error;
    sent.push_back({.sap = 0, .opcode = request.opcode, .bytes = {message.begin(), message.end()}});
    return 0;
  }
  int reject(const ipd::control::Request &) override {
    ++rejected;
    return error;
  }

  std::vector<Sent> sent;
  uint32_t rejected = 0;
  int error = 0;  // what each call answers instead of doing it
};

// The record as a message of that sender. The request looks at the record, which has to live as long.
template <class Record>
ipd::control::Request request_of(const Record &record, const ipd::control::Sender &sender, uint32_t opcode) {
  ipd::control::Request request;
  request.sender = sender;
  request.minor = record.header.minor_type;
  request.opcode = opcode;
  request.bytes = std::as_bytes(std::span(&record, 1));
  return request;
}

}  // namespace test_support

#endif
