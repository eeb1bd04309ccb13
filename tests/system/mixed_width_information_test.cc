// SPDX-License-Identifier: Apache-2.0
// A 32-bit and a 64-bit client are told the same by one ipd, in messages. The interfaces are the kernel's, in a network
// namespace.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "both_widths.h"
#include "support/network_namespace.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using test_support::Process;
using test_support::run;

using both_widths::Ipd;
using both_widths::native;

class MixedWidthInformation : public testing::TestWithParam<Ipd> {
 protected:
  void SetUp() override {
    ASSERT_EQ(access((native + "/information_client").c_str(), X_OK), 0) << "build preset native first";
    std::string reason;
    ASSERT_TRUE(test_support::enter_network_namespace(&reason)) << reason;
    ip("link set lo up");
    ip("link add va type veth peer name vb");
    for (const std::string name : {"va", "vb"}) {
      std::string output;
      run({"/bin/sh", "-c", "echo 1 > /proc/sys/net/ipv6/conf/" + name + "/disable_ipv6"}, &output);
      ip("link set " + name + " mtu 65535 multicast off");
      ip("link set " + name + " up");
    }
    ip("addr add 10.1.0.1/24 dev va");
    ip("neigh add 10.1.0.2 lladdr 02:00:00:00:00:02 dev va");
    ipd_ = Process({GetParam().path, "--foreground"});
    ASSERT_TRUE(
        test_support::wait_until([this] { return ipd_.output().find("live:") != std::string::npos || !ipd_.running(); },
                                 std::chrono::seconds(60)));
    ASSERT_TRUE(ipd_.running()) << ipd_.output();
  }

  static void ip(const std::string &words) {
    std::string output;
    ASSERT_EQ(run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip " + words}, &output), 0) << words << output;
  }

  static std::string said_by(const std::string &client, std::vector<std::string> words) {
    words.insert(words.begin(), client);
    std::string output;
    EXPECT_EQ(run(words, &output), 0) << output;
    return output;
  }

  test_support::RunDirectory run_directory_;
  Process ipd_;
};

TEST_P(MixedWidthInformation, BothWidthsAreToldOfTheSameInterfaces) {
  const std::string wide = said_by(native + "/information_client", {"once"});
  const std::string narrow = said_by(INFORMATION_CLIENT, {"once"});
  EXPECT_EQ(wide, narrow);
  EXPECT_NE(narrow.find(" va ifindex "), std::string::npos) << narrow;
  EXPECT_NE(narrow.find(" address 167837697/24 mtu 65535 "), std::string::npos) << narrow;
  EXPECT_TRUE(narrow.ends_with("end\n")) << narrow;
}

TEST_P(MixedWidthInformation, BothWidthsAreAnsweredTheSame64BitCounters) {
  const std::vector<char> payload(65507);
  const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(9);
  to.sin_addr.s_addr = htonl(0x0a010002);
  const uint64_t frame = payload.size() + 8 + 20 + 14;
  uint64_t sent = 0;
  for (; sent <= uint64_t{1} << 32; sent += frame) {
    ASSERT_EQ(sendto(sender, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to),
              static_cast<ssize_t>(payload.size()));
  }
  close(sender);
  const std::string wide = said_by(native + "/information_client", {"stats", "va"});
  const std::string narrow = said_by(INFORMATION_CLIENT, {"stats", "va"});
  EXPECT_EQ(wide, narrow);
  EXPECT_NE(narrow.find("\n3 " + std::to_string(sent) + "\n"), std::string::npos) << narrow;
}

INSTANTIATE_TEST_SUITE_P(Both, MixedWidthInformation, testing::ValuesIn(both_widths::ipds()), both_widths::name_of);

}  // namespace
