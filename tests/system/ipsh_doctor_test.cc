// SPDX-License-Identifier: Apache-2.0
// The doctor and a real ipd: each thing that can be wrong with it is made, and found.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "ip_api.h"
#include "ipd_fixture.h"
#include "ipsh_diagnosed.h"
#include "ipsh_schema_problems.h"
#include "mts.h"
#include "support/public_program.h"
#include "tsp.h"

namespace {

using ipsh_test::Diagnosed;
using ipsh_test::diagnosed;
using test_support::Process;
using test_support::wait_until;

constexpr std::chrono::seconds long_wait(60);

const std::vector<std::string> another_user{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};

bool may_become_another_user() {
  std::vector<std::string> command = another_user;
  command.emplace_back("true");
  return ipsh_test::run_command(command).exit_code == 0;
}

bool is_stopped(pid_t pid) {
  std::string line;
  std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), line);
  const size_t name_end = line.rfind(") ");
  return name_end != std::string::npos && line.substr(name_end + 2, 1) == "T";
}

class IpshDoctor : public ipd_test::IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    ip("link add eth0 type veth peer name peer0");
    ip("addr add 10.0.0.1/24 dev eth0");
    ip("link set eth0 up");
  }
  [[nodiscard]] std::string pid() const { return std::to_string(ipd_.pid()); }
  // ipd behind another command that runs it.
  void start_behind(std::vector<std::string> before, const std::vector<std::string> &arguments = {}) {
    for (const std::string &word : ipd_test::ipd_command({"--foreground"})) before.push_back(word);
    before.insert(before.end(), arguments.begin(), arguments.end());
    ipd_ = Process(before);
    ASSERT_TRUE(wait_until([this] { return ipd_said("live:") || !ipd_.running(); }, long_wait));
    ASSERT_TRUE(ipd_.running()) << ipd_.output();
  }
};

TEST_F(IpshDoctor, FindsNothingWrongWithAGoodInstallation) {
  start_ipd();
  const Diagnosed good = diagnosed();
  EXPECT_EQ(good.exit_code, 0) << good.text;
  EXPECT_EQ(good.json["healthy"], true);
  EXPECT_EQ(good.json["not_made"], nlohmann::json::array());
  for (const char *check :
       {"run directory",  "segment ip",     "segment im",     "segment tsp",  "segment sysmgr", "segment urib",
        "segment mtrack", "segment mbuf",   "rights",         "capabilities", "database",       "kernel",
        "reader lock",    "packet buffers", "queues",         "messages",     "packets",        "sockets",
        "configuration",  "libraries",      "kernel features"}) {
    EXPECT_TRUE(good.has(check, "ok")) << check << ": " << good.text;
  }
  EXPECT_FALSE(good.has("ipd", "failed")) << good.text;  // it may be slow on a busy machine
  EXPECT_NE(good.finding("kernel", "ok").find("3 interfaces and 2 addresses, published are 3 and 2"),
            std::string::npos);
  EXPECT_EQ(ipsh_test::schema_problems(run_directory_.path(), good.text), "");
}

TEST_F(IpshDoctor, FindsAKilledIpdAndItsSockets) {
  start_ipd();
  const std::string last = pid();
  ipd_.kill_now();
  const Diagnosed bad = diagnosed();
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_ROW(bad, "ipd", "failed", "process " + last + " has ended", "start ipd");
  EXPECT_ROW(bad, "sockets", "warning", "2 of 2 sockets", run_directory_.path() + "/mts/263");
  EXPECT_TRUE(bad.has("database", "ok")) << bad.text;
  EXPECT_TRUE(bad.left_out("kernel")) << bad.text;
  EXPECT_EQ(ipsh_test::schema_problems(run_directory_.path(), bad.text), "");
}

TEST_F(IpshDoctor, FindsAStoppedIpdAndDoesNotWaitForIt) {
  start_ipd();
  ipd_.signal(SIGSTOP);
  ASSERT_TRUE(wait_until([this] { return is_stopped(ipd_.pid()); }, long_wait));
  Process doctor({IPSH, "doctor", "--json"});
  EXPECT_EQ(doctor.wait(std::chrono::seconds(60)), 1);
  const Diagnosed bad = diagnosed();
  EXPECT_ROW(bad, "ipd", "failed", "it is stopped", "kill -CONT " + pid());
  ipd_.signal(SIGCONT);
  EXPECT_EQ(diagnosed().exit_code, 0);
}

TEST_F(IpshDoctor, ASimulatingIpdIsAWarning) {
  const std::string plan = run_directory_.path() + "/plan.json";
  std::ofstream(plan) << R"({"contexts": 1, "interfaces": 2, "addresses": 2, "measured_changes": 1})";
  start_ipd({"--simulate", plan});
  const Diagnosed warned = diagnosed();
  EXPECT_EQ(warned.exit_code, 0) << warned.text;
  EXPECT_ROW(warned, "kernel", "warning", "ipd simulates", "without --simulate");
  EXPECT_ROW(warned, "packets", "warning", "ipd takes no packets", "");
}

TEST_F(IpshDoctor, AnotherNetworkNamespaceIsAWarning) {
  start_ipd();
  const Diagnosed warned = diagnosed({"unshare", "--net"});
  EXPECT_EQ(warned.exit_code, 0) << warned.text;
  EXPECT_ROW(warned, "kernel", "warning", "another network namespace", "nsenter --net=/proc/" + pid() + "/ns/net");
}

TEST_F(IpshDoctor, SaysWhatAnotherUserMay) {
  if (!may_become_another_user()) return;  // nobody but root can be somebody else
  write_configuration(R"({"read_group": "0"})");
  start_ipd({"--config", configuration_file()});
  const std::vector<std::string> ipsh = test_support::public_program(IPSH);
  const Diagnosed outside = diagnosed(another_user, ipsh);
  EXPECT_ROW(outside, "run directory", "failed", "Permission denied", "chmod 0755 " + run_directory_.path());
  ASSERT_EQ(chmod(run_directory_.path().c_str(), 0755), 0);
  const Diagnosed inside = diagnosed(another_user, ipsh);
  EXPECT_EQ(inside.exit_code, 0) << inside.text;
  EXPECT_ROW(inside, "rights", "warning", "user 65534 may read what is published, and not ask ipd", "read_group");
  EXPECT_EQ(inside.finding("segment mbuf", "ok"), "not for this user, who may not send packets");
  const Diagnosed own = diagnosed();
  EXPECT_EQ(own.finding("rights", "ok"), "user 0 may read and configure");
  EXPECT_ROW(own, "messages", "warning", "not-allowed 1", "ipsh show clients");
}

TEST_F(IpshDoctor, ARunDirectoryThatOthersMayWriteFails) {
  start_ipd();
  ASSERT_EQ(chmod(run_directory_.path().c_str(), 0777), 0);
  const Diagnosed bad = diagnosed();
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_ROW(bad, "run directory", "failed", "mode 0777: others may replace", "chmod 0755 " + run_directory_.path());
}

TEST_F(IpshDoctor, MissingCapabilitiesAreAWarning) {
  start_behind({"setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw"});
  const Diagnosed warned = diagnosed();
  EXPECT_ROW(warned, "capabilities", "warning", "ipd lacks CAP_NET_RAW: ", "systemd unit");
}

TEST_F(IpshDoctor, LooksAtTheConfigurationThatIpdWasStartedWith) {
  write_configuration(R"({"log_level": "info"})");
  start_ipd({"--config", configuration_file()});
  EXPECT_EQ(diagnosed().finding("configuration", "ok"), configuration_file() + " is good");
  write_configuration(R"({"log_level": "loud"})");
  const Diagnosed bad = diagnosed();
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_ROW(bad, "configuration", "failed", configuration_file() + ": log_level: ", "ipd --check --config ");
  write_configuration(R"({"configure_group": "no-such-group-here"})");
  EXPECT_ROW(diagnosed(), "configuration", "warning", "names the group \"no-such-group-here\"", "groupadd");
  ASSERT_EQ(unlink(configuration_file().c_str()), 0);
  EXPECT_ROW(diagnosed(), "configuration", "warning", "is not there now", "put it back");
}

TEST_F(IpshDoctor, AReaderThatWasStoppedInAQueryIsNamed) {
  start_ipd();
  Process reader([] {
    if (ip_shm_api_init() == nullptr) return 1;
    tsp_lock_acquire_rdlock(tsp_create_rwsem_lock(0, 6));
    raise(SIGSTOP);
    return 0;
  });
  ASSERT_TRUE(wait_until([&] { return is_stopped(reader.pid()); }, long_wait));
  const std::string number = std::to_string(reader.pid());
  EXPECT_ROW(diagnosed(), "reader lock", "warning", "process " + number + " is stopped inside a query",
             "kill -CONT " + number);
  reader.kill_now();
  EXPECT_ROW(diagnosed(), "reader lock", "ok", "of the dead", "");
}

TEST_F(IpshDoctor, AProcessThatTakesNoMessagesIsNamed) {
  start_ipd();
  Process client([] {
    uint32_t queue = 0;
    ip_init_mts(&queue, -1);
    raise(SIGSTOP);
    return 0;
  });
  ASSERT_TRUE(wait_until([&] { return is_stopped(client.pid()); }, long_wait));
  const std::string number = std::to_string(client.pid());
  EXPECT_ROW(diagnosed(), "queues", "warning", "of process " + number, "kill -CONT " + number);
}

TEST_F(IpshDoctor, MalformedMessagesAreSeenAtTheQueueThatRefusedThem) {
  start_ipd();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = run_directory_.path() + "/mts/263";
  ASSERT_LT(path.size(), sizeof address.sun_path);
  path.copy(address.sun_path, path.size());
  const int liar = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  ASSERT_EQ(connect(liar, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  ASSERT_EQ(send(liar, "nonsense", 8, MSG_NOSIGNAL), 8);
  Diagnosed warned;
  EXPECT_TRUE(wait_until([&] { return (warned = diagnosed()).has("queues", "warning"); }, long_wait));
  EXPECT_ROW(warned, "queues", "warning", "1 malformed messages were refused", "another version");
  close(liar);
}

TEST_F(IpshDoctor, LibrariesThatWereReplacedSinceIpdStartedAreAWarning) {
  const std::string copies = run_directory_.path() + "/copies";
  std::filesystem::create_directory(copies);
  for (const char *name : {"libip.so.1", "librsw.so.1"}) {
    std::filesystem::copy_file(std::filesystem::canonical(std::string(LIBRARY_DIRECTORY) + "/" + name),
                               copies + "/" + name);
  }
  start_behind({"env", "LD_LIBRARY_PATH=" + copies});
  std::filesystem::remove(copies + "/libip.so.1");
  EXPECT_ROW(diagnosed(), "libraries", "warning", "that was replaced since it started", "restart ipd");
  EXPECT_ROW(diagnosed({"env", "LD_LIBRARY_PATH=" + copies}), "libraries", "warning", "are of two directories",
             "LD_LIBRARY_PATH may mix them");
}

TEST_F(IpshDoctor, SmallLimitsAreWarnings) {
  start_behind({"/bin/sh", "-c", "ulimit -n 300; exec \"$@\"", "sh"});
  set_sysctl("../unix/max_dgram_qlen", "2");
  const Diagnosed warned = diagnosed({"/bin/sh", "-c", "ulimit -n 64; exec \"$@\"", "sh"});
  EXPECT_EQ(warned.exit_code, 0) << warned.text;
  EXPECT_NE(warned.text.find("programs may have 64 descriptors"), std::string::npos) << warned.text;
  EXPECT_NE(warned.text.find("ipd may have 300 descriptors: some 100 clients"), std::string::npos) << warned.text;
  EXPECT_NE(warned.text.find("net.unix.max_dgram_qlen is 2"), std::string::npos) << warned.text;
}

}  // namespace
