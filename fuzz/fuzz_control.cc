// SPDX-License-Identifier: Apache-2.0
// Any messages to the control service, of clients that live, die and come again, over interfaces that come and go, with
// transports and kernels that fail: each message has one outcome, whoever waits is answered or rejected, nobody is sent
// anything who sent nothing, and when all clients are dead nothing is left of them.
//
// The input is a list of steps: a byte that says what is done, and what that needs. A message is either bytes as they
// stand, or a good header with a body of the input's: so that the search does not spend its time on headers.
#include <stdlib.h>
#include <syslog.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "input.h"
#include "ip_show.h"
#include "ipd/control/addresses.h"
#include "ipd/control/downloads.h"
#include "ipd/control/link_local.h"
#include "ipd/control/load_share.h"
#include "ipd/control/loans.h"
#include "ipd/control/memberships.h"
#include "ipd/control/redirects.h"
#include "ipd/control/show.h"
#include "ipd/control/statistics.h"
#include "ipd/control_fakes.h"
#include "ipd/control_rig.h"
#include "ipd/process/log.h"

namespace {

using namespace ipd::control;

constexpr uint32_t clients = 4;
constexpr uint32_t interfaces = 4;

void check(bool good) {
  if (!good) abort();
}

using fuzz::Input;

class CheckedTransport final : public Transport {
 public:
  int send(const Sender &to, uint32_t, std::span<const std::byte> message) override {
    check(message.size() <= IP_MAX_IPC_PAYLOAD && saps.contains(to.sap));
    return error;
  }
  int answer(const Request &request, std::span<const std::byte> message) override {
    check(message.size() <= IP_MAX_IPC_PAYLOAD && request.wants_answer && !answered);
    if (error == 0) answered = true;
    return error;
  }
  int reject(const Request &request) override {
    check(request.wants_answer);
    if (answered) return EALREADY;
    answered = true;
    return 0;
  }

  std::set<uint32_t> saps;  // of queues that sent something
  int error = 0;
  bool answered = false;  // the request that is being handled
};

class FailingKernel final : public ipd::kernel::AddressRequests,
                            public ipd::kernel::Redirects,
                            public ipd::kernel::InterfaceCounters {
 public:
  int add(uint32_t, uint32_t, uint8_t) override { return error; }
  int remove(uint32_t, uint32_t, uint8_t) override { return error; }
  int disable(const std::string &) override { return error; }
  int read(uint32_t, rtnl_link_stats64 *counters) override {
    if (error == 0) *counters = {};
    return error;
  }
  int error = 0;
};

class CheckedSockets final : public ipd::kernel::MembershipSockets {
 public:
  int join(const ipd::kernel::Membership &membership) override {
    check(!joined.contains(membership));
    if (error == 0) joined.insert(membership);
    return error;
  }
  int leave(const ipd::kernel::Membership &membership) override {
    check(joined.erase(membership) == 1);
    return error;
  }
  void forget(uint32_t ifindex) override {
    std::erase_if(joined, [ifindex](const auto &membership) { return membership.ifindex == ifindex; });
  }

  std::set<ipd::kernel::Membership> joined;
  int error = 0;
};

std::optional<std::vector<std::byte>> encode(std::span<const ip_if_info_msg_entry> entries) {
  return std::vector<std::byte>(entries.size_bytes());
}

class System {
 public:
  System() {
    service_.add(registrations_, {IP_MSG_REGISTER, IP_MSG_DEREGISTER});
    service_.add(link_local_, {IP_MSG_REPORT_LINK_LOCAL});
    service_.add(show_, {IP_MSG_SHOW_CLIENTS, IP_MSG_SHOW_REGISTRATIONS, IP_MSG_SHOW_MESSAGES});
    service_.add(addresses_, {IP_MSG_CONFIG_ADDRESS});
    service_.add(loans_, {IP_MSG_SET_UNNUMBERED, IP_MSG_UNSET_UNNUMBERED, IP_MSG_UNNUMBERED_PSS_CLEANUP});
    service_.add(memberships_, {IP_MSG_JOIN_GROUP, IP_MSG_LEAVE_GROUP});
    service_.add(redirects_, {IP_MSG_REDIRECT_DISABLE});
    service_.add(load_share_, {IP_MSG_LOAD_SHARE_CFG});
    service_.add(downloads_, {IP_MSG_DOWNLOAD_IF_INFO});
    service_.add(statistics_, {IP_MSG_GET_IF_STATS});
    for (uint32_t i = 1; i <= interfaces; ++i) box_.add(i, i, "eth" + std::to_string(i));
  }

  void step(Input &input) {
    static constexpr int errors[] = {0, EAGAIN, ECONNREFUSED, EPERM};
    static constexpr int socket_errors[] = {0, ENOBUFS, ENODEV, EPERM};
    const uint8_t what = input.byte();
    switch (what & 7) {
      case 0:
      case 1:
      case 2:
        return send(input, what);
      case 3:
        return watch_.end(pid_of(what));
      case 4:
        processes_.look_at_all();
        return processes_.settle();
      case 5:
        return service_.queue_gone(sender_of(what));
      case 6:
        transport_.error = errors[(what >> 3) & 3];
        kernel_.error = errors[(what >> 5) & 3];
        sockets_.error = socket_errors[(what >> 5) & 3];
        return service_.tick(now_ += std::chrono::milliseconds(250));
      default:
        return change_interface(what >> 3);
    }
  }

  void end() {
    for (uint32_t i = 0; i < clients; ++i) {
      watch_.end(pid_of(static_cast<uint8_t>(i << 3)));
      service_.queue_gone(sender_of(static_cast<uint8_t>(i << 3)));
    }
    processes_.look_at_all();
    processes_.settle();
    check(processes_.noted() == 0 && service_.senders().empty());
    check(sockets_.joined.empty());
    check(registrations_.size() == 0 && downloads_.count() == 0 && link_local_.reports().empty());
    for (uint32_t i = 0; i < clients; ++i) {
      const Holdings held = service_.holdings(pid_of(static_cast<uint8_t>(i << 3)));
      check(held.registrations == 0 && held.loans == 0 && held.memberships == 0 && held.downloads == 0 &&
            held.link_local_reports == 0);
    }
  }

 private:
  static int32_t pid_of(uint8_t what) { return 100 + ((what >> 3) & 3); }
  // Two of them are root's.
  static Sender sender_of(uint8_t what) {
    const uint32_t client = (what >> 3) & 3;
    return {.pid = pid_of(what), .uid = client < 2 ? 0 : 1000 + client, .sap = 2048 + client};
  }

  void send(Input &input, uint8_t what) {
    static constexpr uint32_t opcodes[] = {IP_OPCODE_CLIENT, IP_OPCODE_CONFIGURE, IP_OPCODE_PACKET, 0};
    Request request;
    request.sender = sender_of(what);
    request.wants_answer = (what & 32) != 0;
    std::vector<std::byte> bytes;
    if ((what & 7) == 0) {
      request.opcode = opcodes[what >> 6];
      bytes = input.bytes(input.byte() | (size_t{input.byte()} << 8));
    } else {
      const MessageKind &kind = message_kinds()[input.byte() % message_kinds().size()];
      request.opcode = kind.opcode;
      bytes = good_message(kind, input);
    }
    request.bytes = bytes;
    if (!watch_.starts.contains(request.sender.pid)) watch_.begin(request.sender.pid);
    transport_.saps.insert(request.sender.sap);
    transport_.answered = false;
    const uint64_t before = outcomes();
    service_.receive(request);
    check(outcomes() == before + 1);
    check(!request.wants_answer || transport_.answered);
  }

  static std::vector<std::byte> good_message(const MessageKind &kind, Input &input) {
    ip_msg_header header{};
    header.major_type = IP_MAJOR_CLIENT;
    header.minor_type = kind.minor;
    const uint32_t count = kind.is_list ? input.byte() : 0;
    std::vector<std::byte> bytes = input.bytes(input.byte());
    bytes.insert(bytes.begin(), sizeof header, std::byte{0});
    bytes.resize(kind.least_size + 4 * count);
    std::memcpy(bytes.data(), &header, sizeof header);
    if (kind.is_list) std::memcpy(bytes.data() + offsetof(ip_msg_interface_list, count), &count, sizeof count);
    if (kind.minor == IP_MSG_JOIN_GROUP || kind.minor == IP_MSG_LEAVE_GROUP) name_membership(bytes, input.byte());
    return bytes;
  }

  // One of few, so that clients hold the same ones and leave what they joined; with 255 whatever the message says.
  static void name_membership(std::vector<std::byte> &bytes, uint8_t which) {
    static constexpr uint32_t groups[] = {0, 0xe0000001, 0xef010203, 0x0a000001};
    if (which == 255) return;
    ip_msg_group message;
    std::memcpy(&message, bytes.data(), sizeof message);
    message.iod = 1 + which % (interfaces + 1);
    message.group = groups[(which >> 4) & 3];
    message.source = (which & 8) != 0 ? 0x0a000000 + (which >> 6) : 0;
    std::memcpy(bytes.data(), &message, sizeof message);
  }

  void change_interface(uint32_t bits) {
    const uint32_t iod = 1 + bits % interfaces;
    const auto found = box_.interfaces.find(iod);
    if (found == box_.interfaces.end()) {
      box_.add(iod, iod + interfaces * (bits & 1), "eth" + std::to_string(iod));
    } else if ((bits & 4) != 0) {
      box_.interfaces.erase(found);
    } else if ((bits & 8) != 0) {
      found->second.state.name = "eth" + std::to_string(1 + (iod + 1) % interfaces);
    } else {
      found->second.addresses = {{.addr = 0x0a000000 + iod, .mask_len = 24, .secondary = false, .scope = 0}};
      found->second.state.mtu = (bits & 16) != 0 ? 60 : 1500;  // without IPv4, with it
    }
    service_.interfaces_changed({iod, iod + interfaces});
    for (const auto &each : sockets_.joined) {
      const auto facts = box_.interface_by_ifindex(each.ifindex);
      check(facts && facts->state.mtu == 1500);
    }
  }

  [[nodiscard]] uint64_t outcomes() const {
    uint64_t sum = 0;
    for (const auto &[minor, counts] : service_.counts()) {
      uint64_t of_this = 0;
      for (const uint64_t count : counts.by_outcome) of_this += count;
      check(of_this == counts.received);
      sum += of_this;
    }
    return sum;
  }

  CheckedTransport transport_;
  control_rig::FakeWatch watch_;
  test_support::FakeBox box_;
  FailingKernel kernel_;
  CheckedSockets sockets_;
  Handler::Clock::time_point now_{};
  Processes processes_{watch_};
  Rights rights_{0, [](const Request &, uint32_t) { return false; }};
  Service service_{transport_, processes_, rights_};
  Clients registrations_{transport_, processes_};
  Show show_{transport_, service_, registrations_};
  LinkLocal link_local_;
  Addresses addresses_{box_, kernel_, transport_};
  Loans loans_{box_};
  Memberships memberships_{box_, sockets_};
  Redirects redirects_{box_, kernel_};
  LoadShare load_share_{[this] { return kernel_.error == 0; }};
  Downloads downloads_{box_, transport_, encode};
  Statistics statistics_{box_, transport_, kernel_};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ipd::set_log_limit(LOG_EMERG - 1);
  System system;
  Input input(data, size);
  while (!input.empty()) system.step(input);
  system.end();
  return 0;
}
