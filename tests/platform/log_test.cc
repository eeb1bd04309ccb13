// SPDX-License-Identifier: Apache-2.0
// The channels as a process sees them: what comes out on standard error or in the debug file, and what the environment
// changes.
#include "log.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log/log_writer.h"
#include "platform/standard_error.h"
#include "support/run_directory.h"

namespace {

using test_support::Environment;
using test_support::RunDirectory;
using test_support::standard_error_of;

// Logging to standard error alone, and the channels as they were afterwards.
class Log : public testing::Test {
 protected:
  void SetUp() override { rsw::read_log_environment(); }
  ~Log() override {
    sdwrap_sys_facility = facility_;
    log_.reset();
    rsw::read_log_environment();
  }
  libip_facility *facility_ = sdwrap_sys_facility;
  std::optional<Environment> log_{std::in_place, "RSW_LOG", "stderr"};
};

// What the settings say while `name` is `value`, and what `action` then writes.
std::string with(const char *name, const char *value, const std::function<void()> &action) {
  const Environment variable(name, value);
  const std::string complaint = standard_error_of([] { rsw::read_log_environment(); });
  return complaint + standard_error_of(action);
}

std::string own_prefix() {
  return std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) + "]: ";
}

std::string content_of(const std::string &path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

uint32_t lines_in(const std::string &text) {
  return static_cast<uint32_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST_F(Log, ACatalogueMessageIsOneLineWithProgramAndProcess) {
  const std::string text = standard_error_of(
      [] { trel_obun_syslog(syslog_vmsg_params, 3, "<<%%%s-%d-IP_FAILURE>> Failed to %s", "IP", 3, "call x()"); });
  EXPECT_EQ(text, own_prefix() + "<<%IP-3-IP_FAILURE>> Failed to call x()\n");
}

TEST_F(Log, ALineBreakAtTheEndOfAMessageIsNotDoubled) {
  EXPECT_EQ(standard_error_of([] { trel_obun_syslog(nullptr, 6, "Suppressed (%s)\n", "x"); }),
            own_prefix() + "Suppressed (x)\n");
}

TEST_F(Log, AForgedLineBreakInsideAMessageDoesNotMakeASecondLine) {
  EXPECT_EQ(standard_error_of([] { trel_obun_syslog(nullptr, 3, "name %s", "eth0\nroot[1]: \x1b[2J"); }),
            own_prefix() + "name eth0?root[1]: ?[2J\n");
}

TEST_F(Log, AMessageThatIsTooLongIsCut) {
  const std::string text =
      standard_error_of([] { trel_obun_syslog(nullptr, 3, "%s", std::string(5000, 'a').c_str()); });
  EXPECT_EQ(text, own_prefix() + std::string(1023, 'a') + "\n");
}

TEST_F(Log, NoneSilencesTheOperatorsChannel) {
  EXPECT_EQ(with("RSW_LOG", "none", [] { trel_obun_syslog(nullptr, 0, "x"); }), "");
}

TEST_F(Log, SyslogAloneWritesNothingToStandardError) {
  EXPECT_EQ(with("RSW_LOG", "syslog", [] { trel_obun_syslog(nullptr, 7, "one line of a test"); }), "");
}

TEST_F(Log, BothChannelsAreTheDefault) {
  EXPECT_EQ(with("RSW_LOG", nullptr, [] { trel_obun_syslog(nullptr, 7, "one line of a test"); }),
            own_prefix() + "one line of a test\n");
}

TEST_F(Log, AnUnknownChannelIsNamedAndLeftOut) {
  const std::string text = with("RSW_LOG", "stderr,journal", [] { trel_obun_syslog(nullptr, 3, "x"); });
  EXPECT_EQ(text, std::string(program_invocation_short_name) +
                      ": RSW_LOG=stderr,journal: \"journal\" is none of syslog, stderr, none; it is left out\n" +
                      own_prefix() + "x\n");
}

TEST_F(Log, NoKnownChannelAtAllMeansTheDefault) {
  const std::string text = with("RSW_LOG", "", [] { trel_obun_syslog(nullptr, 7, "one line of a test"); });
  EXPECT_NE(text.find("names no channel; logging to syslog and stderr"), std::string::npos) << text;
  EXPECT_NE(text.find(own_prefix() + "one line of a test\n"), std::string::npos) << text;
}

TEST_F(Log, NoneBesideAnotherChannelIsLeftOut) {
  const std::string text = with("RSW_LOG", "none,stderr", [] { trel_obun_syslog(nullptr, 3, "x"); });
  EXPECT_NE(text.find("\"none\" beside others is left out"), std::string::npos) << text;
  EXPECT_NE(text.find(own_prefix() + "x\n"), std::string::npos) << text;
}

TEST_F(Log, TheFacilityIsThereWithTheProgramsNameAndLevelSix) {
  ASSERT_NE(sdwrap_sys_facility, nullptr);
  EXPECT_STREQ(sdwrap_sys_facility->name, program_invocation_short_name);
  EXPECT_EQ(sdwrap_sys_facility->level, 6);
}

TEST_F(Log, TheLevelVariableSetsTheFacilitysLevel) {
  EXPECT_EQ(with("RSW_LOG_LEVEL", "2", [] { EXPECT_EQ(sdwrap_sys_facility->level, 2); }), "");
}

TEST_F(Log, ALevelThatIsNotOneDigitUpToSevenIsRefused) {
  for (const char *value : {"8", "-1", "x", "", "33", "3 "}) {
    const std::string text = with("RSW_LOG_LEVEL", value, [] { EXPECT_EQ(sdwrap_sys_facility->level, 6); });
    EXPECT_NE(text.find(std::string("RSW_LOG_LEVEL=") + value + " is not a level from 0 to 7; using 6"),
              std::string::npos)
        << text;
  }
}

TEST_F(Log, OwnLinesAboveTheFacilitysLevelAreDropped) {
  EXPECT_EQ(with("RSW_LOG_LEVEL", "3", [] { rsw::log_line(4, "warning %d", 1); }), "");
  EXPECT_EQ(with("RSW_LOG_LEVEL", "3", [] { rsw::log_line(3, "error %d", 1); }), own_prefix() + "error 1\n");
}

TEST_F(Log, ErrnoSurvivesALine) {
  standard_error_of([] {
    close(STDERR_FILENO);
    errno = ENOENT;
    rsw::log_line(3, "x");
    trel_obun_syslog(nullptr, 3, "x");
    syslog_perror("x");
    EXPECT_EQ(errno, ENOENT);
  });
}

TEST_F(Log, PerrorAddsTheReasonAfterTheText) {
  EXPECT_EQ(standard_error_of([] {
              errno = ENOENT;
              syslog_perror("ip_attach_shm: shm_open\n");
            }),
            own_prefix() + "ip_attach_shm: shm_open: No such file or directory\n");
}

TEST_F(Log, PerrorWithoutAReasonIsTheTextAlone) {
  EXPECT_EQ(standard_error_of([] {
              errno = 0;
              syslog_perror("text");
            }),
            own_prefix() + "text\n");
}

TEST_F(Log, ATracebackNamesTheModulesOfTheCallChain) {
  const std::string text = standard_error_of([] { syslog_traceback(nullptr, "IP", 3, "IP_INTERNAL_ERROR"); });
  EXPECT_EQ(text.find(own_prefix() + "<<%IP-3-IP_INTERNAL_ERROR>> traceback #0: log_test+0x"), 0u) << text;
  EXPECT_NE(text.find("traceback #1: "), std::string::npos) << text;
}

TEST_F(Log, WhatARateHeldBackIsToldOnceItsWindowHasEnded) {
  static msg_error_rec storm{};
  storm.name = "STORM";
  storm.rate = 2;
  storm.min_level = 3;
  static msg_error_rec other{};
  other.name = "OTHER";
  uint32_t allowed = 0;
  const std::string during = standard_error_of([&] {
    for (int i = 0; i < 5; ++i) allowed += syslog_msg_rate_limit(&storm, "text");
  });
  EXPECT_EQ(allowed, 2u);
  EXPECT_EQ(during, "");
  std::string told;
  EXPECT_TRUE(test_support::wait_until(
      [&] {
        told += standard_error_of([] { syslog_msg_rate_limit(&other, "text"); });
        return !told.empty();
      },
      std::chrono::seconds(30)));
  EXPECT_EQ(told, own_prefix() + "STORM: 3 messages suppressed\n");
}

TEST_F(Log, ANullRecordIsNotAllowed) {
  EXPECT_EQ(syslog_msg_rate_limit(nullptr, "text"), 0u);
}

TEST_F(Log, TheRateLimiterPrintsNothingItself) {
  static msg_error_rec record{};
  record.name = "QUIET";
  record.rate = 1;
  EXPECT_EQ(standard_error_of([] {
              for (int i = 0; i < 5; ++i) syslog_msg_rate_limit(&record, "text");
            }),
            "");
}

TEST_F(Log, DebugIsOffByDefault) {
  EXPECT_EQ(with("RSW_DEBUG", nullptr,
                 [] {
                   EXPECT_EQ(sdwrap_chk_int(150, 0, 0, 1), 0u);
                   buginf("x");
                   buginf_func(1, sdwrap_dbg_modname, sdwrap_library_dbg_pid_and_tag, 0, "x");
                 }),
            "");
}

TEST_F(Log, DebugOnStandardErrorCarriesModuleAndProcess) {
  for (const char *value : {"1", "stderr"}) {
    const std::string text = with("RSW_DEBUG", value, [] {
      EXPECT_NE(sdwrap_chk_int(150, 0, 0, 1), 0u);
      buginf_func(1, sdwrap_dbg_modname, sdwrap_library_dbg_pid_and_tag, 0, "new_subnet: %s", "10.0.0.0");
    });
    EXPECT_NE(text.find(std::string(" ") + program_invocation_short_name + " ip [" + std::to_string(getpid()) +
                        "] new_subnet: 10.0.0.0\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(lines_in(text), 1u);
  }
  rsw::read_log_environment();
  EXPECT_EQ(sdwrap_chk_int(150, 0, 0, 1), 0u);
}

TEST_F(Log, ADebugLineEndsInExactlyOneLineBreak) {
  const std::string text = with("RSW_DEBUG", "1", [] {
    buginf("with\n");
    buginf("without");
  });
  EXPECT_EQ(lines_in(text), 2u);
}

TEST_F(Log, ADebugFileIsAppendedToAndPrivate) {
  const RunDirectory directory;
  const std::string path = directory.path() + "/debug";
  const mode_t mask = umask(0);
  EXPECT_EQ(with("RSW_DEBUG", path.c_str(), [] { buginf("one"); }), "");
  EXPECT_EQ(with("RSW_DEBUG", path.c_str(), [] { buginf("two"); }), "");
  umask(mask);
  struct stat file {};
  ASSERT_EQ(stat(path.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777, 0600u);
  const std::string text = content_of(path);
  EXPECT_EQ(lines_in(text), 2u);
  EXPECT_LT(text.find(" one\n"), text.find(" two\n")) << text;
}

TEST_F(Log, ADebugFileThatCannotBeOpenedLeavesDebugOff) {
  const std::string text = with("RSW_DEBUG", "/nowhere/at/all", [] { EXPECT_EQ(sdwrap_chk_int(150, 0, 0, 1), 0u); });
  EXPECT_NE(text.find("RSW_DEBUG=/nowhere/at/all cannot be opened (No such file or directory); debug output is off"),
            std::string::npos)
      << text;
}

TEST_F(Log, ADescriptorThatTheProgramReusedGetsNoDebugLines) {
  const RunDirectory directory;
  const std::string path = directory.path() + "/debug";
  const std::string other = directory.path() + "/other";
  with("RSW_DEBUG", path.c_str(), [&] {
    // A daemon's way: everything closed, and the first free number taken for something else.
    const int before = open("/dev/null", O_RDONLY | O_CLOEXEC);
    std::vector<std::pair<int, int>> replaced;
    for (int fd = 0; fd < before + 8; ++fd) {
      char link[256] = "";
      const std::string entry = "/proc/self/fd/" + std::to_string(fd);
      if (readlink(entry.c_str(), link, sizeof link - 1) > 0 && path == link) {
        const int file = open(other.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        dup2(file, fd);
        close(file);
        replaced.emplace_back(fd, file);
      }
    }
    close(before);
    ASSERT_EQ(replaced.size(), 1u);
    buginf("line");
    close(replaced.front().first);
  });
  rsw::read_log_environment();
  EXPECT_EQ(content_of(other), "");
  EXPECT_NE(content_of(path).find(" line\n"), std::string::npos);
}

TEST_F(Log, LinesOfThreadsStayWhole) {
  const std::string text = standard_error_of([] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([t] {
        const std::string letters(200, static_cast<char>('a' + t));
        for (int i = 0; i < 100; ++i) rsw::log_line(3, "%s", letters.c_str());
      });
    }
    for (std::thread &thread : threads) thread.join();
  });
  std::istringstream lines(text);
  uint32_t whole = 0;
  for (std::string line; std::getline(lines, line);) {
    const std::string letters = line.substr(own_prefix().size());
    whole += letters == std::string(200, letters[0]) ? 1 : 0;
  }
  EXPECT_EQ(whole, 400u);
}

TEST_F(Log, AChildAfterAForkHasItsOwnProcessIdInDebugLines) {
  const std::string text = with("RSW_DEBUG", "1", [] {
    const pid_t child = fork();
    if (child == 0) {
      buginf_func(1, sdwrap_dbg_modname, sdwrap_library_dbg_pid_and_tag, 0, "child %d", static_cast<int>(getpid()));
      _exit(0);
    }
    waitpid(child, nullptr, 0);
  });
  const size_t at = text.find("child ");
  ASSERT_NE(at, std::string::npos) << text;
  const std::string pid = text.substr(at + 6, text.find('\n', at) - at - 6);
  EXPECT_NE(text.find("ip [" + pid + "] child"), std::string::npos) << text;
}

std::vector<rsw::HistoryEvent> events() {
  std::vector<rsw::HistoryEvent> all;
  rsw::each_history_event([&](const rsw::HistoryEvent &event) { all.push_back(event); });
  return all;
}

TEST_F(Log, TheHistoryKeepsWhatAnEventSays) {
  ASSERT_NE(sdwrap_hist_event_subtype_check(0x730000, 150), 0u);
  sdwrap_hist_event(0x730000, 150, "%s hexdump %d bytes:\n", "title", 20);
  const rsw::HistoryEvent last = events().back();
  EXPECT_STREQ(last.text, "title hexdump 20 bytes:\n");
  EXPECT_EQ(last.subtype, 0x730000u);
  EXPECT_EQ(last.level, 150u);
}

TEST_F(Log, TheHistoryKeepsTheLastEventsInOrder) {
  for (int i = 0; i < 1000; ++i) sdwrap_hist_event(1, 2, "event %d", i);
  const std::vector<rsw::HistoryEvent> all = events();
  ASSERT_EQ(all.size(), 256u);
  for (size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(all[i].text, "event " + std::to_string(744 + i));
    if (i > 0) {
      EXPECT_EQ(all[i].number, all[i - 1].number + 1);
      EXPECT_GE(all[i].monotonic_ns, all[i - 1].monotonic_ns);
    }
  }
}

TEST_F(Log, AnEventTextThatIsTooLongIsCut) {
  sdwrap_hist_event(1, 2, "%s", std::string(1000, 'b').c_str());
  EXPECT_EQ(events().back().text, std::string(159, 'b'));
}

TEST_F(Log, HistoryOffKeepsNothing) {
  sdwrap_hist_event(1, 2, "before");
  with("RSW_HISTORY", "off", [] {
    EXPECT_EQ(sdwrap_hist_event_subtype_check(1, 2), 0u);
    sdwrap_hist_event(1, 2, "after");
  });
  EXPECT_STREQ(events().back().text, "before");
}

TEST_F(Log, AHistoryValueThatIsNeitherOnNorOffIsNamed) {
  const std::string text = with("RSW_HISTORY", "maybe", [] { EXPECT_NE(sdwrap_hist_event_subtype_check(1, 2), 0u); });
  EXPECT_NE(text.find("RSW_HISTORY=maybe is neither on nor off"), std::string::npos) << text;
}

TEST_F(Log, EventsOfThreadsAreEachKeptWhole) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 500; ++i) sdwrap_hist_event(static_cast<uint32_t>(t), 2, "thread %d", t);
    });
  }
  threads.emplace_back([] {
    for (int i = 0; i < 20; ++i) {
      for (const rsw::HistoryEvent &event : events()) EXPECT_LT(strlen(event.text), sizeof event.text);
    }
  });
  for (std::thread &thread : threads) thread.join();
  for (const rsw::HistoryEvent &event : events()) EXPECT_EQ(event.text, "thread " + std::to_string(event.subtype));
}

TEST(ProcessWords, SnprintfCutsAndTellsTheFullLength) {
  char text[5];
  EXPECT_EQ(ksink_snprintf(text, sizeof text, "%s", "longer"), 6);
  EXPECT_STREQ(text, "long");
}

TEST(ProcessWords, AnEndpointIdIsStableAndDiffersBetweenProcesses) {
  EXPECT_EQ(ksink_get_epid(4711), ksink_get_epid(4711));
  EXPECT_NE(ksink_get_epid(4711), ksink_get_epid(4712));
  EXPECT_NE(ksink_get_epid(4194303), 0u);
}

TEST(ProcessWords, ProcessIdZeroIsTheCaller) {
  EXPECT_EQ(ksink_get_epid(0), ksink_get_epid(static_cast<uint32_t>(getpid())));
}

TEST(ProcessWords, TheClockIsSecondsThenNanosecondsAndNeverGoesBack) {
  alignas(8) unsigned char block[20];
  memset(block, 0xee, sizeof block);
  uint32_t previous[2] = {0, 0};
  for (int i = 0; i < 1000; ++i) {
    trel_sys_mclock_get(block + 4);
    uint32_t now[2];
    memcpy(now, block + 4, sizeof now);
    ASSERT_LT(now[1], 1000000000u);
    ASSERT_TRUE(now[0] > previous[0] || (now[0] == previous[0] && now[1] >= previous[1]));
    memcpy(previous, now, sizeof now);
  }
  timespec reference{};
  clock_gettime(CLOCK_MONOTONIC, &reference);
  EXPECT_LE(static_cast<uint32_t>(reference.tv_sec) - previous[0], 60u);
  for (size_t i : {0u, 3u, 12u, 19u}) EXPECT_EQ(block[i], 0xee) << i;
}

TEST(ProcessWords, RandomWordsDiffer) {
  std::vector<uint32_t> words;
  for (int i = 0; i < 64; ++i) words.push_back(ksink_trel_rand(0));
  std::sort(words.begin(), words.end());
  EXPECT_GT(std::unique(words.begin(), words.end()) - words.begin(), 60);
}

}  // namespace
