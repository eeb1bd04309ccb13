// SPDX-License-Identifier: Apache-2.0
// What a user who may not configure is refused by the files of a running system: its requests are tested where each
// request is. Only root can become somebody else, so these tests are there for root alone.
#include "other_users.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>

#include <cerrno>
#include <functional>

#include "im.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "mbuf.h"
#include "mbuf/pool.h"
#include "mts.h"

namespace {

using namespace ipd_test;
using namespace other_users;
using test_support::Process;
using test_support::wait_until;

constexpr auto deadline = std::chrono::seconds(60);
constexpr const char *read_only_files[] = {"ip", "im", "urib", "sysmgr"};

class OtherUsers : public testing::WithParamInterface<Users>, public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    give_to(run_directory_.path(), users().ipd);
    start_as_its_user();
  }
  void start_as_its_user(const std::vector<std::string> &arguments = {}) {
    std::vector<std::string> command = as_user(users().ipd, users().ipd, the_units);
    for (const std::string &word : runnable(ipd_command({"--foreground"}))) command.push_back(word);
    command.insert(command.end(), arguments.begin(), arguments.end());
    ipd_ = Process(command);
    ASSERT_TRUE(wait_until([this] { return ipd_said("live:") || !ipd_.running(); }, deadline)) << ipd_.output();
    ASSERT_TRUE(ipd_.running()) << ipd_.output();
  }
  [[nodiscard]] static const Users &users() { return GetParam(); }
  [[nodiscard]] std::string file(const std::string &name) const { return run_directory_.path() + "/" + name; }

  // The exit status of somebody who does this; 100: it could not become that user.
  static int as(uid_t user, gid_t group, const std::function<int()> &body) {
    Process somebody([&] { return setgid(group) == 0 && setuid(user) == 0 ? body() : 100; });
    return somebody.wait(deadline);
  }
  static int as_stranger(const std::function<int()> &body) { return as(users().stranger, users().stranger, body); }
  // The error of opening it so; 0: none.
  static int error_of_opening(const std::string &path, int flags) {
    const int descriptor = open(path.c_str(), flags | O_CLOEXEC);
    if (descriptor < 0) return errno;
    close(descriptor);
    return 0;
  }
};

TEST_P(OtherUsers, CannotOpenTheDatabaseForWriting) {
  for (const char *name : read_only_files) {
    EXPECT_EQ(as_stranger([&] { return error_of_opening(file(name), O_RDWR); }), EACCES) << name;
    EXPECT_EQ(as_stranger([&] { return error_of_opening(file(name), O_RDONLY); }), 0) << name;
  }
}

TEST_P(OtherUsers, CannotEvenReadPacketBuffers) {
  EXPECT_EQ(as_stranger([this] { return error_of_opening(file("mbuf"), O_RDONLY); }), EACCES);
}

TEST_P(OtherUsers, CannotMakeAMappedDatabaseWritable) {
  constexpr uintptr_t window = 0x64000000;
  EXPECT_EQ(as_stranger([] {
              if (ip_shm_api_init() == nullptr) return 101;
              return mprotect(reinterpret_cast<void *>(window), 4096, PROT_READ | PROT_WRITE) == 0 ? 0 : errno;
            }),
            EACCES);
}

// Nor can root by accident: a client opens the database for reading whoever it is.
TEST_P(OtherUsers, RootsClientsCannotEither) {
  constexpr uintptr_t window = 0x64000000;
  attach();
  EXPECT_EQ(mprotect(reinterpret_cast<void *>(window), 4096, PROT_READ | PROT_WRITE), -1);
  EXPECT_EQ(errno, EACCES);
}

TEST_P(OtherUsers, CannotTakeFilesOfTheRunDirectoryAway) {
  for (const char *name : {"ip", "im", "urib", "tsp", "mtrack", "mbuf", "ipd.lock", "mts/263", "mts/263.queue"}) {
    EXPECT_EQ(as_stranger([&] { return unlink(file(name).c_str()) == 0 ? 0 : errno; }), EACCES) << name;
  }
  EXPECT_EQ(as_stranger([this] { return error_of_opening(file("intruder"), O_CREAT | O_WRONLY); }), EACCES);
}

TEST_P(OtherUsers, CannotTakeTheSocketsOfOthersAway) {
  attach();
  uint32_t queue = ~0u;
  ASSERT_NE(ip_init_mts(&queue, -1), 0u);
  const std::string socket = file("mts/dynamic/" + std::to_string(mts_sap_get(queue)));
  ASSERT_EQ(access(socket.c_str(), F_OK), 0) << socket;
  EXPECT_EQ(as_stranger([&] { return unlink(socket.c_str()) == 0 ? 0 : errno; }), EPERM);
  EXPECT_EQ(as_stranger([&] { return rename(socket.c_str(), (socket + "x").c_str()) == 0 ? 0 : errno; }), EPERM);
  mts_unbind(queue, 0);
}

TEST_P(OtherUsers, CannotBindTheSapOfAnIpdThatIsAway) {
  ipd_.signal(SIGTERM);
  ASSERT_EQ(ipd_.wait(deadline), 0);
  for (const uint32_t sap : {263u, 264u}) {
    EXPECT_EQ(as_stranger([sap] {
                uint32_t queue = ~0u;
                return ip_init_mts(&queue, static_cast<int32_t>(sap)) == 0 ? 1 : 0;
              }),
              1)
        << sap;
  }
}

// A lock takes no more than a descriptor, so the file must not give one to everybody.
TEST_P(OtherUsers, CannotHoldTheLockThatTheNextIpdNeeds) {
  EXPECT_EQ(as_stranger([this] { return error_of_opening(file("ipd.lock"), O_RDONLY); }), EACCES);
}

TEST_P(OtherUsers, CannotStopIpd) {
  EXPECT_EQ(as_stranger([this] { return kill(ipd_.pid(), SIGTERM) == 0 ? 0 : errno; }), EPERM);
}

TEST_P(OtherUsers, CannotSwitchTheSystemToStandby) {
  const std::vector<std::string> words = runnable({IPSH, "system", "standby"});
  EXPECT_EQ(as_stranger([&words] {
              std::string said;
              const int status = test_support::run(words, &said);
              return status == 0 ? 0 : said.find("ermission denied") == std::string::npos ? 101 : 1;
            }),
            1);
}

int ask() {
  if (ip_shm_api_init() == nullptr) return 101;
  return ip_is_addr_local("default", 0x7f000001) != 0 ? 0 : 102;
}

TEST_P(OtherUsers, MayAskAllTheSame) {
  EXPECT_EQ(as_stranger(ask), 0);
}

// Where strangers are not to reach even what every client writes.
TEST_P(OtherUsers, ReachNothingInADirectoryThatIsForAGroup) {
  ipd_.kill_now();
  ASSERT_EQ(chmod(run_directory_.path().c_str(), 0750), 0);
  ASSERT_NO_FATAL_FAILURE(start_as_its_user());
  for (const char *name : {"tsp", "mtrack", "ip", "mts/263"}) {
    EXPECT_EQ(as_stranger([&] { return access(file(name).c_str(), F_OK) == 0 ? 0 : errno; }), EACCES) << name;
  }
  EXPECT_EQ(as(users().member, users().ipd, ask), 0);
}

// A user who cuts files short without end; ended with the object.
class Cutter {
 public:
  Cutter(uid_t user, gid_t group, const std::vector<std::string> &files)
      : process_([user, group, files] {
          if (setgid(group) != 0 || setuid(user) != 0) return 100;
          prctl(PR_SET_PDEATHSIG, SIGKILL);  // after setuid(2), which takes it back
          for (;;) {
            for (const std::string &file : files) {
              if (truncate(file.c_str(), 0) != 0) return 101;
            }
          }
        }) {}
  // Once it has ended, what it cannot have done by itself is a failure.
  void expect_at_work() { EXPECT_TRUE(process_.running()) << process_.wait(deadline); }

 private:
  Process process_;
};

TEST_P(OtherUsers, WhoCutsWhatClientsWriteShortDoesNotEndIpd) {
  add_pair("va", "vb");
  Process client([this] {  // attached before, and asks afterwards
    sigset_t go_on;
    sigemptyset(&go_on);
    sigaddset(&go_on, SIGUSR1);
    sigprocmask(SIG_BLOCK, &go_on, nullptr);
    if (ip_shm_api_init() == nullptr || error_of_opening(file("client"), O_CREAT | O_WRONLY) != 0) return 101;
    int number = 0;
    return sigwait(&go_on, &number) == 0 && ip_is_addr_local("default", 0x0a000001) != 0 ? 0 : 102;
  });
  ASSERT_TRUE(wait_until([&] { return access(file("client").c_str(), F_OK) == 0; }, deadline));
  {
    Cutter cutter(users().stranger, users().stranger, {file("tsp"), file("mtrack")});
    for (int i = 0; i < 20; ++i) {
      ip("addr add 10.0.0.1/24 dev va");
      ip("addr del 10.0.0.1/24 dev va");
    }
    ip("addr add 10.0.0.1/24 dev va");
    for (const char *name : {"/rsw/shm/tsp was cut short ", "/rsw/shm/mtrack was cut short "}) {
      EXPECT_TRUE(wait_until([&] { return ipd_said(name) || !ipd_.running(); }, deadline)) << name;
    }
    cutter.expect_at_work();
  }
  ASSERT_TRUE(ipd_.running()) << ipd_.output();
  ASSERT_TRUE(wait_until([] { return ip_shm_api_init() != nullptr; }, deadline)) << ipd_.output();
  attached_ = true;
  expect_same_as_kernel();
  client.signal(SIGUSR1);
  EXPECT_EQ(client.wait(deadline), 0);
}

TEST_P(OtherUsers, NorDoesAMemberWhoCutsThePacketBuffersShort) {
  ipd_.kill_now();
  write_configuration(R"({"configure_group": ")" + std::to_string(users().ipd) + "\"}");
  ASSERT_NO_FATAL_FAILURE(start_as_its_user({"--config", configuration_file()}));
  add_pair("va", "vb");
  ip("addr add 10.0.0.1/24 dev va");
  {
    Cutter cutter(users().member, users().ipd, {file("mbuf")});
    EXPECT_TRUE(wait_until([this] { return ipd_said("/rsw/shm/mbuf was cut short ") || !ipd_.running(); }, deadline));
    // Which it goes on to answer.
    for (int i = 0; i < 20; ++i) {
      std::string said;
      EXPECT_LE(test_support::run(runnable({IPSH, "show", "clients"}), &said), 1) << i << said;  // 1: there are none
    }
    cutter.expect_at_work();
  }
  ASSERT_TRUE(ipd_.running()) << ipd_.output();
  // The next client has packets of the pool again.
  EXPECT_TRUE(wait_until(
      [] {
        return as(users().member, users().ipd, [] {
                 struct mbuf *const packet = m_gethdr();
                 return packet != nullptr && rsw::mbuf_is_open() ? 0 : 101;
               }) == 0;
      },
      deadline));
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(OtherUsers);
INSTANTIATE_TEST_SUITE_P(Root, OtherUsers, testing::ValuesIn(all()), [](const auto &) { return "BecomesSomebody"; });

}  // namespace
