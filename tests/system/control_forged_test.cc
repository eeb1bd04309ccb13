// SPDX-License-Identifier: Apache-2.0
// What another user can do with messages that no library builds, and with honest ones that it has no right to: nothing.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "control_shown.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "mts/mts_server.h"
#include "mts/wire.h"

namespace {

using namespace ipd_test;
using test_support::Process;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);

// Everything that a client's request could change in the kernel.
std::string kernels_state() {
  std::string state;
  test_support::run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin; ip -4 addr; ip -4 route show table all; ip rule"},
                    &state);
  for (const char *file : {"/proc/net/igmp", "/proc/net/mcfilter"}) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
      // Behind these stand timers, which run.
      std::string first;
      std::string second;
      std::istringstream(line) >> first >> second;
      state += first + " " + second + "\n";
    }
  }
  for (const auto &interface : std::filesystem::directory_iterator("/proc/sys/net/ipv4/conf")) {
    for (const auto &setting : std::filesystem::directory_iterator(interface.path())) {
      std::ifstream in(setting.path());
      std::string value;
      std::getline(in, value);
      state += setting.path().string() + " " + value + "\n";
    }
  }
  return state;
}

uint32_t malformed_on_the_wire() {
  for (const rsw::MtsQueueUse &queue : rsw::mts_queues()) {
    if (queue.sap == IP_SAP_CONTROL) return queue.refused;
  }
  return 0;
}

size_t times(const std::string &text, const std::string &part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

class ControlForgedTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_interface("ib", "10.0.0.1/24");
    ip("link add ob type ifb");
    ip("link set ob up");
    start_ipd();
    ASSERT_EQ(chmod(run_directory_.path().c_str(), 0755), 0);
    attach();
    expect_same_as_kernel();
    before_ = kernels_state();
    // Only root can become somebody else; without that, the tests of forms still hold.
    may_become_ = Process([] { return setgid(65534) == 0 && setuid(65534) == 0 ? 0 : 1; }).wait() == 0;
  }

  [[nodiscard]] std::string other_user() const { return may_become_ ? "become 65534 attach " : "attach "; }

  // ipd lives and answers, and neither the kernel nor what is published has changed.
  void expect_nothing_happened() {
    EXPECT_TRUE(ipd_.running()) << ipd_.output();
    EXPECT_FALSE(shown_messages().empty()) << "ipd answers";
    EXPECT_EQ(kernels_state(), before_);
    expect_same_as_kernel();
    EXPECT_EQ(ip_is_iod_unnumbered(iod("ob")), 0u);
  }

  std::string before_;
  bool may_become_ = false;
};

TEST_F(ControlForgedTest, EveryMalformedMessageOfAnotherUserIsRefusedAndCountedAndDoesNothing) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Process forger = control_client(other_user() + "bind forge " + std::to_string(seed) + " hold");
  ASSERT_TRUE(says(forger, "held 1")) << forger.output();
  const std::string &said = forger.output();
  const uint64_t forged = std::stoull(said.substr(said.find("forged ") + 7));
  EXPECT_GT(forged, 1000u);
  uint64_t rejected = 0;
  uint64_t requests = 1;
  ASSERT_EQ(sscanf(said.c_str() + said.find("rejected "), "rejected %lu of %lu", &rejected, &requests), 2);
  EXPECT_EQ(rejected, requests);

  const auto shown = shown_client(forger.pid());
  ASSERT_TRUE(shown.has_value());
  EXPECT_EQ(shown->uid, may_become_ ? 65534u : geteuid());
  EXPECT_EQ(shown->received, forged);
  EXPECT_EQ(shown->refused, forged);
  EXPECT_EQ(shown->registrations + shown->memberships + shown->loans + shown->downloads + shown->link_local_reports,
            0u);
  uint64_t counted = 0;
  for (const ip_show_message &message : shown_messages()) {
    for (uint32_t outcome = IP_SHOW_TOO_SHORT; outcome < IP_SHOW_OUTCOMES; ++outcome) {
      counted += message.counts[outcome][0];
    }
  }
  EXPECT_EQ(counted, forged);
  expect_nothing_happened();

  const std::string from = "refused from process " + std::to_string(forger.pid()) + " ";
  for (const char *reason : {"too short", "too long", "not a client's message", "no message that is known here",
                             "sent as another message", "a field has no valid value", "no such registration"}) {
    size_t lines = 0;
    std::istringstream log(ipd_.output());
    for (std::string line; std::getline(log, line);) {
      if (line.find(from) != std::string::npos && line.find(std::string(": ") + reason) != std::string::npos) ++lines;
    }
    EXPECT_EQ(lines, 1u) << reason << "\n" << ipd_.output();
  }
  EXPECT_LE(times(ipd_.output(), from), size_t{IP_SHOW_OUTCOMES});
}

TEST_F(ControlForgedTest, AnotherUserMayAskForNothingThatChangesTheSystem) {
  if (!may_become_) return;
  Process other = control_client(
      other_user() +
      "control - configure ib 10.7.0.1 24 60 join 239.1.2.3 ib leave 224.0.0.1 ib borrow ob ib own ob redirects ib "
      "cleanup ib configure ib 10.7.0.1 24 60 hold");
  ASSERT_TRUE(says(other, "held 1")) << other.output();
  EXPECT_EQ(times(other.output(), "configure 20\n"), 2u) << other.output();
  const auto shown = shown_client(other.pid());
  ASSERT_TRUE(shown.has_value());
  EXPECT_EQ(shown->received, 8u);
  EXPECT_EQ(shown->refused, 8u);
  uint64_t not_allowed = 0;
  for (const ip_show_message &message : shown_messages()) not_allowed += message.counts[IP_SHOW_NOT_ALLOWED][0];
  EXPECT_EQ(not_allowed, 8u);
  EXPECT_EQ(times(ipd_.output(), "refused from process " + std::to_string(other.pid()) + " "), 1u) << ipd_.output();
  expect_nothing_happened();
}

TEST_F(ControlForgedTest, WhatAMessageSaysOfItsSenderDoesNotCount) {
  Process victim = control_client("attach register a-client 1 hold");
  ASSERT_TRUE(says(victim, "register 1")) << victim.output();
  const std::string pid = std::to_string(victim.pid());
  // It can neither register for another process nor take that one's registration away.
  Process liar = control_client(other_user() + "bind claim " + pid + " send b-client 1 reply send a-client 1 reply " +
                                "register c-client 1 deregister a-client 1 hold");
  ASSERT_TRUE(says(liar, "held 1")) << liar.output();
  EXPECT_TRUE(says(liar, "reply 1")) << liar.output();
  EXPECT_TRUE(says(liar, "reply 0")) << liar.output();
  ASSERT_TRUE(wait_until([&] { return shown_count(IP_MSG_DEREGISTER, IP_SHOW_NOT_ALLOWED) == 1; }, patience));
  EXPECT_EQ(shown_count(IP_MSG_REGISTER, IP_SHOW_NAME_TAKEN), 1u);
  EXPECT_EQ(holder_of("a-client"), static_cast<uint32_t>(victim.pid()));
  EXPECT_EQ(holder_of("b-client"), static_cast<uint32_t>(liar.pid()));
  liar.kill_now();
  EXPECT_TRUE(wait_until([] { return holder_of("b-client") == 0; }, patience));
  EXPECT_EQ(holder_of("a-client"), static_cast<uint32_t>(victim.pid())) << "it lives";
  expect_nothing_happened();
}

// A connection to the control SAP, without any library.
class Wire {
 public:
  explicit Wire(const std::string &run_directory) : socket_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = run_directory + "/mts/" + std::to_string(IP_SAP_CONTROL);
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) _exit(10);
  }
  ~Wire() { close(socket_); }
  Wire(const Wire &) = delete;
  Wire &operator=(const Wire &) = delete;

  // Whether ipd closes the connection because of it.
  [[nodiscard]] bool is_closed_by(const std::string &bytes) const {
    if (send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) return false;
    char byte = 0;
    return recv(socket_, &byte, 1, 0) <= 0;
  }

 private:
  int socket_;
};

std::string on_the_wire(const rsw::mts::WireHeader &header, size_t extra) {
  return std::string(reinterpret_cast<const char *>(&header), sizeof header) + std::string(extra, 'r');
}

rsw::mts::WireHeader good_header() {
  return {.magic = rsw::mts::wire_magic,
          .kind = 1,
          .opcode = IP_OPCODE_CLIENT,
          .sap = 60000,
          .token = 0,
          .size = IP_MSG_SIZE,
          .pieces = 0,
          .reserved = 0};
}

TEST_F(ControlForgedTest, BytesThatAreNoMessageOfTheTransportEndTheirConnectionAndAreCounted) {
  const uint32_t counted_before = malformed_on_the_wire();
  Process victim = control_client("attach bind hold");
  ASSERT_TRUE(says(victim, "held 1"));
  uint32_t victims_sap = 0;
  for (const rsw::MtsQueueUse &queue : rsw::mts_queues()) {
    if (queue.pid == victim.pid()) victims_sap = queue.sap;
  }
  ASSERT_NE(victims_sap, 0u);
  std::vector<std::string> forgeries{"x", std::string(31, '\0'), std::string(120864, 'x')};
  rsw::mts::WireHeader header = good_header();
  header.magic ^= 1;
  forgeries.push_back(on_the_wire(header, IP_MSG_SIZE));
  header = good_header();
  forgeries.push_back(on_the_wire(header, IP_MSG_SIZE - 1));
  forgeries.push_back(on_the_wire(header, IP_MSG_SIZE + 1));
  header.size = ~0u;
  forgeries.push_back(on_the_wire(header, IP_MSG_SIZE));
  header = good_header();
  header.pieces = 63;
  forgeries.push_back(on_the_wire(header, IP_MSG_SIZE));
  if (may_become_) {
    for (const uint32_t sap : {uint32_t{IP_SAP_CONTROL}, victims_sap}) {
      header = good_header();
      header.sap = sap;
      forgeries.push_back(on_the_wire(header, IP_MSG_SIZE));
    }
  }
  Process forger([&] {
    if (may_become_ && (setgid(65534) != 0 || setuid(65534) != 0)) return 100;
    for (size_t i = 0; i < forgeries.size(); ++i) {
      if (!Wire(run_directory_.path()).is_closed_by(forgeries[i])) return static_cast<int>(i) + 1;
    }
    return 0;
  });
  EXPECT_EQ(forger.wait(patience), 0) << "the number of the forgery";
  EXPECT_EQ(malformed_on_the_wire(), counted_before + forgeries.size());
  EXPECT_FALSE(shown_client(forger.pid()).has_value()) << "nothing of it reached the control service";
  expect_nothing_happened();
}

}  // namespace
