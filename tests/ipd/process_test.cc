// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "ipd/process/descriptors.h"
#include "ipd/process/run_lock.h"
#include "ipd/process/service.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using ipd::RunLock;

TEST(RunLock, TheFirstHasItAndItsNumberIsInTheFile) {
  test_support::RunDirectory directory;
  RunLock::Failure failure{};
  std::string reason;
  const auto lock = RunLock::take(directory.path(), &failure, &reason);
  ASSERT_NE(lock, nullptr) << reason;
  EXPECT_EQ(failure, RunLock::Failure::none);
  std::ifstream file(directory.path() + "/ipd.lock");
  pid_t pid = 0;
  file >> pid;
  EXPECT_EQ(pid, getpid());
}

TEST(RunLock, TheSecondIsToldWhoHasIt) {
  test_support::RunDirectory directory;
  RunLock::Failure failure{};
  std::string reason;
  const auto lock = RunLock::take(directory.path(), &failure, &reason);
  ASSERT_NE(lock, nullptr) << reason;
  EXPECT_EQ(RunLock::take(directory.path(), &failure, &reason), nullptr);
  EXPECT_EQ(failure, RunLock::Failure::taken);
  EXPECT_EQ(reason, "another ipd (process " + std::to_string(getpid()) + ") runs on " + directory.path());
}

TEST(RunLock, IsFreeAgainWhenItsHolderIsKilled) {
  test_support::RunDirectory directory;
  const std::string flag = directory.path() + "/held";
  test_support::Process holder([&] {
    RunLock::Failure failure{};
    std::string reason;
    const auto lock = RunLock::take(directory.path(), &failure, &reason);
    std::ofstream(flag) << "held";
    pause();
    return lock == nullptr ? 1 : 0;
  });
  ASSERT_TRUE(test_support::wait_until([&] { return access(flag.c_str(), F_OK) == 0; }));
  RunLock::Failure failure{};
  std::string reason;
  EXPECT_EQ(RunLock::take(directory.path(), &failure, &reason), nullptr);
  EXPECT_NE(reason.find("(process " + std::to_string(holder.pid()) + ")"), std::string::npos);
  holder.kill_now();
  EXPECT_NE(RunLock::take(directory.path(), &failure, &reason), nullptr) << reason;
}

TEST(RunLock, ADirectoryThatIsNotThereIsAnErrorAndNotARival) {
  RunLock::Failure failure{};
  std::string reason;
  EXPECT_EQ(RunLock::take("/nowhere-at-all", &failure, &reason), nullptr);
  EXPECT_EQ(failure, RunLock::Failure::error);
  EXPECT_EQ(reason, "/nowhere-at-all/ipd.lock: No such file or directory");
}

class ServiceManager : public testing::Test {
 protected:
  ServiceManager() { unsetenv("NOTIFY_SOCKET"); }
  ~ServiceManager() override {
    unsetenv("NOTIFY_SOCKET");
    if (descriptor >= 0) close(descriptor);
  }
  void listen_on(const std::string &name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    ASSERT_EQ(bind(descriptor, reinterpret_cast<const sockaddr *>(&address), size), 0);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
  }
  std::string received() const {
    char text[256];
    const ssize_t got = recv(descriptor, text, sizeof text, MSG_DONTWAIT);
    return got < 0 ? "" : std::string(text, static_cast<size_t>(got));
  }
  int descriptor = -1;
};

TEST_F(ServiceManager, HearsThroughASocketInTheFileSystem) {
  test_support::RunDirectory directory;
  listen_on(directory.path() + "/notify");
  EXPECT_TRUE(ipd::notify_service_manager("READY=1"));
  EXPECT_EQ(received(), "READY=1");
}

TEST_F(ServiceManager, HearsThroughAnAbstractName) {
  listen_on("@ipd-test-" + std::to_string(getpid()));
  EXPECT_TRUE(ipd::notify_service_manager("STOPPING=1"));
  EXPECT_EQ(received(), "STOPPING=1");
}

TEST_F(ServiceManager, IsNotNeeded) {
  EXPECT_TRUE(ipd::notify_service_manager("READY=1"));
}

TEST_F(ServiceManager, ThatIsNotThereIsNoted) {
  setenv("NOTIFY_SOCKET", "/nowhere-at-all/notify", 1);
  EXPECT_FALSE(ipd::notify_service_manager("READY=1"));
  setenv("NOTIFY_SOCKET", "relative", 1);
  EXPECT_FALSE(ipd::notify_service_manager("READY=1"));
  setenv("NOTIFY_SOCKET", ("/" + std::string(200, 'x')).c_str(), 1);
  EXPECT_FALSE(ipd::notify_service_manager("READY=1"));
}

TEST(Daemon, ItsParentEndsWithZeroWhenItIsLive) {
  test_support::Process parent([] {
    std::string reason;
    ipd::Daemon daemon = ipd::Daemon::start(1, &reason);
    daemon.live();
    _exit(9);
    return 9;
  });
  EXPECT_EQ(parent.wait(), 0);
}

TEST(Daemon, ItsParentEndsWithWhatItFailedWith) {
  test_support::Process parent([] {
    std::string reason;
    const ipd::Daemon daemon = ipd::Daemon::start(1, &reason);
    daemon.failed(3);
    _exit(0);
    return 0;
  });
  EXPECT_EQ(parent.wait(), 3);
}

TEST(Daemon, ItsParentDoesNotWaitForOneThatDied) {
  test_support::Process parent([] {
    std::string reason;
    const ipd::Daemon daemon = ipd::Daemon::start(7, &reason);
    _exit(daemon.started() ? 0 : 1);
    return 0;
  });
  EXPECT_EQ(parent.wait(), 7);
}

TEST(Descriptors, AreAsManyAsWhoeverStartedUsAllows) {
  test_support::Process child([] {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 50;
    limit.rlim_max = std::min<rlim_t>(limit.rlim_max, 70);
    setrlimit(RLIMIT_NOFILE, &limit);
    std::string reason;
    if (!ipd::raise_descriptor_limit(&reason)) return 1;
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur == limit.rlim_max ? 0 : 2;
  });
  EXPECT_EQ(child.wait(), 0);
}

}  // namespace
