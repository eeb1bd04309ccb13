// SPDX-License-Identifier: Apache-2.0
// ipd as a user of its own: with the two capabilities that its unit gives it, it does all that root's does; without any
// it publishes, and refuses with a reason. Only root can become somebody else, so these tests are there for root alone.
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <optional>

#include "ip_api.h"
#include "ipd_fixture.h"
#include "kernel_memberships.h"
#include "other_users.h"
#include "reception_rig.h"
#include "support/peer_namespace.h"

namespace {

using namespace ipd_test;
using namespace other_users;
using namespace reception_rig;
using test_support::PeerNamespace;

class IpdOwnUser : public testing::WithParamInterface<Users>, public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    peer_.emplace();
    ASSERT_EQ(test_support::connect("va", "10.0.0.1/24", *peer_, "vb", "10.0.0.2/24"), "");
    give_to(run_directory_.path(), users().ipd);
  }
  [[nodiscard]] static const Users &users() { return GetParam(); }

  // capabilities: as setpriv(1) has them.
  void start(const std::string &capabilities, const std::string &configuration = "{}") {
    write_configuration(configuration);
    Words command = as_user(users().ipd, users().ipd, capabilities);
    for (const std::string &word : runnable(ipd_command({"--foreground", "--config", configuration_file()}))) {
      command.push_back(word);
    }
    ipd_ = Process(command);
    ASSERT_TRUE(wait_until([this] { return ipd_said("live:") || !ipd_.running(); }, deadline)) << ipd_.output();
    ASSERT_TRUE(ipd_.running()) << ipd_.output();
    attach();
  }
  void start_as_the_unit_does(const std::string &configuration = "{}") { start(the_units, configuration); }
  void start_without_privilege(const std::string &configuration = "{}") { start("-all", configuration); }

  // A member of ipd's group and no more.
  [[nodiscard]] Process member(const Words &steps) const {
    Words command = as_user(users().member, users().ipd, "-all");
    for (const std::string &word : runnable(steps)) command.push_back(word);
    return Process(command);
  }
  [[nodiscard]] std::string its_group() const {
    return R"({"configure_group": ")" + std::to_string(users().ipd) + "\"}";
  }
  [[nodiscard]] std::string status(const std::string &field) const {
    std::ifstream file("/proc/" + std::to_string(ipd_.pid()) + "/status");
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with(field + ":")) return line.substr(field.size() + 2);
    }
    return "";
  }
  static std::string setting(const std::string &name) {
    std::ifstream file("/proc/sys/net/ipv4/conf/" + name);
    std::string text;
    file >> text;
    return text;
  }
  static bool says(Process &process, const std::string &text) {
    return wait_until([&] { return process.output().find(text) != std::string::npos; }, deadline);
  }
  // A process at the neighbour with a raw socket of the protocol.
  [[nodiscard]] Process at_neighbor(uint8_t protocol, const std::function<int(int)> &body) const {
    return Process([this, protocol, body] {
      const int space = open(("/proc/" + peer_->id() + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
      if (space < 0 || setns(space, CLONE_NEWNET) != 0) return 2;
      const int descriptor = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, protocol);
      return descriptor < 0 ? 3 : body(descriptor);
    });
  }

  // On a raw socket of OSPF, as the kernel lists it.
  [[nodiscard]] bool neighbor_listens() const {
    std::ifstream file("/proc/" + peer_->id() + "/net/raw");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    return text.find(":0059 ") != std::string::npos;
  }

  std::optional<PeerNamespace> peer_;
};

TEST_P(IpdOwnUser, HasTwoCapabilitiesAndPublishes) {
  ASSERT_NO_FATAL_FAILURE(start_as_the_unit_does());
  EXPECT_EQ(status("CapEff"), "0000000000003000");
  EXPECT_EQ(status("CapBnd"), "0000000000003000");
  expect_same_as_kernel();
  ip("addr add 10.0.0.3/24 dev va");
  EXPECT_TRUE(wait_until([&] { return ip_is_address_on_interface(0x0a000003, iod("va")) != 0; }, deadline));
}

TEST_P(IpdOwnUser, ServesAJoinOfAMemberOfItsGroup) {
  ASSERT_NO_FATAL_FAILURE(start_as_the_unit_does(its_group()));
  Process client = member({CONTROL_CLIENT, "attach", "control", "-", "join", "239.1.2.3", "va", "hold"});
  EXPECT_TRUE(wait_until([] { return test_support::kernel_groups("va").contains(0xef010203); }, deadline))
      << client.output() << ipd_.output();
}

TEST_P(IpdOwnUser, ConfiguresAnAddressForAMemberOfItsGroup) {
  ASSERT_NO_FATAL_FAILURE(start_as_the_unit_does(its_group()));
  Process client = member({CONTROL_CLIENT, "attach", "control", "-", "configure", "va", "10.9.0.1", "24", "60"});
  EXPECT_EQ(client.wait(deadline), 0);
  EXPECT_EQ(client.output(), "attach 1\ncontrol 1\nconfigure 0\n") << ipd_.output();
  EXPECT_TRUE(wait_until([] { return ip_is_address_on_interface(0x0a090001, iod("va")) != 0; }, deadline));
}

TEST_P(IpdOwnUser, SwitchesRedirectsOff) {
  set_sysctl("conf/va/send_redirects", "1");
  ASSERT_NO_FATAL_FAILURE(start_as_the_unit_does(its_group()));
  Process client = member({CONTROL_CLIENT, "attach", "control", "-", "redirects", "va", "hold"});
  EXPECT_TRUE(wait_until([] { return setting("va/send_redirects") == "0"; }, deadline))
      << client.output() << ipd_.output();
}

TEST_P(IpdOwnUser, OpensTheKernelsDeviceForInput) {
  ASSERT_NO_FATAL_FAILURE(start_as_the_unit_does(R"({"input_to_kernel": true})"));
  EXPECT_TRUE(wait_until([] { return ifindex("rswin0") != 0; }, deadline)) << ipd_.output();
}

TEST_P(IpdOwnUser, ReceivesPacketsForAMemberOfItsGroup) {
  ASSERT_NO_FATAL_FAILURE(start_as_the_unit_does(its_group()));
  Process client = member({RECEPTION_CLIENT, "reference", "attach", "register", "a", "89", "receive"});
  ASSERT_TRUE(says(client, "receives 1\n")) << client.output();
  Process neighbor_process = at_neighbor(ospf, [](int descriptor) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(our_address);
    const std::string bytes = payload(1);
    const auto *address = reinterpret_cast<const sockaddr *>(&to);
    return sendto(descriptor, bytes.data(), bytes.size(), 0, address, sizeof to) > 0 ? 0 : 4;
  });
  EXPECT_EQ(neighbor_process.wait(deadline), 0);
  EXPECT_TRUE(says(client, hex(payload(1)) + "\n")) << client.output() << ipd_.output();
}

TEST_P(IpdOwnUser, SendsPacketsForAMemberOfItsGroup) {
  ASSERT_NO_FATAL_FAILURE(start_as_the_unit_does(its_group()));
  Process neighbor_process = at_neighbor(ospf, [](int descriptor) {
    std::string packet(2048, '\0');
    const ssize_t length = recv(descriptor, packet.data(), packet.size(), 0);
    return length > 0 && packet.substr(0, static_cast<size_t>(length)).ends_with(payload(2)) ? 0 : 4;
  });
  ASSERT_TRUE(wait_until([this] { return neighbor_listens(); }, deadline));
  const std::string packet = packet_of({.source = our_address, .destination = neighbor}, payload(2));
  Process client =
      member({OUTPUT_CLIENT, "attach", "reference", "packet", packet, "output", "va", "0.0.0.0", "0", "0"});
  EXPECT_EQ(client.wait(deadline), 0) << client.output();
  EXPECT_EQ(neighbor_process.wait(deadline), 0) << client.output() << ipd_.output();
}

TEST_P(IpdOwnUser, WithoutACapabilityItPublishes) {
  ASSERT_NO_FATAL_FAILURE(start_without_privilege());
  EXPECT_EQ(status("CapEff"), "0000000000000000");
  expect_same_as_kernel();
  ip("addr add 10.0.0.3/24 dev va");
  EXPECT_TRUE(wait_until([&] { return ip_is_address_on_interface(0x0a000003, iod("va")) != 0; }, deadline));
}

TEST_P(IpdOwnUser, WithoutACapabilityItRefusesAnAddressWithTheReason) {
  ASSERT_NO_FATAL_FAILURE(start_without_privilege(its_group()));
  Process client = member({CONTROL_CLIENT, "attach", "control", "-", "configure", "va", "10.9.0.1", "24", "60"});
  EXPECT_EQ(client.wait(deadline), 0);
  EXPECT_NE(client.output().find("configure " + std::to_string(IP_CONFIG_STATUS_NO_PRIVILEGE) + "\n"),
            std::string::npos)
      << client.output();
  expect_same_as_kernel();
}

TEST_P(IpdOwnUser, WithoutACapabilityItSaysThatNoPacketsAreReceived) {
  ASSERT_NO_FATAL_FAILURE(start_without_privilege(its_group()));
  Process client = member({RECEPTION_CLIENT, "attach", "register", "a", "89", "receive"});
  ASSERT_TRUE(says(client, "receives 1\n")) << client.output();
  EXPECT_TRUE(wait_until([this] { return ipd_said("no packets of protocol 89 are received: Operation not permitted"); },
                         deadline))
      << ipd_.output();
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(IpdOwnUser);
INSTANTIATE_TEST_SUITE_P(Root, IpdOwnUser, testing::ValuesIn(all()), [](const auto &) { return "BecomesSomebody"; });

}  // namespace
