// SPDX-License-Identifier: Apache-2.0
// What an ipd left that ended at any moment, or was another version: the next one starts in it, and clients attach.
#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "ip_api.h"
#include "run_directory_fixture.h"
#include "sm/segment.h"

namespace {

using namespace run_directory_test;

constexpr const char *segments[] = {"sysmgr", "mtrack", "mbuf", "tsp", "ip", "im", "urib"};

class IpdLeftovers : public RunDirectoryTest {
 protected:
  void SetUp() override {
    RunDirectoryTest::SetUp();
    directory_ = made("run");
  }
  [[nodiscard]] std::string file(const std::string &name) const { return directory_ + "/" + name; }
  void clear() const {
    for (const auto &entry : std::filesystem::directory_iterator(directory_)) std::filesystem::remove_all(entry.path());
  }
  void start_there() {
    use(directory_);
    start_ipd();
  }
  // A whole system, and its ipd is gone.
  void leave_a_system() {
    clear();
    expect_starts_in(directory_);
  }
  // Another one starts, says this about the file, and serves.
  void expect_replaced(const std::string &name, const std::string &reason) {
    ASSERT_NO_FATAL_FAILURE(start_there());
    EXPECT_TRUE(ipd_said("ipd: " + file(name) + reason) || ipd_said(file(name) + reason)) << name << ipd_.output();
    EXPECT_TRUE(ipd_said("; making a new segment")) << ipd_.output();
    ASSERT_NO_FATAL_FAILURE(expect_served());
    EXPECT_EQ(unfinished_files(directory_), std::vector<std::string>{});
    kill_ipd();
  }
  void write_word(const std::string &name, off_t offset, uint32_t word) const {
    const int descriptor = open(file(name).c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(descriptor, 0) << name;
    EXPECT_EQ(pwrite(descriptor, &word, sizeof word, offset), static_cast<ssize_t>(sizeof word));
    close(descriptor);
  }
  // The file has that many bytes of what it had. Another file: who has the old one mapped keeps it whole.
  void shorten(const std::string &name, off_t length) const {
    std::filesystem::copy_file(file(name), file("shorter"));
    ASSERT_EQ(truncate(file("shorter").c_str(), length), 0);
    ASSERT_EQ(rename(file("shorter").c_str(), file(name).c_str()), 0);
  }
  void kill_at_many_moments(bool from_nothing);

  std::string directory_;
};

// Lets ipd pass that many stops, of which each call of the system has two, before it and after it, and kills it at the
// next. How many it passed, which is fewer if it ended before.
unsigned killed_after(unsigned stops, const std::string &directory, const char *way) {
  std::vector<std::string> command = ipd_test::ipd_command({way, "--run-dir", directory});
  std::vector<char *> words;
  for (std::string &word : command) words.push_back(word.data());
  words.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    setenv("LSAN_OPTIONS", "detect_leaks=0", 1);  // who looks for leaks traces the process, which we do already
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(126);
    execvp(words[0], words.data());
    _exit(127);
  }
  int status = 0;
  unsigned passed = 0;
  while (waitpid(child, &status, 0) == child && WIFSTOPPED(status) && passed < stops) {
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    ++passed;
  }
  if (!WIFSTOPPED(status)) {
    EXPECT_EQ(status, 0) << "it ended with a failure";
    return passed;
  }
  kill(child, SIGKILL);
  EXPECT_EQ(waitpid(child, &status, __WALL), child);
  return passed;
}

void IpdLeftovers::kill_at_many_moments(bool from_nothing) {
  constexpr unsigned moments = 30;
  const unsigned seed = std::random_device{}();
  std::mt19937 random(seed);
  if (!from_nothing) leave_a_system();
  // One that goes on makes its sockets where that one ends.
  const unsigned all = killed_after(1000000, directory_, "--once");
  printf("seed %u, %u stops\n", seed, all);
  ASSERT_GT(all, 2 * moments);
  for (unsigned moment = 0; moment < moments; ++moment) {
    if (from_nothing) clear();
    const unsigned stop = all * moment / moments + static_cast<unsigned>(random() % (all / moments));
    (void)killed_after(stop, directory_, "--foreground");
    ASSERT_NO_FATAL_FAILURE(expect_starts_in(directory_)) << "killed at stop " << stop;
    ASSERT_FALSE(HasFailure()) << "killed at stop " << stop;
  }
}

TEST_F(IpdLeftovers, OfAStartThatWasKilledAtAnyMomentAreStartedIn) {
  kill_at_many_moments(true);
}

TEST_F(IpdLeftovers, OfATakeOverThatWasKilledAtAnyMomentAreStartedIn) {
  kill_at_many_moments(false);
}

TEST_F(IpdLeftovers, SocketsOfADeadOneAreReplaced) {
  start_there();
  expect_served();
  kill_ipd();
  for (const char *socket : {"mts/263", "mts/264"}) {
    EXPECT_EQ(access(file(socket).c_str(), F_OK), 0) << "a killed one takes nothing away";
  }
  start_there();
  expect_served();
  EXPECT_FALSE(ipd_said("no requests are served")) << ipd_.output();
  EXPECT_FALSE(ipd_said("no packets are taken")) << ipd_.output();
}

TEST_F(IpdLeftovers, DirectoriesForSocketsWithoutTheirModeAreFinished) {
  for (const bool inner : {false, true}) {
    clear();
    ASSERT_EQ(mkdir(file("mts").c_str(), 0700), 0);
    ASSERT_TRUE(!inner || mkdir(file("mts/dynamic").c_str(), 0700) == 0);
    expect_starts_in(directory_);
    struct stat what {};
    ASSERT_EQ(stat(file("mts").c_str(), &what), 0);
    EXPECT_EQ(what.st_mode & 07777, 0755u) << "other users' clients look for sockets there";
    ASSERT_EQ(stat(file("mts/dynamic").c_str(), &what), 0);
    EXPECT_EQ(what.st_mode & 07777, 01777u) << "other users' clients make sockets there";
  }
}

TEST_F(IpdLeftovers, ALockThatNobodyHoldsIsTaken) {
  for (const char *text : {"", "1\n", "not a number", "999999999999999999999999999999\n"}) {
    clear();
    write_file(file("ipd.lock"), text);
    expect_starts_in(directory_);
  }
}

TEST_F(IpdLeftovers, ASecondOneIsRefusedAndTheFirstGoesOn) {
  start_there();
  expect_served();
  EXPECT_EQ(refused(directory_, 3), "ipd: another ipd (process " + std::to_string(ipd_.pid()) + ") runs on " +
                                        directory_ +
                                        "; stop that one, or give this one a run directory of its own (--run-dir)\n");
  expect_served();
  ip("addr add 10.0.0.2/24 dev ib");
  expect_same_as_kernel();
}

TEST_F(IpdLeftovers, SegmentsOfAnotherVersionAreReplaced) {
  leave_a_system();
  for (const char *name : segments) {
    write_word(name, offsetof(rsw::SegmentHeader, layout_hash), 0x12345678);
    expect_replaced(name, " has layout 0x12345678, this library has 0x");
    write_word(name, offsetof(rsw::SegmentHeader, header_version), 77);
    expect_replaced(name, " has a header of version 77, this library reads 1");
    write_word(name, offsetof(rsw::SegmentHeader, magic), 0x1234);
    expect_replaced(name, " is not a segment: its first word is 0x00001234");
  }
}

TEST_F(IpdLeftovers, AllSegmentsOfAnotherVersionAreReplacedAtOnce) {
  leave_a_system();
  for (const char *name : segments) write_word(name, offsetof(rsw::SegmentHeader, layout_hash), 1);
  for (const char *name : {"urib"}) expect_replaced(name, " has layout 0x00000001");
  start_there();
  expect_served();
  EXPECT_FALSE(ipd_said("making a new segment")) << ipd_.output();
}

TEST_F(IpdLeftovers, TruncatedAndDamagedSegmentsAreReplaced) {
  leave_a_system();
  for (const char *name : segments) {
    struct stat what {};
    ASSERT_EQ(stat(file(name).c_str(), &what), 0);
    shorten(name, what.st_size / 2);
    expect_replaced(name, " is truncated: ");
    shorten(name, 50);
    expect_replaced(name, " is truncated: it ends inside its header");
    shorten(name, 0);
    expect_replaced(name, " is empty");
    write_word(name, offsetof(rsw::SegmentHeader, used_end), 0x10);
    expect_replaced(name, " is damaged: ");
  }
}

TEST_F(IpdLeftovers, WhatIsNoFileInPlaceOfASegmentIsReplaced) {
  leave_a_system();
  for (const char *name : segments) {
    ASSERT_EQ(unlink(file(name).c_str()), 0);
    ASSERT_EQ(mkfifo(file(name).c_str(), 0600), 0);
    expect_replaced(name, " is not a regular file");
    ASSERT_EQ(unlink(file(name).c_str()), 0);
    ASSERT_EQ(symlink("/etc/passwd", file(name).c_str()), 0);
    expect_replaced(name, ": Too many levels of symbolic links");
  }
}

TEST_F(IpdLeftovers, AnUnreadableListOfContextIdsIsWrittenAnew) {
  for (const char *text : {"", "garbage", "{\"ids\": [", "[1, 2, 3]", "-1 x\n\n\n"}) {
    clear();
    write_file(file("ipd.contexts"), text);
    expect_starts_in(directory_);
  }
}

}  // namespace
