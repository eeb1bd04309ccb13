// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ipd/control/pidfd_watch.h"
#include "ipd/control_rig.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using namespace control_rig;
using test_support::Process;
using test_support::wait_until;

class ControlProcessesTest : public testing::TestWithParam<int> {
 protected:
  ControlProcessesTest() {
    watch.error = GetParam();
    processes.on_gone([this](int32_t pid) { gone.push_back(pid); });
    watch.begin(10);
  }
  void look_and_settle() {
    processes.look_at_all();
    processes.settle();
  }
  using Pids = std::vector<int32_t>;

  FakeWatch watch;
  Pids gone;
  Processes processes{watch};
};

// With descriptors, and where there are none left.
INSTANTIATE_TEST_SUITE_P(Watches, ControlProcessesTest, testing::Values(0, EMFILE, ENOMEM));

TEST_P(ControlProcessesTest, AProcessThatLivesIsNotGone) {
  processes.note(10);
  processes.note(10);
  look_and_settle();
  EXPECT_TRUE(processes.alive(10));
  EXPECT_EQ(gone, Pids{});
  EXPECT_EQ(processes.noted(), 1u);
}

TEST_P(ControlProcessesTest, AProcessThatEndedIsGoneOnce) {
  processes.note(10);
  watch.end(10);
  EXPECT_FALSE(processes.alive(10));
  look_and_settle();
  look_and_settle();
  EXPECT_EQ(gone, Pids{10});
  EXPECT_EQ(processes.noted(), 0u);
  EXPECT_TRUE(watch.handles.empty()) << "its descriptor is given back";
}

TEST_P(ControlProcessesTest, ItIsNotGoneBeforeItsLastMessageIsHandled) {
  processes.note(10);
  watch.end(10);
  processes.look_at_all();
  processes.note(10);
  EXPECT_EQ(gone, Pids{});
  processes.settle();
  EXPECT_EQ(gone, Pids{10});
}

TEST_P(ControlProcessesTest, AnotherProcessOfTheSameNumberIsAnother) {
  processes.note(10);
  watch.end(10);
  watch.begin(10);
  processes.note(10);
  EXPECT_EQ(gone, Pids{10}) << "before the message of the new one is handled";
  look_and_settle();
  EXPECT_EQ(gone, Pids{10});
  EXPECT_TRUE(processes.alive(10));
}

TEST_P(ControlProcessesTest, AProcessThatEndedBeforeItsFirstMessageIsGoneRightAfter) {
  processes.note(11);
  EXPECT_FALSE(processes.alive(11));
  EXPECT_EQ(gone, Pids{});
  processes.settle();
  EXPECT_EQ(gone, Pids{11});
}

TEST_P(ControlProcessesTest, WhoNeverSentAnythingIsNotKnown) {
  EXPECT_FALSE(processes.alive(10));
}

TEST_P(ControlProcessesTest, NothingIsLeftOpen) {
  {
    Processes more(watch);
    more.note(10);
  }
  EXPECT_TRUE(watch.handles.empty());
}

class PidfdWatchTest : public testing::Test {
 protected:
  PidfdWatchTest() : watch(PidfdWatch::open(&reason)) {}
  void SetUp() override { ASSERT_NE(watch, nullptr) << reason; }

  std::string reason;
  std::unique_ptr<PidfdWatch> watch;
};

TEST_F(PidfdWatchTest, AChildThatIsKilledEnds) {
  Process child([] { return pause(); });
  const int handle = watch->watch(child.pid());
  ASSERT_GE(handle, 0);
  EXPECT_FALSE(watch->ended(handle));
  EXPECT_TRUE(watch->ended_processes().empty());
  kill(child.pid(), SIGKILL);
  EXPECT_TRUE(wait_until([&] { return watch->ended(handle); })) << "though nobody has reaped it";
  EXPECT_EQ(watch->ended_processes(), std::vector<int32_t>{child.pid()});
  watch->forget(handle);
  EXPECT_TRUE(watch->ended_processes().empty());
}

TEST_F(PidfdWatchTest, AChildThatIsGoneCannotBeWatched) {
  Process child([] { return 0; });
  const pid_t pid = child.pid();
  ASSERT_EQ(child.wait(), 0);
  EXPECT_EQ(watch->watch(pid), -ESRCH);
  EXPECT_EQ(watch->start_time(pid), 0u);
}

TEST_F(PidfdWatchTest, AChildThatNobodyReapedHasEndedToo) {
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) _exit(0);
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(watch->watch(pid), -ESRCH);
  EXPECT_EQ(watch->start_time(pid), 0u);
  ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST_F(PidfdWatchTest, TheBeginningOfAProcessStaysTheSame) {
  const uint64_t begun = watch->start_time(getpid());
  EXPECT_NE(begun, 0u);
  EXPECT_EQ(watch->start_time(getpid()), begun);
}

TEST_F(PidfdWatchTest, WithoutDescriptorsTheBeginningCanStillBeRead) {
  const uint64_t begun = watch->start_time(getpid());
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  std::vector<int> taken;
  rlimit few = before;
  few.rlim_cur = std::min<rlim_t>(64, before.rlim_max);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  for (int fd = dup(0); fd >= 0; fd = dup(0)) taken.push_back(fd);
  const int refused = watch->watch(getpid());
  const uint64_t read = watch->start_time(getpid());
  const uint64_t read_again = watch->start_time(getpid());
  for (const int fd : taken) close(fd);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(refused, -EMFILE);
  EXPECT_EQ(read, begun);
  EXPECT_EQ(read_again, begun);
}

}  // namespace
