// SPDX-License-Identifier: Apache-2.0
// The commands that ask ipd to change something, against a peer in its place.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "control_peer.h"
#include "ip_msg.h"
#include "ipsh_fixture.h"
#include "support/process.h"
#include "support/public_program.h"

namespace ipsh_test {
namespace {

using nlohmann::json;
using test_support::ControlBehaviour;
using test_support::ControlPeer;
using test_support::Process;
using test_support::wait_until;

constexpr std::chrono::milliseconds long_wait(60000);

class IpshRequest : public IpshWithSystem {
 protected:
  void serve(ControlBehaviour behaviour = {}) { peer_ = std::make_unique<ControlPeer>(*publisher_, behaviour); }
  // Starts an ipsh that holds something, and waits until it says so.
  static Process holding(const std::string &line) {
    std::vector<std::string> words = words_of(line);
    words.insert(words.begin(), IPSH);
    Process process(words);
    EXPECT_TRUE(wait_until([&] { return process.output().find("held") != std::string::npos; }, long_wait))
        << process.output();
    return process;
  }
  std::unique_ptr<ControlPeer> peer_;
};

TEST_F(IpshRequest, AJoinIsHeldUntilItIsInterrupted) {
  serve();
  Process join = holding("join 239.1.1.1 --interface eth0");
  EXPECT_TRUE(join.running());
  EXPECT_FALSE(peer_->saw("leave 239.1.1.1 0.0.0.0 2"));
  join.signal(SIGINT);
  EXPECT_EQ(join.wait(long_wait), 0);
  EXPECT_EQ(join.output(),
            "join   239.1.1.1 on eth0 (iod 2)\nstate  held until this ends\n"
            "join   239.1.1.1 on eth0 (iod 2)\nstate  ended\n");
  EXPECT_TRUE(wait_until([&] { return peer_->saw("deregister"); }, long_wait));
  EXPECT_EQ(peer_->requests(), (std::vector<std::string>{"register", "join 239.1.1.1 0.0.0.0 2",
                                                         "leave 239.1.1.1 0.0.0.0 2", "deregister"}));
}

TEST_F(IpshRequest, ATerminatedJoinLeavesToo) {
  serve();
  Process join = holding("join 239.1.1.1 --interface eth0");
  join.signal(SIGTERM);
  EXPECT_EQ(join.wait(long_wait), 0);
  EXPECT_TRUE(wait_until([&] { return peer_->saw("leave 239.1.1.1 0.0.0.0 2"); }, long_wait));
}

TEST_F(IpshRequest, AJoinForSomeTimeEndsByItself) {
  serve();
  const Outcome outcome = ipsh({"join", "239.1.1.1", "--interface", "eth0", "--for", "0.1"});
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_TRUE(wait_until([&] { return peer_->saw("leave 239.1.1.1 0.0.0.0 2"); }, long_wait));
}

TEST_F(IpshRequest, AChannelIsJoinedFromItsSource) {
  serve();
  const Outcome outcome =
      ipsh({"join", "232.1.1.1", "--source", "192.0.2.7", "--interface", "eth0", "--for", "0.1", "--json"});
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_TRUE(wait_until([&] { return peer_->saw("leave 232.1.1.1 192.0.2.7 2"); }, long_wait));
  EXPECT_TRUE(peer_->saw("join 232.1.1.1 192.0.2.7 2"));
  const json first = json::parse(outcome.out.substr(0, outcome.out.find('\n')));
  EXPECT_EQ(first["state"], "held");
  EXPECT_EQ(first["group"], "232.1.1.1");
  EXPECT_EQ(first["source"], "192.0.2.7");
}

TEST_F(IpshRequest, ALeaveEndsTheJoinThatHoldsTheGroup) {
  serve();
  Process join = holding("join 239.1.1.1 --interface eth0");
  EXPECT_EQ(ipsh({"leave", "239.1.1.2", "--interface", "eth0"}).exit_code, 1);
  EXPECT_EQ(ipsh({"leave", "239.1.1.1", "--source", "192.0.2.7", "--interface", "eth0"}).exit_code, 1);
  EXPECT_EQ(ipsh({"leave", "239.1.1.1", "--interface", "tun0"}).exit_code, 1);
  EXPECT_TRUE(join.running());
  const Outcome outcome = ipsh({"leave", "239.1.1.1", "--interface", "2"});
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "leave  239.1.1.1 on eth0 (iod 2)\nstate  ended\n");
  EXPECT_EQ(join.wait(long_wait), 0);
  EXPECT_TRUE(wait_until([&] { return peer_->saw("leave 239.1.1.1 0.0.0.0 2"); }, long_wait));
}

TEST_F(IpshRequest, ALeaveOfWhatNobodyHoldsIsExitCode1) {
  serve();
  const Outcome outcome = ipsh({"leave", "239.1.1.1", "--interface", "eth0"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.out, "leave  239.1.1.1 on eth0 (iod 2)\nstate  no ipsh holds it\n");
}

TEST_F(IpshRequest, AllMulticastIsHeldAndEnded) {
  serve();
  Process on = holding("multicast on --interface tun0");
  EXPECT_TRUE(peer_->saw("join 0.0.0.0 0.0.0.0 4"));
  EXPECT_EQ(ipsh({"multicast", "off", "--interface", "eth0"}).exit_code, 1);
  EXPECT_EQ(ipsh({"multicast", "off", "--interface", "tun0"}).exit_code, 0);
  EXPECT_EQ(on.wait(long_wait), 0);
  EXPECT_TRUE(wait_until([&] { return peer_->saw("leave 0.0.0.0 0.0.0.0 4"); }, long_wait));
}

TEST_F(IpshRequest, ALoanIsHeldAndEnded) {
  serve();
  Process set = holding("unnumbered set --interface tun0 --from lo");
  EXPECT_TRUE(peer_->saw("set 4 lo"));
  const Outcome outcome = ipsh({"unnumbered", "unset", "--interface", "tun0"});
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_TRUE(peer_->saw("unset 4"));
  EXPECT_EQ(set.wait(long_wait), 0);
  EXPECT_EQ(ipsh({"unnumbered", "unset", "--interface", "tun0"}).exit_code, 1) << "it is not unnumbered any more";
}

TEST_F(IpshRequest, WithoutIpdAnyMoreAHeldJoinEnds) {
  serve();
  Process join = holding("join 239.1.1.1 --interface eth0");
  peer_.reset();
  EXPECT_EQ(join.wait(long_wait), 3);
  EXPECT_NE(join.output().find("ipsh: join: ipd is gone, and with it 239.1.1.1 on eth0 (iod 2)"), std::string::npos)
      << join.output();
}

TEST_F(IpshRequest, WhatIpdDoesNotDoIsToldWhenTheTimeIsOver) {
  serve({.does = false});
  const Outcome outcome = ipsh({"join", "239.1.1.1", "--interface", "eth0", "--timeout", "1"});
  EXPECT_EQ(outcome.exit_code, 3);
  EXPECT_EQ(outcome.err,
            "ipsh: join: ipd has not done it within 1 seconds: 239.1.1.1 on eth0 (iod 2); its log says why\n");
  EXPECT_TRUE(wait_until([&] { return peer_->saw("leave 239.1.1.1 0.0.0.0 2"); }, long_wait)) << "nothing is left";
}

TEST_F(IpshRequest, WhatIpdRefusesIsToldAtOnce) {
  serve({.does = false, .refuses = true});
  for (const char *line : {"join 239.1.1.1 --interface eth0", "multicast on --interface eth0",
                           "unnumbered set --interface tun0 --from lo", "unnumbered unset --interface tun0"}) {
    const Outcome outcome = ipsh(words_of(line));
    EXPECT_EQ(outcome.exit_code, 3) << line;
    EXPECT_NE(outcome.err.find("ipd refused it: "), std::string::npos) << line << ": " << outcome.err;
    EXPECT_EQ(outcome.out, "") << line;
  }
}

// As another user, where we may become one.
TEST_F(IpshRequest, AUserWhoIsRefusedHearsWhoMay) {
  serve({.does = false, .refuses = true});
  ASSERT_EQ(chmod(run_directory_.path().c_str(), 0755), 0);
  std::vector<std::string> command{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "true"};
  const bool another_user = run_command(command).exit_code == 0;
  command.pop_back();
  if (!another_user) command.clear();
  for (const std::string &word : test_support::public_program(IPSH)) command.push_back(word);
  for (const char *word : {"join", "239.1.1.1", "--interface", "eth0"}) command.emplace_back(word);
  const Outcome outcome = run_command(command);
  EXPECT_EQ(outcome.exit_code, another_user ? 4 : 3) << outcome.err;
  EXPECT_EQ(outcome.err, std::string("ipsh: join: ipd refused it: 239.1.1.1 on eth0 (iod 2); ") +
                             (another_user ? "root, ipd's own user and the group that its configuration names may do "
                                             "this\n"
                                           : "its log says why\n"));
}

TEST_F(IpshRequest, ARefusedRegistrationIsExitCode4) {
  serve({.accepts = false});
  const Outcome outcome = ipsh({"join", "239.1.1.1", "--interface", "eth0"});
  EXPECT_EQ(outcome.exit_code, 4);
  EXPECT_NE(outcome.err.find("ipd does not take this process as a client"), std::string::npos) << outcome.err;
}

TEST_F(IpshRequest, WithoutAControlServiceARequestIsExitCode3) {
  for (const char *line :
       {"join 239.1.1.1 --interface eth0", "leave 239.1.1.1 --interface eth0", "multicast on --interface eth0",
        "multicast off --interface eth0", "unnumbered set --interface tun0 --from lo",
        "unnumbered unset --interface tun0", "configure 10.0.0.9/24 --interface eth0"}) {
    const Outcome outcome = ipsh(words_of(line));
    EXPECT_EQ(outcome.exit_code, 3) << line;
    EXPECT_EQ(outcome.err, "ipsh: ipd is not running: nobody takes requests; start ipd\n") << line;
  }
}

TEST_F(IpshRequest, AnIpdThatTakesNoMessagesIsWaitedForAsLongAsIsSaid) {
  mts_bind_opts options{1, 1, 1024, 267, 0, 15};
  const uint32_t queue = mts_bind(1, IP_SAP_CONTROL, &options, "nobody receives here");
  ASSERT_NE(queue, ~0u);
  ASSERT_EQ(mts_recv_q_unblock(queue), 0);
  for (const char *line :
       {"join 239.1.1.1 --interface eth0 --timeout 1", "multicast on --interface eth0 --timeout 1",
        "unnumbered unset --interface tun0 --timeout 1", "configure 10.0.0.9/24 --interface eth0 --timeout 1"}) {
    const Outcome outcome = ipsh(words_of(line));
    EXPECT_EQ(outcome.exit_code, 3) << line;
    EXPECT_EQ(outcome.err, "ipsh: ipd does not answer: Connection timed out; it is stopped, or busy: see ipsh doctor\n")
        << line;
  }
  mts_unbind(queue, 0);
}

TEST_F(IpshWithoutIpd, ARequestWithoutIpdIsExitCode3) {
  const Outcome outcome = ipsh({"join", "239.1.1.1", "--interface", "eth0"});
  EXPECT_EQ(outcome.exit_code, 3);
  EXPECT_NE(outcome.err.find("no ipd has published anything"), std::string::npos) << outcome.err;
}

TEST_F(IpshRequest, ArgumentsThatMakeNoSenseAreExitCode2) {
  serve();
  for (const auto &[line, message] : std::vector<std::pair<const char *, const char *>>{
           {"join", "join: the group is missing"},
           {"join 10.0.0.1 --interface eth0", "group: '10.0.0.1' is not accepted here; give a multicast group"},
           {"join 239.1.1 --interface eth0", "'239.1.1' is not accepted here"},
           {"join 239.1.1.1", "join: --interface is missing"},
           {"join 239.1.1.1 --interface eth9", "--interface: 'eth9' is not accepted here"},
           {"join 239.1.1.1 --interface 99", "--interface: '99' is not accepted here; no interface has this iod"},
           {"join 239.1.1.1 --interface eth0 --source 224.0.0.1", "--source: '224.0.0.1' is not accepted here"},
           {"join 239.1.1.1 --interface eth0 --source 0.0.0.0", "--source: '0.0.0.0' is not accepted here"},
           {"join 239.1.1.1 --interface eth0 --for 0", "--for: '0' is not accepted here"},
           {"join 239.1.1.1 --interface eth0 --timeout 0.5", "--timeout: '0.5' is not accepted here"},
           {"configure", "configure: the address is missing"},
           {"configure 10.0.0.9 --interface eth0", "'10.0.0.9' is not accepted here"},
           {"configure 10.0.0.9/0 --interface eth0", "address: '10.0.0.9/0' is not accepted here"},
           {"configure 127.0.0.1/8 --interface eth0", "address: '127.0.0.1/8' is not accepted here"},
           {"unnumbered set --interface tun0", "unnumbered set: --from is missing"},
           {"unnumbered set --interface tun0 --from tun0", "--from: 'tun0' is not accepted here"},
           {"unnumbered set --interface tun0 --from eth9", "--from: 'eth9' is not accepted here"},
           {"unnumbered", "give one of set, unset"},
           {"multicast", "give one of on, off"},
           {"multicast on", "multicast on: --interface is missing"}}) {
    const Outcome outcome = ipsh(words_of(line));
    EXPECT_EQ(outcome.exit_code, 2) << line << ": " << outcome.err;
    EXPECT_NE(outcome.err.find(message), std::string::npos) << line << ": " << outcome.err;
  }
  for (const std::string &request : peer_->requests()) {
    EXPECT_TRUE(request == "register" || request == "deregister") << request;
  }
}

TEST_F(IpshRequest, AConfiguredAddressIsDone) {
  serve();
  const Outcome outcome = ipsh({"configure", "10.0.0.9/24", "--interface", "eth0"});
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "configure  10.0.0.9/24 on eth0 (iod 2)\nstate      the address is on the interface\n");
  EXPECT_TRUE(peer_->saw("configure 10.0.0.9/24 2"));
}

TEST_F(IpshRequest, EachStatusOfAConfigurationHasItsTextAndExitCode) {
  struct Case {
    uint8_t status;
    uint32_t result;
    int exit_code;
    const char *text;
  };
  for (const Case &each : std::vector<Case>{
           {IP_CONFIG_STATUS_NO_INTERFACE, 0, 1, "there is no such interface"},
           {IP_CONFIG_STATUS_OVERLAP, 3, 1, "another interface of the context has that prefix: eth1 (iod 3)"},
           {IP_CONFIG_STATUS_OVERLAP, 99, 1, "has that prefix: one that is gone (iod 99)"},
           {IP_CONFIG_STATUS_MARTIAN, 0, 1, "no host may have this address"},
           {IP_CONFIG_STATUS_BUSY, 0, 1, "ipd cannot take it on now"},
           {IP_CONFIG_STATUS_NO_PRIVILEGE, 0, 4, "not permitted, to this process or to ipd itself"},
           {IP_CONFIG_STATUS_KERNEL, 17, 1, "the kernel refused: File exists"},
           {IP_CONFIG_STATUS_MALFORMED, 0, 1, "ipd could make nothing of the request"},
           {200, 7, 1, "status 200, result 7"}}) {
    serve({.status = each.status, .result = each.result});
    const Outcome outcome = ipsh({"configure", "10.0.0.9/24", "--interface", "eth0"});
    EXPECT_EQ(outcome.exit_code, each.exit_code) << each.text;
    EXPECT_NE((outcome.out + outcome.err).find(each.text), std::string::npos) << outcome.out << outcome.err;
    peer_.reset();
  }
}

TEST_F(IpshRequest, AConfigurationWithoutAnAnswerIsExitCode3) {
  serve({.answers = false});
  const Outcome outcome = ipsh({"configure", "10.0.0.9/24", "--interface", "eth0", "--timeout", "1"});
  EXPECT_EQ(outcome.exit_code, 3);
  EXPECT_EQ(outcome.err, "ipsh: configure: 10.0.0.9/24 on eth0 (iod 2): no answer came\n");
}

TEST_F(IpshRequest, QueuesAreListed) {
  serve();
  const Process join = holding("join 239.1.1.1 --interface eth0");
  const json queues = json::parse(ipsh({"show", "queues", "--json"}).out)["queues"];
  ASSERT_EQ(queues.size(), 2u) << queues;
  EXPECT_EQ(queues[0]["sap"], 263);
  EXPECT_EQ(queues[0]["pid"], getpid());
  EXPECT_EQ(queues[0]["name"], "control peer");
  EXPECT_EQ(queues[0]["received"], 4) << "whether it answers, a registration, a join, and whether it was refused";
  EXPECT_EQ(queues[1]["sap"], 2048);
  EXPECT_EQ(queues[1]["pid"], join.pid());
  EXPECT_EQ(queues[1]["name"], "ipsh holding");
  const Outcome table = ipsh({"show", "queues"});
  EXPECT_EQ(table.exit_code, 0);
  EXPECT_EQ(table.out.substr(0, table.out.find('\n')),
            " SAP" + std::string(table.out.find("PID") - 4, ' ') +
                "PID  COMPONENT  WAITING  BYTES  MOST  RECEIVED  SENT  REFUSED  FAILURES  PEERS  NAME");
}

TEST_F(IpshWithSystem, WithoutQueuesTheListingIsEmpty) {
  const Outcome outcome = ipsh({"show", "queues"});
  EXPECT_EQ(outcome.exit_code, 1) << outcome.err;
}

TEST_F(IpshWithoutIpd, WithoutASystemThereAreNoQueuesToShow) {
  EXPECT_EQ(ipsh({"show", "queues"}).exit_code, 3);
}

}  // namespace
}  // namespace ipsh_test
